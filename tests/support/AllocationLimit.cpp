#include "support/AllocationLimit.h"

#include <cstdint>

namespace {

thread_local std::size_t smallestRefused = SIZE_MAX;
thread_local std::size_t smallestGranted = SIZE_MAX;

bool Grants(std::size_t bytes) noexcept {
    return bytes < smallestRefused || bytes >= smallestGranted;
}

void BeforeFree() noexcept {}

}  // namespace

#include "support/ReplacedNew.h"

namespace vorrel::test {

AllocationLimit::AllocationLimit(std::size_t bytes, std::size_t granted) {
    smallestRefused = bytes;
    smallestGranted = granted;
}
AllocationLimit::~AllocationLimit() {
    smallestRefused = SIZE_MAX;
}

}  // namespace vorrel::test
