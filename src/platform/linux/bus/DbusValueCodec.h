// Property-list values on the bus: the request interface carries one a{sv}
// each way, whose values are decoded into Value and encoded from it.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include <sdbus-c++/Message.h>

#include "util/Protocol.h"
#include "util/Value.h"

namespace korvo::platform {

// The bus names of a service: "com.tallowmar.korvo.utility" is owned as that
// name, exports /com/tallowmar/korvo/utility with the interface
// com.tallowmar.korvo.utility.KorvoHelperToolProtocol.
struct BusServiceNames {
    std::string busName;
    std::string objectPath;
    std::string interfaceName;

    static BusServiceNames forService(std::string_view serviceName);
};

}  // namespace korvo::platform

namespace korvo::platform::dbus {

struct DecodedDictionary {
    Dictionary values;
    // Keys whose value has no Value form (a file descriptor, an unsigned
    // 64-bit number beyond the signed range, a dictionary with non-string
    // keys); they are left out of values.
    std::set<std::string> undecodableKeys;
};

// Reads one a{sv} at the message's read position. Every D-Bus integer type
// becomes an integer, o and g become strings, ay becomes data, a{s*} a
// dictionary, other arrays and structs arrays. Throws sdbus::Error when the
// message does not hold an a{sv} there.
DecodedDictionary readDictionary(sdbus::Message& message);

// Writes d as one a{sv}. A key named in types is written with that type
// (an integer as "i", "x" or "t", an array of strings as "as", ...); other
// values take their natural signature: s, x, d, b, ay, a{sv}, and as for an
// array of strings, av for any other array.
void writeDictionary(sdbus::Message& message, const Dictionary& d,
                     const std::map<std::string, ArgumentType>& types = {});

// About how many bytes d takes in a message (an upper bound for what
// writeDictionary writes), so that a sender can stay below the bus's message
// size limit: the bus drops a connection that sends a larger message.
std::size_t encodedSizeEstimate(const Dictionary& d);

// About how many bytes the body of a received message holds, found by
// walking it without copying anything (strings and arrays of fixed-size
// items are measured where they lie); the read position is back at the
// start afterwards. Lets the listener account for what it holds before it
// decodes anything.
std::size_t receivedBodySize(sdbus::Message& message);

// The D-Bus signature an argument of this type travels as.
std::string signatureForArgumentType(ArgumentType type);

}  // namespace korvo::platform::dbus
