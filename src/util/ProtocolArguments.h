// How a transport checks and types the named arguments of a request before
// the operation runs, and the types of the keys a reply carries.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "util/Protocol.h"

namespace korvo {

// The text of the refusal for the first declared argument whose value is of
// another type than declared (it names the key); nullopt when every present
// argument is usable. Any D-Bus integer type counts as an integer as long as
// the value fits; keys the operation does not declare are not looked at.
std::optional<std::string> invalidArgumentMessage(const Operation& operation, const Dictionary& arguments);

// The declared arguments only, so that an operation never sees a key it does
// not know.
Dictionary declaredArguments(const Operation& operation, const Dictionary& arguments);

// The declared type of each argument key.
std::map<std::string, ArgumentType> argumentTypes(const Operation& operation);
// The types of the keys besides "error" that a reply of this shape carries.
std::map<std::string, ArgumentType> replyTypes(ReplyShape shape);

// "string", "boolean", "32-bit integer", ... for messages and docs.
std::string argumentTypeDescription(ArgumentType type);

}  // namespace korvo
