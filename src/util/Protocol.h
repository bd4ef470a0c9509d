// KorvoHelperToolProtocol as the transports see it: each operation's name,
// its named arguments with their types and the shape of its reply. The bus
// listener, korvoctl and the docs are all driven by this one table; the
// service core binds each operation to the request method that does it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "util/Error.h"
#include "util/Value.h"

namespace korvo {

// The type of one named argument. A value of another type is refused by the
// transport (naming the key) before the operation runs, except for Any,
// which the operation checks itself.
enum class ArgumentType {
    String,       // s
    Boolean,      // b
    Int32,        // i  (process identifiers)
    Int64,        // x  (service types, masks)
    UInt64,       // t  (ports)
    StringArray,  // as
    Int64Array,   // ax
    Any,          // v
};

struct Argument {
    std::string key;
    ArgumentType type;
};

// What the reply carries besides a possible "error".
enum class ReplyShape {
    None,      // no reply block: the operation answers nothing
    Error,     // (error)
    Pid,       // (error, pid): "pid" i
    Result,    // (error, string): "result" s when not nil
};

// Sends the reply dictionary of one call; called exactly once.
using ReplySender = std::function<void(Dictionary reply)>;

struct Operation {
    std::string name;
    std::vector<Argument> arguments;
    ReplyShape reply;
};

// Every exported operation, in protocol order.
const std::vector<Operation>& helperOperations();
const Operation* findOperation(const std::string& name);

// Reply dictionaries: "error" only on failure, "pid" and "result" where the
// operation returns them (a nil result is left out).
Dictionary errorReply(const MaybeError& error);
Dictionary pidReply(const MaybeError& error, std::int32_t pid);
Dictionary resultReply(const MaybeError& error, const std::optional<std::string>& result);

// Arguments as the handlers read them; the transport has checked the types.
std::optional<std::string> stringArgument(const Dictionary& arguments, const std::string& key);
bool booleanArgument(const Dictionary& arguments, const std::string& key);
std::int64_t integerArgument(const Dictionary& arguments, const std::string& key);
std::uint64_t unsignedArgument(const Dictionary& arguments, const std::string& key);
std::optional<std::vector<std::string>> stringArrayArgument(const Dictionary& arguments, const std::string& key);
std::optional<std::vector<std::int64_t>> int64ArrayArgument(const Dictionary& arguments, const std::string& key);

}  // namespace korvo
