#include "device/alsa/PcmFormat.h"

#include <algorithm>
#include <cstring>
#include <tuple>

#include "convert/PcmConverters.h"
#include "platform/Realtime.h"

namespace vorrel {
namespace {

constexpr std::uint32_t kBitsPerByte = 8;

/// Shifted to the high end of the word, a 24-bit sample is an exact float at full scale.
VORREL_REALTIME void Int24In4ToFloat(std::uint8_t* floats, const std::uint8_t* integers,
                                     std::size_t samples) {
    constexpr float kFullScale = 2147483648.0F;
    for (std::size_t i = 0; i < samples; ++i) {
        std::uint32_t word = 0;
        std::memcpy(&word, integers + i * sizeof word, sizeof word);
        const float sample =
            static_cast<float>(static_cast<std::int32_t>(word << kBitsPerByte)) / kFullScale;
        std::memcpy(floats + i * sizeof sample, &sample, sizeof sample);
    }
}

/// False where nobody told: the driver, which grants a rate, asks the device for them.
bool HasRates(const CaptureFormat& described) {
    return !described.ratesHz.empty() || described.maximumRateHz != 0;
}

bool HasRate(const CaptureFormat& described, std::uint32_t rateHz) {
    if (described.ratesHz.empty()) {
        return described.minimumRateHz <= rateHz && rateHz <= described.maximumRateHz;
    }
    return std::find(described.ratesHz.begin(), described.ratesHz.end(), rateHz) !=
           described.ratesHz.end();
}

/// The layout that the system's driver uses for a container of that size: samples fill its high
/// end, so that four bytes are always 32 bits.
std::optional<SampleLayout> LayoutOf(std::uint32_t containerBytes) {
    switch (containerBytes) {
        case 2:
            return SampleLayout::Int16;
        case 3:
            return SampleLayout::Int24In3;
        case 4:
            return SampleLayout::Int32;
        default:
            return std::nullopt;
    }
}

}  // namespace

std::uint32_t ContainerBytes(SampleLayout layout) {
    switch (layout) {
        case SampleLayout::Int16:
            return 2;
        case SampleLayout::Int24In3:
            return 3;
        case SampleLayout::Int24In4:
        case SampleLayout::Int32:
            break;
    }
    return 4;
}

std::uint32_t LayoutBits(SampleLayout layout) {
    return layout == SampleLayout::Int24In4 ? 24 : ContainerBytes(layout) * kBitsPerByte;
}

std::uint32_t DescribedBits(const PcmFormat& format, const std::vector<CaptureFormat>& described) {
    // Where several settings fit, the driver chooses; none of the bits that it may bring is lost.
    std::uint32_t ofTheRate = 0;
    std::uint32_t ofUnknownRates = 0;
    for (const CaptureFormat& entry : described) {
        if (entry.channels != format.channels ||
            entry.containerBytes != ContainerBytes(format.layout)) {
            continue;
        }
        if (!HasRates(entry)) {
            ofUnknownRates = std::max(ofUnknownRates, entry.bits);
        } else if (HasRate(entry, format.rateHz)) {
            ofTheRate = std::max(ofTheRate, entry.bits);
        }
    }
    const std::uint32_t bits = ofTheRate > 0 ? ofTheRate : ofUnknownRates;
    return bits > 0 ? std::min(bits, LayoutBits(format.layout)) : LayoutBits(format.layout);
}

AudioStreamRangedDescription DescribeFormat(const PcmFormat& format, std::uint32_t bits) {
    const std::uint32_t bytes = ContainerBytes(format.layout);
    AudioStreamRangedDescription ranged{};
    AudioStreamBasicDescription& description = ranged.mFormat;
    description.mSampleRate = format.rateHz;
    description.mFormatID = kAudioFormatLinearPCM;
    description.mFormatFlags = kAudioFormatFlagIsSignedInteger;
    if (bits == bytes * kBitsPerByte) {
        description.mFormatFlags |= kAudioFormatFlagIsPacked;
    } else if (format.layout != SampleLayout::Int24In4) {
        description.mFormatFlags |= kAudioFormatFlagIsAlignedHigh;
    }
    description.mBytesPerPacket = bytes * format.channels;
    description.mFramesPerPacket = 1;
    description.mBytesPerFrame = bytes * format.channels;
    description.mChannelsPerFrame = format.channels;
    description.mBitsPerChannel = bits;
    ranged.mSampleRateRange = {description.mSampleRate, description.mSampleRate};
    return ranged;
}

std::vector<OfferedFormat> OfferFormats(const std::vector<PcmFormat>& granted,
                                        const std::vector<CaptureFormat>& described) {
    std::vector<OfferedFormat> offered;
    offered.reserve(granted.size());
    for (const PcmFormat& format : granted) {
        offered.push_back({format, DescribeFormat(format, DescribedBits(format, described))});
    }
    // Descending but for the rates.
    const auto key = [](const OfferedFormat& format) {
        return std::tuple(-std::int64_t{format.pcm.rateHz},
                          format.description.mFormat.mBitsPerChannel,
                          ContainerBytes(format.pcm.layout), format.pcm.channels);
    };
    std::stable_sort(
        offered.begin(), offered.end(),
        [&key](const OfferedFormat& a, const OfferedFormat& b) { return key(a) > key(b); });
    return offered;
}

std::vector<PcmFormat> DescribedFormats(const std::vector<CaptureFormat>& described) {
    std::vector<PcmFormat> formats;
    for (const CaptureFormat& entry : described) {
        const std::optional<SampleLayout> layout = LayoutOf(entry.containerBytes);
        for (const std::uint32_t rateHz : kStandardRatesHz) {
            const PcmFormat format{rateHz, layout.value_or(SampleLayout::Int16), entry.channels};
            if (layout.has_value() && entry.channels > 0 && HasRate(entry, rateHz) &&
                std::find(formats.begin(), formats.end(), format) == formats.end()) {
                formats.push_back(format);
            }
        }
    }
    return formats;
}

std::optional<PcmFormat> FindFormat(const std::vector<OfferedFormat>& offered,
                                    const AudioStreamBasicDescription& wanted) {
    const auto found =
        std::find_if(offered.begin(), offered.end(), [&wanted](const OfferedFormat& candidate) {
            const AudioStreamBasicDescription& own = candidate.description.mFormat;
            return own.mSampleRate == wanted.mSampleRate && own.mFormatID == wanted.mFormatID &&
                   own.mFormatFlags == wanted.mFormatFlags &&
                   own.mBytesPerPacket == wanted.mBytesPerPacket &&
                   own.mFramesPerPacket == wanted.mFramesPerPacket &&
                   own.mBytesPerFrame == wanted.mBytesPerFrame &&
                   own.mChannelsPerFrame == wanted.mChannelsPerFrame &&
                   own.mBitsPerChannel == wanted.mBitsPerChannel;
        });
    return found == offered.end() ? std::nullopt : std::optional(found->pcm);
}

SampleConverter ConverterOf(SampleLayout layout) {
    switch (layout) {
        case SampleLayout::Int16:
            return &Int16_To_Float32LSB<false>;
        case SampleLayout::Int24In3:
            return &Int24_To_Float32LSB<false>;
        case SampleLayout::Int24In4:
            return &Int24In4ToFloat;
        case SampleLayout::Int32:
            break;
    }
    return &Int32_To_Float32LSB<false, 32>;
}

}  // namespace vorrel
