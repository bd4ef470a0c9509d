#include "platform/linux/codesigning/OpenSslHandles.h"

#include <openssl/err.h>

namespace korvo::platform::codesign {

std::string takeOpenSslErrors() {
    std::string text;
    while (const unsigned long code = ERR_get_error()) {
        char buffer[256];
        ERR_error_string_n(code, buffer, sizeof buffer);
        if (!text.empty()) {
            text += "; ";
        }
        text += buffer;
    }
    return text;
}

}  // namespace korvo::platform::codesign
