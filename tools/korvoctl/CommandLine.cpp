#include "CommandLine.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>

#include "util/ProtocolArguments.h"
#include "util/FileSystem.h"
#include "util/PropertyList.h"

namespace korvo::ctl {
namespace {

std::string lowercase(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

std::optional<std::int64_t> parseInteger(std::string_view text, std::int64_t minimum, std::int64_t maximum) {
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    if (value < minimum || value > maximum) return std::nullopt;
    return value;
}

std::vector<std::string> splitList(const std::string& text) {
    std::vector<std::string> items;
    if (text.empty()) return items;
    std::size_t start = 0;
    for (;;) {
        const auto comma = text.find(',', start);
        items.push_back(text.substr(start, comma - start));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return items;
}

std::optional<std::string> parseValue(const Argument& argument, const std::string& text, Dictionary& arguments) {
    const std::string problem = "'" + argument.key + "' takes a " + argumentTypeDescription(argument.type) + ", not '" + text + "'";
    switch (argument.type) {
        case ArgumentType::String:
            arguments[argument.key] = text;
            return std::nullopt;
        case ArgumentType::Boolean: {
            const std::string word = lowercase(text);
            if (word == "true" || word == "yes" || word == "1") {
                arguments[argument.key] = true;
            } else if (word == "false" || word == "no" || word == "0") {
                arguments[argument.key] = false;
            } else {
                return problem;
            }
            return std::nullopt;
        }
        case ArgumentType::Int32:
        case ArgumentType::Int64:
        case ArgumentType::UInt64: {
            const std::int64_t minimum = argument.type == ArgumentType::Int32 ? std::numeric_limits<std::int32_t>::min()
                                         : argument.type == ArgumentType::Int64 ? std::numeric_limits<std::int64_t>::min()
                                                                            : 0;
            const std::int64_t maximum = argument.type == ArgumentType::Int32 ? std::numeric_limits<std::int32_t>::max()
                                                                          : std::numeric_limits<std::int64_t>::max();
            const auto value = parseInteger(text, minimum, maximum);
            if (!value) return problem;
            arguments[argument.key] = *value;
            return std::nullopt;
        }
        case ArgumentType::StringArray:
        case ArgumentType::Int64Array: {
            const auto existing = arguments.find(argument.key);
            Array items = existing != arguments.end() && existing->second.isArray() ? *existing->second.asArray() : Array{};
            for (const auto& item : splitList(text)) {
                if (argument.type == ArgumentType::StringArray) {
                    items.emplace_back(item);
                    continue;
                }
                const auto value =
                    parseInteger(item, std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max());
                if (!value) return problem;
                items.emplace_back(static_cast<long long>(*value));
            }
            arguments.insert_or_assign(argument.key, Value(std::move(items)));
            return std::nullopt;
        }
        case ArgumentType::Any: {
            if (text.empty() || text.front() != '@') {
                arguments[argument.key] = text;
                return std::nullopt;
            }
            const std::string path = text.substr(1);
            auto bytes = readFile(path);
            if (!bytes) return "cannot read " + path + ": " + bytes.error().displayText();
            auto value = readPropertyList(std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()));
            if (!value) return path + " is not a property list";
            arguments[argument.key] = std::move(*value);
            return std::nullopt;
        }
    }
    return problem;
}

std::string placeholder(ArgumentType type) {
    switch (type) {
        case ArgumentType::String: return "STRING";
        case ArgumentType::Boolean: return "true|false";
        case ArgumentType::Int32:
        case ArgumentType::Int64: return "INTEGER";
        case ArgumentType::UInt64: return "NUMBER";
        case ArgumentType::StringArray: return "A,B,...";
        case ArgumentType::Int64Array: return "N,M,...";
        case ArgumentType::Any: return "@PLIST-FILE";
    }
    return "VALUE";
}

}  // namespace

std::optional<std::string> parseOperationArguments(const Operation& operation,
                                                   const std::vector<std::string>& words, Dictionary& arguments) {
    for (const auto& word : words) {
        const auto equals = word.find('=');
        if (equals == std::string::npos) return "expected KEY=VALUE, not '" + word + "'";
        const std::string key = word.substr(0, equals);
        const auto argument = std::find_if(operation.arguments.begin(), operation.arguments.end(),
                                       [&](const Argument& s) { return s.key == key; });
        if (argument == operation.arguments.end()) {
            return operation.name + " has no argument '" + key + "'; usage: " + operationUsage(operation);
        }
        if (auto problem = parseValue(*argument, word.substr(equals + 1), arguments)) return problem;
    }
    return std::nullopt;
}

std::string operationUsage(const Operation& operation) {
    std::string usage = operation.name;
    for (const auto& argument : operation.arguments) usage += " " + argument.key + "=" + placeholder(argument.type);
    return usage;
}

std::string describeValue(const Value& value) {
    switch (value.type()) {
        case Value::Type::String: return *value.asString();
        case Value::Type::Integer: return std::to_string(*value.integerValue());
        case Value::Type::Real: return std::to_string(*value.doubleValue());
        case Value::Type::Boolean: return *value.boolValue() ? "true" : "false";
        case Value::Type::Data: return "<" + std::to_string(value.asData()->size()) + " bytes>";
        case Value::Type::Array: {
            std::string out = "[";
            for (const auto& item : *value.asArray()) out += (out.size() > 1 ? ", " : "") + describeValue(item);
            return out + "]";
        }
        case Value::Type::Dictionary: {
            std::string out = "{";
            for (const auto& [key, item] : *value.asDictionary()) {
                out += (out.size() > 1 ? ", " : "") + key + ": " + describeValue(item);
            }
            return out + "}";
        }
    }
    return "";
}

std::string formatReply(const Dictionary& reply) {
    std::string out;
    for (const auto& [key, value] : reply) {
        if (key != "error") out += key + ": " + describeValue(value) + "\n";
    }
    return out;
}

std::string formatError(const KorvoError& error) {
    return "error " + std::to_string(error.code) + " (" + error.domain + "): " + error.displayText();
}

}  // namespace korvo::ctl
