#pragma once

#include <cstddef>

namespace vorrel::test {

/// While it lives, one thread cannot be made, as if the process had too many: the `nth` of those
/// that are asked for, by whomever, from 1 on.
class RefusedThread {
public:
    explicit RefusedThread(std::size_t nth);
    ~RefusedThread();
    RefusedThread(const RefusedThread&) = delete;
    RefusedThread& operator=(const RefusedThread&) = delete;

    /// Whether so many were asked for.
    bool WasMet() const;
};

}  // namespace vorrel::test
