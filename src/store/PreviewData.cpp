#include "store/PreviewData.h"

#include <limits>
#include <new>

#include "store/SaturatingProduct.h"

namespace vorrel {
namespace {

constexpr std::uint64_t kBufferSeconds = 5;
constexpr std::uint32_t kClearedMemorySize = 882'000;  // bytes: 5 s of stereo at 44.1 kHz

}  // namespace

PreviewData::PreviewData(IVorrelManager& manager) : TemporaryData(manager) {}

VrError PreviewData::Init(std::uint16_t channelCount, std::uint64_t rate,
                          RecordRangeManager* ranges) {
    if (channelCount == 0 || rate == 0) {
        return VrErrorInvalidParameter;
    }
    const std::uint32_t frameBytes = channelCount * std::uint32_t{sizeof(std::int16_t)};
    const std::uint64_t memorySize = SaturatingProduct(rate, frameBytes * kBufferSeconds);
    if (memorySize > std::numeric_limits<std::uint32_t>::max()) {
        return VrErrorInvalidParameter;  // no device has such a rate
    }

    const ExclusiveLock lock(layout);
    const VrError result = TemporaryData::Init(static_cast<std::uint32_t>(memorySize));
    channels = channelCount;
    sampleRate = rate;
    bytesPerFrame = frameBytes;
    rangeManager = ranges;
    return result;
}

VrError PreviewData::Add(const std::vector<std::int16_t>& frames) {
    const SharedLock lock(layout);
    if (bytesPerFrame == 0 || rangeManager == nullptr) {
        return VrErrorFailed;
    }
    const std::uint64_t length = TemporaryData::GetLength(false);
    try {
        return TemporaryData::Add(
            frames, rangeManager->GetAvailableRange_Bytes(
                        length, length + frames.size() * sizeof(std::int16_t), bytesPerFrame));
    } catch (const std::bad_alloc&) {
        return VrErrorFailed;
    }
}

VrError PreviewData::GetData(std::uint64_t from, std::uint64_t to, std::vector<std::int16_t>& out,
                             bool available) {
    const SharedLock lock(layout);
    return TemporaryData::GetData(SaturatingProduct(from, bytesPerFrame),
                                  SaturatingProduct(to, bytesPerFrame), out, available);
}

std::uint64_t PreviewData::GetLength(bool available) const {
    const SharedLock lock(layout);
    return bytesPerFrame == 0 ? 0 : TemporaryData::GetLength(available) / bytesPerFrame;
}

VrError PreviewData::TemporaryClear() {
    const ExclusiveLock lock(layout);
    return TemporaryData::Init(kClearedMemorySize);
}

std::uint16_t PreviewData::GetChannels() const {
    const SharedLock lock(layout);
    return channels;
}

std::uint64_t PreviewData::GetSampleRate() const {
    const SharedLock lock(layout);
    return sampleRate;
}

}  // namespace vorrel
