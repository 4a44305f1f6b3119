#include "support/faults/Faults.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <iconv.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/uio.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>

#include "platform/Realtime.h"

namespace {

using vorrel::test::Call;
using vorrel::test::Fault;

// The armed fault. Written while nothing is armed.
std::atomic<bool> armed{false};
Fault* fault = nullptr;
std::atomic<std::uint64_t> seen{0};
std::atomic<std::uint64_t> met{0};
std::atomic<int> inside{0};  // calls that look at the fault right now

const pthread_t testThread = ::pthread_self();
thread_local int hostCalls = 0;
thread_local bool letAlone = false;

bool IsEngines() {
    return !letAlone && (hostCalls > 0 || ::pthread_equal(::pthread_self(), testThread) == 0);
}

enum class Outcome { GoOn, BeShort, Fail };

/// What becomes of this call; for a failure, `errno` says why.
Outcome Meet(Call call) {
    if (!armed.load(std::memory_order_acquire) || !IsEngines()) {
        return Outcome::GoOn;
    }
    // Seen by `Disarm`, which waits until nobody looks any more.
    inside.fetch_add(1);
    Outcome outcome = Outcome::GoOn;
    if (armed.load() && (fault->call == call || (fault->call == Call::AnyFileCall &&
                                                 call != Call::Memory && call != Call::Thread))) {
        const std::uint64_t number = seen.fetch_add(1) + 1;
        if (number == fault->nth || (fault->forGood && number > fault->nth)) {
            met.fetch_add(1);
            if (fault->action) {
                letAlone = true;
                fault->action();
                letAlone = false;
            }
            if (fault->action && !fault->failsToo) {
                outcome = Outcome::GoOn;
            } else if (fault->isShort && number == fault->nth) {
                outcome = Outcome::BeShort;
            } else {
                outcome = Outcome::Fail;
                errno = fault->error;
            }
        }
    }
    inside.fetch_sub(1);
    return outcome;
}

bool Fails(Call call) {
    return Meet(call) == Outcome::Fail;
}

std::size_t Half(std::size_t bytes) {
    return std::max<std::size_t>(bytes / 2, std::min<std::size_t>(bytes, 1));
}

// The files behind the streams, so that what the C library does by itself can be met too.
struct Behind {
    std::FILE* stream = nullptr;
    int descriptor = -1;
};
std::mutex behindMutex;
std::array<Behind, 4096> behind;

Behind* FindBehind(const std::FILE* stream) {
    const auto found = std::find_if(behind.begin(), behind.end(),
                                    [stream](const Behind& one) { return one.stream == stream; });
    return found == behind.end() ? nullptr : &*found;
}

ssize_t StreamRead(void* cookie, char* buffer, std::size_t size) {
    if (Fails(Call::Read)) {
        return -1;
    }
    return ::read(static_cast<Behind*>(cookie)->descriptor, buffer, size);
}

/// As the C library does it: goes on behind what was written, and gives up at the first failure.
ssize_t StreamWrite(void* cookie, const char* buffer, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
        const Outcome outcome = Meet(Call::Write);
        if (outcome == Outcome::Fail) {
            break;
        }
        const std::size_t wanted = outcome == Outcome::BeShort ? Half(size - done) : size - done;
        const ssize_t count =
            ::write(static_cast<Behind*>(cookie)->descriptor, buffer + done, wanted);
        if (count <= 0) {
            break;
        }
        done += static_cast<std::size_t>(count);
    }
    return static_cast<ssize_t>(done);
}

int StreamSeek(void* cookie, off64_t* offset, int whence) {
    if (Fails(Call::Seek)) {
        return -1;
    }
    const off64_t position = ::lseek64(static_cast<Behind*>(cookie)->descriptor, *offset, whence);
    if (position < 0) {
        return -1;
    }
    *offset = position;
    return 0;
}

int StreamClose(void* cookie) {
    auto* const one = static_cast<Behind*>(cookie);
    const int descriptor = one->descriptor;
    {
        const std::lock_guard lock(behindMutex);
        *one = {};
    }
    // The descriptor is gone all the same, as after a real failure.
    const int result = ::close(descriptor);
    return Fails(Call::Close) ? -1 : result;
}

std::FILE* MakeStream(int descriptor, const char* mode) {
    const std::lock_guard lock(behindMutex);
    Behind* const one = FindBehind(nullptr);
    if (one == nullptr) {
        std::abort();
    }
    std::FILE* const stream =
        ::fopencookie(one, mode, {&StreamRead, &StreamWrite, &StreamSeek, &StreamClose});
    if (stream != nullptr) {
        *one = {stream, descriptor};
    }
    return stream;
}

template <class Function>
Function Next(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

// The linker's names for a call that was sent here and for the function itself.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

#define VORREL_TEST_WRAP(result, failure, call, name, parameters, arguments) \
    result __real_##name parameters;                                         \
    result __wrap_##name parameters;                                         \
    result __wrap_##name parameters {                                        \
        return Fails(call) ? (failure) : __real_##name arguments;            \
    }

VORREL_TEST_WRAP(int, -1, Call::MakeFile, mkostemp, (char* pattern, int flags), (pattern, flags))
VORREL_TEST_WRAP(int, -1, Call::Stat, stat, (const char* path, struct stat* status), (path, status))
VORREL_TEST_WRAP(int, -1, Call::FreeSpace, statvfs, (const char* path, struct statvfs* volume),
                 (path, volume))
VORREL_TEST_WRAP(int, -1, Call::FileSystem, statfs, (const char* path, struct statfs* volume),
                 (path, volume))
VORREL_TEST_WRAP(int, -1, Call::MakeDirectory, mkdir, (const char* path, mode_t mode), (path, mode))
VORREL_TEST_WRAP(int, -1, Call::RemoveDirectory, rmdir, (const char* path), (path))
VORREL_TEST_WRAP(int, -1, Call::Unlink, unlink, (const char* path), (path))
VORREL_TEST_WRAP(int, -1, Call::Remove, unlinkat, (int directory, const char* path, int flags),
                 (directory, path, flags))
VORREL_TEST_WRAP(DIR*, nullptr, Call::List, opendir, (const char* path), (path))
// The failure value is a pointer made of -1 by its definition.
VORREL_TEST_WRAP(iconv_t, reinterpret_cast<iconv_t>(-1), Call::Encoding, iconv_open,
                 (const char* to, const char* from), (to, from))

#undef VORREL_TEST_WRAP

std::FILE* __real_fopen(const char* path, const char* mode);
std::FILE* __wrap_fopen(const char* path, const char* mode);
std::FILE* __wrap_fopen(const char* path, const char* mode) {
    if (Fails(Call::Open)) {
        return nullptr;
    }
    std::FILE* const opened = __real_fopen(path, mode);
    if (opened == nullptr) {
        return nullptr;
    }
    const int descriptor = ::fcntl(::fileno_unlocked(opened), F_DUPFD_CLOEXEC, 0);
    ::fclose(opened);
    return MakeStream(descriptor, mode);
}

std::FILE* __wrap_fdopen(int descriptor, const char* mode);
std::FILE* __wrap_fdopen(int descriptor, const char* mode) {
    return Fails(Call::Adopt) ? nullptr : MakeStream(descriptor, mode);
}

int __real_fileno(std::FILE* stream);
int __wrap_fileno(std::FILE* stream);
int __wrap_fileno(std::FILE* stream) {
    {
        const std::lock_guard lock(behindMutex);
        if (const Behind* const one = FindBehind(stream)) {
            return one->descriptor;
        }
    }
    return __real_fileno(stream);
}

ssize_t __real_pwrite(int descriptor, const void* bytes, std::size_t size, off_t offset);
ssize_t __wrap_pwrite(int descriptor, const void* bytes, std::size_t size, off_t offset);
ssize_t __wrap_pwrite(int descriptor, const void* bytes, std::size_t size, off_t offset) {
    switch (Meet(Call::WriteAt)) {
        case Outcome::Fail:
            return -1;
        case Outcome::BeShort:
            return __real_pwrite(descriptor, bytes, Half(size), offset);
        case Outcome::GoOn:
            break;
    }
    return __real_pwrite(descriptor, bytes, size, offset);
}

ssize_t __real_writev(int descriptor, const iovec* pieces, int count);
ssize_t __wrap_writev(int descriptor, const iovec* pieces, int count);
ssize_t __wrap_writev(int descriptor, const iovec* pieces, int count) {
    switch (Meet(Call::WriteMany)) {
        case Outcome::Fail:
            return -1;
        case Outcome::BeShort: {
            // Ends in the middle of a piece, where there is more than a byte.
            const iovec first = {pieces[0].iov_base, Half(pieces[0].iov_len)};
            return __real_writev(descriptor, &first, 1);
        }
        case Outcome::GoOn:
            break;
    }
    return __real_writev(descriptor, pieces, count);
}

// What the C++ library calls by itself, and thus not by the linker's names. It finds the program's
// symbols before those of the C library, if they can be seen.

#pragma GCC visibility push(default)

int remove(const char* path) noexcept {
    static const auto next = Next<int (*)(const char*)>("remove");
    return Fails(Call::Remove) ? -1 : next(path);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) noexcept {
    static const auto next =
        Next<int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
    return Fails(Call::Thread) ? EAGAIN : next(thread, attributes, body, argument);
}

#pragma GCC visibility pop

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

namespace {

bool Grants(std::size_t /*bytes*/) noexcept {
    return vorrel::RealtimeScope::Active() || !Fails(Call::Memory);
}

void Allocated(void* /*block*/) noexcept {}

void BeforeFree(void* /*block*/) noexcept {}

}  // namespace

#include "support/ReplacedNew.h"

namespace vorrel::test {

const char* NameOf(Call call) {
    constexpr std::array kNames = {
        "open",   "make file", "adopt", "write",    "write at", "writev", "read",
        "seek",   "close",     "stat",  "statvfs",  "statfs",   "mkdir",  "rmdir",
        "unlink", "remove",    "list",  "encoding", "thread",   "memory", "any file call"};
    return kNames[static_cast<std::size_t>(call)];
}

ArmedFault::ArmedFault(const Fault& toArm) {
    if (armed.load()) {
        std::abort();
    }
    fault = new Fault(toArm);
    seen = 0;
    met = 0;
    armed = true;
}

ArmedFault::~ArmedFault() {
    Disarm();
    delete std::exchange(fault, nullptr);
}

void ArmedFault::Disarm() {
    armed = false;
    while (inside.load() != 0) {
        ::sched_yield();
    }
}

std::uint64_t ArmedFault::Met() const {
    return met.load();
}

HostCall::HostCall() {
    ++hostCalls;
}

HostCall::~HostCall() {
    --hostCalls;
}

}  // namespace vorrel::test
