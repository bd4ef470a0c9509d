// The reference documents of the request interface, generated from the
// operation table so that they cannot drift from what the helper exports:
// docs/bus-interface.md (the keys of each operation) and the D-Bus
// introspection XML.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "util/Protocol.h"

namespace korvo::ctl {

inline constexpr const char* BusInterfaceDocumentName = "bus-interface.md";
inline constexpr const char* IntrospectionDocumentName = "com.tallowmar.korvo.utility.xml";

std::string busInterfaceMarkdown(const std::vector<Operation>& operations);
std::string introspectionXml(const std::vector<Operation>& operations);

// Writes both documents into directory; a message when that fails.
std::optional<std::string> writeInterfaceDocs(const std::string& directory);

}  // namespace korvo::ctl
