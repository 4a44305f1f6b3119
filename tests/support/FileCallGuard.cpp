#include "support/FileCallGuard.h"

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "platform/Realtime.h"
#include "vorrel/MainQueue.h"

namespace {

std::atomic<std::size_t> calls{0};
std::atomic<const char*> lastCall{""};

void Note(const char* name) noexcept {
    if (vorrel::RealtimeScope::Active()) {
        calls.fetch_add(1, std::memory_order_relaxed);
        lastCall.store(name, std::memory_order_relaxed);
    }
}

void NoteDescriptor(const char* name, int descriptor) noexcept {
    if (vorrel::RealtimeScope::Active() && descriptor != vorrel::MainQueue::Descriptor()) {
        Note(name);
    }
}

}  // namespace

// The linker's names for a call that was sent here and for the function itself.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

#define VORREL_TEST_WRAP(result, name, parameters, arguments) \
    result __real_##name parameters;                          \
    result __wrap_##name parameters;                          \
    result __wrap_##name parameters {                         \
        Note(#name);                                          \
        return __real_##name arguments;                       \
    }

VORREL_TEST_WRAP(int, close, (int descriptor), (descriptor))
VORREL_TEST_WRAP(ssize_t, pread, (int descriptor, void* buffer, std::size_t size, off_t offset),
                 (descriptor, buffer, size, offset))
VORREL_TEST_WRAP(ssize_t, pwrite,
                 (int descriptor, const void* buffer, std::size_t size, off_t offset),
                 (descriptor, buffer, size, offset))
VORREL_TEST_WRAP(int, fsync, (int descriptor), (descriptor))
VORREL_TEST_WRAP(std::FILE*, fopen, (const char* path, const char* mode), (path, mode))
VORREL_TEST_WRAP(int, fclose, (std::FILE * file), (file))
VORREL_TEST_WRAP(std::size_t, fread,
                 (void* buffer, std::size_t size, std::size_t count, std::FILE* file),
                 (buffer, size, count, file))
VORREL_TEST_WRAP(std::size_t, fwrite,
                 (const void* buffer, std::size_t size, std::size_t count, std::FILE* file),
                 (buffer, size, count, file))
VORREL_TEST_WRAP(int, fflush, (std::FILE * file), (file))
VORREL_TEST_WRAP(int, fseeko, (std::FILE * file, off_t offset, int whence), (file, offset, whence))
VORREL_TEST_WRAP(int, mkstemp, (char* pattern), (pattern))
VORREL_TEST_WRAP(int, unlink, (const char* path), (path))
VORREL_TEST_WRAP(int, mkdir, (const char* path, mode_t mode), (path, mode))
VORREL_TEST_WRAP(int, nanosleep, (const timespec* duration, timespec* left), (duration, left))
VORREL_TEST_WRAP(int, usleep, (useconds_t microseconds), (microseconds))

#undef VORREL_TEST_WRAP

ssize_t __real_read(int descriptor, void* buffer, std::size_t size);
ssize_t __wrap_read(int descriptor, void* buffer, std::size_t size);
ssize_t __wrap_read(int descriptor, void* buffer, std::size_t size) {
    NoteDescriptor("read", descriptor);
    return __real_read(descriptor, buffer, size);
}

ssize_t __real_write(int descriptor, const void* buffer, std::size_t size);
ssize_t __wrap_write(int descriptor, const void* buffer, std::size_t size);
ssize_t __wrap_write(int descriptor, const void* buffer, std::size_t size) {
    NoteDescriptor("write", descriptor);
    return __real_write(descriptor, buffer, size);
}

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
    Note("open");
    // As the function itself does: the mode is there only when it may be needed.
    if ((flags & (O_CREAT | O_TMPFILE)) == 0) {
        return __real_open(path, flags);
    }
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    return __real_open(path, flags, mode);
}

int __real_openat(int directory, const char* path, int flags, ...);
int __wrap_openat(int directory, const char* path, int flags, ...);
int __wrap_openat(int directory, const char* path, int flags, ...) {
    Note("openat");
    if ((flags & (O_CREAT | O_TMPFILE)) == 0) {
        return __real_openat(directory, path, flags);
    }
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    return __real_openat(directory, path, flags, mode);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

namespace vorrel::test {

FileCallGuard::FileCallGuard() : countAtStart(calls.load()) {}

std::size_t FileCallGuard::Count() const {
    return calls.load() - countAtStart;
}

std::string FileCallGuard::Last() {
    return lastCall.load();
}

}  // namespace vorrel::test
