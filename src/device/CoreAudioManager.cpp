#include "device/CoreAudioManager.h"

#include <exception>
#include <limits>
#include <tuple>
#include <utility>

#include "convert/SampleTypeInfo.h"
#include "device/AudioHardware.h"
#include "device/AudioStream.h"
#include "device/StreamFormats.h"
#include "device/UsbLookup.h"
#include "platform/Trace.h"

namespace vorrel {
namespace {

/// Bit of `excludedRateMask`: the device has the USB control interface.
constexpr std::uint32_t kHasControlInterface = 1U << 16;

constexpr std::uint32_t kBitsPerByte = 8;
constexpr std::uint32_t kPcmTargetBits = 32;
/// In DSD mode the device packs this many 1-bit samples into one PCM word.
constexpr std::uint32_t kDsdWordBits = 16;
constexpr double kWordsPerDsdSample = 1.0 / kDsdWordBits;

constexpr std::uint8_t kHostToInterfaceVendorRequest = 0x41;
constexpr std::uint8_t kSetTransferMode = 0;
constexpr std::uint16_t kTransferPcm = 0;
constexpr std::uint16_t kTransferDsd = 1;

constexpr AudioObjectPropertyAddress kOverload = GlobalProperty(kAudioDeviceProcessorOverload);
constexpr AudioObjectPropertyAddress kIsAlive = GlobalProperty(kAudioDevicePropertyDeviceIsAlive);
constexpr AudioObjectPropertyAddress kBufferFrameSize =
    GlobalProperty(kAudioDevicePropertyBufferFrameSize);
constexpr AudioObjectPropertyAddress kBufferFrameSizeRange =
    GlobalProperty(kAudioDevicePropertyBufferFrameSizeRange);

/// Reads what discovery reports of a device; false when it is dead or a read fails.
bool ReadDevice(const AudioDevice& device, FoundDeviceInfo& record) {
    UInt32 alive = 0;
    if (device.GetProperty(kIsAlive, alive) != kAudioHardwareNoError || alive == 0) {
        return false;
    }
    record.deviceId = device.Id();
    return device.GetProperty(GlobalProperty(kAudioObjectPropertyName), record.name) ==
               kAudioHardwareNoError &&
           device.GetProperty(GlobalProperty(kAudioDevicePropertyDeviceUID), record.uid) ==
               kAudioHardwareNoError &&
           device.GetProperty(GlobalProperty(kAudioDevicePropertyModelUID), record.modelUid) ==
               kAudioHardwareNoError;
}

VrError ConvertUsbError(IOReturn result) {
    switch (result) {
        case kIOReturnSuccess:
            return VrSuccess;
        case kIOReturnNoDevice:
            return VrErrorDeviceNotFound;
        default:
            return VrErrorFailed;
    }
}

/// One step of a way back, whose outcome must not keep the next from being made.
template <class Step>
void Try(const Step& step) noexcept {
    try {
        std::ignore = step();
    } catch (const std::exception& failure) {
        Trace(__FILE__, __LINE__, "a step of a release failed: %s", failure.what());
    }
}

/// Frames without their fraction. What no count can hold becomes the nearest that one can.
std::uint32_t WholeFrames(double frames) {
    if (!(frames > 0.0)) {
        return 0;
    }
    constexpr std::uint32_t kMost = std::numeric_limits<std::uint32_t>::max();
    return frames >= static_cast<double>(kMost) ? kMost : static_cast<std::uint32_t>(frames);
}

}  // namespace

CoreAudioManager::CoreAudioManager(BackendProvider backendProvider)
    : provider(std::move(backendProvider)) {}

CoreAudioManager::~CoreAudioManager() {
    // Both refuse on their own when there is nothing to stop or to release.
    std::ignore = Stop();
    std::ignore = ReleaseDevice();
}

const DeviceBackends& CoreAudioManager::Backends() {
    if (!backends.has_value()) {
        backends = provider ? provider() : DeviceBackends{};
    }
    return *backends;
}

VrError CoreAudioManager::GetAudioDevices(std::vector<FoundDeviceInfo>& list) {
    list.clear();
    const std::shared_ptr<AudioBackend>& audio = Backends().audio;
    if (audio == nullptr) {
        return VrSuccess;
    }
    std::vector<AudioDevice> devices;
    if (const VrError error = ConvertErrorCode(AudioHardware(audio).GetDevices(devices));
        error != VrSuccess) {
        return error;
    }
    for (const AudioDevice& candidate : devices) {
        FoundDeviceInfo record;
        if (ReadDevice(candidate, record)) {
            // Unknown to the registry: the ids stay -1 and the device is still listed.
            std::ignore = GetVidPid(record.uid, record.vendorId, record.productId);
            list.push_back(std::move(record));
        }
    }
    return VrSuccess;
}

bool CoreAudioManager::GetVidPid(const std::string& uid, std::int32_t& vendorId,
                                 std::int32_t& productId) {
    return FindUsbIds(Backends().registry, uid, vendorId, productId);
}

std::unique_ptr<UsbInterface> CoreAudioManager::SearchInterface(const std::string& uid) {
    return FindUsbInterface(Backends().registry, uid);
}

VrError CoreAudioManager::SetAudioDevice(const FoundDeviceInfo& found,
                                         IAudioDeviceNotify* newNotify) {
    if (newNotify == nullptr) {
        return VrErrorInvalidParameter;
    }
    if (IsSelected()) {
        return VrErrorInvalidState;
    }
    FoundDeviceInfo record = found;
    const AudioDevice candidate(Backends().audio, record.deviceId);
    std::vector<AudioStream> streams;
    if (const VrError error =
            ConvertErrorCode(candidate.GetStreams(kAudioObjectPropertyScopeInput, streams));
        error != VrSuccess) {
        return error;
    }
    if (streams.empty()) {
        return VrErrorNotSupported;
    }
    if (const VrError taken = ConvertErrorCode(exclusiveUse.Take(candidate)); taken != VrSuccess) {
        return taken;
    }
    VrError error = VrErrorFailed;
    try {
        // A device whose state is not wholly known could not be put back: it is let go.
        error = SaveDeviceState(candidate, streams.front());
        if (error == VrSuccess) {
            error = AttachDevice(candidate, record);
        }
    } catch (const std::exception& failure) {
        Trace(__FILE__, __LINE__, "selection failed: %s", failure.what());
        error = VrErrorFailed;
    }
    if (error != VrSuccess) {
        Unregister(candidate);
        usbInterface.reset();
        exclusiveUse.GiveUp(candidate);
        return error;
    }
    sampleType.store(kSampleTypePcm, std::memory_order_relaxed);
    device = candidate;
    selectedDevice = std::move(record);
    // Last, so that an event that comes during the selection does nothing.
    notify.store(newNotify, std::memory_order_release);
    return VrSuccess;
}

VrError CoreAudioManager::SaveDeviceState(const AudioDevice& candidate,
                                          const AudioStream& inputStream) {
    if (const VrError error =
            ConvertErrorCode(candidate.GetProperty(kBufferFrameSize, savedBufferSize));
        error != VrSuccess) {
        return error;
    }
    bufferSize = savedBufferSize;
    if (const VrError error = ConvertErrorCode(inputStream.GetPhysicalFormat(savedFormat));
        error != VrSuccess) {
        return error;
    }
    currentFormat = savedFormat;
    formatInDoubt = false;
    return ConvertErrorCode(inputStream.GetAvailablePhysicalFormats(availableFormats));
}

VrError CoreAudioManager::AttachDevice(const AudioDevice& candidate, const FoundDeviceInfo& found) {
    if ((found.excludedRateMask & kHasControlInterface) != 0) {
        usbInterface = SearchInterface(found.uid);
        // Whatever the device was used for before, a selection begins in PCM mode. An interface
        // that was not found refuses that like one that fails.
        if (SetDSDMethod(false) != VrSuccess) {
            return VrErrorFailed;
        }
    }
    if (const VrError error = ConvertErrorCode(candidate.CreateIOProcID(&IOProc, this, ioProcId));
        error != VrSuccess) {
        return error;
    }
    if (const VrError error = ConvertErrorCode(
            candidate.AddPropertyListener(kOverload, &ProcessorOverloadListener, this));
        error != VrSuccess) {
        return error;
    }
    return ConvertErrorCode(candidate.AddPropertyListener(kIsAlive, &DeviceIsAliveListener, this));
}

void CoreAudioManager::Unregister(const AudioDevice& candidate) noexcept {
    // Neither a listener that was never added nor a device that is gone may stop the rest.
    Try([&] { return candidate.RemovePropertyListener(kIsAlive, &DeviceIsAliveListener, this); });
    Try([&] {
        return candidate.RemovePropertyListener(kOverload, &ProcessorOverloadListener, this);
    });
    if (ioProcId != nullptr) {
        Try([&] { return candidate.DestroyIOProcID(ioProcId); });
        ioProcId = nullptr;
    }
}

VrError CoreAudioManager::ReleaseDevice() noexcept {
    if (!IsSelected() || running) {
        return VrErrorInvalidState;
    }
    Unregister(device);
    notify.store(nullptr, std::memory_order_release);
    if (usbInterface != nullptr) {
        Try([&] { return SetDSDMethod(false); });
        usbInterface.reset();
    }
    RestoreDeviceState();
    device = AudioDevice();
    selectedDevice = FoundDeviceInfo();
    return VrSuccess;
}

void CoreAudioManager::RestoreDeviceState() noexcept {
    Try([&] {
        std::vector<AudioStream> streams;
        std::ignore = device.GetStreams(kAudioObjectPropertyScopeInput, streams);
        return streams.empty() ? kAudioHardwareNoError
                               : streams.front().SetPhysicalFormat(savedFormat);
    });
    Try([&] { return device.SetProperty(kBufferFrameSize, savedBufferSize); });
    exclusiveUse.GiveUp(device);
}

VrError CoreAudioManager::GetChannels(std::uint16_t& inputs, std::uint16_t& outputs) {
    inputs = 0;
    outputs = 0;
    if (!IsSelected()) {
        return VrErrorInvalidState;
    }
    VrError lastFailure = VrSuccess;
    const auto read = [&](AudioObjectPropertyScope scope, std::uint16_t& channels) {
        std::uint32_t sum = 0;
        if (const VrError error = ConvertErrorCode(device.GetChannels(scope, sum));
            error != VrSuccess) {
            lastFailure = error;
            return;
        }
        channels = static_cast<std::uint16_t>(sum);
    };
    read(kAudioObjectPropertyScopeInput, inputs);
    read(kAudioObjectPropertyScopeOutput, outputs);
    return lastFailure;
}

VrError CoreAudioManager::GetBits(std::uint16_t& bits, std::uint16_t& containerBits) {
    if (!IsSelected()) {
        return VrErrorInvalidState;
    }
    const AudioStreamRangedDescription* best =
        SearchASRD(availableFormats, std::nullopt, kPcmTargetBits);
    if (best == nullptr) {
        return VrErrorNotSupported;
    }
    const AudioStreamBasicDescription& format = best->mFormat;
    bits = static_cast<std::uint16_t>(format.mBitsPerChannel);
    containerBits = format.mChannelsPerFrame == 0
                        ? std::uint16_t{0}
                        : static_cast<std::uint16_t>(format.mBytesPerFrame /
                                                     format.mChannelsPerFrame * kBitsPerByte);
    return VrSuccess;
}

VrError CoreAudioManager::ChooseFormat(double rate, AudioStreamBasicDescription& format) const {
    double physicalRate = rate;
    std::uint32_t targetBits = kPcmTargetBits;
    switch (sampleType) {
        case kSampleTypePcm:
            break;
        case kSampleTypeDsd:
            physicalRate = rate * kWordsPerDsdSample;
            targetBits = kDsdWordBits;
            break;
        default:
            return VrErrorFailed;
    }
    const AudioStreamRangedDescription* best =
        SearchASRD(availableFormats, physicalRate, targetBits);
    // 1-bit samples come through in words of their own width only; PCM takes what is nearest.
    if (best == nullptr ||
        (sampleType == kSampleTypeDsd && best->mFormat.mBitsPerChannel != kDsdWordBits)) {
        return VrErrorNotSupported;
    }
    format = best->mFormat;
    format.mSampleRate = physicalRate;  // an entry for any rate has none of its own
    return VrSuccess;
}

VrError CoreAudioManager::CanSampleRate(double rate) {
    if (!IsSelected()) {
        return VrErrorInvalidState;
    }
    AudioStreamBasicDescription ignored{};
    return ChooseFormat(rate, ignored);
}

VrError CoreAudioManager::ReadFormat(AudioStreamBasicDescription& format) {
    if (!formatInDoubt) {
        format = currentFormat;
        return VrSuccess;
    }
    std::vector<AudioStream> streams;
    if (const VrError error =
            ConvertErrorCode(device.GetStreams(kAudioObjectPropertyScopeInput, streams));
        error != VrSuccess) {
        return error;
    }
    return streams.empty() ? VrErrorFailed
                           : ConvertErrorCode(streams.front().GetPhysicalFormat(format));
}

VrError CoreAudioManager::GetSampleRate(double& rate) {
    if (!IsSelected()) {
        return VrErrorInvalidState;
    }
    AudioStreamBasicDescription format{};
    if (const VrError error = ReadFormat(format); error != VrSuccess) {
        return error;
    }
    switch (sampleType) {
        case kSampleTypePcm:
            rate = format.mSampleRate;
            return VrSuccess;
        case kSampleTypeDsd:
            rate = format.mSampleRate * kDsdWordBits;
            return VrSuccess;
        default:
            return VrErrorFailed;
    }
}

VrError CoreAudioManager::SetSampleRate(double rate) {
    if (!IsSelected() || running) {
        return VrErrorInvalidState;
    }
    AudioStreamBasicDescription format{};
    if (const VrError error = ChooseFormat(rate, format); error != VrSuccess) {
        return error;
    }
    std::vector<AudioStream> streams;
    if (const VrError error =
            ConvertErrorCode(device.GetStreams(kAudioObjectPropertyScopeInput, streams));
        error != VrSuccess) {
        return error;
    }
    if (streams.empty()) {
        return VrErrorFailed;
    }
    // A call that ends in an exception may have had its effect before.
    const bool wasInDoubt = formatInDoubt.exchange(true);
    if (const VrError error = ConvertErrorCode(streams.front().SetPhysicalFormat(format));
        error != VrSuccess) {
        formatInDoubt = wasInDoubt;
        return error;
    }
    currentFormat = format;
    formatInDoubt = false;
    return VrSuccess;
}

VORREL_REALTIME VrError CoreAudioManager::GetSampleType(std::int64_t& type) const {
    // There is a notify object exactly while a device is selected.
    if (notify.load(std::memory_order_acquire) == nullptr) {
        return VrErrorInvalidState;
    }
    type = sampleType.load(std::memory_order_relaxed);
    return VrSuccess;
}

VrError CoreAudioManager::SetSampleType(std::int64_t type) {
    if (!IsSelected() || running) {
        return VrErrorInvalidState;
    }
    const bool dsd = type == kSampleTypeDsd;
    if ((!dsd && type != kSampleTypePcm) || (dsd && usbInterface == nullptr)) {
        return VrErrorNotSupported;
    }
    if (usbInterface != nullptr) {
        const bool wasInDoubt = formatInDoubt.exchange(true);  // as for a rate
        const VrError error = SetDSDMethod(dsd);
        formatInDoubt = wasInDoubt;
        if (error != VrSuccess) {
            return error;
        }
    }
    sampleType.store(type, std::memory_order_relaxed);
    return VrSuccess;
}

VrError CoreAudioManager::GetBufferSize(std::uint32_t& frames) {
    if (!IsSelected()) {
        return VrErrorInvalidState;
    }
    frames = bufferSize;
    return VrSuccess;
}

VrError CoreAudioManager::SetBufferSize(std::uint32_t& frames) {
    if (!IsSelected() || running) {
        return VrErrorInvalidState;
    }
    AudioValueRange range{};
    if (const VrError error = ConvertErrorCode(device.GetProperty(kBufferFrameSizeRange, range));
        error != VrSuccess) {
        return error;
    }
    if (frames < range.mMinimum) {
        frames = WholeFrames(range.mMinimum);
    }
    if (frames > range.mMaximum) {
        frames = WholeFrames(range.mMaximum);
    }
    const UInt32 wanted = frames;
    if (const VrError error = ConvertErrorCode(device.SetProperty(kBufferFrameSize, wanted));
        error != VrSuccess) {
        return error;
    }
    // Read back, because the device may have rounded it.
    UInt32 inForce = 0;
    if (const VrError error = ConvertErrorCode(device.GetProperty(kBufferFrameSize, inForce));
        error != VrSuccess) {
        return error;
    }
    frames = inForce;
    bufferSize = inForce;
    return VrSuccess;
}

VrError CoreAudioManager::SetDSDMethod(bool dsd) {
    if (usbInterface == nullptr) {
        return VrErrorNotSupported;
    }
    std::uint8_t interfaceNumber = 0;
    if (const VrError error = ConvertUsbError(usbInterface->GetInterfaceNumber(&interfaceNumber));
        error != VrSuccess) {
        return error;
    }
    UsbControlRequest request;
    request.requestType = kHostToInterfaceVendorRequest;
    request.request = kSetTransferMode;
    request.value = dsd ? kTransferDsd : kTransferPcm;
    request.index = interfaceNumber;
    request.length = 0;
    return ConvertUsbError(usbInterface->ControlRequest(request));
}

VrError CoreAudioManager::Start() {
    if (!IsSelected() || running) {
        return VrErrorInvalidState;
    }
    const VrError error = ConvertErrorCode(device.Start(ioProcId));
    running = error == VrSuccess;
    return error;
}

VrError CoreAudioManager::Stop() {
    if (!IsSelected() || !running) {
        return VrErrorInvalidState;
    }
    running = false;  // first, so that a last cycle may already see the device as stopped
    return ConvertErrorCode(device.Stop(ioProcId));
}

VrError CoreAudioManager::ConvertErrorCode(OSStatus status) {
    switch (status) {
        case kAudioHardwareNoError:
            return VrSuccess;
        case kAudioDeviceUnsupportedFormatError:
        case kAudioHardwareUnsupportedOperationError:
            return VrErrorNotSupported;
        case kAudioHardwareBadDeviceError:
        case kAudioHardwareBadObjectError:
        case kAudioHardwareBadStreamError:
            return VrErrorDeviceNotFound;
        default:
            return VrErrorFailed;
    }
}

VORREL_REALTIME OSStatus CoreAudioManager::IOProc(AudioObjectID, const AudioTimeStamp*,
                                                  const AudioBufferList* input,
                                                  const AudioTimeStamp*, AudioBufferList* output,
                                                  const AudioTimeStamp*, void* clientData) {
    const auto* self = static_cast<const CoreAudioManager*>(clientData);
    if (IAudioDeviceNotify* receiver = self->notify.load(std::memory_order_acquire)) {
        receiver->AudioDevice_IOProc(input, output);
    }
    return kAudioHardwareNoError;
}

OSStatus CoreAudioManager::ProcessorOverloadListener(AudioObjectID, UInt32,
                                                     const AudioObjectPropertyAddress*,
                                                     void* clientData) {
    const auto* self = static_cast<const CoreAudioManager*>(clientData);
    // The only word of it while it records; vorrel(1) waits for its end.
    Trace(__FILE__, __LINE__, "the recorder reports an overload: the recording has a gap");
    if (IAudioDeviceNotify* receiver = self->notify.load(std::memory_order_acquire)) {
        receiver->AudioDevice_ProcessorOverload();
    }
    return kAudioHardwareNoError;
}

OSStatus CoreAudioManager::DeviceIsAliveListener(AudioObjectID, UInt32,
                                                 const AudioObjectPropertyAddress*,
                                                 void* clientData) {
    const auto* self = static_cast<const CoreAudioManager*>(clientData);
    if (IAudioDeviceNotify* receiver = self->notify.load(std::memory_order_acquire)) {
        receiver->AudioDevice_DeviceIsAliveChanged();
    }
    return kAudioHardwareNoError;
}

}  // namespace vorrel
