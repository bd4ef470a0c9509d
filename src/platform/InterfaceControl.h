// Control of network interfaces: destroying a tunnel interface, setting the
// up flag, listing the interfaces. The caller turns a failure into the
// helper's error; this layer only says which step failed and why.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korvo::platform {

// What stopped an interface call.
struct InterfaceFailure {
    enum class Step { OpenSocket, Destroy, ReadFlags, WriteFlags };
    Step step = Step::OpenSocket;
    int error = 0;       // errno
    std::string reason;  // strerror(error), with the kernel's own text after ": " when it gave one

    friend bool operator==(const InterfaceFailure&, const InterfaceFailure&) = default;
};
using InterfaceOutcome = std::optional<InterfaceFailure>;  // nullopt: done

// The addresses and routes of one interface as the kernel held them, kept
// to put back what taking the interface down made the kernel forget.
// Opaque outside the platform's implementation.
struct InterfaceConfiguration {
    std::string name;
    std::vector<std::vector<std::uint8_t>> addresses;
    std::vector<std::vector<std::uint8_t>> routes;
};

// Names longer than an interface request holds (15 bytes) are cut short.
class InterfaceControl {
public:
    virtual ~InterfaceControl() = default;

    // Destroys a virtual interface (tun, tap, utun...). An absent interface
    // fails with its own errno (ENXIO, ENODEV...): the caller decides.
    virtual InterfaceOutcome destroyInterface(const std::string& name) = 0;
    // Reads the flags, sets or clears the up flag and writes them back, even
    // when the interface is already in that state.
    virtual InterfaceOutcome setInterfaceUp(const std::string& name, bool up) = 0;
    // The interface names in the system's order; nullopt when they cannot be read.
    virtual std::optional<std::vector<std::string>> interfaceNames() = 0;

    // What an interface holds now; empty where the system keeps it by itself
    // when the interface goes down (macOS).
    virtual InterfaceConfiguration saveConfiguration(const std::string& name) { return {name, {}, {}}; }
    // Puts back each saved address, then each saved route, that is missing;
    // what is there already stays. Best effort: the count of those that could
    // not be put back.
    virtual std::size_t restoreConfiguration(const InterfaceConfiguration& configuration) {
        (void)configuration;
        return 0;
    }
};

// The platform's interface control. Holds no state; each call opens and
// closes its own socket.
std::shared_ptr<InterfaceControl> makeSystemInterfaceControl();

}  // namespace korvo::platform
