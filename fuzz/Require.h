#pragma once

#include <cstdio>
#include <cstdlib>

namespace vorrel::fuzz {

/// Ends the run, so that the fuzzer keeps the input.
inline void Require(bool holds, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    if (!holds) {
        std::fprintf(stderr, "%s:%d: does not hold\n", file, line);
        std::abort();
    }
}

}  // namespace vorrel::fuzz
