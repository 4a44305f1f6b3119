#pragma once

#include <cstddef>
#include <string>

namespace vorrel::test {

/// Counts the file calls and sleeps that a thread makes inside a `vorrel::RealtimeScope`, for as
/// long as the guard lives. A test program gets it by linking `vorrel_test_file_call_guard`, which
/// has the linker send these calls of everything that is linked statically here first; calls
/// that the C and C++ libraries make by themselves are not seen.
///
/// Reading and writing the main queue's descriptor is allowed: it never waits.
class FileCallGuard {
public:
    FileCallGuard();

    /// Calls inside real-time scopes, of all threads, since the guard was made.
    std::size_t Count() const;
    /// The name of the last one that was counted in the process; empty before the first.
    static std::string Last();

private:
    const std::size_t countAtStart;
};

}  // namespace vorrel::test
