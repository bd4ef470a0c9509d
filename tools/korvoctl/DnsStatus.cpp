#include "DnsStatus.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "CommandLine.h"
#include "util/FileSystem.h"
#include "util/PropertyList.h"
#include "util/StoreArea.h"

namespace korvo::ctl {
namespace {

// The same names as the helper's store (platform/linux/dns/LinuxDynamicStore.h).
constexpr const char* kStoreFileName = "store.plist";
constexpr const char* kProjectionFileName = "projection.plist";

std::optional<Value> readPlist(const std::string& path, std::FILE* err, bool* failed) {
    struct stat st {};
    // No file: nothing published yet.
    if (::stat(path.c_str(), &st) != 0 && errno == ENOENT) return std::nullopt;
    const auto bytes = readFile(path);
    if (!bytes) {
        std::fprintf(err, "korvoctl: cannot read %s: %s (run it as root)\n", path.c_str(),
                     bytes.error().displayText().c_str());
        *failed = true;
        return std::nullopt;
    }
    return readPropertyList(std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()));
}

void printProjection(const Dictionary& status, std::FILE* out) {
    const auto backend = stringForKey(status, "Backend").value_or("?");
    const auto takesOver = status.count("TakesOver") ? status.at("TakesOver").boolValue().value_or(false) : false;
    std::fprintf(out, "resolver: %s%s%s\n", backend.c_str(),
                 status.count("Path") ? (" " + *stringForKey(status, "Path")).c_str() : "",
                 takesOver ? " (the VPN takes over all DNS)" : "");
    if (auto problem = stringForKey(status, "Problem")) std::fprintf(out, "  problem: %s\n", problem->c_str());
    if (auto written = stringForKey(status, "Written")) {
        std::fprintf(out, "  written:\n");
        std::size_t start = 0;
        while (start < written->size()) {
            const auto end = std::min(written->find('\n', start), written->size());
            std::fprintf(out, "    %s\n", written->substr(start, end - start).c_str());
            start = end + 1;
        }
    } else if (backend == "resolv.conf") {
        std::fprintf(out, "  the machine's own file is in place\n");
    }
    if (auto it = status.find("Links"); it != status.end() && it->second.asArray()) {
        for (const auto& link : *it->second.asArray()) std::fprintf(out, "  link %s\n", describeValue(link).c_str());
    }
}

}  // namespace

int showDnsStatus(const std::string& runDirectory, std::FILE* out, std::FILE* err) {
    const std::string directory = appendPathComponent(runDirectory, storeDirectoryName(StoreDirectory::DynamicStore));
    bool failed = false;
    const auto store = readPlist(appendPathComponent(directory, kStoreFileName), err, &failed);
    const auto projection = readPlist(appendPathComponent(directory, kProjectionFileName), err, &failed);
    if (failed) return 1;
    std::fprintf(out, "dynamic store:\n");
    const Array* entries = store ? store->asArray() : nullptr;
    if (!entries || entries->empty()) std::fprintf(out, "  (no keys)\n");
    for (const auto& entry : entries ? *entries : Array{}) {
        const Dictionary* d = entry.asDictionary();
        if (!d || !d->count("key") || !d->count("value")) continue;
        std::fprintf(out, "  %s = %s\n", describeValue(d->at("key")).c_str(), describeValue(d->at("value")).c_str());
    }
    if (projection && projection->asDictionary()) {
        printProjection(*projection->asDictionary(), out);
    } else {
        std::fprintf(out, "resolver: nothing projected yet\n");
    }
    return 0;
}

}  // namespace korvo::ctl
