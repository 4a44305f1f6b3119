#pragma once

#include <filesystem>
#include <string>

namespace vorrel {

/// False, with the path and the reason in `problem`, for what is there but no regular file: opening
/// a pipe would wait for its other end.
inline bool IsRegular(const std::string& path, std::string& problem) {
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(path, error);
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
        problem = path + ": no regular file";
        return false;
    }
    return true;
}

}  // namespace vorrel
