#pragma once

#include <cstddef>
#include <cstdint>

namespace vorrel::test {

/// While it lives, there is no memory for any allocation of `bytes` or more by operator new, as if
/// there were none left; for `granted` or more there is.
class AllocationLimit {
public:
    enum class Threads { This, All };

    explicit AllocationLimit(std::size_t bytes, std::size_t granted = SIZE_MAX,
                             Threads threads = Threads::This);
    ~AllocationLimit();
    AllocationLimit(const AllocationLimit&) = delete;
    AllocationLimit& operator=(const AllocationLimit&) = delete;
};

/// While it lives, the calling thread gets no memory for one of its allocations: the `nth`, from 1
/// on.
class RefusedAllocation {
public:
    explicit RefusedAllocation(std::size_t nth);
    ~RefusedAllocation();
    RefusedAllocation(const RefusedAllocation&) = delete;
    RefusedAllocation& operator=(const RefusedAllocation&) = delete;

    /// Whether there was that allocation.
    bool WasMet() const;
};

/// Calls `operation` with no memory for its first allocation, its second and so on, until there is
/// enough for all of them, and `check` after each that failed. What it throws is its failure.
/// @return How many allocations it has.
template <class Operation, class Check>
std::size_t RefuseEachAllocation(const Operation& operation, const Check& check) {
    for (std::size_t nth = 1;; ++nth) {
        bool met = false;
        {
            const RefusedAllocation refused(nth);
            try {
                operation();
            } catch (...) {  // the bad_alloc
            }
            met = refused.WasMet();
        }
        if (!met) {
            return nth - 1;
        }
        check();
    }
}

/// Bytes that the process holds by operator new.
std::size_t HeldBytes();

}  // namespace vorrel::test
