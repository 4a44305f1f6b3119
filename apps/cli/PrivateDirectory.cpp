#include "PrivateDirectory.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <thread>

#include "ExitCode.h"

namespace vorrel::cli {
namespace {

constexpr std::string_view kPrefix = "vorrel-";
constexpr std::size_t kUniqueCharacters = 6;
constexpr int kLockAttempts = 20;
constexpr std::chrono::milliseconds kLockPause(10);

int OpenDirectory(const std::string& path) {
    return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

bool IsAbandoned(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) ||
        status.st_uid != ::geteuid()) {
        return false;
    }
    const int descriptor = OpenDirectory(path);
    if (descriptor < 0) {
        return false;
    }
    // Given back at once; its owner, should it be about to take it, waits for so long. Shared, so
    // that two who look do not hide it from each other.
    const bool free = ::flock(descriptor, LOCK_SH | LOCK_NB) == 0;
    ::close(descriptor);
    return free;
}

/// Ours in the user's cache directory; "" = it cannot be had.
std::string CacheDirectory() {
    const char* configured = std::getenv("XDG_CACHE_HOME");
    const char* home = std::getenv("HOME");
    std::filesystem::path base;
    // A relative one is to be ignored, says the convention.
    if (configured != nullptr && configured[0] == '/') {
        base = configured;
    } else if (home != nullptr && home[0] == '/') {
        base = std::filesystem::path(home) / ".cache";
    } else {
        return "";
    }
    const std::filesystem::path ours = base / "vorrel";
    std::error_code error;
    std::filesystem::create_directories(base, error);
    if (!error && ::mkdir(ours.c_str(), 0700) != 0 && errno != EEXIST) {
        return "";
    }
    return std::filesystem::is_directory(ours, error) && ::access(ours.c_str(), W_OK | X_OK) == 0
               ? ours.string()
               : "";
}

}  // namespace

std::string TemporaryBase(const std::string& named) {
    std::error_code error;
    std::string base = named;
    if (base.empty()) {
        base = CacheDirectory();
    }
    if (base.empty()) {
        const char* configured = std::getenv("TMPDIR");
        base = configured != nullptr && std::filesystem::is_directory(configured, error)
                   ? configured
                   : "/tmp";
    } else if (!std::filesystem::is_directory(base, error)) {
        throw Failure(ExitCode::Usage, "--temp-dir " + base + ": there is no such directory");
    }
    // Absolute, because the engine keeps the path longer than anybody keeps the working directory.
    const std::filesystem::path absolute = std::filesystem::absolute(base, error);
    if (error) {
        throw Failure(ExitCode::Usage, base + ": the current directory no longer exists");
    }
    return absolute.string();
}

LeftoverLock::LeftoverLock(const std::string& path) : descriptor(OpenDirectory(path)) {
    if (descriptor < 0) {
        throw Failure(ExitCode::Storage, path + ": " + std::strerror(errno));
    }
    bool locked = false;
    for (int attempt = 0; !locked && attempt < kLockAttempts; ++attempt) {
        // Somebody may only be looking at it.
        if (attempt > 0) {
            std::this_thread::sleep_for(kLockPause);
        }
        locked = ::flock(descriptor, LOCK_EX | LOCK_NB) == 0;
    }
    if (!locked) {
        ::close(descriptor);
        throw Failure(ExitCode::Storage, path + " is in use by another program");
    }
}

LeftoverLock::~LeftoverLock() {
    ::close(descriptor);
}

PrivateDirectory::PrivateDirectory(const std::string& base) {
    std::string pattern = (std::filesystem::path(base) / "vorrel-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        const bool full = errno == ENOSPC || errno == EDQUOT;
        throw Failure(
            full ? ExitCode::Storage : ExitCode::Usage,
            "no temporary directory can be made in " + base + ": " + std::strerror(errno));
    }
    path = pattern;
    lock = OpenDirectory(path);
    if (lock < 0) {
        const int error = errno;
        ::rmdir(path.c_str());
        throw Failure(ExitCode::Storage, "the temporary directory " + path +
                                             " cannot be opened: " + std::strerror(error));
    }
    // A volume without locks: nobody can take it for left behind, because nobody gets one.
    while (::flock(lock, LOCK_EX) != 0 && errno == EINTR) {
    }
}

void PrivateDirectory::Remove() noexcept {
    std::error_code error;
    if (!path.empty() && !kept && ::rmdir(path.c_str()) != 0) {
        std::filesystem::remove_all(path, error);
    }
    if (lock >= 0) {
        ::close(lock);  // only now, so that nobody takes it for left behind while it goes
        lock = -1;
    }
    if (error) {
        std::filesystem::remove_all(path, error);  // with one descriptor more to do it
    }
    if (!kept) {
        path.clear();
    }
}

std::vector<Leftover> PrivateDirectory::FindLeftovers(const std::string& base) {
    std::vector<Leftover> found;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(base, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (name.size() != kPrefix.size() + kUniqueCharacters ||
            name.compare(0, kPrefix.size(), kPrefix) != 0 || !IsAbandoned(entry->path().string())) {
            continue;
        }
        Leftover leftover{entry->path().string()};
        bool empty = true;
        std::error_code ignored;
        for (std::filesystem::directory_iterator file(leftover.path, ignored), last;
             !ignored && file != last; file.increment(ignored)) {
            std::error_code unknown;
            // What a link leads to is not in here.
            if (std::filesystem::is_regular_file(file->symlink_status(unknown)) &&
                file->path().extension() != ".jsonl") {
                const std::uintmax_t bytes = file->file_size(unknown);
                leftover.bytes += unknown ? 0 : bytes;
            }
            empty = false;
        }
        if (!empty) {
            found.push_back(leftover);
        }
    }
    std::sort(found.begin(), found.end(),
              [](const Leftover& one, const Leftover& other) { return one.path < other.path; });
    return found;
}

}  // namespace vorrel::cli
