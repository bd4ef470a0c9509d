#include "RouteList.h"

#include "util/FileSystem.h"

#include <algorithm>
#include <sstream>
#include <vector>

namespace korvo::ctl {
namespace {

std::optional<Dictionary> parseLine(const std::vector<std::string>& words, const std::optional<std::string>& transaction) {
    if (words.size() < 4 || words[2] != "via") return std::nullopt;
    Dictionary op{{"action", words[0]}, {"destination", words[1]}, {"gateway", words[3]}, {"isIPv6", false}};
    for (std::size_t i = 4; i < words.size(); ++i) {
        if (words[i] == "inet6") {
            op["isIPv6"] = true;
        } else if ((words[i] == "dev" || words[i] == "transaction") && i + 1 < words.size()) {
            op[words[i] == "dev" ? "interfaceName" : "transactionIdentifier"] = words[i + 1];
            ++i;
        } else {
            return std::nullopt;
        }
    }
    if (transaction && op.count("transactionIdentifier") == 0) op["transactionIdentifier"] = *transaction;
    return op;
}

}  // namespace

Result<Array> parseRouteList(std::string_view text, const std::optional<std::string>& transaction) {
    Array operations;
    std::istringstream lines{std::string(text)};
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        std::istringstream in(line);
        std::vector<std::string> words;
        for (std::string word; in >> word;) words.push_back(word);
        if (words.empty() || words[0].front() == '#') continue;
        auto op = parseLine(words, transaction);
        if (!op) {
            return errorWithKorvoErrorCode(
                64, "line " + std::to_string(number) + " is not 'add|delete DESTINATION via GATEWAY [dev INTERFACE] "
                    "[inet6] [transaction ID]': " + line);
        }
        operations.emplace_back(std::move(*op));
    }
    return operations;
}

std::optional<std::string> takeRouteListWords(std::vector<std::string>& words, Dictionary& arguments) {
    std::optional<std::string> file, transaction;
    std::erase_if(words, [&](const std::string& word) {
        if (word.rfind("routes=", 0) == 0) file = word.substr(7);
        if (word.rfind("transaction=", 0) == 0) transaction = word.substr(12);
        return word.rfind("routes=", 0) == 0 || word.rfind("transaction=", 0) == 0;
    });
    if (!file) return transaction ? std::optional<std::string>("transaction= goes with routes=FILE") : std::nullopt;
    const auto text = readUTF8File(*file);
    if (!text) return "cannot read " + *file + ": " + text.error().displayText();
    auto operations = parseRouteList(*text, transaction);
    if (!operations) return *file + ": " + operations.error().localizedDescription().value_or("");
    arguments["routeOperations"] = std::move(*operations);
    return std::nullopt;
}

}  // namespace korvo::ctl
