#pragma once

#include <cstdlib>

namespace vorrel::fuzz {

/// Ends the run, so that the fuzzer keeps the input.
inline void Require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

}  // namespace vorrel::fuzz
