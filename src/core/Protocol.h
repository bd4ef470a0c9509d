// KorvoHelperToolProtocol as the transports see it: each operation's name,
// its named arguments with their types, and how a call reaches the service
// object. The bus listener, korvoctl and the docs are all driven by this one
// table.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/Error.h"
#include "util/Value.h"

namespace korvo {

class KorvoHelperTool;

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

struct ArgumentSpec {
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

// Called with the arguments (absent keys are nil) and a function that sends
// the reply dictionary; it must be called exactly once.
using ReplySender = std::function<void(Dictionary reply)>;
using OperationHandler = std::function<void(KorvoHelperTool& tool, const Dictionary& arguments, ReplySender reply)>;

struct OperationSpec {
    std::string name;
    std::vector<ArgumentSpec> arguments;
    ReplyShape reply;
    OperationHandler handler;
};

// Every exported operation, in protocol order.
const std::vector<OperationSpec>& helperOperations();
const OperationSpec* findOperation(const std::string& name);

// The operations of each subsystem; helperOperations() joins them.
std::vector<OperationSpec> coreOperations();
std::vector<OperationSpec> backendOperations();
std::vector<OperationSpec> wireGuardOperations();

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

}  // namespace korvo
