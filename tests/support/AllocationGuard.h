#pragma once

#include <cstddef>

namespace vorrel::test {

/// Counts what is allocated and freed by `new` and `delete` on a thread that is inside a
/// `vorrel::RealtimeScope`, for as long as the guard lives. A test program gets it by linking
/// `vorrel_test_allocation_guard`, which replaces the global operators (all forms, on top of
/// `malloc` and `free`, so that the sanitizers go on seeing every block). Guards may be nested;
/// each counts from its own beginning.
class AllocationGuard {
public:
    enum class OnViolation {
        Count,
        Abort,  // stops the program in the allocation, for a debugger to show from where
    };

    explicit AllocationGuard(OnViolation onViolation = OnViolation::Count);
    ~AllocationGuard();
    AllocationGuard(const AllocationGuard&) = delete;
    AllocationGuard& operator=(const AllocationGuard&) = delete;

    /// Allocations inside real-time scopes, of all threads, since the guard was made.
    std::size_t Count() const;
    /// Blocks freed there: the allocator's lock waits on this road as well.
    std::size_t Frees() const;

private:
    const bool aborts;
    const std::size_t countAtStart;
    const std::size_t freesAtStart;
};

}  // namespace vorrel::test
