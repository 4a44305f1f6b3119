#include "support/AllocationGuard.h"

#include <atomic>
#include <cstdlib>
#include <new>

#include "platform/Realtime.h"

namespace {

std::atomic<std::size_t> allocations{0};
std::atomic<std::size_t> frees{0};
std::atomic<int> abortingGuards{0};

void Note(std::atomic<std::size_t>& counter) noexcept {
    if (!vorrel::RealtimeScope::Active()) {
        return;
    }
    counter.fetch_add(1, std::memory_order_relaxed);
    if (abortingGuards.load(std::memory_order_relaxed) > 0) {
        std::abort();
    }
}

void* Allocate(std::size_t size) noexcept {
    Note(allocations);
    return std::malloc(size == 0 ? 1 : size);
}

void* Allocate(std::size_t size, std::align_val_t alignment) noexcept {
    Note(allocations);
    const auto boundary = static_cast<std::size_t>(alignment);
    // The size that `aligned_alloc` takes is a multiple of the alignment.
    const std::size_t rounded = (size + boundary - 1) / boundary * boundary;
    return std::aligned_alloc(boundary, rounded == 0 ? boundary : rounded);
}

void* OrThrow(void* block) {
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void Free(void* block) noexcept {
    if (block == nullptr) {
        return;
    }
    Note(frees);
    std::free(block);
}

}  // namespace

void* operator new(std::size_t size) {
    return OrThrow(Allocate(size));
}
void* operator new[](std::size_t size) {
    return OrThrow(Allocate(size));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return OrThrow(Allocate(size, alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return OrThrow(Allocate(size, alignment));
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return Allocate(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return Allocate(size, alignment);
}

void operator delete(void* block) noexcept {
    Free(block);
}
void operator delete[](void* block) noexcept {
    Free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    Free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    Free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    Free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    Free(block);
}
void operator delete(void* block, std::align_val_t) noexcept {
    Free(block);
}
void operator delete[](void* block, std::align_val_t) noexcept {
    Free(block);
}
void operator delete(void* block, std::size_t, std::align_val_t) noexcept {
    Free(block);
}
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept {
    Free(block);
}
void operator delete(void* block, std::align_val_t, const std::nothrow_t&) noexcept {
    Free(block);
}
void operator delete[](void* block, std::align_val_t, const std::nothrow_t&) noexcept {
    Free(block);
}

namespace vorrel::test {

AllocationGuard::AllocationGuard(OnViolation onViolation)
    : aborts(onViolation == OnViolation::Abort),
      countAtStart(allocations.load()),
      freesAtStart(frees.load()) {
    if (aborts) {
        ++abortingGuards;
    }
}

AllocationGuard::~AllocationGuard() {
    if (aborts) {
        --abortingGuards;
    }
}

std::size_t AllocationGuard::Count() const {
    return allocations.load() - countAtStart;
}

std::size_t AllocationGuard::Frees() const {
    return frees.load() - freesAtStart;
}

}  // namespace vorrel::test
