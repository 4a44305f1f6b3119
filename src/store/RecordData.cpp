#include "store/RecordData.h"

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

#include "store/SaturatingProduct.h"

namespace vorrel {
namespace {

constexpr std::uint64_t kBufferSeconds = 5;
constexpr std::uint32_t kClearedMemorySize = 441'000;  // bytes: 2.5 s of PCM at 44.1 kHz

}  // namespace

RecordData::RecordData(IVorrelManager& owner) : manager(owner) {}

VrError RecordData::Init(std::uint16_t channels, std::uint64_t rate, const SampleTypeInfo* type,
                         RecordRangeManager* ranges) {
    if (channels == 0 || rate == 0 || type == nullptr) {
        return VrErrorInvalidParameter;
    }
    const auto bits = static_cast<std::uint16_t>(type->bits + type->padBits);
    const std::uint64_t memorySize = SaturatingProduct(rate, bits * kBufferSeconds) / 8;
    if (memorySize == 0 || memorySize > std::numeric_limits<std::uint32_t>::max()) {
        return VrErrorInvalidParameter;  // no device has such a rate
    }

    const ExclusiveLock lock(layout);
    ++generation;
    stores.clear();
    form = {};
    VrError result = VrSuccess;
    try {
        stores.reserve(channels);
        for (std::uint16_t channel = 0; channel < channels && result == VrSuccess; ++channel) {
            result = stores.emplace_back(manager).Init(static_cast<std::uint32_t>(memorySize));
        }
    } catch (const std::bad_alloc&) {
        result = VrErrorFailed;
    }
    if (result != VrSuccess) {
        stores.clear();
        return result;
    }
    form.bitsPerSample = bits;
    // Kept: 16 one-bit samples, although events are logged in units of 64
    // (RecordDataTest.TakesLoggedPositionsAsTwoByteFramesForDsd).
    form.bytesPerFrame = type->isDsd != 0 ? 2U : bits / 8U;
    form.sampleRate = rate;
    form.sampleType = type;
    form.rangeManager = ranges;
    return VrSuccess;
}

VrError RecordData::Add(std::uint16_t channel, const std::vector<std::uint8_t>& block) {
    return AddBlock(channel, block);
}

VrError RecordData::Add(std::uint16_t channel, const AlignedBytes& block) {
    return AddBlock(channel, block);
}

template <class Container>
VrError RecordData::AddBlock(std::uint16_t channel, const Container& block) {
    const SharedLock lock(layout);
    if (channel >= stores.size() || form.rangeManager == nullptr) {
        return VrErrorInvalidParameter;
    }
    TemporaryData& store = stores[channel];
    const std::uint64_t length = store.GetLength(false);
    try {
        return store.Add(block, form.rangeManager->GetAvailableRange_Bytes(
                                    length, length + block.size(), form.bytesPerFrame));
    } catch (const std::bad_alloc&) {
        return VrErrorFailed;
    }
}

VrError RecordData::GetData(std::uint16_t channel, std::uint64_t from, std::uint64_t to,
                            std::vector<std::uint8_t>& out, bool available) {
    return Read(channel, from, to, out, available);
}

VrError RecordData::GetData(std::uint16_t channel, std::uint64_t from, std::uint64_t to,
                            AlignedBytes& out, bool available) {
    return Read(channel, from, to, out, available);
}

template <class Container>
VrError RecordData::Read(std::uint16_t channel, std::uint64_t from, std::uint64_t to,
                         Container& out, bool available) {
    const SharedLock lock(layout);
    if (channel >= stores.size()) {
        return VrErrorInvalidParameter;
    }
    return stores[channel].GetData(SaturatingProduct(from, form.bitsPerSample) / 8,
                                   SaturatingProduct(to, form.bitsPerSample) / 8, out, available);
}

std::uint64_t RecordData::GetLength(bool available) const {
    const SharedLock lock(layout);
    if (stores.empty()) {
        return 0;
    }
    std::uint64_t bytes = std::numeric_limits<std::uint64_t>::max();
    for (const TemporaryData& store : stores) {
        bytes = std::min(bytes, store.GetLength(available));
    }
    return bytes * 8 / form.bitsPerSample;
}

VrError RecordData::TemporaryClear() {
    const ExclusiveLock lock(layout);
    ++generation;
    VrError result = VrSuccess;
    for (TemporaryData& store : stores) {
        if (store.Init(kClearedMemorySize) != VrSuccess) {
            result = VrErrorFailed;  // the others are emptied all the same
        }
    }
    return result;
}

RecordLayout RecordData::GetLayout() const {
    const SharedLock lock(layout);
    return {static_cast<std::uint16_t>(stores.size()), form.sampleRate, form.sampleType,
            generation};
}

std::uint16_t RecordData::GetChannels() const {
    const SharedLock lock(layout);
    return static_cast<std::uint16_t>(stores.size());
}

std::uint64_t RecordData::GetSampleRate() const {
    const SharedLock lock(layout);
    return form.sampleRate;
}

const SampleTypeInfo* RecordData::GetSampleTypeInfo() const {
    const SharedLock lock(layout);
    return form.sampleType;
}

}  // namespace vorrel
