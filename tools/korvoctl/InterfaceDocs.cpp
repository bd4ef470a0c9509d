#include "InterfaceDocs.h"

#include "util/KorvoIdentity.h"
#include "util/ProtocolArguments.h"
#include "platform/linux/bus/DbusValueCodec.h"
#include "util/FileSystem.h"

namespace korvo::ctl {
namespace {

std::string replyDescription(ReplyShape shape) {
    switch (shape) {
        case ReplyShape::None: return "nothing (an empty `a{sv}` when the caller asks for a reply)";
        case ReplyShape::Error: return "`error` on failure";
        case ReplyShape::Pid: return "`error` on failure; `pid` (i)";
        case ReplyShape::Result: return "`error` on failure; `result` (s) when not nil";
    }
    return "";
}

std::string keysDescription(const Operation& operation) {
    if (operation.arguments.empty()) return "none";
    std::string out;
    for (const auto& argument : operation.arguments) {
        if (!out.empty()) out += ", ";
        out += "`" + argument.key + "` (" + platform::dbus::signatureForArgumentType(argument.type) + ")";
    }
    return out;
}

std::string xmlEscape(const std::string& text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            default: out += c;
        }
    }
    return out;
}

}  // namespace

std::string busInterfaceMarkdown(const std::vector<Operation>& operations) {
    const auto names = platform::BusServiceNames::forService(HelperServiceName);
    std::string md;
    md += "# The request interface on the system bus\n\n";
    md += "<!-- Generated from the operation table by `korvoctl --write-docs docs`; do not edit by hand. -->\n\n";
    md += "The helper owns the name `" + names.busName + "` on the system bus and exports the object `" +
          names.objectPath + "` with the interface `" + names.interfaceName +
          "` (introspection data: [" + IntrospectionDocumentName + "](" + IntrospectionDocumentName + ")).\n\n";
    md += "Every method takes one `a{sv}` of named arguments and returns one `a{sv}`.\n\n";
    md += "- An absent key is nil; nil and the empty string stay apart.\n";
    md += "- A number may be sent as any D-Bus integer type (y, n, q, i, u, x, t) as long as its value fits the "
          "declared type; a boolean is sent as `b`.\n";
    md += "- A declared key whose value is of another type is refused with "
          "`org.freedesktop.DBus.Error.InvalidArgs`, whose message names the key. Keys an operation does not "
          "declare are ignored.\n";
    md += "- The reply holds `error` only on failure: an `a{sv}` with `domain` (s), `code` (x), `description` (s) "
          "and `userInfo` (a{sv}). Where an operation returns more, the reply holds `pid` (i) or `result` (s).\n";
    md += "- Only the signed client application is served. Any other caller gets "
          "`org.freedesktop.DBus.Error.AccessDenied` and nothing changes; the decision is made on a caller's first "
          "request and kept until it leaves the bus.\n";
    md += "- Each caller's requests run one after the other, in the order sent; different callers are served "
          "concurrently. A caller with too many requests waiting gets `org.freedesktop.DBus.Error.LimitsExceeded`.\n";
    md += "- Operations without a reply are normally sent with NO_REPLY_EXPECTED.\n\n";
    md += "| method | argument keys (type) | reply |\n|---|---|---|\n";
    for (const auto& op : operations) {
        md += "| `" + op.name + "` | " + keysDescription(op) + " | " + replyDescription(op.reply) + " |\n";
    }
    md += "\nFrom the command line, `korvoctl OPERATION KEY=VALUE ...` sends one request (`korvoctl --help` lists "
          "the operations and their keys).\n";
    return md;
}

std::string introspectionXml(const std::vector<Operation>& operations) {
    const auto names = platform::BusServiceNames::forService(HelperServiceName);
    std::string xml;
    xml += "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n";
    xml += " \"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n";
    xml += "<!-- Generated from the operation table by `korvoctl --write-docs docs`; do not edit by hand. -->\n";
    xml += "<node name=\"" + names.objectPath + "\">\n";
    xml += "  <interface name=\"" + names.interfaceName + "\">\n";
    for (const auto& op : operations) {
        xml += "    <method name=\"" + xmlEscape(op.name) + "\">\n";
        xml += "      <arg name=\"arguments\" type=\"a{sv}\" direction=\"in\"/>\n";
        xml += "      <arg name=\"reply\" type=\"a{sv}\" direction=\"out\"/>\n";
        for (const auto& argument : op.arguments) {
            xml += "      <annotation name=\"com.tallowmar.korvo.Argument." + xmlEscape(argument.key) + "\" value=\"" +
                   platform::dbus::signatureForArgumentType(argument.type) + "\"/>\n";
        }
        for (const auto& [key, type] : replyTypes(op.reply)) {
            xml += "      <annotation name=\"com.tallowmar.korvo.Reply." + xmlEscape(key) + "\" value=\"" +
                   platform::dbus::signatureForArgumentType(type) + "\"/>\n";
        }
        if (op.reply == ReplyShape::None) {
            xml += "      <annotation name=\"org.freedesktop.DBus.Method.NoReply\" value=\"true\"/>\n";
        }
        xml += "    </method>\n";
    }
    xml += "  </interface>\n</node>\n";
    return xml;
}

std::optional<std::string> writeInterfaceDocs(const std::string& directory) {
    const auto& operations = helperOperations();
    if (auto error = writeFileAtomically(appendPathComponent(directory, BusInterfaceDocumentName),
                                         busInterfaceMarkdown(operations))) {
        return error->displayText();
    }
    if (auto error = writeFileAtomically(appendPathComponent(directory, IntrospectionDocumentName),
                                         introspectionXml(operations))) {
        return error->displayText();
    }
    return std::nullopt;
}

}  // namespace korvo::ctl
