#include "support/AllocationLimit.h"

#include <malloc.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

using Threads = vorrel::test::AllocationLimit::Threads;

/// What is refused, by its size.
struct Limit {
    std::atomic<std::size_t> refused{SIZE_MAX};
    std::atomic<std::size_t> granted{SIZE_MAX};

    bool Refuses(std::size_t bytes) const { return bytes >= refused && bytes < granted; }
};
thread_local Limit own;
Limit everybodys;
thread_local std::size_t toTheRefused = 0;  // allocations, with the refused one; 0: none
std::atomic<std::size_t> heldBytes{0};

void* Allocate(std::size_t bytes, std::size_t alignment) {
    if (own.Refuses(bytes) || everybodys.Refuses(bytes) ||
        (toTheRefused > 0 && --toTheRefused == 0)) {
        throw std::bad_alloc();
    }
    // aligned_alloc asks for a multiple of the alignment.
    const std::size_t rounded = (bytes + alignment - 1) / alignment * alignment;
    void* const memory = std::aligned_alloc(alignment, rounded == 0 ? alignment : rounded);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    heldBytes += ::malloc_usable_size(memory);
    return memory;
}

void Free(void* memory) noexcept {
    heldBytes -= ::malloc_usable_size(memory);
    std::free(memory);
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
void operator delete[](void* memory) noexcept {
    Free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    Free(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept {
    Free(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
    Free(memory);
}
void operator delete(void* memory) noexcept {
    Free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    Free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
    Free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    Free(memory);
}

namespace vorrel::test {

AllocationLimit::AllocationLimit(std::size_t bytes, std::size_t granted, Threads threads) {
    Limit& limit = threads == Threads::This ? own : everybodys;
    limit.granted = granted;
    limit.refused = bytes;
}
AllocationLimit::~AllocationLimit() {
    own.refused = SIZE_MAX;
    everybodys.refused = SIZE_MAX;
}

RefusedAllocation::RefusedAllocation(std::size_t nth) {
    toTheRefused = nth;
}
RefusedAllocation::~RefusedAllocation() {
    toTheRefused = 0;
}
bool RefusedAllocation::WasMet() const {
    return toTheRefused == 0;
}

std::size_t HeldBytes() {
    return heldBytes;
}

}  // namespace vorrel::test
