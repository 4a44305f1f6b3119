#include "TakeDirectory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace vorrel::cli {
namespace {

constexpr std::string_view kSpillPrefix = "tmp";
constexpr std::string_view kTakePrefix = "vorrel-";
constexpr std::size_t kUniqueCharacters = 6;

bool IsUnique(std::string_view name, std::string_view prefix) {
    // Not isalnum: what a letter is must not depend on the locale.
    const auto drawn = [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    };
    return name.size() == prefix.size() + kUniqueCharacters &&
           name.substr(0, prefix.size()) == prefix &&
           std::all_of(name.begin() + static_cast<std::ptrdiff_t>(prefix.size()), name.end(),
                       drawn);
}

}  // namespace

bool IsSpillName(std::string_view name) {
    return IsUnique(name, kSpillPrefix);
}

bool IsTakeName(std::string_view name) {
    return IsUnique(name, kTakePrefix);
}

TakeDirectory::TakeDirectory(int descriptor) noexcept
    : directory(descriptor < 0 ? nullptr : ::fdopendir(descriptor)) {
    if (directory == nullptr && descriptor >= 0) {
        ::close(descriptor);
    }
}

TakeDirectory::~TakeDirectory() {
    if (directory != nullptr) {
        ::closedir(directory);
    }
}

TakeContents TakeDirectory::Look() {
    TakeContents contents;
    if (directory == nullptr) {
        return contents;
    }
    ::rewinddir(directory);
    while (const dirent* entry = ::readdir(directory)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        struct stat status {};
        const bool regular =
            ::fstatat(::dirfd(directory), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(status.st_mode);
        if (regular && name == kJournalName) {
            contents.hasJournal = true;
            contents.ours.push_back(name);
        } else if (regular && IsSpillName(name)) {
            contents.spillBytes += static_cast<std::uint64_t>(status.st_size);
            contents.ours.insert(contents.ours.begin(), name);
        } else {
            contents.foreign.push_back(name);
        }
    }
    std::sort(contents.foreign.begin(), contents.foreign.end());
    return contents;
}

std::vector<std::string> TakeDirectory::DeleteOurs() {
    const TakeContents contents = Look();
    std::vector<std::string> staying = contents.foreign;
    for (const std::string& name : contents.ours) {
        if (::unlinkat(::dirfd(directory), name.c_str(), 0) != 0 && errno != ENOENT) {
            staying.push_back(name);
        }
    }
    return staying;
}

}  // namespace vorrel::cli
