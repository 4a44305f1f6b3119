#include <algorithm>
#include <array>
#include <exception>
#include <span>
#include <tuple>
#include <utility>

#include "convert/SampleTypeInfo.h"
#include "manager/VorrelManager.h"
#include "platform/Trace.h"

namespace vorrel {
namespace {

constexpr std::array<std::uint64_t, 8> pcmSampleRates = {44'100,  48'000,  88'200,  96'000,
                                                         176'400, 192'000, 352'800, 384'000};
constexpr std::array<std::uint64_t, 3> dsdSampleRates = {2'822'400, 5'644'800, 11'289'600};

/// A device's `excludedRateMask`: bit `bit` takes `rateHz` off the offered rates.
struct ExcludableRate {
    unsigned bit;
    std::uint64_t rateHz;
};
constexpr std::array kExcludablePcmRates = {
    ExcludableRate{0, 88'200}, ExcludableRate{1, 176'400}, ExcludableRate{2, 352'800},
    ExcludableRate{3, 705'600},  // in no rate table; keeps one bit per rate of the device family
};
constexpr std::array kExcludableDsdRates = {
    ExcludableRate{4, 2'822'400},
    ExcludableRate{5, 5'644'800},
    ExcludableRate{6, 11'289'600},
};

// Widths of saved WAV files that a setting may ask for. The writer refuses what it cannot write.
constexpr std::uint16_t kMinBits = 16;
constexpr std::uint16_t kMaxBits = 32;

constexpr std::int32_t kRecTypePcm = 0;
constexpr std::int32_t kRecTypeDsd = 1;

void GetSupportedSamplingRates(CoreAudioManager& audioManager, std::vector<std::uint64_t>& list,
                               std::span<const std::uint64_t> table) {
    list.clear();
    for (const std::uint64_t rateHz : table) {
        if (audioManager.CanSampleRate(static_cast<double>(rateHz)) == VrSuccess) {
            list.push_back(rateHz);
        }
    }
}

void RemoveExcludedRates(std::vector<std::uint64_t>& list, std::uint32_t mask,
                         std::span<const ExcludableRate> excludable) {
    for (const ExcludableRate& rate : excludable) {
        if ((mask & (1U << rate.bit)) != 0) {
            std::erase(list, rate.rateHz);
        }
    }
}

}  // namespace

VrError VorrelManager::FindDevices(std::vector<FoundDeviceInfo>& list) {
    if (const VrError error = audioManager.GetAudioDevices(list); error != VrSuccess) {
        return error;
    }
    deviceList.FilterDevices(list);
    return VrSuccess;
}

VrError VorrelManager::GetAudioDevices(std::vector<std::string>* names) {
    if (names == nullptr) {
        return VrErrorInvalidParameter;
    }
    names->clear();
    if (State() == ManagerState::Uninitialized) {
        return VrErrorNotInitialized;
    }
    std::vector<FoundDeviceInfo> found;
    if (const VrError error = FindDevices(found); error != VrSuccess) {
        return error;
    }
    std::vector<std::string> listed;
    listed.reserve(found.size());
    for (const FoundDeviceInfo& device : found) {
        listed.push_back(device.name);
    }
    *names = std::move(listed);
    return VrSuccess;
}

VrError VorrelManager::SetAudioDevice(const char* name) {
    if (name == nullptr) {
        return VrErrorInvalidParameter;
    }
    if (State() == ManagerState::Uninitialized) {
        return VrErrorNotInitialized;
    }
    if (State() > ManagerState::Ready) {
        return VrErrorInvalidState;
    }

    // From here on a failure leaves the manager without a device.
    std::ignore = audioManager.ReleaseDevice();
    deviceInfo = nullptr;
    state = ManagerState::Initialized;

    std::vector<FoundDeviceInfo> found;
    if (const VrError error = FindDevices(found); error != VrSuccess) {
        return error;
    }
    const auto device = std::ranges::find(found, std::string(name), &FoundDeviceInfo::name);
    if (device == found.end()) {
        return VrErrorDeviceNotFound;
    }
    if (const VrError error = audioManager.SetAudioDevice(*device, this); error != VrSuccess) {
        return error;
    }
    VrError described = VrErrorFailed;
    try {
        described = GetAudioDeviceInfo(*device);
    } catch (const std::exception& error) {
        Trace(__FILE__, __LINE__, "the device cannot be described: %s", error.what());
    }
    if (described != VrSuccess) {
        std::ignore = audioManager.ReleaseDevice();
        return described;
    }
    excludedRateMask = device->excludedRateMask;
    state = ManagerState::Ready;
    return VrSuccess;
}

VrError VorrelManager::GetAudioDeviceInfo(const FoundDeviceInfo& record) {
    auto info = std::make_shared<VrAudioDeviceInfo>();
    if (const VrError error = audioManager.GetChannels(info->i_ch, info->o_ch);
        error != VrSuccess) {
        return error;
    }
    // A device that refuses a mode simply offers no rates in it.
    if (audioManager.SetSampleType(kSampleTypeDsd) == VrSuccess) {
        GetSupportedSamplingRates(audioManager, info->DSD_supported_freq, dsdSampleRates);
    }
    if (audioManager.SetSampleType(kSampleTypePcm) == VrSuccess) {
        if (const VrError error =
                audioManager.GetBits(info->PCM_supported_bits, info->PCM_record_bits);
            error != VrSuccess) {
            return error;
        }
        GetSupportedSamplingRates(audioManager, info->PCM_supported_freq, pcmSampleRates);
    }
    RemoveExcludedRates(info->PCM_supported_freq, record.excludedRateMask, kExcludablePcmRates);
    RemoveExcludedRates(info->DSD_supported_freq, record.excludedRateMask, kExcludableDsdRates);
    info->device_name = record.name;
    info->vid = record.vendorId;
    info->pid = record.productId;
    deviceInfo = std::move(info);
    return VrSuccess;
}

VrError VorrelManager::GetAudioDeviceInfo(std::shared_ptr<VrAudioDeviceInfo>* info) {
    if (info == nullptr) {
        return VrErrorInvalidParameter;
    }
    if (State() == ManagerState::Uninitialized) {
        return VrErrorNotInitialized;
    }
    if (State() == ManagerState::Initialized) {
        return VrErrorInvalidState;
    }
    *info = deviceInfo;
    return VrSuccess;
}

VrError VorrelManager::SetRecordSetting(const VrRecordSetting* setting) {
    if (setting == nullptr) {
        return VrErrorInvalidParameter;
    }
    if (setting->rec_type != kRecTypePcm && setting->rec_type != kRecTypeDsd) {
        return VrErrorInvalidParameter;
    }
    if (setting->rec_type == kRecTypePcm &&
        (setting->bits < kMinBits || setting->bits > kMaxBits)) {
        return VrErrorInvalidParameter;
    }
    if (State() == ManagerState::Uninitialized) {
        return VrErrorNotInitialized;
    }
    if (State() != ManagerState::Ready) {
        return VrErrorInvalidState;
    }
    const std::int64_t type = setting->rec_type == kRecTypePcm ? kSampleTypePcm : kSampleTypeDsd;
    if (const VrError error = audioManager.SetSampleType(type); error != VrSuccess) {
        return error;
    }
    // A refused rate leaves the new sample type in force.
    if (const VrError error = audioManager.SetSampleRate(static_cast<double>(setting->freq));
        error != VrSuccess) {
        return error;
    }
    saveThread.SetBits(setting->bits);
    return VrSuccess;
}

VrError VorrelManager::GetRecordSetting(std::shared_ptr<VrRecordSetting>* setting) {
    if (setting == nullptr) {
        return VrErrorInvalidParameter;
    }
    if (State() == ManagerState::Uninitialized) {
        return VrErrorNotInitialized;
    }
    if (State() == ManagerState::Initialized) {
        return VrErrorInvalidState;
    }
    std::int64_t type = kSampleTypePcm;
    if (const VrError error = audioManager.GetSampleType(type); error != VrSuccess) {
        return error;
    }
    auto record = std::make_shared<VrRecordSetting>();
    if (type == kSampleTypeDsd) {
        record->rec_type = kRecTypeDsd;
        record->bits = 1;
    } else if (type == kSampleTypePcm) {
        record->rec_type = kRecTypePcm;
        record->bits = saveThread.GetBits();
    } else {
        return VrErrorFailed;
    }
    double rate = 0.0;
    if (const VrError error = audioManager.GetSampleRate(rate); error != VrSuccess) {
        return error;
    }
    record->freq = static_cast<std::uint64_t>(rate);
    *setting = std::move(record);
    return VrSuccess;
}

}  // namespace vorrel
