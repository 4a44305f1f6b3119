#include "convert/PlainDecimator.h"

#include <cmath>
#include <cstring>

#include "convert/DsdTables.h"

namespace vorrel::test {
namespace {

constexpr std::int64_t kRing = static_cast<std::int64_t>(kDecimatorTaps);
constexpr std::size_t kBytesPerSample = 8;

/// The filter over a ring whose oldest entry stands at `position`. The sum runs in ring order in
/// four lanes: this order, and no other, gives the same bits on every machine.
float Filter(const float (&ring)[kDecimatorTaps], std::int64_t position) {
    const float* taps = filter_coef.data() + (kRing - position);
    float lanes[4] = {};
    for (std::size_t k = 0; k < kDecimatorTaps; k += 4) {
        for (std::size_t lane = 0; lane < 4; ++lane) {
            lanes[lane] += taps[k + lane] * ring[k + lane];
        }
    }
    return (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
}

/// Full scale is 32767 on both sides, so that a full negative level does not touch -32768.
std::int16_t ToInt16(float value) {
    const float scaled = value * 32767.0F;
    if (!(scaled > -32768.0F)) {
        return std::isnan(scaled) ? std::int16_t{0} : std::int16_t{-32768};
    }
    return scaled < 32767.0F ? static_cast<std::int16_t>(std::lrint(scaled)) : std::int16_t{32767};
}

}  // namespace

void PlainDecimate(bool msbFirst, std::uint8_t* out, const std::uint8_t* in, std::size_t count,
                   DsdToPcmWorkBuffer& work) {
    for (std::size_t sample = 0; sample < count; ++sample) {
        const std::int16_t result = ToInt16(Filter(work.stageRing, work.stagePos));
        std::memcpy(out + sample * sizeof result, &result, sizeof result);

        for (std::size_t i = 0; i < kBytesPerSample; ++i) {
            work.stageRing[work.stagePos] = Filter(work.bitRing, work.bitPos);
            ++work.stagePos;

            const std::uint8_t byte = in[sample * kBytesPerSample + i];
            const auto& first = msbFirst ? table_msb[byte >> 4] : table_lsb[byte & 15];
            const auto& second = msbFirst ? table_msb[byte & 15] : table_lsb[byte >> 4];
            float* slots = work.bitRing + work.bitPos;
            std::memcpy(slots, first.data(), sizeof first);
            std::memcpy(slots + first.size(), second.data(), sizeof second);
            work.bitPos = work.bitPos >= kRing - 8 ? 0 : work.bitPos + 8;
        }
        if (work.stagePos >= kRing) {
            work.stagePos = 0;
        }
    }
}

}  // namespace vorrel::test
