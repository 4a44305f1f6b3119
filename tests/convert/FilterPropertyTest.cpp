#include <gtest/gtest.h>

#include <iterator>
#include <tuple>

#include "convert/DsdToPcm.h"
#include "convert/fir_filter.h"
#include "support/Property.h"
#include "support/models/FilterModels.h"

namespace vorrel::test {
namespace {

/// Levels as they come, and some that never do.
double InputOf(const Step& step) {
    constexpr double kOdd[] = {0.0, -0.0, 1e-320, 1e30, -1e30, 0.1};
    switch (step.Between(0, 0, 3)) {
        case 0:
            return 1.0;
        case 1:
            return -1.0;
        case 2:
            return static_cast<double>(step.number[1]) * 0x1p-62 - 1.0;
        default:
            return kOdd[step.Between(1, 0, std::size(kOdd) - 1)];
    }
}

std::optional<std::string> ReplayFilter(const Steps& steps) {
    fir_filter filter;
    FirModel model;
    filter.init();
    model.Init();
    for (std::size_t index = 0; index < steps.size(); ++index) {
        const Step& step = steps[index];
        const double x = InputOf(step);
        if (step.kind == 0 && step.Between(2, 0, 199) == 0) {
            filter.init();
            model.Init();
        } else if (step.kind == 1) {
            std::ignore = filter.Store(x);
            model.Store(x);
        } else if (const double y = filter.sample(x), expected = model.Sample(x); y != expected) {
            return "sample " + std::to_string(index) + ": " + std::to_string(y) + " instead of " +
                   std::to_string(expected);
        }
    }
    return std::nullopt;
}

/// Some channels, each with its own state, fed in pieces of any length.
template <bool msbFirst>
std::optional<std::string> ReplayDecimator(const Steps& steps) {
    constexpr std::size_t kChannels = 3;
    std::array<DsdToPcmWorkBuffer, kChannels> work{};
    std::vector<DecimatorModel> models(kChannels, DecimatorModel(msbFirst));
    for (std::size_t index = 0; index < steps.size(); ++index) {
        const Step& step = steps[index];
        const std::size_t channel = step.Between(0, 0, kChannels - 1);
        const std::size_t count = step.Between(1, 0, step.kind == 0 ? 40 : 3);
        std::mt19937_64 random(step.number[2]);
        std::vector<std::uint8_t> bytes(count * 8);
        for (std::uint8_t& byte : bytes) {
            // Ones, zeros and silence drive it to its ends and back.
            byte = step.kind == 1   ? std::uint8_t{0xFF}
                   : step.kind == 2 ? std::uint8_t{0x00}
                   : step.kind == 3 ? std::uint8_t{0x69}
                                    : static_cast<std::uint8_t>(random());
        }
        std::vector<std::int16_t> out(count);
        DSD_To_Int16LSB<msbFirst>(reinterpret_cast<std::uint8_t*>(out.data()), bytes.data(), count,
                                  &work[channel]);
        for (std::size_t sample = 0; sample < count; ++sample) {
            const std::int16_t expected = models[channel].Next(bytes.data() + sample * 8);
            if (out[sample] != expected) {
                return "step " + std::to_string(index) + ", sample " + std::to_string(sample) +
                       ": " + std::to_string(out[sample]) + " instead of " +
                       std::to_string(expected);
            }
        }
    }
    return std::nullopt;
}

TEST(FilterPropertyTest, TheFilterGivesTheBitsOfTheModel) {
    CheckProperty(20, 1'000, 10, &ReplayFilter);
}

TEST(FilterPropertyTest, TheDecimatorGivesTheSamplesOfTheModelInWhateverPieces) {
    CheckProperty(20, 100, 10, &ReplayDecimator<true>);
    CheckProperty(20, 100, 10, &ReplayDecimator<false>);
}

}  // namespace
}  // namespace vorrel::test
