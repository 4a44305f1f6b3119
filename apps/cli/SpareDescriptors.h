#pragma once

#include <cstddef>
#include <vector>

namespace vorrel::cli {

/// Descriptors put aside for the moment when a recording has to be saved: whatever the process has
/// opened by then, its files can be written.
class SpareDescriptors {
public:
    SpareDescriptors() = default;
    ~SpareDescriptors() { Release(0); }
    SpareDescriptors(const SpareDescriptors&) = delete;
    SpareDescriptors& operator=(const SpareDescriptors&) = delete;

    /// @throws Failure (storage): the process may not have so many.
    void Reserve(std::size_t count);
    /// Gives back all but `rest`.
    void Release(std::size_t rest);

private:
    std::vector<int> descriptors;
};

}  // namespace vorrel::cli
