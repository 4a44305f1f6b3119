#include "device/alsa/LockedBuffer.h"

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <new>
#include <string>
#include <system_error>

#include "platform/Trace.h"

namespace vorrel {

LockedBuffer::LockedBuffer(std::size_t sizeBytes) : size(std::max<std::size_t>(sizeBytes, 1)) {
    pages = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) {
        throw std::bad_alloc();
    }
    locked = ::mlock(pages, size) == 0;
    static std::atomic<bool> traced{false};
    if (!locked && !traced.exchange(true)) {
        const std::string reason = std::generic_category().message(errno);
        Trace(__FILE__, __LINE__, "capture buffers are not locked in memory: %s", reason.c_str());
    }
}

LockedBuffer::~LockedBuffer() {
    ::munmap(pages, size);
}

}  // namespace vorrel
