#include "salvage/SpillSync.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>
#include <tuple>
#include <utility>

#include "TakeDirectory.h"

namespace vorrel::cli {
namespace {

/// Whether an error is one of the moment: a file that has just gone, descriptors that are all out.
bool Passes(int error) {
    return error == ENOENT || error == EMFILE || error == ENFILE || error == EINTR;
}

}  // namespace

struct SpillSync::Shared {
    Shared(std::string place, std::chrono::milliseconds between, Sync call)
        : directory(std::move(place)), period(between), sync(std::move(call)) {}

    void Run() {
        std::unique_lock lock(mutex);
        while (!ended.wait_for(lock, period, [this] { return ending; })) {
            lock.unlock();
            int error = 0;
            try {
                error = SyncGrown();
            } catch (const std::exception&) {
                // Short of memory; the next look makes up for it.
            }
            lock.lock();
            if (error != 0 && !failed) {
                failed = true;
                failure = std::strerror(error);
            }
        }
    }

    void Fail(const std::string& reason) {
        const std::lock_guard lock(mutex);
        failed = true;
        failure = reason;
    }

    bool IsEnding() {
        const std::lock_guard lock(mutex);
        return ending;
    }

    /// @return 0 or the errno of what did not come to the disk.
    int SyncGrown() {
        const int descriptor =
            ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (descriptor < 0) {
            return Passes(errno) ? 0 : errno;
        }
        const std::unique_ptr<DIR, int (*)(DIR*)> entries(::fdopendir(descriptor), &::closedir);
        if (!entries) {
            ::close(descriptor);
            return 0;
        }
        int failedWith = 0;
        bool fresh = false;
        while (const dirent* entry = IsEnding() ? nullptr : ::readdir(entries.get())) {
            const std::string name = entry->d_name;
            struct stat status {};
            if ((!IsSpillName(name) && name != kJournalName) ||
                ::fstatat(descriptor, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
                !S_ISREG(status.st_mode)) {
                continue;
            }
            const auto known = sizes.find(name);
            if (known != sizes.end() && known->second == status.st_size) {
                continue;
            }
            fresh = fresh || known == sizes.end();
            if (const int error = SyncFile(descriptor, name); error == 0) {
                sizes[name] = status.st_size;
            } else if (!Passes(error)) {
                failedWith = error;
            }
        }
        if (fresh) {
            std::ignore = ::fsync(descriptor);  // the names; not every file system knows of it
        }
        return failedWith;
    }

    /// @return 0 or an errno.
    int SyncFile(int in, const std::string& name) const {
        const int file = ::openat(in, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        if (file < 0) {
            return errno;
        }
        const int error = sync(file) == 0 ? 0 : errno;
        ::close(file);
        return error;
    }

    const std::string directory;
    const std::chrono::milliseconds period;
    const Sync sync;
    std::map<std::string, off_t> sizes;  // that have come to the disk; the thread's own
    std::mutex mutex;                    // never held across a file
    std::condition_variable ended;
    std::string failure;  // not yet told
    bool failed = false;
    bool ending = false;
};

SpillSync::SpillSync(const std::string& directory, std::chrono::milliseconds period, Sync sync)
    : shared(std::make_shared<Shared>(directory, period, std::move(sync))) {
    try {
        std::thread([kept = shared] { kept->Run(); }).detach();
    } catch (const std::system_error& error) {
        shared->Fail(error.code().message());
    }
}

SpillSync::~SpillSync() {
    const std::lock_guard lock(shared->mutex);
    shared->ending = true;
    shared->ended.notify_all();
}

std::string SpillSync::TakeFailure() {
    const std::lock_guard lock(shared->mutex);
    return std::exchange(shared->failure, "");
}

int SpillSync::DataSync(int descriptor) {
    return ::fdatasync(descriptor);
}

}  // namespace vorrel::cli
