#include "writer/OtherSystem.h"

#include <iconv.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>

#include <cerrno>
#include <cstdlib>
#include <optional>

// Calls of everything that is linked statically come here first.
extern "C" {
iconv_t __real_iconv_open(const char* to, const char* from);
iconv_t __wrap_iconv_open(const char* to, const char* from);
int __real_iconv_close(iconv_t descriptor);
int __wrap_iconv_close(iconv_t descriptor);
int __real_statfs(const char* path, struct statfs* volume);
int __wrap_statfs(const char* path, struct statfs* volume);
int __real_statvfs(const char* path, struct statvfs* volume);
int __wrap_statvfs(const char* path, struct statvfs* volume);
}

namespace {

constexpr std::int64_t kFatMagic = 0x4d44;

int noEncodings = 0;  // the cause
std::optional<std::uint64_t> fatBlocks;

}  // namespace

iconv_t __wrap_iconv_open(const char* to, const char* from) {
    if (noEncodings != 0) {
        errno = noEncodings;
        return reinterpret_cast<iconv_t>(-1);  // the failure value, by its definition
    }
    return __real_iconv_open(to, from);
}

int __wrap_iconv_close(iconv_t descriptor) {
    if (reinterpret_cast<std::intptr_t>(descriptor) == -1) {
        std::abort();  // not every C library takes what was never opened
    }
    return __real_iconv_close(descriptor);
}

int __wrap_statfs(const char* path, struct statfs* volume) {
    const int result = __real_statfs(path, volume);
    if (fatBlocks.has_value()) {
        volume->f_type = kFatMagic;
        volume->f_blocks = *fatBlocks;
    }
    return result;
}

int __wrap_statvfs(const char* path, struct statvfs* volume) {
    const int result = __real_statvfs(path, volume);
    if (fatBlocks.has_value()) {
        volume->f_blocks = *fatBlocks;
    }
    return result;
}

namespace vorrel::test {

NoEncodings::NoEncodings(int cause) {
    noEncodings = cause;
}
NoEncodings::~NoEncodings() {
    noEncodings = 0;
}

FatVolume::FatVolume(std::uint64_t blocks) {
    fatBlocks = blocks;
}
FatVolume::~FatVolume() {
    fatBlocks.reset();
}

}  // namespace vorrel::test
