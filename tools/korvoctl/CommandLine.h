// korvoctl's command line: KEY=VALUE words turned into an operation's
// arguments by the types the operation table declares, and replies turned
// into readable lines.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "util/Error.h"
#include "util/Protocol.h"
#include "util/Value.h"

namespace korvo::ctl {

// Fills arguments from KEY=VALUE words. Strings are taken as written;
// booleans are true/false, yes/no or 1/0; integers are decimal; an array is
// a comma-separated list (KEY= gives an empty one, a repeated KEY appends);
// a value of any type is @FILE, read as a property list, or else a string.
// Returns a message for the user when a word is unusable.
std::optional<std::string> parseOperationArguments(const Operation& operation,
                                                   const std::vector<std::string>& words, Dictionary& arguments);

// "setTmpDirPath path=STRING" and the like.
std::string operationUsage(const Operation& operation);

// One "key: value" line per reply entry besides "error".
std::string formatReply(const Dictionary& reply);
// "error 64 (com.tallowmar.Korvo): <description>".
std::string formatError(const KorvoError& error);
// A value on one line: strings as written, arrays and dictionaries in
// brackets and braces.
std::string describeValue(const Value& value);

}  // namespace korvo::ctl
