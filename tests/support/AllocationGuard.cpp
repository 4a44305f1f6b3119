#include "support/AllocationGuard.h"

#include <atomic>
#include <cstdlib>

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

bool Grants(std::size_t /*bytes*/) noexcept {
    Note(allocations);
    return true;
}

void Allocated(void* /*block*/) noexcept {}

void BeforeFree(void* /*block*/) noexcept {
    Note(frees);
}

}  // namespace

#include "support/ReplacedNew.h"

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
