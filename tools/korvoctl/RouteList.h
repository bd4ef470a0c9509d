// Route operations written one per line, for `korvoctl configureRoutes
// routes=FILE`:
//   add|delete DESTINATION via GATEWAY [dev INTERFACE] [inet6] [transaction ID]
// Blank lines and lines starting with "#" are skipped; transaction, when
// given, names the transaction of lines that name none.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "util/Error.h"
#include "util/Value.h"

namespace korvo::ctl {

// The operations of the text, or the first line that is not one, quoted with
// its number.
Result<Array> parseRouteList(std::string_view text, const std::optional<std::string>& transaction);

// Takes the words routes=FILE and transaction=ID out of a configureRoutes
// command line and puts the file's operations into routeOperations. A
// message for the user when the file cannot be read or parsed.
std::optional<std::string> takeRouteListWords(std::vector<std::string>& words, Dictionary& arguments);

}  // namespace korvo::ctl
