// An application bundle on disk: BUNDLE/Contents/MacOS/NAME for executables,
// Contents/Resources/NAME.TYPE for resources, Contents/Frameworks for private
// frameworks. The same layout is used on Linux.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace korvo {

class Bundle {
public:
    // The bundle at path, or nullopt when path is not a directory with a
    // Contents directory inside.
    static std::optional<Bundle> bundleWithPath(const std::string& path);

    const std::string& bundlePath() const { return path_; }
    // Contents/MacOS/name when that file exists.
    std::optional<std::string> pathForAuxiliaryExecutable(std::string_view name) const;
    // Contents/Resources/name.type when that file exists.
    std::optional<std::string> pathForResource(std::string_view name, std::string_view type) const;
    // Contents/Frameworks, whether or not it exists.
    std::string privateFrameworksPath() const;

private:
    explicit Bundle(std::string path) : path_(std::move(path)) {}
    std::string path_;
};

}  // namespace korvo
