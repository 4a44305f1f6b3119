// Compiled once per instruction set, each time into another table (VORREL_DSD_GAIN_TABLE). What
// the wider compilations share with the rest of the program must not be emitted here: everything is
// in unnamed namespaces, and inline functions of the standard library stay out (see
// DsdGainKernels.h).
#include "convert/DsdGainKernels.h"

#include <utility>

namespace vorrel {
namespace {

/// Two doubles; the modulator's integrators go in pairs.
using Pair = double __attribute__((vector_size(16)));

}  // namespace
}  // namespace vorrel

#if defined(VORREL_AVX512_VECTORS)
#include "convert/DsdGainVectorAvx512.h"
#elif defined(VORREL_AVX2_VECTORS)
#include "convert/DsdGainVectorAvx2.h"
#else
#include "convert/DsdGainVectorPlain.h"
#endif

#define VORREL_INLINE inline __attribute__((always_inline))

namespace vorrel {
namespace {

// ---- The filter ----------------------------------------------------------------------------
//
// It has no feedback, so the lanes of a vector work on different outputs: lane j of a block on the
// bits of its j-th `kLaneBytes` bytes. Input vector i of a block holds, in lane j, the input i bits
// after the first bit of lane j: all loads are aligned, and one vector serves many outputs. Each
// output has four sums of its own, tap k going to sum k mod 4 in the order of k: the bits are those
// of the filter taken one output at a time. Inputs are +0.5 and -0.5 and taps carry twice the gain:
// a pair's sum is 1, 0 or -1, and its product exact.

constexpr std::size_t kTaps = DsdGainState::kTaps;
constexpr std::size_t kHistoryBytes = DsdGainState::kHistoryBytes;
constexpr std::size_t kHistoryBits = 8 * kHistoryBytes;
constexpr std::size_t kLaneBits = 8 * kLaneBytes;
constexpr std::size_t kBlockBytes = kLanes * kLaneBytes;
/// Bytes whose eight input vectors a block needs: the history, and where lane 0 is at work.
constexpr std::size_t kWindowBytes = kHistoryBytes + kLaneBytes;

/// Outputs of a block, as [bit of its lane][lane].
struct Outputs {
    alignas(64) double values[kLaneBits][kLanes];
};

/// The first output of a byte of a block; the others follow at `kLanes` doubles' distance.
VORREL_INLINE const double* OutputsOfByte(const Outputs& outputs, std::size_t byte) {
    return &outputs.values[byte % kLaneBytes * 8][byte / kLaneBytes];
}

/// What is needed to filter `kTileBits` bits of every lane of a block.
struct Tile {
    Floats sums[4][kTileBits];
    Floats older[kTileBits];  // the window that moves towards the newest with the taps
    Floats newer[kTileBits];  // the one that moves towards the oldest
    const float* olderNext;
    const float* newerNext;
    const float* tap;
};

/// The number of a tap only tells which registers it takes; this many taps bring them round.
constexpr std::size_t kRound = 4;
static_assert(kRound % kTileBits == 0);

/// Takes the next tap; `k` is its number modulo `kRound`.
template <std::size_t k, bool first = false>
VORREL_INLINE void TakeTap(Tile& tile) {
    const Floats factor = Broadcast(tile.tap++);
    tile.older[(k + kTileBits - 1) % kTileBits] = LoadOnce(tile.olderNext);
    tile.olderNext += kLanes;
    tile.newer[(kRound - k) % kTileBits] = LoadOnce(tile.newerNext);
    tile.newerNext -= kLanes;
#pragma GCC unroll 8
    for (std::size_t bit = 0; bit < kTileBits; ++bit) {
        const Floats pair =
            tile.older[(k + bit) % kTileBits] + tile.newer[(kRound + bit - k) % kTileBits];
        tile.sums[k % 4][bit] =
            AddExactProduct(first ? Floats{} : tile.sums[k % 4][bit], factor, pair);
    }
}

/// Takes as many taps as there are numbers, beginning with number `from`.
template <std::size_t from, std::size_t... k>
VORREL_INLINE void TakeTaps(Tile& tile, std::index_sequence<k...>) {
    (TakeTap<(from + k) % kRound>(tile), ...);
}

constexpr std::size_t kFirstTaps = 4;

/// Begins bits [firstBit, firstBit + kTileBits) of the block whose input vector 0 stands at
/// `block`, with the first four taps.
VORREL_INLINE void BeginTile(Tile& tile, const float* block, std::size_t firstBit,
                             const float* taps) {
    const float* newest = block + firstBit * kLanes;
    tile.tap = taps;
    // Tap 0 takes the newest input of all, together with the one before it.
    const Floats factor = Broadcast(tile.tap++);
#pragma GCC unroll 8
    for (std::size_t bit = 0; bit < kTileBits; ++bit) {
        const Floats pair = Load(newest + bit * kLanes) + Load(newest + bit * kLanes - kLanes);
        tile.sums[0][bit] = AddExactProduct(Floats{}, factor, pair);
    }
    // Tap 1 takes the oldest, 399 back, and the one 2 back; from there the windows move on.
#pragma GCC unroll 8
    for (std::size_t bit = 0; bit + 1 < kTileBits; ++bit) {
        tile.older[(1 + bit) % kTileBits] = Load(newest + bit * kLanes - 399 * kLanes);
        tile.newer[bit] = Load(newest + bit * kLanes - kLanes);
    }
    tile.olderNext = newest + (kTileBits - 1) * kLanes - 399 * kLanes;
    tile.newerNext = newest - 2 * kLanes;
    TakeTap<1, true>(tile);
    TakeTap<2, true>(tile);
    TakeTap<3, true>(tile);
}

VORREL_INLINE void EndTile(const Tile& tile, Outputs& out, std::size_t firstBit) {
#pragma GCC unroll 8
    for (std::size_t bit = 0; bit < kTileBits; ++bit) {
        const Floats sum =
            (tile.sums[0][bit] + tile.sums[1][bit]) + (tile.sums[2][bit] + tile.sums[3][bit]);
        StoreDoubles(out.values[firstBit + bit], sum);
    }
}

/// Filters the block whose input vector 0 stands at `block`.
void Filter(const float* block, const float* taps, Outputs& out) {
    static_assert((kTaps - kFirstTaps) % kRound == 0);
    for (std::size_t bit = 0; bit < kLaneBits; bit += kTileBits) {
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): overwritten before it is read
        Tile tile;
        BeginTile(tile, block, bit, taps);
        for (std::size_t k = kFirstTaps; k < kTaps; k += kRound) {
            TakeTaps<kFirstTaps>(tile, std::make_index_sequence<kRound>{});
        }
        EndTile(tile, out, bit);
    }
}

// ---- The modulator -------------------------------------------------------------------------
//
// Each integrator follows the literal step exactly, but for the limits. Of the value that is
// quantised only the sign counts, so it is summed in another order, from the integrators one step
// before: the bit is then waited for by one subtraction and one product only. A byte in which a
// value was near zero, or an integrator passed its limit, is done again literally.

constexpr double kWeights[5] = {0.791882, 0.304545, 0.06993, 0.009496, 0.000607};
constexpr double kResonators[2] = {0.000496, 0.001789};
constexpr double kLimits[5] = {4.0, 9.0, 25.0, 92.0, 700.0};
/// Far above what another order of the sum can change (1e-13), far below what happens often.
constexpr double kDoubt = 1e-9;

constexpr Pair kResonatorPair = {kResonators[0], kResonators[1]};
constexpr Pair kWeights00 = {kWeights[0], kWeights[0]};
constexpr Pair kWeights13 = {kWeights[1], kWeights[3]};
constexpr Pair kWeights24 = {kWeights[2], kWeights[4]};
constexpr Pair kLimits00 = {kLimits[0], kLimits[0]};
constexpr Pair kLimits13 = {kLimits[1], kLimits[3]};
constexpr Pair kLimits24 = {kLimits[2], kLimits[4]};
// Weights of the integrators in the value that the next step quantises, s0's own share apart.
constexpr Pair kNext0 = {kWeights[1], 0.0};
constexpr Pair kNext13 = {kWeights[1] * (1 - kResonators[0]) + kWeights[2],
                          kWeights[3] * (1 - kResonators[1]) + kWeights[4]};
constexpr Pair kNext24 = {kWeights[2] + kWeights[3] - kWeights[1] * kResonators[0],
                          kWeights[4] - kWeights[3] * kResonators[1]};

struct Modulator {
    Pair s0;   // twice the same
    Pair s13;  // s1 and s3
    Pair s24;
    Pair y;  // what the next step quantises, twice the same
};

/// What the steps of one byte went through; place 7 - i belongs to step i.
struct Steps {
    alignas(64) double y[8];
    alignas(64) double s0[8];
    alignas(64) double s13[16];
    alignas(64) double s24[16];
};

VORREL_INLINE Pair First(Pair value) {
    return __builtin_shufflevector(value, value, 0, 0);
}

VORREL_INLINE Pair Second(Pair value) {
    return __builtin_shufflevector(value, value, 1, 1);
}

/// The weighted sum of the integrators in its prescribed order, for two values of s0.
VORREL_INLINE Pair Weighted(Pair s0, Pair s13, Pair s24) {
    const Pair w13 = kWeights13 * s13;
    const Pair w24 = kWeights24 * s24;
    return (((kWeights00 * s0 + First(w13)) + First(w24)) + Second(w13)) + Second(w24);
}

VORREL_INLINE Modulator LoadModulator(const double* s) {
    Modulator modulator = {Pair{s[0], s[0]}, Pair{s[1], s[3]}, Pair{s[2], s[4]}, Pair{}};
    modulator.y = Weighted(modulator.s0, modulator.s13, modulator.s24);
    return modulator;
}

VORREL_INLINE void StoreModulator(const Modulator& modulator, double* s) {
    s[0] = modulator.s0[0];
    s[1] = modulator.s13[0];
    s[2] = modulator.s24[0];
    s[3] = modulator.s13[1];
    s[4] = modulator.s24[1];
}

/// One step; `x` is the filter's output.
VORREL_INLINE void Step(Modulator& m, double x, Steps& steps, unsigned place) {
    // What has been known for longest comes first, so that the least is left to wait for.
    Pair ahead = m.s24 * kNext24;
    ahead = Approximately(ahead, m.s0, kNext0);
    ahead = Approximately(ahead, m.s13, kNext13);
    ahead += __builtin_shufflevector(ahead, ahead, 1, 0);

    const Pair s24 = m.s13 + m.s24;
    const Pair s02 = __builtin_shufflevector(m.s0, m.s24, 0, 2);
    const Pair s13 = (s02 + m.s13) - kResonatorPair * s24;
    const Pair s0 = (m.s0 + Pair{x, x}) - SignedOne(m.y);
    steps.y[place] = m.y[0];
    steps.s0[place] = s0[0];
    __builtin_memcpy(steps.s13 + std::size_t{2} * place, &s13, sizeof s13);
    __builtin_memcpy(steps.s24 + std::size_t{2} * place, &s24, sizeof s24);
    m = {s0, s13, s24, Approximately(ahead, s0, kWeights00)};
}

VORREL_INLINE bool Doubtful(const Steps& steps) {
    return AnyBelow(steps.y, kDoubt) || AnyAbove(steps.s0, kLimits[0]) ||
           AnyPairAbove(steps.s13, kLimits13) || AnyPairAbove(steps.s24, kLimits24);
}

/// The eight steps of a byte as they are defined. Whatever the bit may be, what it leads to is
/// worked out beforehand for both: the wait from step to step is then half as long.
/// @param steps  Receives values that give the same byte and no doubt.
void StepLiterally(Modulator& m, const double* x, Steps& steps) {
    using Bits = std::int64_t __attribute__((vector_size(16)));
    Pair s0 = m.s0;
    Pair s13 = m.s13;
    Pair s24 = m.s24;
    Pair y = Weighted(s0, s13, s24);
    const Pair ones = {1.0, -1.0};
    for (unsigned bit = 0; bit < 8; ++bit) {
        const Bits positive = y >= Pair{};
        const double input = x[bit * kLanes];
        const Pair both = Clamp((s0 + Pair{input, input}) - ones, kLimits00);
        const Pair next24 = s13 + s24;
        const Pair s02 = __builtin_shufflevector(s0, s24, 0, 2);
        s13 = Clamp((s02 + s13) - kResonatorPair * next24, kLimits13);
        s24 = Clamp(next24, kLimits24);
        const Pair nextY = Weighted(both, s13, s24);
        steps.y[7 - bit] = positive[0] != 0 ? 1.0 : -1.0;
        s0 = positive ? First(both) : Second(both);
        y = positive ? First(nextY) : Second(nextY);
    }
    __builtin_memset(steps.s0, 0, sizeof steps.s0);
    __builtin_memset(steps.s13, 0, sizeof steps.s13);
    __builtin_memset(steps.s24, 0, sizeof steps.s24);
    m = {s0, s13, s24, y};
}

/// The modulator on its way through a block. A byte is settled only after the next has been
/// stepped through: what was stored is then at hand, and nothing waits for it.
struct Run {
    Modulator modulator;
    Modulator start[2];  // where the even and the odd bytes began
    Steps steps[2];
};

/// Steps through byte `byte` and `further` bytes after it again, literally.
__attribute__((noinline, cold)) void Redo(Run& run, const Outputs& in, std::size_t byte,
                                          std::size_t further) {
    run.modulator = run.start[byte % 2];
    for (std::size_t i = 0; i <= further; ++i) {
        run.start[(byte + i) % 2] = run.modulator;
        StepLiterally(run.modulator, OutputsOfByte(in, byte + i), run.steps[(byte + i) % 2]);
    }
}

/// Writes byte `byte`, which has been stepped through, and `further` bytes after it too.
VORREL_INLINE void Settle(Run& run, Modulator& modulator, const Outputs& in, std::size_t byte,
                          std::size_t further, std::uint8_t* out) {
    if (__builtin_expect(Doubtful(run.steps[byte % 2]), 0)) {
        Redo(run, in, byte, further);
        modulator = run.modulator;
    }
    out[byte] = static_cast<std::uint8_t>(~Signs(run.steps[byte % 2].y));
}

/// Modulates the first `count` bytes of a block.
void Modulate(Run& run, const Outputs& in, std::size_t count, std::uint8_t* out) {
    Modulator modulator = run.modulator;
    for (std::size_t byte = 0; byte < count; ++byte) {
        run.start[byte % 2] = modulator;
        const double* x = OutputsOfByte(in, byte);
        Steps& steps = run.steps[byte % 2];
#pragma GCC unroll 8
        for (unsigned bit = 0; bit < 8; ++bit) {
            Step(modulator, x[bit * kLanes], steps, 7 - bit);
        }
        if (byte > 0) {
            Settle(run, modulator, in, byte - 1, 1, out);
        }
    }
    Settle(run, modulator, in, count - 1, 0, out);
    run.modulator = modulator;
}

// ---- Both ----------------------------------------------------------------------------------
//
// A step of the modulator waits for the one before; filtering the next block in between fills the
// wait. Worth it where there are registers for both.

constexpr std::size_t kTiles = kLaneBits / kTileBits;
constexpr std::size_t kBytesPerTile = kBlockBytes / kTiles;
constexpr std::size_t kTapsPerStep = (kTaps - kFirstTaps) / (8 * kBytesPerTile);
constexpr std::size_t kTapsPerByte = 8 * kTapsPerStep;

/// The steps of one byte, each with the taps that follow it.
template <unsigned... bit>
VORREL_INLINE void ByteWithTaps(Tile& tile, Modulator& modulator, const double* x, Steps& steps,
                                std::integer_sequence<unsigned, bit...>) {
    ((Step(modulator, x[bit * kLanes], steps, 7 - bit),
      TakeTaps<kFirstTaps + bit * kTapsPerStep>(tile, std::make_index_sequence<kTapsPerStep>{})),
     ...);
}

/// Filters the block at `block` and modulates the one before it.
[[maybe_unused]] void FilterAndModulate(const float* block, const float* taps, Outputs& filtered,
                                        Run& run, const Outputs& before, std::uint8_t* out) {
    constexpr std::size_t kLastTaps = kTaps - kFirstTaps - kBytesPerTile * kTapsPerByte;
    static_assert(kTapsPerByte % kRound == 0);
    Modulator modulator = run.modulator;
    std::size_t byte = 0;
    for (std::size_t bit = 0; bit < kLaneBits; bit += kTileBits) {
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): overwritten before it is read
        Tile tile;
        BeginTile(tile, block, bit, taps);
        for (std::size_t i = 0; i < kBytesPerTile; ++i, ++byte) {
            run.start[byte % 2] = modulator;
            ByteWithTaps(tile, modulator, OutputsOfByte(before, byte), run.steps[byte % 2],
                         std::make_integer_sequence<unsigned, 8>{});
            if (byte > 0) {
                Settle(run, modulator, before, byte - 1, 1, out);
            }
        }
        TakeTaps<kFirstTaps>(tile, std::make_index_sequence<kLastTaps>{});
        EndTile(tile, filtered, bit);
    }
    Settle(run, modulator, before, kBlockBytes - 1, 0, out);
    run.modulator = modulator;
}

/// The history and a block, dealt out so that what the lanes hold at one time stands together: byte
/// m in plane m mod `kLaneBytes`.
struct Planes {
    std::uint8_t bytes[kLaneBytes][kHistoryBytes / kLaneBytes + 1 + kLanes];
};

/// Writes the input vectors of a block whose bytes stand behind the history in `line`.
void FillWindow(float* window, const std::uint8_t (&line)[kHistoryBytes + kBlockBytes]) {
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): overwritten before it is read
    Planes planes;
    for (std::size_t m = 0; m < sizeof line; ++m) {
        planes.bytes[m % kLaneBytes][m / kLaneBytes] = line[m];
    }
    for (std::size_t m = 0; m < kWindowBytes; ++m) {
        StoreInputs(window + m * 8 * kLanes, &planes.bytes[m % kLaneBytes][m / kLaneBytes]);
    }
}

void Gain(DsdGainState* state, std::uint8_t* bytes, std::size_t length) {
    alignas(64) float window[kWindowBytes * 8 * kLanes];
    const float* const block = window + kHistoryBits * kLanes;
    std::uint8_t line[kHistoryBytes + kBlockBytes] = {};
    Outputs outputs[2];
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): overwritten before it is read
    Run run;
    run.modulator = LoadModulator(state->integrators);
    __builtin_memcpy(line, state->history, kHistoryBytes);

    std::size_t current = 0;          // of `outputs`, where the next block's go
    std::uint8_t* waiting = nullptr;  // a block that is filtered and not yet modulated
    std::size_t waitingBytes = 0;
    for (std::size_t done = 0; done < length; done += waitingBytes) {
        // What is behind the end of the last block is filtered too, and goes no further.
        const std::size_t left = length - done;
        const std::size_t count = left < kBlockBytes ? left : kBlockBytes;
        __builtin_memcpy(line + kHistoryBytes, bytes + done, count);
        FillWindow(window, line);
        __builtin_memmove(line, line + count, kHistoryBytes);
        Outputs& filtered = outputs[current];
        current = 1 - current;
        if (waiting == nullptr) {
            Filter(block, state->taps, filtered);
        } else if constexpr (kFused) {
            FilterAndModulate(block, state->taps, filtered, run, outputs[current], waiting);
        } else {
            Modulate(run, outputs[current], kBlockBytes, waiting);
            Filter(block, state->taps, filtered);
        }
        waiting = bytes + done;
        waitingBytes = count;
    }
    if (waiting != nullptr) {
        Modulate(run, outputs[1 - current], waitingBytes, waiting);
    }
    StoreModulator(run.modulator, state->integrators);
    __builtin_memcpy(state->history, line, kHistoryBytes);
}

void ReverseBitsKernel(std::uint8_t* bytes, std::size_t length) {
    while (length >= kReversedBytes) {
        ReverseVector(bytes);
        bytes += kReversedBytes;
        length -= kReversedBytes;
    }
    if (length != 0) {
        // The tail takes the same road through a vector-sized copy.
        std::uint8_t tail[kReversedBytes] = {};
        __builtin_memcpy(tail, bytes, length);
        ReverseVector(tail);
        __builtin_memcpy(bytes, tail, length);
    }
}

}  // namespace

extern const DsdGainKernels VORREL_DSD_GAIN_TABLE;  // a constant is private to its source otherwise

constinit const DsdGainKernels VORREL_DSD_GAIN_TABLE = {
    .gain = &Gain,
    .reverseBits = &ReverseBitsKernel,
};

}  // namespace vorrel
