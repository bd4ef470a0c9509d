#include "daemon/Serving.h"

#include <cstdlib>

#include "core/HelperTool.h"
#include "platform/ServiceListener.h"
#include "util/KorvoIdentity.h"
#include "util/Log.h"

namespace korvo {

int serveRequests(KorvoHelperTool& tool) {
    auto listener = platform::makeServiceListener(HelperServiceName, tool.listenerDelegate());
    tool.attachListener(*listener);
    if (auto error = listener->resume()) {
        logMessage(LOG_ERR, "Error: Unable to start listening for requests: %s: %s", error->domain.c_str(),
                   error->displayText().c_str());
        return EXIT_FAILURE;
    }
    const int status = tool.run();
    listener->invalidate();
    return status;
}

}  // namespace korvo
