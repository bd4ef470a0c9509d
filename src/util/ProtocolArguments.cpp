#include "util/ProtocolArguments.h"

#include <cstdint>
#include <limits>

namespace korvo {
namespace {

bool isInteger(const Value& v) { return v.isNumber() && !v.isBooleanStorage() && !v.isRealStorage(); }

bool fits(const Value& v, ArgumentType type) {
    switch (type) {
        case ArgumentType::String:
            return v.isString();
        case ArgumentType::Boolean:
            return v.isBooleanStorage();
        case ArgumentType::Int32: {
            if (!isInteger(v)) return false;
            const std::int64_t n = *v.integerValue();
            return n >= std::numeric_limits<std::int32_t>::min() && n <= std::numeric_limits<std::int32_t>::max();
        }
        case ArgumentType::Int64:
            return isInteger(v);
        case ArgumentType::UInt64:
            return isInteger(v) && *v.integerValue() >= 0;
        case ArgumentType::StringArray:
            if (!v.isArray()) return false;
            for (const auto& item : *v.asArray()) {
                if (!item.isString()) return false;
            }
            return true;
        case ArgumentType::Int64Array:
            if (!v.isArray()) return false;
            for (const auto& item : *v.asArray()) {
                if (!isInteger(item)) return false;
            }
            return true;
        case ArgumentType::Any:
            return true;
    }
    return false;
}

}  // namespace

std::optional<std::string> invalidArgumentMessage(const Operation& operation, const Dictionary& arguments) {
    for (const auto& argument : operation.arguments) {
        const auto it = arguments.find(argument.key);
        if (it == arguments.end() || fits(it->second, argument.type)) continue;
        return "Argument '" + argument.key + "' of " + operation.name + " must be a " +
               argumentTypeDescription(argument.type) + ".";
    }
    return std::nullopt;
}

Dictionary declaredArguments(const Operation& operation, const Dictionary& arguments) {
    Dictionary out;
    for (const auto& argument : operation.arguments) {
        if (auto it = arguments.find(argument.key); it != arguments.end()) out.emplace(argument.key, it->second);
    }
    return out;
}

std::map<std::string, ArgumentType> argumentTypes(const Operation& operation) {
    std::map<std::string, ArgumentType> types;
    for (const auto& argument : operation.arguments) types.emplace(argument.key, argument.type);
    return types;
}

std::map<std::string, ArgumentType> replyTypes(ReplyShape shape) {
    switch (shape) {
        case ReplyShape::Pid: return {{"pid", ArgumentType::Int32}};
        case ReplyShape::Result: return {{"result", ArgumentType::String}};
        case ReplyShape::None:
        case ReplyShape::Error: break;
    }
    return {};
}

std::string argumentTypeDescription(ArgumentType type) {
    switch (type) {
        case ArgumentType::String: return "string";
        case ArgumentType::Boolean: return "boolean";
        case ArgumentType::Int32: return "32-bit integer";
        case ArgumentType::Int64: return "64-bit integer";
        case ArgumentType::UInt64: return "non-negative 64-bit integer";
        case ArgumentType::StringArray: return "array of strings";
        case ArgumentType::Int64Array: return "array of integers";
        case ArgumentType::Any: return "value of any type";
    }
    return "value";
}

}  // namespace korvo
