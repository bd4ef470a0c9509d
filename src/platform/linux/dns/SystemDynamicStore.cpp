#include "platform/linux/dns/LinuxDynamicStore.h"
#include "platform/linux/dns/ResolvedLinks.h"

namespace korvo::platform {

std::shared_ptr<DynamicStore> makeSystemDynamicStore(std::shared_ptr<const StoreArea> storeArea) {
    dns::LinuxDynamicStore::Options options;
    options.storeArea = std::move(storeArea);
    options.resolvedRunning = &dns::ResolvedLinks::running;
    return std::make_shared<dns::LinuxDynamicStore>(std::move(options));
}

}  // namespace korvo::platform
