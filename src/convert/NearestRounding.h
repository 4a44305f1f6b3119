#pragma once

#if defined(__SSE2__)
#include <xmmintrin.h>
#else
#include <cfenv>
#endif

namespace vorrel {

/// Rounding to nearest with ties to even, and (on x86) gradual underflow, for the life of a scope: a
/// host that changed its thread's floating-point mode gets the same samples as every other. Costs
/// one register read where the mode is the usual one.
class NearestRounding {
public:
#if defined(__SSE2__)
    NearestRounding() noexcept : saved(_mm_getcsr()) {
        if ((saved & kChangesResults) != 0) {
            _mm_setcsr(saved & ~kChangesResults);
        }
    }
    ~NearestRounding() {
        if ((saved & kChangesResults) != 0) {
            _mm_setcsr(saved);
        }
    }
#else
    NearestRounding() noexcept : saved(std::fegetround()) {
        if (saved != FE_TONEAREST) {
            std::fesetround(FE_TONEAREST);
        }
    }
    ~NearestRounding() {
        if (saved != FE_TONEAREST) {
            std::fesetround(saved);
        }
    }
#endif
    NearestRounding(const NearestRounding&) = delete;
    NearestRounding& operator=(const NearestRounding&) = delete;

private:
#if defined(__SSE2__)
    // Rounding control, flush to zero, denormals are zero.
    static constexpr unsigned kChangesResults = 0x6000 | 0x8000 | 0x0040;
    const unsigned saved;
#else
    const int saved;
#endif
};

}  // namespace vorrel
