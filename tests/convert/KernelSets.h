#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "convert/InstructionSet.h"

namespace vorrel {

/// The vectors of a machine that has no wider set, compiled for the tests of this one.
extern const PcmKernels kPlainKernels;

}  // namespace vorrel

namespace vorrel::test {

struct KernelSet {
    std::string name;
    const PcmKernels* kernels;
};

inline void PrintTo(const KernelSet& set, std::ostream* stream) {
    *stream << set.name;
}

/// Every set of kernels that this machine can run.
inline std::vector<KernelSet> KernelSets() {
    static const std::array kNames = {"Baseline", "Avx2", "Avx512"};
    std::vector<KernelSet> sets{{"Plain", &kPlainKernels}};
    for (const InstructionSet set : SupportedInstructionSets()) {
        sets.push_back({kNames.at(static_cast<std::size_t>(set)), &KernelsFor(set)});
    }
    return sets;
}

inline std::string KernelSetName(const ::testing::TestParamInfo<KernelSet>& info) {
    return info.param.name;
}

/// Floats at and beside everything that rounding, clamping and classes of numbers turn on.
inline std::vector<float> SpecialFloats() {
    using Limits = std::numeric_limits<float>;
    std::vector<float> values = {0.0F,
                                 Limits::quiet_NaN(),
                                 Limits::signaling_NaN(),
                                 Limits::infinity(),
                                 Limits::max(),
                                 Limits::min(),
                                 Limits::denorm_min(),
                                 Limits::min() / 2.0F,
                                 1e9F,
                                 1e20F,
                                 3e38F};
    for (const float scale : {32768.0F, 8388608.0F, 2147483648.0F}) {
        for (const float point :
             {0.25F,      0.5F,       0.75F,         1.0F,          1.5F,          2.0F,
              2.5F,       3.0F,       3.5F,          127.5F,        32766.5F,      32767.0F,
              32767.5F,   32768.0F,   32768.5F,      8388606.5F,    8388607.0F,    8388607.5F,
              8388608.0F, 8388609.0F, 2147483520.0F, 2147483648.0F, 2147483904.0F, 4294967296.0F}) {
            const float value = point / scale;
            values.push_back(value);
            values.push_back(std::nextafterf(value, 0.0F));
            values.push_back(std::nextafterf(value, Limits::infinity()));
        }
    }
    const std::size_t positive = values.size();
    for (std::size_t i = 0; i < positive; ++i) {
        values.push_back(-values[i]);
    }
    return values;
}

/// `count` floats of any bit pattern or, half of them, of ordinary level; the same each time.
inline std::vector<float> RandomFloats(std::size_t count, std::uint32_t seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> level(-1.1F, 1.1F);
    std::vector<float> values(count);
    for (float& value : values) {
        if ((random() & 1U) != 0) {
            value = level(random);
        } else {
            const auto bits = static_cast<std::uint32_t>(random());
            std::memcpy(&value, &bits, sizeof value);
        }
    }
    return values;
}

/// A destination that knows whether something was written beside it.
class GuardedBytes {
public:
    /// `misalignment` is that of the first byte, against 64.
    explicit GuardedBytes(std::size_t size, std::size_t misalignment = 0)
        : bytes(size + 3 * kGuard, kCanary), count(size) {
        const auto address = reinterpret_cast<std::uintptr_t>(bytes.data());
        start = (kGuard - address % kGuard) + misalignment;
    }

    std::uint8_t* data() { return bytes.data() + start; }
    std::vector<std::uint8_t> Contents() const {
        const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(start);
        return {first, first + static_cast<std::ptrdiff_t>(count)};
    }
    bool Intact() const {
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            if ((i < start || i >= start + count) && bytes[i] != kCanary) {
                return false;
            }
        }
        return true;
    }

    static constexpr std::uint8_t kCanary = 0xC5;

private:
    static constexpr std::size_t kGuard = 64;
    std::vector<std::uint8_t> bytes;
    std::size_t count;
    std::size_t start = 0;
};

/// A copy of `samples` that begins `misalignment` bytes after a 64-byte boundary.
class PlacedBytes {
public:
    PlacedBytes(const void* from, std::size_t size, std::size_t misalignment)
        : bytes(size + 128, 0) {
        const auto address = reinterpret_cast<std::uintptr_t>(bytes.data());
        start = (64 - address % 64) + misalignment;
        if (size != 0) {
            std::memcpy(bytes.data() + start, from, size);
        }
    }
    const std::uint8_t* data() const { return bytes.data() + start; }

private:
    std::vector<std::uint8_t> bytes;
    std::size_t start = 0;
};

}  // namespace vorrel::test
