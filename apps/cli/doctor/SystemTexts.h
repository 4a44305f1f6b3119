#pragma once

#include <optional>
#include <string>
#include <vector>

namespace vorrel::cli {

/// What the system tells in small files and names, below a root that a test may put elsewhere.
class SystemTexts {
public:
    /// @param rootDirectory  "" = the system's own.
    explicit SystemTexts(std::string rootDirectory = "") : root(std::move(rootDirectory)) {}

    /// The path below the root.
    std::string Path(const std::string& path) const { return root + path; }
    bool Exists(const std::string& path) const;
    /// Names in a directory, sorted; none where it cannot be read.
    std::vector<std::string> Names(const std::string& directory) const;
    /// The first line of a file, without its end; none where it cannot be read.
    std::optional<std::string> Line(const std::string& path) const;
    /// All of a file; "" where it cannot be read.
    std::string Text(const std::string& path) const;
    /// The value of "KEY : VALUE" in a file of such lines.
    std::optional<std::string> Value(const std::string& path, const std::string& key) const;
    /// Why this user cannot read and write the file: an errno; 0 = he can.
    int WhyNoAccess(const std::string& path) const;

private:
    std::string root;
};

}  // namespace vorrel::cli
