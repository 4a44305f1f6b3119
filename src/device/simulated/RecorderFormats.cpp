#include "device/simulated/RecorderFormats.h"

#include <algorithm>
#include <array>
#include <functional>

#include "device/simulated/SampleSource.h"

namespace vorrel {
namespace {

/// A sixteenth of 2.8224, 5.6448 and 11.2896 MHz.
constexpr std::array kDsdWordRatesHz = {176'400.0, 352'800.0, 705'600.0};

bool IsDsdFormat(const AudioStreamBasicDescription& format) {
    return format.mBitsPerChannel == kDsdWordBits &&
           std::find(kDsdWordRatesHz.begin(), kDsdWordRatesHz.end(), format.mSampleRate) !=
               kDsdWordRatesHz.end();
}

AudioStreamRangedDescription MakeFormat(double rateHz, std::uint32_t channels, std::uint32_t bits,
                                        std::uint32_t bytes) {
    AudioStreamRangedDescription ranged{};
    AudioStreamBasicDescription& format = ranged.mFormat;
    format.mSampleRate = rateHz;
    format.mFormatID = kAudioFormatLinearPCM;
    format.mFormatFlags =
        kAudioFormatFlagIsSignedInteger |
        (bits == bytes * 8 ? kAudioFormatFlagIsPacked : kAudioFormatFlagIsAlignedHigh);
    format.mBytesPerPacket = bytes * channels;
    format.mFramesPerPacket = 1;
    format.mBytesPerFrame = bytes * channels;
    format.mChannelsPerFrame = channels;
    format.mBitsPerChannel = bits;
    ranged.mSampleRateRange = {rateHz, rateHz};
    return ranged;
}

/// Whether `b` is what `offered` describes; a rate of 0 there stands for its range of rates.
bool IsOffered(const AudioStreamRangedDescription& offered, const AudioStreamBasicDescription& b) {
    const AudioStreamBasicDescription& a = offered.mFormat;
    const bool rateFits =
        a.mSampleRate == b.mSampleRate ||
        (a.mSampleRate == 0.0 && b.mSampleRate >= offered.mSampleRateRange.mMinimum &&
         b.mSampleRate <= offered.mSampleRateRange.mMaximum);
    return rateFits && a.mFormatID == b.mFormatID && a.mFormatFlags == b.mFormatFlags &&
           a.mBytesPerPacket == b.mBytesPerPacket && a.mFramesPerPacket == b.mFramesPerPacket &&
           a.mBytesPerFrame == b.mBytesPerFrame && a.mChannelsPerFrame == b.mChannelsPerFrame &&
           a.mBitsPerChannel == b.mBitsPerChannel;
}

bool IsPcmFormat(const SimulatedRecorderConfig& config, const AudioStreamBasicDescription& format) {
    return std::find(config.pcmRatesHz.begin(), config.pcmRatesHz.end(), format.mSampleRate) !=
               config.pcmRatesHz.end() &&
           std::find(config.pcmBits.begin(), config.pcmBits.end(), format.mBitsPerChannel) !=
               config.pcmBits.end();
}

}  // namespace

std::vector<AudioStreamRangedDescription> MakeFormats(const SimulatedRecorderConfig& config) {
    std::vector<std::uint32_t> widths = config.pcmBits;
    std::sort(widths.begin(), widths.end(), std::greater<>());
    std::vector<AudioStreamRangedDescription> formats;
    for (const double rateHz : config.pcmRatesHz) {
        for (const std::uint32_t bits : widths) {
            if (bits == 24) {
                formats.push_back(MakeFormat(rateHz, config.channels, bits, 4));
            }
            formats.push_back(MakeFormat(rateHz, config.channels, bits, bits / 8));
        }
    }
    for (const double rateHz : config.dsdRatesHz) {
        const AudioStreamRangedDescription words =
            MakeFormat(rateHz / kDsdWordBits, config.channels, kDsdWordBits, kDsdWordBits / 8);
        if (config.dsd && !IsPcmFormat(config, words.mFormat)) {
            formats.push_back(words);
        }
    }
    return formats;
}

bool IsFormatOfMode(const SimulatedRecorderConfig& config,
                    const std::vector<AudioStreamRangedDescription>& formats,
                    const AudioStreamBasicDescription& format, bool dsd) {
    const bool listed = std::any_of(formats.begin(), formats.end(), [&](const auto& offered) {
        return IsOffered(offered, format);
    });
    if (!listed || dsd) {
        return listed && IsDsdFormat(format);
    }
    return format.mSampleRate != kDsdWordRatesHz.back() &&
           (!IsDsdFormat(format) || IsPcmFormat(config, format));
}

}  // namespace vorrel
