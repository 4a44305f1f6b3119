#include "device/alsa/LockedBuffer.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>

#include "platform/Trace.h"

namespace vorrel {

LockedBuffer::LockedBuffer(std::size_t sizeBytes) : size(std::max<std::size_t>(sizeBytes, 1)) {
    pages = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) {
        throw std::bad_alloc();
    }
    locked = ::mlock(pages, size) == 0;
    const int refusal = locked ? 0 : errno;
    // Each page is there from here on, also where it is not kept: the first write finds it.
    const auto pageBytes = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    auto* const bytes = static_cast<volatile std::uint8_t*>(pages);
    for (std::size_t offset = 0; offset < size; offset += pageBytes) {
        bytes[offset] = 0;
    }
    static std::atomic<bool> traced{false};
    if (!locked && !traced.exchange(true)) {
        // Its text is the C library's own: no memory is taken, the pages would be left behind.
        const char* const reason = ::strerrordesc_np(refusal);
        Trace(__FILE__, __LINE__, "capture buffers are not locked in memory: %s", reason);
    }
}

LockedBuffer::~LockedBuffer() {
    ::munmap(pages, size);
}

}  // namespace vorrel
