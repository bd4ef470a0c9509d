// Whether a client-given interface name can be a network interface at all.
// Such names travel into program arguments and file paths, so one that
// could be an option ("-f"), a path ("../x"), a name template ("wg%d") or
// carry white space or control characters is refused before it is used.
#pragma once

#include <cstddef>
#include <string_view>

namespace korvo {

// The longest interface name the kernels take (IFNAMSIZ less its NUL).
inline constexpr std::size_t kMaximumInterfaceNameLength = 15;

// 1 to 15 printable ASCII characters other than '/', ':' and '%', not
// beginning with '-', and neither "." nor "..".
bool isUsableInterfaceName(std::string_view name);

}  // namespace korvo
