// XML property lists, read and written through libplist.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "util/Value.h"

namespace korvo {

// Parses an XML (or binary) property list; nullopt when the bytes are not one.
std::optional<Value> readPropertyList(std::string_view bytes);
// Writes the value as an XML property list.
std::string writeXMLPropertyList(const Value& value);

}  // namespace korvo
