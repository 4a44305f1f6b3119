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
#include <new>
#include <optional>
#include <thread>
#include <tuple>
#include <utility>

#include "ExitCode.h"
#include "TakeDirectory.h"
#include "salvage/TakeJournal.h"

namespace vorrel::cli {
namespace {

constexpr int kLockAttempts = 20;
constexpr std::chrono::milliseconds kLockPause(10);

int OpenDirectory(const std::string& path) {
    return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

/// The directory, -1 = there is none of this user's.
int OpenOwn(const std::string& path) {
    const int descriptor = OpenDirectory(path);
    struct stat status {};
    if (descriptor >= 0 && (::fstat(descriptor, &status) != 0 || status.st_uid != ::geteuid())) {
        ::close(descriptor);
        return -1;
    }
    return descriptor;
}

bool IsInUse(int descriptor) {
    // Given back at once; its owner, should it be about to take it, waits for so long. Shared, so
    // that two who look do not hide it from each other.
    const bool free = ::flock(descriptor, LOCK_SH | LOCK_NB) == 0;
    if (free) {
        ::flock(descriptor, LOCK_UN);
    }
    return !free;
}

/// Calls `look` with path and descriptor, which it has to close, of everything in `base` that is
/// called as a take's directory and belongs to this user.
template <typename Look>
void ForEachOfOurNaming(const std::string& base, Look look) {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(base, error), end; !error && entry != end;
         entry.increment(error)) {
        if (!IsTakeName(entry->path().filename().string())) {
            continue;
        }
        if (const int descriptor = OpenOwn(entry->path().string()); descriptor >= 0) {
            look(entry->path().string(), descriptor);
        }
    }
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

std::vector<std::string> LeftoverLock::DeleteTake() const {
    const int again = ::openat(descriptor, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (again < 0) {
        throw Failure(ExitCode::Storage,
                      std::string("the take cannot be deleted: ") + std::strerror(errno));
    }
    return TakeDirectory(again).DeleteOurs();
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
    {
        // The lock goes with the object, so that nobody takes it for left behind before.
        TakeDirectory directory(std::exchange(lock, -1));
        if (!path.empty() && !kept && ::rmdir(path.c_str()) != 0) {
            try {
                std::ignore = directory.DeleteOurs();
                ::rmdir(path.c_str());
            } catch (const std::bad_alloc&) {
                // It is found as left behind.
            }
        }
    }
    if (!kept) {
        path.clear();
    }
}

std::vector<Leftover> PrivateDirectory::FindLeftovers(const std::string& base) {
    std::vector<Leftover> found;
    const Machine now = ThisMachine();
    ForEachOfOurNaming(base, [&found, &now](const std::string& directory, int descriptor) {
        const bool used = IsInUse(descriptor);
        const TakeContents contents = TakeDirectory(descriptor).Look();
        const std::optional<TakeRecord> record =
            !used && contents.hasJournal ? TakeJournal::Read(directory) : std::nullopt;
        // A name proves nothing. Where there is something else, the journal has to.
        if (!used && !contents.ours.empty() && (contents.foreign.empty() || record)) {
            const bool elsewhere = record && IsElsewhere(record->machine, now);
            found.push_back(
                {directory, contents.spillBytes, elsewhere ? record->machine.host : ""});
        }
    });
    std::sort(found.begin(), found.end(),
              [](const Leftover& one, const Leftover& other) { return one.path < other.path; });
    return found;
}

std::vector<std::string> PrivateDirectory::FindUsed(const std::string& base) {
    std::vector<std::string> found;
    ForEachOfOurNaming(base, [&found](const std::string& directory, int descriptor) {
        if (IsInUse(descriptor)) {
            found.push_back(directory);
        }
        ::close(descriptor);
    });
    return found;
}

}  // namespace vorrel::cli
