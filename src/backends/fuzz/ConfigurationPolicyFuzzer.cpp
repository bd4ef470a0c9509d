// The configuration check on arbitrary text: it never crashes, and a text
// it accepts is accepted again as rewritten, with the copies it names
// (the check is stable; what passed once cannot turn into something else).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "backends/ConfigurationPolicy.h"

using korvo::ConfiguredProgram;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    constexpr ConfiguredProgram kPrograms[] = {ConfiguredProgram::OpenVPN, ConfiguredProgram::SSH,
                                               ConfiguredProgram::VPNC, ConfiguredProgram::OpenConnect};
    const ConfiguredProgram program = kPrograms[data[0] % 4];
    const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
    std::size_t copies = 0;
    const korvo::ReferencedFileCopier copier = [&copies](std::string_view, std::string_view) {
        return std::optional<std::string>("/var/run/Korvo/connections/x/file-" + std::to_string(++copies));
    };
    const korvo::ConfigurationCheck first = korvo::checkConfiguration(program, text, copier);
    if (first.refusal) return 0;
    const korvo::ConfigurationCheck again = korvo::checkConfiguration(program, first.text, copier);
    if (again.refusal) std::abort();
    return 0;
}
