// libFuzzer target: any bytes as a signed file and as a requirement text;
// neither may crash, read out of bounds or leak.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/linux/codesigning/CodeSigningAnchors.h"
#include "platform/linux/codesigning/RequirementParser.h"
#include "platform/linux/codesigning/SignatureVerifier.h"
#include "util/UniqueFd.h"

using namespace korvo::platform::codesign;
using korvo::UniqueFd;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const CodeSigningAnchors anchors = CodeSigningAnchors::compiledIn();
    const UniqueFd fd(::memfd_create("korvo-signature-fuzz", MFD_CLOEXEC));
    if (!fd.valid() || ::write(fd.get(), data, size) != static_cast<ssize_t>(size)) {
        return 0;
    }
    (void)evaluateSignature(fd.get(), anchors);
    (void)parseRequirement(std::string_view(reinterpret_cast<const char*>(data), size));
    return 0;
}
