#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "support/TempDirectory.h"

namespace vorrel::test {

/// One operation of a random sequence: numbers without a meaning of their own, which the test reads
/// as what fits the state of the moment. A sequence of which some are left out is a sequence still.
struct Step {
    std::uint64_t kind = 0;
    std::array<std::uint64_t, 4> number{};

    /// Number `index`, brought into [least, most].
    std::uint64_t Between(std::size_t index, std::uint64_t least, std::uint64_t most) const {
        return least + number[index] % (most - least + 1);
    }
};
using Steps = std::vector<Step>;

/// Replays a sequence on the real thing and on the model.
/// @return what they differ in; nothing when they agree.
using Replay = std::function<std::optional<std::string>(const Steps&)>;

/// A sequence of `count` steps of `kinds` kinds, the same for the same seed everywhere.
inline Steps RandomSteps(std::uint64_t seed, std::size_t count, std::uint64_t kinds) {
    std::mt19937_64 random(seed);
    Steps steps(count);
    for (Step& step : steps) {
        step.kind = random() % kinds;
        for (std::uint64_t& number : step.number) {
            number = random() >> 1;
        }
    }
    return steps;
}

/// The replay of runs that are made of the first step, a variant of the property and a fresh
/// directory; that `Do` one step after the other, and look at `All` there is in the end. Both
/// say what is wrong, if anything is.
template <class Run>
Replay ReplayOf(bool variant) {
    return [variant](const Steps& steps) -> std::optional<std::string> {
        if (steps.empty()) {
            return std::nullopt;
        }
        const TempDirectory directory;
        Run run(steps.front(), variant, directory.Path());
        for (std::size_t index = 1; index < steps.size(); ++index) {
            if (const auto wrong = run.Do(steps[index])) {
                return "step " + std::to_string(index) + ": " + *wrong;
            }
        }
        return run.All();
    };
}

/// Leaves out of a failing sequence what it fails without: first halves, at last single steps.
inline Steps Shrunk(Steps failing, const Replay& replay) {
    for (std::size_t length = (failing.size() + 1) / 2; length > 0;) {
        bool shorter = false;
        for (std::size_t from = 0; from < failing.size();) {
            Steps fewer = failing;
            const auto begin = fewer.begin() + static_cast<std::ptrdiff_t>(from);
            fewer.erase(begin, begin + static_cast<std::ptrdiff_t>(
                                           std::min(length, failing.size() - from)));
            if (replay(fewer)) {
                failing = std::move(fewer);
                shorter = true;
            } else {
                from += length;
            }
        }
        if (!shorter || length > failing.size()) {
            length = length == 1 && shorter ? 1 : length / 2;
        }
    }
    return failing;
}

inline std::string ToText(const Steps& steps) {
    std::string text;
    for (const Step& step : steps) {
        text += "  {" + std::to_string(step.kind) + ", {";
        for (std::size_t index = 0; index < step.number.size(); ++index) {
            text += (index == 0 ? "" : ", ") + std::to_string(step.number[index]);
        }
        text += "}},\n";
    }
    return text;
}

/// Replays `runs` random sequences, and one of a seed never used before. A failure tells its seed
/// and the shortest sequence that was found to fail. `VORREL_TEST_SEED` in the environment has that
/// seed alone replayed, `VORREL_TEST_RUNS` more or fewer sequences.
inline void CheckProperty(std::size_t runs, std::size_t count, std::uint64_t kinds,
                          const Replay& replay) {
    std::vector<std::uint64_t> seeds;
    if (const char* const given = std::getenv("VORREL_TEST_SEED")) {
        seeds.push_back(std::strtoull(given, nullptr, 10));
    } else {
        if (const char* const wanted = std::getenv("VORREL_TEST_RUNS")) {
            runs = std::strtoull(wanted, nullptr, 10);
        }
        for (std::uint64_t seed = 1; seed <= runs; ++seed) {
            seeds.push_back(seed);
        }
        seeds.push_back(std::random_device{}());
    }
    for (const std::uint64_t seed : seeds) {
        const Steps steps = RandomSteps(seed, count, kinds);
        if (replay(steps)) {
            const Steps shortest = Shrunk(steps, replay);
            ADD_FAILURE() << "VORREL_TEST_SEED=" << seed << ", " << shortest.size() << " of "
                          << steps.size() << " steps:\n"
                          << ToText(shortest) << *replay(shortest);
            return;
        }
    }
    std::printf("%zu operations replayed\n", seeds.size() * count);
}

}  // namespace vorrel::test
