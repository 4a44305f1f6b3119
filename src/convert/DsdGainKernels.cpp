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
// after the first bit of lane j; with i counted over the whole stream, a vector serves every block
// that looks back on it, and all loads are aligned. Each output has four sums of its own, tap k
// going to sum k mod 4 in the order of k: the bits are those of the filter taken one output at a
// time. Inputs are +0.5 and -0.5 and taps carry twice the gain: a pair's sum is 1, 0 or -1, and its
// product exact.

constexpr std::size_t kTaps = DsdGainState::kTaps;
constexpr std::size_t kHistoryBytes = DsdGainState::kHistoryBytes;
constexpr std::size_t kHistoryBits = 8 * kHistoryBytes;
constexpr std::size_t kLaneBits = 8 * kLaneBytes;
constexpr std::size_t kBlockBytes = kLanes * kLaneBytes;
/// Bytes before and in a window of blocks whose input vectors it holds, eight each.
constexpr std::size_t kWindowBytes = kHistoryBytes + kLaneBytes + (kWindowBlocks - 1) * kBlockBytes;

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
constexpr std::size_t kRound = 12;
static_assert(kRound % 4 == 0 && kRound % kTileBits == 0);

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
    constexpr std::size_t kLastTaps = (kTaps - kFirstTaps) % kRound;
    for (std::size_t bit = 0; bit < kLaneBits; bit += kTileBits) {
        Tile tile;
        BeginTile(tile, block, bit, taps);
        for (std::size_t k = kFirstTaps; k + kRound <= kTaps; k += kRound) {
            TakeTaps<kFirstTaps>(tile, std::make_index_sequence<kRound>{});
        }
        TakeTaps<kFirstTaps>(tile, std::make_index_sequence<kLastTaps>{});
        EndTile(tile, out, bit);
    }
}

// ---- The modulator -------------------------------------------------------------------------
//
// Each integrator follows the literal step exactly, but for the limits. Of the value that is
// quantised only the sign counts, so it is summed in another order, from the integrators one step
// before: the step's result is then needed for one subtraction only. A byte in which a value was
// near zero, or an integrator passed its limit, is done again literally.

constexpr double kWeights[5] = {0.791882, 0.304545, 0.06993, 0.009496, 0.000607};
constexpr double kResonators[2] = {0.000496, 0.001789};
constexpr double kLimits[5] = {4.0, 9.0, 25.0, 92.0, 700.0};
/// Far above what another order of the sum can change (1e-13), far below what happens often.
constexpr double kDoubt = 1e-9;

constexpr Pair kResonatorPair = {kResonators[0], kResonators[1]};
constexpr Pair kLimits13 = {kLimits[1], kLimits[3]};
constexpr Pair kLimits24 = {kLimits[2], kLimits[4]};
// Weights of the input and of the integrators in the value that the next step quantises.
constexpr Pair kInputPair = {kWeights[0], 0.0};
constexpr double kNext0 = kWeights[0] + kWeights[1];
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

VORREL_INLINE Modulator LoadModulator(const double* s) {
    const double y = kWeights[0] * s[0] + kWeights[1] * s[1] + kWeights[2] * s[2] +
                     kWeights[3] * s[3] + kWeights[4] * s[4];
    return {Pair{s[0], s[0]}, Pair{s[1], s[3]}, Pair{s[2], s[4]}, Pair{y, y}};
}

VORREL_INLINE void StoreModulator(const Modulator& modulator, double* s) {
    s[0] = modulator.s0[0];
    s[1] = modulator.s13[0];
    s[2] = modulator.s24[0];
    s[3] = modulator.s13[1];
    s[4] = modulator.s24[1];
}

/// `magnitude` with the sign of `value`.
VORREL_INLINE Pair WithSign(double magnitude, Pair value) {
    using Bits = std::int64_t __attribute__((vector_size(16)));
    Bits bits;
    Bits result;
    const Pair magnitudes = {magnitude, magnitude};
    __builtin_memcpy(&bits, &value, sizeof bits);
    __builtin_memcpy(&result, &magnitudes, sizeof result);
    result |= bits & INT64_MIN;
    Pair pair;
    __builtin_memcpy(&pair, &result, sizeof pair);
    return pair;
}

/// One step. `x` is the filter's output.
VORREL_INLINE void Step(Modulator& m, double x, Steps& steps, unsigned place) {
    const Pair input = {x, x};
    // What has been known for longest comes first, so that the least is left to wait for.
    Pair ahead = input * kInputPair;
    ahead = Approximately(ahead, m.s24, kNext24);
    ahead = Approximately(ahead, m.s13, kNext13);
    ahead += __builtin_shufflevector(ahead, ahead, 1, 0);
    ahead = Approximately(ahead, m.s0, Pair{kNext0, kNext0});

    const Pair s24 = m.s13 + m.s24;
    const Pair s02 = __builtin_shufflevector(m.s0, m.s24, 0, 2);
    const Pair s13 = (s02 + m.s13) - kResonatorPair * s24;
    const Pair s0 = (m.s0 + input) - WithSign(1.0, m.y);
    steps.y[place] = m.y[0];
    steps.s0[place] = s0[0];
    __builtin_memcpy(steps.s13 + 2 * place, &s13, sizeof s13);
    __builtin_memcpy(steps.s24 + 2 * place, &s24, sizeof s24);
    m.y = ahead - WithSign(kWeights[0], m.y);
    m.s0 = s0;
    m.s13 = s13;
    m.s24 = s24;
}

/// The eight steps of a byte as they are defined.
__attribute__((noinline)) unsigned StepLiterally(Modulator& modulator, const double* x) {
    double s[5];
    StoreModulator(modulator, s);
    unsigned byte = 0;
    for (std::size_t bit = 0; bit < 8; ++bit) {
        const double y = kWeights[0] * s[0] + kWeights[1] * s[1] + kWeights[2] * s[2] +
                         kWeights[3] * s[3] + kWeights[4] * s[4];
        const double q = y >= 0 ? 1.0 : -1.0;
        double next[5];
        next[0] = s[0] + x[bit * kLanes] - q;
        next[2] = s[1] + s[2];
        next[1] = s[0] + s[1] - kResonators[0] * next[2];
        next[4] = s[3] + s[4];
        next[3] = s[2] + s[3] - kResonators[1] * next[4];
#pragma GCC unroll 5
        for (std::size_t i = 0; i < 5; ++i) {
            const double low = next[i] < -kLimits[i] ? -kLimits[i] : next[i];
            s[i] = low > kLimits[i] ? kLimits[i] : low;
        }
        byte = byte << 1 | (y >= 0 ? 1U : 0U);
    }
    modulator = LoadModulator(s);
    return byte;
}

/// Ends a byte that began at `before`.
VORREL_INLINE std::uint8_t EndByte(Modulator& modulator, const Modulator& before,
                                   const Steps& steps, const double* x) {
    const bool doubtful = AnyBelow(steps.y, kDoubt) || AnyAbove(steps.s0, kLimits[0]) ||
                          AnyPairAbove(steps.s13, kLimits13) || AnyPairAbove(steps.s24, kLimits24);
    if (__builtin_expect(doubtful, 0)) {
        modulator = before;
        return static_cast<std::uint8_t>(StepLiterally(modulator, x));
    }
    return static_cast<std::uint8_t>(~Signs(steps.y));
}

/// Modulates the first `count` bytes of a block.
void Modulate(Modulator& state, const Outputs& in, std::size_t count, std::uint8_t* out) {
    Modulator modulator = state;
    Steps steps;
    for (std::size_t byte = 0; byte < count; ++byte) {
        const Modulator before = modulator;
        const double* x = OutputsOfByte(in, byte);
#pragma GCC unroll 8
        for (unsigned bit = 0; bit < 8; ++bit) {
            Step(modulator, x[bit * kLanes], steps, 7 - bit);
        }
        out[byte] = EndByte(modulator, before, steps, x);
    }
    state = modulator;
}

// ---- Both ----------------------------------------------------------------------------------
//
// A step of the modulator waits for the one before; filtering the next block in between fills the
// wait. Worth it where there are registers for both.

constexpr std::size_t kTiles = kLaneBits / kTileBits;
constexpr std::size_t kBytesPerTile = kBlockBytes / kTiles;
constexpr std::size_t kTapsPerStep = (kTaps - kFirstTaps) / (8 * kBytesPerTile);
constexpr std::size_t kTapsPerByte = 8 * kTapsPerStep;

/// The steps of one byte, each with the taps that follow it; the first tap is number `k`.
template <std::size_t k, unsigned... bit>
VORREL_INLINE void ByteWithTaps(Tile& tile, Modulator& modulator, const double* x, Steps& steps,
                                std::integer_sequence<unsigned, bit...>) {
    ((Step(modulator, x[bit * kLanes], steps, 7 - bit),
      TakeTaps<k + bit * kTapsPerStep>(tile, std::make_index_sequence<kTapsPerStep>{})),
     ...);
}

template <std::size_t... i>
VORREL_INLINE void BytesWithTaps(Tile& tile, Modulator& modulator, const Outputs& before,
                                 std::size_t byte, std::uint8_t* out, Steps& steps,
                                 std::index_sequence<i...>) {
    const auto one = [&]<std::size_t number>(std::index_sequence<number>)
        __attribute__((always_inline)) {
        const Modulator start = modulator;
        const double* x = OutputsOfByte(before, byte + number);
        ByteWithTaps<kFirstTaps + number * kTapsPerByte>(tile, modulator, x, steps,
                                                         std::make_integer_sequence<unsigned, 8>{});
        out[byte + number] = EndByte(modulator, start, steps, x);
    };
    (one(std::index_sequence<i>{}), ...);
}

/// Filters the block at `block` and modulates the one before it.
void FilterAndModulate(const float* block, const float* taps, Outputs& filtered, Modulator& state,
                       const Outputs& before, std::uint8_t* out) {
    // As many bytes as bring the registers round.
    constexpr std::size_t kBytes = kTapsPerByte % kRound == 0 ? 1 : 3;
    constexpr std::size_t kLastTaps = kTaps - kFirstTaps - kBytesPerTile * kTapsPerByte;
    static_assert(kTapsPerByte * kBytes % kRound == 0 && kBytesPerTile % kBytes == 0);
    Modulator modulator = state;
    Steps steps;
    std::size_t byte = 0;
    for (std::size_t bit = 0; bit < kLaneBits; bit += kTileBits) {
        Tile tile;
        BeginTile(tile, block, bit, taps);
        for (std::size_t i = 0; i < kBytesPerTile; i += kBytes) {
            BytesWithTaps(tile, modulator, before, byte, out, steps,
                          std::make_index_sequence<kBytes>{});
            byte += kBytes;
        }
        TakeTaps<kFirstTaps>(tile, std::make_index_sequence<kLastTaps>{});
        EndTile(tile, filtered, bit);
    }
    state = modulator;
}

/// The bytes of a window and the history before them, dealt out to the lanes: byte m stands in
/// plane m mod `kLaneBytes`.
struct Planes {
    static constexpr std::size_t kBytes = kHistoryBytes + kWindowBlocks * kBlockBytes;
    std::uint8_t bytes[kLaneBytes][kBytes / kLaneBytes + 64];
};

void FillPlanes(Planes& planes, const std::uint8_t* line) {
    for (std::size_t m = 0; m < Planes::kBytes; ++m) {
        planes.bytes[m % kLaneBytes][m / kLaneBytes] = line[m];
    }
}

void Gain(DsdGainState* state, std::uint8_t* bytes, std::size_t length) {
    if (length == 0) {
        return;
    }
    alignas(64) float window[kWindowBytes * 8 * kLanes];
    std::uint8_t line[Planes::kBytes];
    Planes planes;
    Outputs outputs[2];
    Modulator modulator = LoadModulator(state->integrators);
    __builtin_memcpy(line, state->history, kHistoryBytes);

    std::size_t current = 0;          // of `outputs`, where the next block's go
    std::uint8_t* waiting = nullptr;  // a block that is filtered and not yet modulated
    std::size_t waitingBytes = 0;
    // How many bytes of `line`, from its start, have their eight vectors in the window.
    std::size_t vectorBytes = 0;
    for (std::size_t done = 0; done < length;) {
        std::size_t count = length - done;
        if (count >= kWindowBlocks * kBlockBytes) {
            count = kWindowBlocks * kBlockBytes;
        } else {
            // The last block is filled up; what comes of it beyond the end is not used.
            __builtin_memset(line + kHistoryBytes, 0, sizeof line - kHistoryBytes);
        }
        __builtin_memcpy(line + kHistoryBytes, bytes + done, count);
        FillPlanes(planes, line);
        const std::size_t blocks = (count + kBlockBytes - 1) / kBlockBytes;
        for (; vectorBytes < kHistoryBytes + kLaneBytes + (blocks - 1) * kBlockBytes;
             ++vectorBytes) {
            StoreInputs(window + vectorBytes * 8 * kLanes,
                        &planes.bytes[vectorBytes % kLaneBytes][vectorBytes / kLaneBytes]);
        }
        for (std::size_t block = 0; block < blocks; ++block) {
            const float* first = window + (kHistoryBits + block * kBlockBytes * 8) * kLanes;
            Outputs& filtered = outputs[current];
            current = 1 - current;
            if (waiting == nullptr) {
                Filter(first, state->taps, filtered);
            } else if constexpr (kFused) {
                FilterAndModulate(first, state->taps, filtered, modulator, outputs[current],
                                  waiting);
            } else {
                Modulate(modulator, outputs[current], kBlockBytes, waiting);
                Filter(first, state->taps, filtered);
            }
            waiting = bytes + done;
            waitingBytes = count - block * kBlockBytes;
            if (waitingBytes > kBlockBytes) {
                waitingBytes = kBlockBytes;
            }
            done += waitingBytes;
        }
        __builtin_memmove(line, line + count, kHistoryBytes);
        if (done < length) {
            // The next window looks back on the end of this one.
            __builtin_memmove(window, window + count * 8 * kLanes,
                              (vectorBytes - count) * 8 * kLanes * sizeof(float));
            vectorBytes -= count;
        }
    }
    Modulate(modulator, outputs[1 - current], waitingBytes, waiting);
    StoreModulator(modulator, state->integrators);
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
