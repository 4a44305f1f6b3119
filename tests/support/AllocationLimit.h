#pragma once

#include <cstddef>
#include <cstdint>

namespace vorrel::test {

/// While it lives, the calling thread gets no memory for any allocation of `bytes` or more by
/// operator new, as if there were none left; of `granted` or more it does.
class AllocationLimit {
public:
    explicit AllocationLimit(std::size_t bytes, std::size_t granted = SIZE_MAX);
    ~AllocationLimit();
    AllocationLimit(const AllocationLimit&) = delete;
    AllocationLimit& operator=(const AllocationLimit&) = delete;
};

}  // namespace vorrel::test
