#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "device/alsa/SoundCard.h"
#include "device/backend/CoreAudioTypes.h"

namespace vorrel {

/// How a sample lies in memory: a signed integer, the low byte first.
enum class SampleLayout {
    Int16,
    Int24In4,  ///< in the low three bytes of four
    Int24In3,
    Int32,
};

/// The wider first, and of the same width the larger container, as formats are listed.
inline constexpr std::array kSampleLayouts = {SampleLayout::Int32, SampleLayout::Int24In4,
                                              SampleLayout::Int24In3, SampleLayout::Int16};

/// Bytes of a sample.
std::uint32_t ContainerBytes(SampleLayout layout);
/// Bits of it that a device of that layout can use at most.
std::uint32_t LayoutBits(SampleLayout layout);

/// The rates that a card is asked for.
inline constexpr std::array<std::uint32_t, 10> kStandardRatesHz = {
    44'100, 48'000, 88'200, 96'000, 176'400, 192'000, 352'800, 384'000, 705'600, 768'000};

/// What a card streams: one set of hardware parameters.
struct PcmFormat {
    std::uint32_t rateHz = 0;
    SampleLayout layout = SampleLayout::Int16;
    std::uint32_t channels = 0;

    friend bool operator==(const PcmFormat&, const PcmFormat&) = default;
};

/// Bits that a sample of that format really has: the most of the card's descriptions of itself that
/// have the format, those first that name its rate, then those that name none; else all that the
/// layout can carry.
std::uint32_t DescribedBits(const PcmFormat& format, const std::vector<CaptureFormat>& described);

/// The same as the device layer describes it. Bits that do not fill their container lie in its
/// high end, but for `Int24In4`.
AudioStreamRangedDescription DescribeFormat(const PcmFormat& format, std::uint32_t bits);

/// One format that the device offers, both ways.
struct OfferedFormat {
    PcmFormat pcm;
    AudioStreamRangedDescription description{};
};

/// Formats in the order in which a device lists them: rates ascending, at each the most bits first,
/// then the larger container, then the most channels.
std::vector<OfferedFormat> OfferFormats(const std::vector<PcmFormat>& granted,
                                        const std::vector<CaptureFormat>& described);

/// What the card's description of itself promises, for want of the card's own word.
std::vector<PcmFormat> DescribedFormats(const std::vector<CaptureFormat>& described);

/// The offered format that `wanted` is, every field of it.
std::optional<PcmFormat> FindFormat(const std::vector<OfferedFormat>& offered,
                                    const AudioStreamBasicDescription& wanted);

/// Converts `samples` samples to 32-bit floats, full scale 1.0: 16 and 24 bits exactly (multiples
/// of 1/32768 and 1/8388608), 32 bits to the nearest float. No alignment needed.
/// Kept: of samples that do not fill their container the bits below them come along
/// (PcmFormatTest.BitsBelowTheSignificantOnesComeAlong). They are zero by the device class, and a
/// device that describes fewer bits than it sends would lose sound to a mask.
using SampleConverter = void (*)(std::uint8_t* floats, const std::uint8_t* integers,
                                 std::size_t samples);
SampleConverter ConverterOf(SampleLayout layout);

}  // namespace vorrel
