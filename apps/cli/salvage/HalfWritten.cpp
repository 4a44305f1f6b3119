#include "salvage/HalfWritten.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

namespace vorrel::cli {
namespace {

constexpr std::string_view kDigits = "0123456789ABCDEF";
constexpr char kEscape = '%';

bool IsPlain(char c) {
    return c >= ' ' && c <= '~' && c != kEscape;
}

bool HasDied(long process) {
    // 0 and below mean whole groups.
    return process > 0 && ::kill(static_cast<pid_t>(process), 0) != 0 && errno == ESRCH;
}

}  // namespace

bool IsStagingName(const std::string& name, long process) {
    const std::string mark = ".partial-" + std::to_string(process);
    const std::size_t at = name.rfind(mark);
    if (name.empty() || name.front() != '.' || at == std::string::npos || at < 2) {
        return false;
    }
    const std::string rest = name.substr(at + mark.size());
    return rest.empty() ||
           (rest.size() > 1 && rest.front() == '-' &&
            std::all_of(rest.begin() + 1, rest.end(), [](char c) { return c >= '0' && c <= '9'; }));
}

std::vector<std::string> FindHalfWritten(const TakeRecord& record) {
    std::vector<std::string> found;
    for (const auto& [process, path] : record.writing) {
        struct stat status {};
        const bool died = record.ended.count(process) != 0 || HasDied(process);
        if (IsStagingName(path.substr(path.rfind('/') + 1), process) && died &&
            ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
            status.st_uid == ::geteuid()) {
            found.push_back(path);
        }
    }
    return found;
}

std::string EncodePath(const std::string& path) {
    std::string text;
    for (const char c : path) {
        if (IsPlain(c)) {
            text += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            text += {kEscape, kDigits[byte >> 4], kDigits[byte & 15]};
        }
    }
    return text;
}

std::string DecodePath(const std::string& text) {
    std::string path;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (IsPlain(text[at])) {
            path += text[at];
            continue;
        }
        const std::string pair = text.substr(at + 1, 2);
        const std::size_t high = pair.size() == 2 ? kDigits.find(pair[0]) : std::string::npos;
        const std::size_t low = pair.size() == 2 ? kDigits.find(pair[1]) : std::string::npos;
        if (text[at] != kEscape || high == std::string::npos || low == std::string::npos ||
            (high == 0 && low == 0)) {
            return "";
        }
        path += static_cast<char>(high * 16 + low);
        at += 2;
    }
    return !path.empty() && path.front() == '/' ? path : "";
}

}  // namespace vorrel::cli
