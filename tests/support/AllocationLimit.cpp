#include "support/AllocationLimit.h"

#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t smallestRefused = SIZE_MAX;
thread_local std::size_t smallestGranted = SIZE_MAX;

void* Allocate(std::size_t bytes, std::size_t alignment) {
    if (bytes >= smallestRefused && bytes < smallestGranted) {
        throw std::bad_alloc();
    }
    // aligned_alloc asks for a multiple of the alignment.
    const std::size_t rounded = (bytes + alignment - 1) / alignment * alignment;
    void* const memory = std::aligned_alloc(alignment, rounded == 0 ? alignment : rounded);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

}  // namespace

void* operator new(std::size_t bytes) {
    return Allocate(bytes, alignof(std::max_align_t));
}
void* operator new(std::size_t bytes, std::align_val_t alignment) {
    return Allocate(bytes, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t bytes) {
    return ::operator new(bytes);
}
void* operator new[](std::size_t bytes, std::align_val_t alignment) {
    return ::operator new(bytes, alignment);
}
// Those that a sanitizer brings do not come here by themselves.
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
    try {
        return ::operator new(bytes);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
    return ::operator new(bytes, std::nothrow);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}

namespace vorrel::test {

AllocationLimit::AllocationLimit(std::size_t bytes, std::size_t granted) {
    smallestRefused = bytes;
    smallestGranted = granted;
}
AllocationLimit::~AllocationLimit() {
    smallestRefused = SIZE_MAX;
}

}  // namespace vorrel::test
