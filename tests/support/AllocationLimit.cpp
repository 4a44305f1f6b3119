#include "support/AllocationLimit.h"

#include <malloc.h>

#include <atomic>
#include <cstdint>

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

bool Grants(std::size_t bytes) noexcept {
    return !own.Refuses(bytes) && !everybodys.Refuses(bytes) &&
           (toTheRefused == 0 || --toTheRefused > 0);
}

void Allocated(void* block) noexcept {
    heldBytes += ::malloc_usable_size(block);
}

void BeforeFree(void* block) noexcept {
    heldBytes -= ::malloc_usable_size(block);
}

}  // namespace

#include "support/ReplacedNew.h"

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
