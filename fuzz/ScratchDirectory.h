#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "Require.h"

namespace vorrel::fuzz {

/// A fresh directory, gone with all that is in it at the end of the process.
class ScratchDirectory {
public:
    ScratchDirectory() {
        const char* const base = std::getenv("TMPDIR");
        path = std::string(base == nullptr ? "/tmp" : base) + "/vorrel-fuzz-XXXXXX";
        Require(::mkdtemp(path.data()) != nullptr);
    }
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    /// Without a "/" at its end.
    const std::string& Path() const { return path; }
    /// Removes what is in it.
    void Empty() const {
        std::error_code ignored;
        for (const auto& entry : std::filesystem::directory_iterator(path, ignored)) {
            std::filesystem::remove_all(entry.path(), ignored);
        }
    }

private:
    std::string path;
};

}  // namespace vorrel::fuzz
