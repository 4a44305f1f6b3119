#pragma once

#include <cstddef>
#include <cstdint>

namespace vorrel {

/// Zeroed memory of its own pages, all of them there from the beginning and kept in memory where
/// the limits allow it: what the IO thread writes into is never fetched from a disk first.
class LockedBuffer {
public:
    /// A refusal to keep it in memory is traced once in a process.
    /// @throws std::bad_alloc.
    explicit LockedBuffer(std::size_t sizeBytes);
    ~LockedBuffer();
    LockedBuffer(const LockedBuffer&) = delete;
    LockedBuffer& operator=(const LockedBuffer&) = delete;

    void* Data() { return pages; }
    std::size_t SizeBytes() const { return size; }
    bool IsLocked() const { return locked; }

private:
    const std::size_t size;
    void* pages = nullptr;
    bool locked = false;
};

}  // namespace vorrel
