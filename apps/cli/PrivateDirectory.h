#pragma once

#include <string>

namespace vorrel::cli {

/// A fresh directory that only this process uses, removed with all that is in it. The engine clears
/// its directory of other people's leftovers, so it must never be given a shared one.
class PrivateDirectory {
public:
    /// @param base  An existing directory; "" = $TMPDIR where that is a directory, else /tmp.
    /// @throws Failure: usage (`base` is no directory), storage (it takes no directory).
    explicit PrivateDirectory(const std::string& base);
    ~PrivateDirectory() { Remove(); }
    PrivateDirectory(const PrivateDirectory&) = delete;
    PrivateDirectory& operator=(const PrivateDirectory&) = delete;

    const std::string& Path() const { return path; }
    void Remove() noexcept;

private:
    std::string path;
};

}  // namespace vorrel::cli
