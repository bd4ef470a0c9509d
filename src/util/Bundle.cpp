#include "util/Bundle.h"

#include "util/FileSystem.h"

namespace korvo {

std::optional<Bundle> Bundle::bundleWithPath(const std::string& path) {
    if (path.empty() || !isDirectory(path) || !isDirectory(appendPathComponent(path, "Contents"))) return std::nullopt;
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    return Bundle(std::move(p));
}

std::optional<std::string> Bundle::pathForAuxiliaryExecutable(std::string_view name) const {
    if (name.empty() || name.find('/') != std::string_view::npos) return std::nullopt;
    std::string candidate = appendPathComponent(appendPathComponent(path_, "Contents/MacOS"), name);
    if (!fileExists(candidate) || isDirectory(candidate)) return std::nullopt;
    return candidate;
}

std::optional<std::string> Bundle::pathForResource(std::string_view name, std::string_view type) const {
    if (name.empty() || name.find('/') != std::string_view::npos) return std::nullopt;
    std::string file(name);
    if (!type.empty()) file += "." + std::string(type);
    std::string candidate = appendPathComponent(appendPathComponent(path_, "Contents/Resources"), file);
    if (!fileExists(candidate)) return std::nullopt;
    return candidate;
}

std::string Bundle::privateFrameworksPath() const { return appendPathComponent(path_, "Contents/Frameworks"); }

}  // namespace korvo
