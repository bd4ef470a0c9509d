// How each operation of the protocol reaches the service object: the request
// method that a call of it runs, with its arguments read from the call's
// dictionary and its reply turned into the reply dictionary.
#pragma once

#include <functional>
#include <string>

#include "platform/ServiceListener.h"
#include "util/Protocol.h"

namespace korvo {

class KorvoHelperTool;

// caller is the client that sent the request, as it was accepted: requests
// that act on a path the client names act with that client's rights.
using RequestHandler = std::function<void(KorvoHelperTool& tool, const platform::ServiceConnection& caller,
                                          const Dictionary& arguments, ReplySender reply)>;

// The handler of the named operation; null for a name the helper does not
// export. Every operation of helperOperations() has one.
const RequestHandler* requestHandler(const std::string& name);

}  // namespace korvo
