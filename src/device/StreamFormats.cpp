#include "device/StreamFormats.h"

namespace vorrel {

bool IsUsableFormat(const AudioStreamBasicDescription& format) {
    return format.mFormatID == kAudioFormatLinearPCM &&
           (format.mFormatFlags & kAudioFormatFlagIsSignedInteger) != 0 &&
           (format.mFormatFlags & kAudioFormatFlagIsNonMixable) == 0;
}

bool IsEligibleFormat(const AudioStreamRangedDescription& format, double rateHz) {
    const double ownRateHz = format.mFormat.mSampleRate;
    const bool rateFits =
        ownRateHz == rateHz || (ownRateHz == 0.0 && format.mSampleRateRange.mMinimum <= rateHz &&
                                rateHz <= format.mSampleRateRange.mMaximum);
    return rateFits && IsUsableFormat(format.mFormat);
}

bool CompareASRD(const AudioStreamRangedDescription* best,
                 const AudioStreamRangedDescription& candidate, std::uint32_t targetBits) {
    if (best == nullptr) {
        return true;
    }
    const std::uint32_t bestBits = best->mFormat.mBitsPerChannel;
    const std::uint32_t candidateBits = candidate.mFormat.mBitsPerChannel;
    if (bestBits == candidateBits) {
        return candidate.mFormat.mChannelsPerFrame > best->mFormat.mChannelsPerFrame;
    }
    const bool candidateHasFewer = candidateBits < bestBits;
    const std::uint32_t fewer = candidateHasFewer ? candidateBits : bestBits;
    // Fewer bits that reach the target are the target itself or the nearest above it. Where they
    // fall short, more bits are the target itself or come closest to it.
    const bool fewerWins = fewer >= targetBits;
    return fewerWins == candidateHasFewer;
}

const AudioStreamRangedDescription* SearchASRD(
    std::span<const AudioStreamRangedDescription> formats, std::optional<double> rateHz,
    std::uint32_t targetBits) {
    const AudioStreamRangedDescription* best = nullptr;
    for (const AudioStreamRangedDescription& format : formats) {
        const bool eligible =
            rateHz.has_value() ? IsEligibleFormat(format, *rateHz) : IsUsableFormat(format.mFormat);
        if (eligible && CompareASRD(best, format, targetBits)) {
            best = &format;
        }
    }
    return best;
}

}  // namespace vorrel
