// korvoctl: sends one request to the helper, as the client application does.
//   korvoctl [--no-reply] [--timeout SECONDS] OPERATION [KEY=VALUE ...]
//   korvoctl configureRoutes routes=FILE [transaction=ID]
//   korvoctl transactions [DIRECTORY]
//   korvoctl dns
//   korvoctl --help | --version | --write-docs DIRECTORY
// Every operation of the helper's table is a subcommand, with its keys.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "DnsStatus.h"
#include "InterfaceDocs.h"
#include "KorvoClient.h"
#include "KorvoVersion.h"
#include "RouteList.h"
#include "transactions/TransactionListing.h"
#include "util/Protocol.h"

namespace {

constexpr int kExitSuccess = 0;
constexpr int kExitErrorReply = 1;
constexpr int kExitUsage = 2;

void printUsage(std::FILE* out) {
    std::fprintf(out,
                 "usage: korvoctl [--no-reply] [--timeout SECONDS] OPERATION [KEY=VALUE ...]\n"
                 "       korvoctl configureRoutes routes=FILE [transaction=ID]\n"
                 "       korvoctl transactions [DIRECTORY]\n"
                 "       korvoctl dns\n"
                 "       korvoctl --version | --write-docs DIRECTORY\n\n"
                 "Sends one request to the Korvo helper on the system bus and prints the reply.\n"
                 "Arrays are comma-separated (KEY= is an empty one); @FILE reads a property list.\n"
                 "routes=FILE: one route a line, 'add|delete DESTINATION via GATEWAY [dev INTERFACE]\n"
                 "[inet6] [transaction ID]'. transactions: what the helper would undo, read from its\n"
                 "store (default /var/run/Korvo/network-transactions).\n"
                 "dns: the published DNS settings and what the resolver got, read the same way.\n\n"
                 "operations:\n");
    for (const auto& op : korvo::helperOperations()) std::fprintf(out, "  %s\n", korvo::ctl::operationUsage(op).c_str());
}

// The transactions on disk, as the helper would load them.
int listTransactions(const std::vector<std::string>& rest) {
    const std::string directory = rest.empty() ? "/var/run/Korvo/network-transactions" : rest.front();
    const auto summaries = korvo::readTransactionStore(directory);
    if (!summaries) {
        std::fprintf(stderr, "korvoctl: %s\n", summaries.error().displayText().c_str());
        return kExitErrorReply;
    }
    std::fputs(korvo::formatTransactionSummaries(*summaries).c_str(), stdout);
    return kExitSuccess;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    bool expectReply = true;
    long timeoutSeconds = 60;
    std::size_t i = 0;
    for (; i < args.size() && args[i].rfind("--", 0) == 0; ++i) {
        if (args[i] == "--help") {
            printUsage(stdout);
            return kExitSuccess;
        } else if (args[i] == "--version") {
            std::printf("korvoctl %s\n", KORVO_VERSION);
            return kExitSuccess;
        } else if (args[i] == "--no-reply") {
            expectReply = false;
        } else if (args[i] == "--timeout" && i + 1 < args.size()) {
            char* end = nullptr;
            timeoutSeconds = std::strtol(args[++i].c_str(), &end, 10);
            if (*end != '\0' || timeoutSeconds <= 0) {
                std::fprintf(stderr, "korvoctl: --timeout takes a number of seconds\n");
                return kExitUsage;
            }
        } else if (args[i] == "--write-docs" && i + 1 < args.size()) {
            if (auto problem = korvo::ctl::writeInterfaceDocs(args[i + 1])) {
                std::fprintf(stderr, "korvoctl: %s\n", problem->c_str());
                return kExitErrorReply;
            }
            return kExitSuccess;
        } else {
            printUsage(stderr);
            return kExitUsage;
        }
    }
    if (i == args.size()) {
        printUsage(stderr);
        return kExitUsage;
    }

    if (args[i] == "dns" && i + 1 == args.size()) {
        return korvo::ctl::showDnsStatus("/var/run/Korvo", stdout, stderr);
    }
    if (args[i] == "transactions") return listTransactions({args.begin() + static_cast<std::ptrdiff_t>(i) + 1, args.end()});
    const korvo::Operation* operation = korvo::findOperation(args[i]);
    if (operation == nullptr) {
        std::fprintf(stderr, "korvoctl: unknown operation '%s' (korvoctl --help lists them)\n", args[i].c_str());
        return kExitUsage;
    }
    korvo::Dictionary arguments;
    std::vector<std::string> words(args.begin() + static_cast<std::ptrdiff_t>(i) + 1, args.end());
    std::optional<std::string> problem;
    if (operation->name == "configureRoutes") problem = korvo::ctl::takeRouteListWords(words, arguments);
    if (!problem) problem = korvo::ctl::parseOperationArguments(*operation, words, arguments);
    if (problem) {
        std::fprintf(stderr, "korvoctl: %s\n", problem->c_str());
        return kExitUsage;
    }

    korvo::KorvoClient client;
    const auto outcome = client.call(operation->name, arguments, std::chrono::seconds(timeoutSeconds), expectReply);
    if (outcome.busError) {
        std::fprintf(stderr, "korvoctl: %s: %s\n", outcome.busError->name.c_str(), outcome.busError->message.c_str());
        return kExitErrorReply;
    }
    if (auto it = outcome.reply.find("error"); it != outcome.reply.end()) {
        const auto* dictionary = it->second.asDictionary();
        const auto error = dictionary ? korvo::KorvoError::fromDictionary(*dictionary) : std::nullopt;
        std::fprintf(stderr, "%s\n",
                     error ? korvo::ctl::formatError(*error).c_str()
                           : ("error: " + korvo::ctl::describeValue(it->second)).c_str());
        std::fputs(korvo::ctl::formatReply(outcome.reply).c_str(), stdout);
        return kExitErrorReply;
    }
    std::fputs(korvo::ctl::formatReply(outcome.reply).c_str(), stdout);
    return kExitSuccess;
}
