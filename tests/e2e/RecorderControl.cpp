#include "RecorderControl.h"

#include <algorithm>
#include <utility>

namespace vorrel::e2e {
namespace {

// Request types: direction, kind, recipient.
constexpr std::uint8_t kKindMask = 0x60;
constexpr std::uint8_t kStandardKind = 0x00;
constexpr std::uint8_t kClassToInterface = 0x21;
constexpr std::uint8_t kClassFromInterface = 0xA1;
constexpr std::uint8_t kVendorToInterface = 0x41;

// Standard requests.
constexpr std::uint8_t kGetStatus = 0;
constexpr std::uint8_t kClearFeature = 1;
constexpr std::uint8_t kGetDescriptor = 6;
constexpr std::uint8_t kGetConfiguration = 8;
constexpr std::uint8_t kSetConfiguration = 9;
constexpr std::uint8_t kGetInterface = 10;
constexpr std::uint8_t kSetInterface = 11;

// Requests to a clock, and what of it they are about.
constexpr std::uint8_t kCurrent = 1;
constexpr std::uint8_t kRange = 2;
constexpr unsigned kFrequency = 1;
constexpr unsigned kValidity = 2;

constexpr std::uint8_t kSwitchMode = 0;

std::uint8_t High(std::uint16_t word) {
    return static_cast<std::uint8_t>(word >> 8);
}

std::uint8_t Low(std::uint16_t word) {
    return static_cast<std::uint8_t>(word);
}

}  // namespace

RecorderControl::RecorderControl(RecorderModel recorder) : model(std::move(recorder)) {}

const WireFormat* RecorderControl::Format() const {
    return setting == 0 ? nullptr : &model.formats[setting - std::size_t{1}];
}

std::optional<ByteVector> RecorderControl::Transfer(const SetupPacket& setup,
                                                    std::span<const std::uint8_t> data) {
    std::optional<ByteVector> answer;
    if ((setup.requestType & kKindMask) == kStandardKind) {
        answer = Standard(setup);
    } else if (setup.requestType == kClassToInterface || setup.requestType == kClassFromInterface) {
        answer = Clock(setup, data);
    } else if (setup.requestType == kVendorToInterface) {
        answer = SetMode(setup);
    }
    if (answer && answer->size() > setup.length) {
        answer->resize(setup.length);
    }
    return answer;
}

std::optional<ByteVector> RecorderControl::Standard(const SetupPacket& setup) {
    const bool isStreaming = setup.index == kStreamingInterface;
    switch (setup.request) {
        case kGetStatus:
            return ByteVector{0, 0};
        case kClearFeature:
            return ByteVector{};
        case kGetDescriptor:
            return Descriptor(setup);
        case kGetConfiguration:
            return ByteVector{configuration};
        case kSetConfiguration:
            if (setup.value > 1) {
                return std::nullopt;
            }
            configuration = Low(setup.value);
            setting = 0;
            ++generation;
            return ByteVector{};
        case kGetInterface:
            return ByteVector{isStreaming ? setting : std::uint8_t{0}};
        case kSetInterface:
            return SetInterface(setup);
        default:
            return std::nullopt;
    }
}

std::optional<ByteVector> RecorderControl::Descriptor(const SetupPacket& setup) const {
    switch (High(setup.value)) {
        case 1:
            return DeviceDescriptor(model);
        case 2:
            return ConfigurationDescriptor(model);
        case 3:
            return StringDescriptor(model, Low(setup.value));
        default:
            return std::nullopt;
    }
}

std::optional<ByteVector> RecorderControl::SetInterface(const SetupPacket& setup) {
    if (setup.index == kControlInterface && setup.value == 0) {
        return ByteVector{};
    }
    if (setup.index != kStreamingInterface || setup.value > model.formats.size()) {
        return std::nullopt;
    }
    const bool isSilent = setup.value == 0;
    if (!isSilent && mode == StreamMode::Dsd &&
        model.formats[setup.value - std::size_t{1}].bits != kDsdWordBits) {
        return std::nullopt;  // a word of DSD has 16 bits, no more
    }
    setting = Low(setup.value);
    ++generation;
    return ByteVector{};
}

std::optional<ByteVector> RecorderControl::Clock(const SetupPacket& setup,
                                                 std::span<const std::uint8_t> data) {
    if (High(setup.index) != kClockEntity || Low(setup.index) != kControlInterface) {
        return std::nullopt;
    }
    const bool toHost = setup.requestType == kClassFromInterface;
    ByteVector answer;
    if (High(setup.value) == kValidity && toHost && setup.request == kCurrent) {
        answer.push_back(1);
        return answer;
    }
    if (High(setup.value) != kFrequency) {
        return std::nullopt;
    }
    if (toHost && setup.request == kCurrent) {
        AppendNumber(answer, rateHz, 4);
        return answer;
    }
    if (toHost && setup.request == kRange) {
        AppendNumber(answer, static_cast<std::uint32_t>(kClockRatesHz.size()), 2);
        for (const std::uint32_t rate : kClockRatesHz) {
            AppendNumber(answer, rate, 4);  // from
            AppendNumber(answer, rate, 4);  // to
            AppendNumber(answer, 0, 4);     // in steps of
        }
        return answer;
    }
    if (!toHost && setup.request == kCurrent && data.size() == 4) {
        const std::uint32_t rate = data[0] | std::uint32_t{data[1]} << 8 |
                                   std::uint32_t{data[2]} << 16 | std::uint32_t{data[3]} << 24;
        const bool fits = mode == StreamMode::Dsd ? IsWordRate(rate)
                                                  : IsClockRate(rate) && rate != kDsdOnlyRateHz;
        if (!fits) {
            return std::nullopt;
        }
        rateHz = rate;
        ++generation;
        return answer;
    }
    return std::nullopt;
}

std::optional<ByteVector> RecorderControl::SetMode(const SetupPacket& setup) {
    if (setup.request != kSwitchMode || setup.value > 1 || setup.index != kStreamingInterface ||
        setup.length != 0) {
        return std::nullopt;
    }
    mode = setup.value == 1 ? StreamMode::Dsd : StreamMode::Pcm;
    ++generation;
    return ByteVector{};
}

}  // namespace vorrel::e2e
