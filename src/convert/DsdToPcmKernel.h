#pragma once

// Read by PcmKernels.cpp alone: the two-stage decimator of DsdToPcm.h with one stretch of the
// stream to a lane.
//
// A sum runs in ring order, so only outputs at the same ring position share its order, and such
// outputs are a whole turn of the stage ring apart: 96 bytes, 12 samples, one run. Lane n takes the
// n-th run, and every step is the plain one with a vector in place of a float. A lane knows what
// came before its run: the bits stand in the source, and the first stage of all runs is finished
// before the second begins.

#include <array>
#include <cstddef>
#include <cstdint>

#include "convert/DsdTables.h"
#include "convert/DsdToPcmWorkBuffer.h"
#include "convert/Vectors.h"

namespace vorrel {
namespace {

// NOLINTBEGIN(misc-definitions-in-headers): one file reads it, once for each instruction set
constexpr std::size_t kStep = 8;  // values that enter a ring between two outputs of its filter
constexpr std::size_t kSteps = kDecimatorTaps / kStep;  // of a turn
constexpr std::size_t kSampleBytes = 8;
constexpr std::size_t kRunBytes = kDecimatorTaps;  // each makes one value of the stage ring
constexpr std::size_t kRunSamples = kRunBytes / kSampleBytes;
constexpr std::size_t kWordBytes = 4;
constexpr std::size_t kHistoryBytes = kDecimatorTaps / 8;  // what the bit ring holds
constexpr std::size_t kHistoryWords = kHistoryBytes / kWordBytes;
constexpr std::size_t kRunWords = kHistoryWords + kRunBytes / kWordBytes;
static_assert(kRunBytes % kHistoryBytes == 0, "a run is a whole number of turns of both rings");
static_assert(kSteps % kDecimatorTile == 0);

// Full scale is 32767 on both sides, so that a full negative level does not touch -32768.
constexpr float kFullScale = 32767.0F;

// Taken while compiling, so that no accessor of the standard library is emitted here.
constexpr const float* kTaps = filter_coef.data();
constexpr const std::array<float, 4>* kMsbRows = table_msb.data();
constexpr const std::array<float, 4>* kLsbRows = table_lsb.data();
// NOLINTEND(misc-definitions-in-headers)

/// The taps of `tile` successive outputs side by side: at `place` x `tile` + n what output n has
/// for the slot where the first of them has tap `place`.
template <std::size_t tile>
struct TileTaps {
    alignas(64) float tap[2 * kDecimatorTaps * tile][kTapCopies];
};
template <std::size_t tile>
constexpr TileTaps<tile> MakeTileTaps() {
    TileTaps<tile> taps{};
    for (std::size_t place = 0; place < 2 * kDecimatorTaps; ++place) {
        for (std::size_t output = 0; output < tile; ++output) {
            for (float& copy : taps.tap[place * tile + output]) {
                copy = place < output * kStep ? 0.0F : kTaps[place - output * kStep];
            }
        }
    }
    return taps;
}
template <std::size_t tile>
constexpr TileTaps<tile> kTileTaps = MakeTileTaps<tile>();

/// A ring's last two turns, each in its slots. The ring holds the younger one's values before its
/// position and the older one's from there on; so what enters later in the turn may stand in the
/// younger one already.
struct Turns {
    Floats* older;
    Floats* younger;
};

/// One step's share of the sums of `tile` successive outputs. The ring's values have been replaced
/// by the younger turn's for those after the `entered`-th.
/// @tparam isBit  The values are +1, -1 or 0: a product is exact, and may be fused with its sum.
template <bool isBit, std::size_t tile, std::size_t entered>
inline __attribute__((always_inline)) void AddStep(Floats (&sums)[tile][4], const Floats* older,
                                                   [[maybe_unused]] const Floats* younger,
                                                   const float* taps) {
#pragma GCC unroll 8
    for (std::size_t k = 0; k < kStep; ++k) {
        const Floats old = older[k];
        Floats young = old;
        if constexpr (entered + 1 < tile) {
            young = younger[k];
        }
#pragma GCC unroll 8
        for (std::size_t output = 0; output < tile; ++output) {
            const Floats tap = LoadTap(taps + (k * tile + output) * kTapCopies);
            const Floats value = output > entered ? young : old;
            Floats& sum = sums[output][k % 4];
            sum = isBit ? AddExactProduct(sum, tap, value) : Add(sum, Multiply(tap, value));
        }
    }
}

/// The steps during which a tile's own values enter: `entered`, `entered` + 1, ... `tile` - 1.
template <bool isBit, std::size_t tile, std::size_t entered>
inline __attribute__((always_inline)) void AddEnteringSteps(Floats (&sums)[tile][4],
                                                            const Floats* older,
                                                            const Floats* younger,
                                                            const float* taps) {
    AddStep<isBit, tile, entered>(sums, older, younger, taps);
    if constexpr (entered + 1 < tile) {
        AddEnteringSteps<isBit, tile, entered + 1>(sums, older + kStep, younger + kStep,
                                                   taps + kStep * tile * kTapCopies);
    }
}

/// `tile` successive outputs of a filter at step `position`, a multiple of `tile`.
template <bool isBit, std::size_t tile>
void Filter(Floats* outputs, const Turns& turns, std::size_t position) {
    constexpr std::size_t kTapsOfStep = kStep * tile * kTapCopies;
    const float* taps = kTileTaps<tile>.tap[(kDecimatorTaps - position * kStep) * tile];
    const Floats* older = turns.older + (position + tile) * kStep;
    const Floats* younger = turns.younger;
    Floats sums[tile][4];
#pragma GCC unroll 8
    for (std::size_t output = 0; output < tile; ++output) {
#pragma GCC unroll 4
        for (std::size_t lane = 0; lane < 4; ++lane) {
            sums[output][lane] = Broadcast(0.0F);
        }
    }
    for (std::size_t step = 0; step < position; ++step) {
        AddStep<isBit, tile, tile>(sums, younger, younger, taps);
        younger += kStep;
        taps += kTapsOfStep;
    }
    AddEnteringSteps<isBit, tile, 0>(sums, older - tile * kStep, younger, taps);
    taps += tile * kTapsOfStep;
    for (std::size_t step = position + tile; step < kSteps; ++step) {
        AddStep<isBit, tile, tile>(sums, older, older, taps);
        older += kStep;
        taps += kTapsOfStep;
    }
#pragma GCC unroll 8
    for (std::size_t output = 0; output < tile; ++output) {
        const Floats(&lanes)[4] = sums[output];
        outputs[output] = Add(Add(lanes[0], lanes[1]), Add(lanes[2], lanes[3]));
    }
}

/// The outputs at steps [`position`, `end`) of one turn, tile by tile where the position allows.
template <bool isBit>
void FilterTurn(Floats* outputs, const Turns& turns, std::size_t position, std::size_t end) {
    while (position < end) {
        if (position % kDecimatorTile == 0 && end - position >= kDecimatorTile) {
            Filter<isBit, kDecimatorTile>(outputs, turns, position);
            outputs += kDecimatorTile;
            position += kDecimatorTile;
        } else {
            Filter<isBit, 1>(outputs, turns, position);
            ++outputs;
            ++position;
        }
    }
}

/// The 32 bits of each lane's word in time order, as +1 (set) and -1 (clear), entered into a turn
/// from `step` on, as far as they belong to it.
template <bool msbFirst>
void Enter(Floats* turn, int step, Ints words) {
#pragma GCC unroll 4
    for (int byte = 0; byte < static_cast<int>(kWordBytes); ++byte) {
        const int at = step + byte;
        if (at < 0 || at >= static_cast<int>(kSteps)) {
            continue;
        }
        Floats* slots = turn + static_cast<std::size_t>(at) * kStep;
#pragma GCC unroll 8
        for (int i = 0; i < 8; ++i) {
            slots[i] = PlusOrMinusOne(words, 8 * byte + (msbFirst ? 7 - i : i));
        }
    }
}

/// Puts one byte's bits into the ring at slots [8 x step, 8 x step + 8).
template <bool msbFirst>
inline void EnterByte(float* ring, std::size_t step, std::uint8_t byte) {
    const std::array<float, 4>& first = msbFirst ? kMsbRows[byte >> 4] : kLsbRows[byte & 15];
    const std::array<float, 4>& second = msbFirst ? kMsbRows[byte & 15] : kLsbRows[byte >> 4];
    __builtin_memcpy(ring + step * kStep, &first, sizeof first);
    __builtin_memcpy(ring + step * kStep + 4, &second, sizeof second);
}

/// Up to `kLanes` runs. `in` holds all `kLanes` runs, of which the first `samples` samples count.
template <bool msbFirst>
void DecimateRuns(std::uint8_t* out, const std::uint8_t* in, std::size_t samples,
                  DsdToPcmWorkBuffer& work) {
    const auto firstBitStep = static_cast<std::size_t>(work.bitPos) / kStep;
    const auto firstStageStep = static_cast<std::size_t>(work.stagePos) / kStep;

    // The words of all runs side by side, and before them the bits that a run's ring begins with.
    alignas(64) std::uint8_t words[kRunWords][kVectorBytes];
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
        const std::uint8_t* run = in + lane * kRunBytes;
        for (std::size_t word = 0; word < kRunWords; ++word) {
            std::uint32_t value = 0;
            if (lane != 0 || word >= kHistoryWords) {
                __builtin_memcpy(&value, run + word * kWordBytes - kHistoryBytes, kWordBytes);
            }
            __builtin_memcpy(&words[word][lane * kWordBytes], &value, kWordBytes);
        }
    }

    Floats first[kDecimatorTaps];
    Floats second[kDecimatorTaps];
    const auto firstStep = static_cast<int>(firstBitStep);
    constexpr auto kTurn = static_cast<int>(kSteps);
    for (int word = 0; word < static_cast<int>(kHistoryWords); ++word) {
        const Ints value = LoadWords(words[word]);
        const int step = firstStep + word * static_cast<int>(kWordBytes);
        Enter<msbFirst>(first, step, value);
        Enter<msbFirst>(second, step - kTurn, value);
    }
    for (std::size_t slot = 0; slot < kDecimatorTaps; ++slot) {
        Floats* turn = slot < firstBitStep * kStep ? second : first;
        __builtin_memcpy(&turn[slot], &work.bitRing[slot], kFloatBytes);  // the first lane's
    }

    Floats stage[kRunBytes];
    Turns turns{.older = first, .younger = second};
    std::size_t position = firstBitStep;
    int entering = firstStep;
    std::size_t word = kHistoryWords;
    for (std::size_t done = 0; done < kRunBytes;) {
        for (; entering < kTurn && word < kRunWords; entering += static_cast<int>(kWordBytes)) {
            Enter<msbFirst>(turns.younger, entering, LoadWords(words[word]));
            ++word;
        }
        const std::size_t left = kRunBytes - done;
        const std::size_t end = left < kSteps - position ? position + left : kSteps;
        FilterTurn<true>(stage + done, turns, position, end);
        done += end - position;
        position = 0;
        turns = {.older = turns.younger, .younger = turns.older};
        entering -= kTurn;
        if (entering > 0) {
            // The last word reaches into the next turn.
            entering -= static_cast<int>(kWordBytes);
            --word;
        }
    }

    // A run finds what the run below it wrote. What a ring holds before its position is of the same
    // turn as what enters next.
    for (std::size_t i = 0; i < kDecimatorTaps; ++i) {
        const std::size_t slot = (firstStageStep * kStep + i) % kDecimatorTaps;
        const bool beforeTheTurn = slot >= firstStageStep * kStep;
        (beforeTheTurn ? second : first)[slot] = stage[i];
        (beforeTheTurn ? first : second)[slot] = ShiftIn(stage[i], work.stageRing[slot]);
    }
    Floats levels[kRunSamples];
    FilterTurn<false>(levels, {.older = first, .younger = second}, firstStageStep, kSteps);
    FilterTurn<false>(levels + (kSteps - firstStageStep), {.older = second, .younger = first}, 0,
                      firstStageStep);
    alignas(64) std::uint8_t packed[kRunSamples][2 * kLanes];
    for (std::size_t sample = 0; sample < kRunSamples; sample += 4) {
        Ints block[4];
#pragma GCC unroll 4
        for (std::size_t i = 0; i < 4; ++i) {
            block[i] = RoundTo16(Multiply(levels[sample + i], kFullScale));
        }
        StoreBlock<2>(packed[sample], block);
    }
    for (std::size_t sample = 0; sample < samples; ++sample) {
        __builtin_memcpy(out + 2 * sample,
                         &packed[sample % kRunSamples][2 * (sample / kRunSamples)], 2);
    }

    // The state is the last counted run's, and before its end that of the run below.
    const std::size_t lastRun = (samples - 1) / kRunSamples;
    const std::size_t written = (samples - lastRun * kRunSamples) * kStep;
    for (std::size_t i = 0; i < kDecimatorTaps; ++i) {
        const std::size_t slot = (firstStageStep * kStep + i) % kDecimatorTaps;
        if (i < written || lastRun != 0) {
            const std::size_t run = i < written ? lastRun : lastRun - 1;
            __builtin_memcpy(&work.stageRing[slot],
                             reinterpret_cast<const std::uint8_t*>(&stage[i]) + run * kFloatBytes,
                             kFloatBytes);
        }
    }
    const std::size_t bytes = samples * kSampleBytes;
    for (std::size_t i = bytes < kHistoryBytes ? 0 : bytes - kHistoryBytes; i < bytes; ++i) {
        EnterByte<msbFirst>(work.bitRing, (firstBitStep + i) % kSteps, in[i]);
    }
    work.bitPos = static_cast<std::int64_t>((firstBitStep + bytes) % kSteps * kStep);
    work.stagePos = static_cast<std::int64_t>((firstStageStep + samples) % kSteps * kStep);
}

/// One output of a filter whose ring's oldest value stands at `position`.
inline float FilterOne(const float* ring, std::int64_t position) {
    using Four = float __attribute__((vector_size(16)));
    const float* taps = kTaps + (static_cast<std::int64_t>(kDecimatorTaps) - position);
    Four lanes = {};
    for (std::size_t k = 0; k < kDecimatorTaps; k += 4) {
        Four tap;
        Four value;
        __builtin_memcpy(&tap, taps + k, sizeof tap);
        __builtin_memcpy(&value, ring + k, sizeof value);
        lanes += tap * value;
    }
    return (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
}

/// Up to `kBlockSamples` samples, one after the other.
template <bool msbFirst>
void DecimateFew(std::uint8_t* out, const std::uint8_t* in, std::size_t samples,
                 DsdToPcmWorkBuffer& work) {
    std::uint8_t levels[4 * kVectorBytes] = {};
    for (std::size_t sample = 0; sample < samples; ++sample) {
        // Kept: the sample is taken before its own bytes enter
        // (DsdToPcmTest.FirstSampleFromAZeroedWorkBufferIsZero).
        const float level = FilterOne(work.stageRing, work.stagePos);
        __builtin_memcpy(levels + sample * kFloatBytes, &level, kFloatBytes);
        for (std::size_t i = 0; i < kSampleBytes; ++i) {
            work.stageRing[work.stagePos] = FilterOne(work.bitRing, work.bitPos);
            ++work.stagePos;
            const auto step = static_cast<std::size_t>(work.bitPos) / kStep;
            EnterByte<msbFirst>(work.bitRing, step, in[sample * kSampleBytes + i]);
            work.bitPos = static_cast<std::int64_t>((step + 1) % kSteps * kStep);
        }
        // Eight at a time, so it meets the end of the ring exactly, after every twelfth sample.
        if (work.stagePos >= static_cast<std::int64_t>(kDecimatorTaps)) {
            work.stagePos = 0;
        }
    }
    Ints block[4];
    for (std::size_t i = 0; i < 4; ++i) {
        block[i] = RoundTo16(Multiply(LoadFloats(levels + i * kVectorBytes), kFullScale));
    }
    std::uint8_t converted[2 * kBlockSamples];
    StoreBlock<2>(converted, block);
    __builtin_memcpy(out, converted, 2 * samples);
}

template <bool msbFirst>
void DecimateKernel(std::uint8_t* out, const std::uint8_t* in, std::size_t count,
                    DsdToPcmWorkBuffer* work) {
    constexpr std::size_t kAllRuns = kLanes * kRunSamples;
    // All lanes cost the same however few of them count: as much as so many samples one by one.
    constexpr std::size_t kFew = 24 + kLanes;
    while (count != 0) {
        std::size_t samples = count < kAllRuns ? count : kAllRuns;
        if (samples <= kFew) {
            samples = samples < kBlockSamples ? samples : kBlockSamples;
            DecimateFew<msbFirst>(out, in, samples, *work);
        } else if (samples < kAllRuns) {
            std::uint8_t padded[kLanes * kRunBytes] = {};
            __builtin_memcpy(padded, in, samples * kSampleBytes);
            DecimateRuns<msbFirst>(out, padded, samples, *work);
        } else {
            DecimateRuns<msbFirst>(out, in, samples, *work);
        }
        out += 2 * samples;
        in += kSampleBytes * samples;
        count -= samples;
    }
}

}  // namespace
}  // namespace vorrel
