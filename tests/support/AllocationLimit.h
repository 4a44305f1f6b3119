#pragma once

#include <cstddef>

namespace vorrel::test {

/// While it lives, the calling thread gets no memory for any allocation of `bytes` or more by
/// operator new, as if there were none left.
class AllocationLimit {
public:
    explicit AllocationLimit(std::size_t bytes);
    ~AllocationLimit();
    AllocationLimit(const AllocationLimit&) = delete;
    AllocationLimit& operator=(const AllocationLimit&) = delete;
};

}  // namespace vorrel::test
