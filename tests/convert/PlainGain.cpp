#include "convert/PlainGain.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <random>

#include "convert/GainTables.h"

namespace vorrel::test {
namespace {

/// One step of the modulator, literally.
double Step(double (&s)[5], double x) {
    double y = 0.791882 * s[0];
    y += 0.304545 * s[1];
    y += 0.06993 * s[2];
    y += 0.009496 * s[3];
    y += 0.000607 * s[4];
    const double q = y >= 0.0 ? 1.0 : -1.0;
    double next[5];
    next[0] = (s[0] + x) - q;
    next[2] = s[1] + s[2];
    next[1] = (s[0] + s[1]) - 0.000496 * next[2];
    next[4] = s[3] + s[4];
    next[3] = (s[2] + s[3]) - 0.001789 * next[4];
    const double limits[5] = {4.0, 9.0, 25.0, 92.0, 700.0};
    for (int i = 0; i < 5; ++i) {
        if (next[i] > limits[i]) {
            next[i] = limits[i];
        } else if (next[i] < -limits[i]) {
            next[i] = -limits[i];
        }
        s[i] = next[i];
    }
    return q;
}

/// `count` bytes of the modulator's bits for `signal` of 0, 1, 2 ...
template <class Signal>
std::vector<std::uint8_t> Modulated(std::size_t count, const Signal& signal) {
    double states[5] = {};
    std::vector<std::uint8_t> bytes(count);
    std::size_t time = 0;
    for (std::uint8_t& byte : bytes) {
        unsigned out = 0;
        for (int bit = 0; bit < 8; ++bit) {
            out = out * 2 + (Step(states, signal(time++)) > 0 ? 1U : 0U);
        }
        byte = static_cast<std::uint8_t>(out);
    }
    return bytes;
}

}  // namespace

float PlainGain::Filter(float x) {
    delay[index] = x;
    delay[index + 400] = x;
    const float* run = delay.data() + index;
    index = index == 399 ? 0 : index + 1;
    float l0 = 0;
    float l1 = 0;
    float l2 = 0;
    float l3 = 0;
    for (std::size_t k = 0; k < 200; k += 4) {
        l0 += static_cast<float>(cff[k]) * (run[k] + run[399 - k]);
        l1 += static_cast<float>(cff[k + 1]) * (run[k + 1] + run[398 - k]);
        l2 += static_cast<float>(cff[k + 2]) * (run[k + 2] + run[397 - k]);
        l3 += static_cast<float>(cff[k + 3]) * (run[k + 3] + run[396 - k]);
    }
    return (l0 + l1) + (l2 + l3);
}

bool PlainGain::Modulate(double x) {
    return Step(states, x) > 0;
}

void PlainGain::SetStates(const double (&values)[5]) {
    std::copy(std::begin(values), std::end(values), std::begin(states));
}

void PlainGain::Process(std::uint8_t* bytes, std::size_t length) {
    for (std::size_t i = 0; i < length; ++i) {
        unsigned out = 0;
        for (int bit = 7; bit >= 0; --bit) {
            const float x = ((bytes[i] >> bit) & 1) != 0 ? gain : -gain;
            out = out * 2 + (Modulate(static_cast<double>(Filter(x))) ? 1U : 0U);
        }
        bytes[i] = static_cast<std::uint8_t>(out);
    }
}

std::vector<std::uint8_t> DoublePrecisionGain::Processed(std::vector<std::uint8_t> bytes) {
    // The history grows with the stream; the last 400 inputs are its window.
    std::size_t end = history.size();
    history.reserve(end + bytes.size() * 8);
    for (std::uint8_t& byte : bytes) {
        unsigned out = 0;
        for (int bit = 7; bit >= 0; --bit) {
            history.push_back(((byte >> bit) & 1) != 0 ? gain : -gain);
            const double* newest = history.data() + end++;
            double sum = cff[0] * (newest[0] + newest[-1]);
            for (int k = 1; k < 200; ++k) {
                sum += cff[static_cast<std::size_t>(k)] * (newest[k - 400] + newest[-1 - k]);
            }
            out = out * 2 + (Step(states, sum) > 0 ? 1U : 0U);
        }
        byte = static_cast<std::uint8_t>(out);
    }
    return bytes;
}

std::vector<std::uint8_t> RandomBits(std::size_t count, std::uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<std::uint8_t> bytes(count);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<std::uint8_t>(random()); });
    return bytes;
}

std::vector<std::uint8_t> ToneBits(std::size_t count, double amplitude, double hz, double rateHz) {
    return Modulated(count, [&](std::size_t time) {
        const double turns = hz / rateHz * static_cast<double>(time);
        return amplitude * std::sin(2 * std::numbers::pi * turns);
    });
}

std::vector<std::uint8_t> TriangleBits(std::size_t count, double amplitude, std::size_t period) {
    return Modulated(count, [&](std::size_t time) {
        const double place = static_cast<double>(time % period) / static_cast<double>(period);
        return amplitude * (place < 0.5 ? 4 * place - 1 : 3 - 4 * place);
    });
}

std::uint64_t HashOf(const std::vector<std::uint8_t>& bytes) {
    std::uint64_t hash = 14695981039346656037U;
    for (const std::uint8_t byte : bytes) {
        hash = (hash ^ byte) * 1099511628211U;
    }
    return hash;
}

}  // namespace vorrel::test
