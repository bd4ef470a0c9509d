#include "diagnostics/DynamicStoreText.h"

#include "platform/DynamicStore.h"
#include "util/Format.h"

namespace korvo {
namespace {

std::string indent(int depth) { return std::string(static_cast<std::size_t>(depth) * 2, ' '); }

std::string describeScalar(const Value& value) {
    if (const auto* text = value.asString()) return *text;
    if (value.isData()) return formatString("<data> %zu bytes", value.asData()->size());
    if (value.isBooleanStorage()) return *value.boolValue() ? "TRUE" : "FALSE";
    if (value.isRealStorage()) return formatString("%g", *value.doubleValue());
    if (const auto number = value.integerValue()) return formatString("%lld", static_cast<long long>(*number));
    return std::string();
}

}  // namespace

std::vector<std::string> networkDiagnosticsStoreKeys(const std::string& tunnelInterface) {
    std::vector<std::string> keys = {"State:/Network/Global/IPv4", "State:/Network/Global/DNS"};
    if (tunnelInterface.empty()) return keys;
    for (const std::string& service : {tunnelInterface, "wireguard-" + tunnelInterface}) {
        for (const char* entity : {"IPv4", "IPv6", "DNS"}) {
            keys.push_back("State:/Network/Service/" + service + "/" + entity);
        }
    }
    return keys;
}

std::string describeStoreValue(const Value& value, int depth) {
    if (const auto* array = value.asArray()) {
        std::string text = "<array> {\n";
        for (std::size_t i = 0; i < array->size(); ++i) {
            text += indent(depth + 1) + std::to_string(i) + " : " + describeStoreValue((*array)[i], depth + 1) + "\n";
        }
        return text + indent(depth) + "}";
    }
    if (const auto* dictionary = value.asDictionary()) {
        std::string text = "<dictionary> {\n";
        for (const auto& [key, entry] : *dictionary) {
            text += indent(depth + 1) + key + " : " + describeStoreValue(entry, depth + 1) + "\n";
        }
        return text + indent(depth) + "}";
    }
    return describeScalar(value);
}

std::string dynamicStoreKeysText(platform::DynamicStoreSession& session, const std::vector<std::string>& keys) {
    std::string text;
    for (const std::string& key : keys) {
        text += "### " + key + "\n";
        const auto value = session.copyValue(key);
        text += value ? describeStoreValue(Value(*value)) + "\n" : std::string("  No such key\n");
    }
    return text;
}

}  // namespace korvo
