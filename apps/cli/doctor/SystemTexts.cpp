#include "doctor/SystemTexts.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace vorrel::cli {
namespace {

std::string Trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t");
    const std::size_t last = text.find_last_not_of(" \t");
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

}  // namespace

bool SystemTexts::Exists(const std::string& path) const {
    std::error_code error;
    return std::filesystem::exists(Path(path), error);
}

std::vector<std::string> SystemTexts::Names(const std::string& directory) const {
    std::vector<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(Path(directory), error), end;
         !error && entry != end; entry.increment(error)) {
        names.push_back(entry->path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::optional<std::string> SystemTexts::Line(const std::string& path) const {
    std::ifstream file(Path(path));
    std::string line;
    if (!file || !std::getline(file, line)) {
        return std::nullopt;
    }
    return line;
}

std::string SystemTexts::Text(const std::string& path) const {
    std::ifstream file(Path(path));
    return {std::istreambuf_iterator<char>(file), {}};
}

std::optional<std::string> SystemTexts::Value(const std::string& path,
                                              const std::string& key) const {
    std::ifstream file(Path(path));
    for (std::string line; std::getline(file, line);) {
        const std::size_t colon = line.find(':');
        if (colon != std::string::npos && Trimmed(line.substr(0, colon)) == key) {
            return Trimmed(line.substr(colon + 1));
        }
    }
    return std::nullopt;
}

int SystemTexts::WhyNoAccess(const std::string& path) const {
    return ::faccessat(AT_FDCWD, Path(path).c_str(), R_OK | W_OK, AT_EACCESS) == 0 ? 0 : errno;
}

}  // namespace vorrel::cli
