#include "util/InterfaceName.h"

#include <algorithm>

namespace korvo {

bool isUsableInterfaceName(std::string_view name) {
    if (name.empty() || name.size() > kMaximumInterfaceNameLength || name == "." || name == ".." ||
        name.front() == '-') {
        return false;
    }
    return std::ranges::all_of(name, [](char c) {
        return c > ' ' && c < 0x7f && c != '/' && c != ':' && c != '%';
    });
}

}  // namespace korvo
