#include "core/HelperTool.h"
#include "core/WorkspaceLookup.h"
#include "platform/DynamicStore.h"
#include "platform/TunnelInterfaceConfigurator.h"
#include "util/ClientGroup.h"

namespace korvo {

HelperServices HelperServices::production() {
    HelperServices services;
    services.codeSigning = platform::makeSystemCodeSigning();
    services.tunnelInterfaces = platform::makeSystemTunnelInterfaceConfigurator();
    services.locateApplicationBundle = [] {
        return applicationBundlePathForIdentifier(KorvoApplicationIdentifier, xdgApplicationDirectories());
    };
    services.storeArea = std::make_shared<StoreArea>(std::string(KorvoRunDirectory), lookUpClientGroup());
    services.dynamicStore = platform::makeSystemDynamicStore(services.storeArea);
    return services;
}

}  // namespace korvo
