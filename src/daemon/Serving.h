// Serving the service object's requests on the platform's listener: makes
// the listener, attaches it, resumes it and serves until termination.
#pragma once

namespace korvo {

class KorvoHelperTool;

// The process's exit status: 0 after terminateWithReply, 1 when the
// listener could not start or failed.
int serveRequests(KorvoHelperTool& tool);

}  // namespace korvo
