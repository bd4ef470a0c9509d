#include "platform/linux/bus/DbusValueCodec.h"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <string_view>

#include <sdbus-c++/Error.h>
#include <sdbus-c++/Types.h>

namespace korvo::platform::dbus {
namespace {

// Peeks the type code of the next item; '\0' at the end of a container.
char peek(sdbus::Message& m, std::string& contents) {
    std::string type;
    m.peekType(type, contents);
    return type.empty() ? '\0' : type[0];
}

std::optional<Value> readItem(sdbus::Message& m);

// The items up to the end of the open container; nullopt when one of them
// has no Value form (all are consumed).
std::optional<Array> readItems(sdbus::Message& m) {
    Array items;
    bool complete = true;
    std::string ignored;
    while (peek(m, ignored) != '\0') {
        auto item = readItem(m);
        if (item) items.push_back(std::move(*item)); else complete = false;
    }
    return complete ? std::optional<Array>(std::move(items)) : std::nullopt;
}

// An array of bytes: data.
Value readBytes(sdbus::Message& m) {
    m.enterContainer("y");
    Data bytes;
    std::string ignored;
    while (peek(m, ignored) != '\0') {
        std::uint8_t b;
        m >> b;
        bytes.push_back(b);
    }
    m.exitContainer();
    return Value(std::move(bytes));
}

// A dictionary (contents "{KV}"): only string keys have a Value form.
std::optional<Value> readDictionaryItem(sdbus::Message& m, const std::string& contents) {
    const bool stringKeys = contents.size() > 1 && (contents[1] == 's' || contents[1] == 'o' || contents[1] == 'g');
    const std::string entrySignature = contents.substr(1, contents.size() - 2);
    m.enterContainer(contents);
    Dictionary entries;
    bool complete = true;
    std::string ignored;
    while (peek(m, ignored) != '\0') {
        m.enterDictEntry(entrySignature);
        auto key = readItem(m);
        auto value = readItem(m);
        m.exitDictEntry();
        if (!stringKeys || !key || !value) {
            complete = false;
            continue;
        }
        entries[*key->asString()] = std::move(*value);
    }
    m.exitContainer();
    if (!complete) return std::nullopt;
    return Value(std::move(entries));
}

std::optional<Value> readContainerItem(sdbus::Message& m, char type, const std::string& contents) {
    if (type == 'v') {
        m.enterVariant(contents);
        auto inner = readItem(m);
        m.exitVariant();
        return inner;
    }
    if (type == 'a' && contents == "y") return readBytes(m);
    if (type == 'a' && !contents.empty() && contents[0] == '{') return readDictionaryItem(m, contents);
    if (type == 'r') m.enterStruct(contents); else m.enterContainer(contents);
    auto items = readItems(m);
    if (type == 'r') m.exitStruct(); else m.exitContainer();
    if (!items) return std::nullopt;
    return Value(std::move(*items));
}

// Reads the next item. nullopt when it has no Value form; the item is
// consumed either way so that reading can go on after it.
std::optional<Value> readItem(sdbus::Message& m) {
    std::string contents;
    const char type = peek(m, contents);
    switch (type) {
        case 'y': { std::uint8_t v; m >> v; return Value(static_cast<std::int64_t>(v)); }
        case 'n': { std::int16_t v; m >> v; return Value(static_cast<std::int64_t>(v)); }
        case 'q': { std::uint16_t v; m >> v; return Value(static_cast<std::int64_t>(v)); }
        case 'i': { std::int32_t v; m >> v; return Value(static_cast<std::int64_t>(v)); }
        case 'u': { std::uint32_t v; m >> v; return Value(static_cast<std::int64_t>(v)); }
        case 'x': { std::int64_t v; m >> v; return Value(v); }
        case 't': {
            std::uint64_t v;
            m >> v;
            if (v > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) return std::nullopt;
            return Value(static_cast<std::int64_t>(v));
        }
        case 'b': { bool v; m >> v; return Value(v); }
        case 'd': { double v; m >> v; return Value(v); }
        case 's': { std::string v; m >> v; return Value(std::move(v)); }
        case 'o': { sdbus::ObjectPath v; m >> v; return Value(std::string(v)); }
        case 'g': { sdbus::Signature v; m >> v; return Value(std::string(v)); }
        case 'h': { sdbus::UnixFd v; m >> v; return std::nullopt; }  // closed again at once
        case 'v':
        case 'r':
        case 'a':
            return readContainerItem(m, type, contents);
        default:
            throw sdbus::Error("org.freedesktop.DBus.Error.InvalidArgs",
                               std::string("Unexpected D-Bus type '") + type + "'");
    }
}

bool allStrings(const Array& a) {
    for (const auto& item : a) {
        if (!item.isString()) return false;
    }
    return true;
}

bool isInteger(const Value& v) { return v.isNumber() && !v.isBooleanStorage() && !v.isRealStorage(); }

std::string naturalSignature(const Value& v) {
    switch (v.type()) {
        case Value::Type::String: return "s";
        case Value::Type::Integer: return "x";
        case Value::Type::Real: return "d";
        case Value::Type::Boolean: return "b";
        case Value::Type::Data: return "ay";
        case Value::Type::Dictionary: return "a{sv}";
        case Value::Type::Array: return allStrings(*v.asArray()) && !v.asArray()->empty() ? "as" : "av";
    }
    return "v";
}

// The signature v is written with, given the declared type of its key.
std::string signatureFor(const Value& v, std::optional<ArgumentType> declared) {
    if (declared) {
        switch (*declared) {
            case ArgumentType::Int32:
            case ArgumentType::Int64:
            case ArgumentType::UInt64:
                if (isInteger(v)) return signatureForArgumentType(*declared);
                break;
            case ArgumentType::StringArray:
                if (v.isArray() && allStrings(*v.asArray())) return "as";
                break;
            case ArgumentType::Int64Array:
                if (v.isArray()) {
                    bool integers = true;
                    for (const auto& item : *v.asArray()) integers = integers && isInteger(item);
                    if (integers) return "ax";
                }
                break;
            default:
                break;
        }
    }
    return naturalSignature(v);
}

void writeItem(sdbus::Message& m, const Value& v, const std::string& signature);

void writeDictionaryBody(sdbus::Message& m, const Dictionary& d, const std::map<std::string, ArgumentType>& types) {
    m.openContainer("{sv}");
    for (const auto& [key, value] : d) {
        auto declared = types.find(key);
        const std::string signature =
            signatureFor(value, declared == types.end() ? std::nullopt : std::optional(declared->second));
        m.openDictEntry("sv");
        m << key;
        m.openVariant(signature);
        writeItem(m, value, signature);
        m.closeVariant();
        m.closeDictEntry();
    }
    m.closeContainer();
}

void writeItem(sdbus::Message& m, const Value& v, const std::string& signature) {
    if (signature == "s") {
        m << *v.asString();
    } else if (signature == "b") {
        m << *v.boolValue();
    } else if (signature == "d") {
        m << *v.doubleValue();
    } else if (signature == "x") {
        m << static_cast<std::int64_t>(*v.integerValue());
    } else if (signature == "i") {
        m << static_cast<std::int32_t>(*v.integerValue());
    } else if (signature == "t") {
        m << static_cast<std::uint64_t>(*v.integerValue());
    } else if (signature == "ay") {
        m.openContainer("y");
        for (const auto b : *v.asData()) m << b;
        m.closeContainer();
    } else if (signature == "a{sv}") {
        writeDictionaryBody(m, *v.asDictionary(), {});
    } else if (signature == "as" || signature == "ax") {
        const std::string element = signature.substr(1);
        m.openContainer(element);
        for (const auto& item : *v.asArray()) writeItem(m, item, element);
        m.closeContainer();
    } else {  // av
        m.openContainer("v");
        for (const auto& item : *v.asArray()) {
            const std::string inner = naturalSignature(item);
            m.openVariant(inner);
            writeItem(m, item, inner);
            m.closeVariant();
        }
        m.closeContainer();
    }
}

// Per item: alignment padding, a variant's signature, a length word.
constexpr std::size_t kItemOverhead = 16;

std::size_t sizeEstimate(const Value& v) {
    switch (v.type()) {
        case Value::Type::String: return kItemOverhead + v.asString()->size();
        case Value::Type::Data: return kItemOverhead + v.asData()->size();
        case Value::Type::Array: {
            std::size_t total = kItemOverhead;
            for (const auto& item : *v.asArray()) total += sizeEstimate(item);
            return total;
        }
        case Value::Type::Dictionary: return encodedSizeEstimate(*v.asDictionary());
        default: return kItemOverhead;
    }
}

// sdbus-c++ 1.2 keeps the sd-bus message to itself; a derived type may
// name the member, and the pointer to it reads any message.
struct RawMessage : sdbus::Message {
    static sd_bus_message* of(const sdbus::Message& m) { return static_cast<sd_bus_message*>(m.*(&RawMessage::msg_)); }
};

// Bytes of the items from the read position to the end of the current
// container; each item counts at least its 8-byte alignment slot.
std::size_t itemsSize(sd_bus_message* m) {
    constexpr std::string_view kFixedTypes = "ybnqiuxtdh";
    std::size_t total = 0;
    char type = 0;
    const char* contents = nullptr;
    while (sd_bus_message_peek_type(m, &type, &contents) > 0) {
        const bool fixedArray = type == 'a' && contents && std::strlen(contents) == 1 &&
                                kFixedTypes.find(contents[0]) != std::string_view::npos;
        if (fixedArray) {
            const void* items = nullptr;
            std::size_t size = 0;
            if (sd_bus_message_read_array(m, contents[0], &items, &size) < 0) break;
            total += 8 + size;
        } else if (type == 'a' || type == 'v' || type == 'r' || type == 'e') {
            if (sd_bus_message_enter_container(m, type, contents) < 0) break;
            total += 8 + itemsSize(m);
            if (sd_bus_message_exit_container(m) < 0) break;
        } else if (type == 's' || type == 'o' || type == 'g') {
            const char* text = nullptr;
            if (sd_bus_message_read_basic(m, type, &text) < 0) break;
            total += 8 + (text ? std::strlen(text) : 0);
        } else {
            std::uint64_t scratch = 0;
            if (sd_bus_message_read_basic(m, type, &scratch) < 0) break;
            total += 8;
        }
    }
    return total;
}

}  // namespace

std::size_t receivedBodySize(sdbus::Message& message) {
    sd_bus_message* m = RawMessage::of(message);
    if (!m) return 0;
    const std::size_t size = itemsSize(m);
    sd_bus_message_rewind(m, 1);
    return size;
}

std::size_t encodedSizeEstimate(const Dictionary& d) {
    std::size_t total = kItemOverhead;
    for (const auto& [key, value] : d) total += kItemOverhead + key.size() + sizeEstimate(value);
    return total;
}

DecodedDictionary readDictionary(sdbus::Message& message) {
    DecodedDictionary out;
    std::string contents;
    if (peek(message, contents) != 'a' || contents != "{sv}") {
        throw sdbus::Error("org.freedesktop.DBus.Error.InvalidArgs", "Expected one a{sv} argument");
    }
    message.enterContainer("{sv}");
    std::string ignored;
    while (peek(message, ignored) != '\0') {
        message.enterDictEntry("sv");
        std::string key;
        message >> key;
        auto value = readItem(message);
        message.exitDictEntry();
        if (value) {
            out.values[key] = std::move(*value);
            out.undecodableKeys.erase(key);
        } else {
            out.values.erase(key);
            out.undecodableKeys.insert(key);
        }
    }
    message.exitContainer();
    return out;
}

void writeDictionary(sdbus::Message& message, const Dictionary& d, const std::map<std::string, ArgumentType>& types) {
    writeDictionaryBody(message, d, types);
}

std::string signatureForArgumentType(ArgumentType type) {
    switch (type) {
        case ArgumentType::String: return "s";
        case ArgumentType::Boolean: return "b";
        case ArgumentType::Int32: return "i";
        case ArgumentType::Int64: return "x";
        case ArgumentType::UInt64: return "t";
        case ArgumentType::StringArray: return "as";
        case ArgumentType::Int64Array: return "ax";
        case ArgumentType::Any: return "v";
    }
    return "v";
}

}  // namespace korvo::platform::dbus

namespace korvo::platform {

BusServiceNames BusServiceNames::forService(std::string_view serviceName) {
    std::string path = "/";
    for (const char c : serviceName) {
        const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
        path += c == '.' ? '/' : (allowed ? c : '_');
    }
    return {std::string(serviceName), path, std::string(serviceName) + ".KorvoHelperToolProtocol"};
}

}  // namespace korvo::platform
