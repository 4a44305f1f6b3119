#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "device/FoundDeviceInfo.h"
#include "device/backend/DeviceBackends.h"
#include "device/backend/SupportedDevice.h"
#include "support/FakeAudioBackend.h"
#include "support/FakeRegistryBackend.h"

namespace vorrel::test {

/// A physical format in signed-integer linear PCM: 16, 24 or 32 bits in as many bytes.
inline AudioStreamBasicDescription PcmFormat(double rateHz, UInt32 bits, UInt32 channels) {
    AudioStreamBasicDescription format{};
    format.mSampleRate = rateHz;
    format.mFormatID = kAudioFormatLinearPCM;
    format.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    format.mFramesPerPacket = 1;
    format.mBytesPerFrame = bits / 8 * channels;
    format.mBytesPerPacket = format.mBytesPerFrame;
    format.mChannelsPerFrame = channels;
    format.mBitsPerChannel = bits;
    return format;
}

/// An entry of a device's list of formats, for one rate.
inline AudioStreamRangedDescription Ranged(double rateHz, UInt32 bits, UInt32 channels) {
    return {PcmFormat(rateHz, bits, channels), {rateHz, rateHz}};
}

/// An entry of a device's list of formats, for any rate of a range.
inline AudioStreamRangedDescription AnyRate(double minimumHz, double maximumHz, UInt32 bits,
                                            UInt32 channels) {
    return {PcmFormat(0.0, bits, channels), {minimumHz, maximumHz}};
}

/// One "KD-WV770" in a fake audio layer and a fake registry: a two-channel input stream in all the
/// formats of the model, an output side without channels, a buffer-size range of 14 to 4096
/// frames, and the USB interface number 3. Declare it before what uses it: when it goes, nothing
/// of the registry may still be held.
class FakeRecorder {
public:
    static constexpr AudioDeviceID kDevice = 42;
    static constexpr AudioStreamID kInputStream = 43;
    static constexpr std::uint8_t kInterfaceNumber = 3;
    static constexpr UInt32 kBufferFrames = 512;
    static constexpr char kUid[] = "KD-WV770:0001";

    FakeRecorder() {
        audio->SetValues<AudioDeviceID>(kAudioObjectSystemObject, kAudioHardwarePropertyDevices,
                                        {kDevice});
        AddDevice(kDevice, kSupportedDeviceName, kUid);
        audio->SetValue<SInt32>(kDevice, kAudioDevicePropertyHogMode, -1);
        audio->SetValue<UInt32>(kDevice, kAudioDevicePropertyBufferFrameSize, kBufferFrames);
        audio->SetValue(kDevice, kAudioDevicePropertyBufferFrameSizeRange,
                        AudioValueRange{14.0, 4096.0});
        audio->SetValues<AudioStreamID>(kDevice, kAudioDevicePropertyStreams, {kInputStream},
                                        kAudioObjectPropertyScopeInput);
        audio->SetValues<AudioStreamID>(kDevice, kAudioDevicePropertyStreams, {},
                                        kAudioObjectPropertyScopeOutput);
        audio->SetBuffers(kDevice, kAudioObjectPropertyScopeInput, {2});
        audio->SetBuffers(kDevice, kAudioObjectPropertyScopeOutput, {});
        audio->SetValue(kInputStream, kAudioStreamPropertyPhysicalFormat, PcmFormat(44'100, 24, 2));
        SetFormats(ModelFormats());

        engine = AddEngine(kUid, kSupportedVendorId, kSupportedProductId);
        inputStream = registry->AddEntry({"IOAudioStream"});
        registry->SetProperty(inputStream, "IOAudioStreamDirection", std::int64_t{1});
        usbInterface = registry->AddEntry({"IOUSBInterface"});
        registry->SetUsbInterfaceNumber(kInterfaceNumber);
        registry->Link(engine, inputStream);
        registry->Link(usbInterface, inputStream);
    }
    ~FakeRecorder() {
        EXPECT_EQ(registry->Outstanding(), 0U) << "registry objects are still held";
        EXPECT_EQ(registry->Misuses(), 0) << "registry objects were used that nobody held";
        EXPECT_EQ(registry->OpenUsbInterfaces(), 0) << "USB interfaces are still open";
    }
    FakeRecorder(const FakeRecorder&) = delete;
    FakeRecorder& operator=(const FakeRecorder&) = delete;

    /// All PCM rates of the model in 16, 24 and 32 bits, and the 16-bit words of its DSD rates.
    static std::vector<AudioStreamRangedDescription> ModelFormats() {
        std::vector<AudioStreamRangedDescription> formats;
        for (const double rateHz :
             {44'100.0, 48'000.0, 88'200.0, 96'000.0, 176'400.0, 192'000.0, 352'800.0, 384'000.0}) {
            for (const UInt32 bits : {16U, 24U, 32U}) {
                formats.push_back(Ranged(rateHz, bits, 2));
            }
        }
        formats.push_back(Ranged(705'600, 16, 2));
        return formats;
    }

    DeviceBackends Backends() const { return {audio, registry}; }
    BackendProvider Provider() const {
        return [backends = Backends()] { return backends; };
    }
    /// The recorder's record as discovery and the filter leave it.
    FoundDeviceInfo Found() const {
        return {kSupportedDeviceName, kUid,
                "KD-WV770:model",     kDevice,
                kSupportedVendorId,   kSupportedProductId,
                0b111U | 1U << 16};
    }

    void SetFormats(const std::vector<AudioStreamRangedDescription>& formats) {
        audio->SetValues(kInputStream, kAudioStreamPropertyAvailablePhysicalFormats, formats);
    }
    /// The properties that discovery reads; to be found, its id has to stand in the device list.
    void AddDevice(AudioDeviceID id, const std::string& name, const std::string& uid) {
        audio->SetValue<UInt32>(id, kAudioDevicePropertyDeviceIsAlive, 1);
        audio->SetText(id, kAudioObjectPropertyName, name);
        audio->SetText(id, kAudioDevicePropertyDeviceUID, uid);
        audio->SetText(id, kAudioDevicePropertyModelUID, name + ":model");
    }
    io_registry_entry_t AddEngine(const std::string& uid, std::int64_t vendorId,
                                  std::int64_t productId) {
        const io_registry_entry_t added = registry->AddEntry({"IOAudioEngine"});
        registry->SetProperty(added, "IOAudioEngineGlobalUniqueID", uid);
        registry->SetProperty(added, "idVendor", vendorId);
        registry->SetProperty(added, "idProduct", productId);
        return added;
    }

    AudioStreamBasicDescription PhysicalFormat() const {
        return audio->Value<AudioStreamBasicDescription>(kInputStream,
                                                         kAudioStreamPropertyPhysicalFormat);
    }
    UInt32 BufferFrames() const {
        return audio->Value<UInt32>(kDevice, kAudioDevicePropertyBufferFrameSize);
    }
    /// The process that holds the device, -1 for none.
    SInt32 HogOwner() const { return audio->Value<SInt32>(kDevice, kAudioDevicePropertyHogMode); }
    bool IsHeldByThisProcess() const { return HogOwner() == static_cast<SInt32>(::getpid()); }
    bool IsRunning() const {
        const auto procs = audio->IoProcs();
        return !procs.empty() && procs.front().started;
    }

    /// Delivers one buffer to the started IO proc on this thread; false when none is started.
    bool Deliver(const AudioBufferList* input) { return audio->Deliver(kDevice, input) > 0; }
    /// Delivers interleaved samples of `channels` channels as one buffer.
    bool Deliver(UInt32 channels, std::vector<float>& samples) {
        const AudioBufferList list{
            1, {{channels, static_cast<UInt32>(samples.size() * sizeof(float)), samples.data()}}};
        return Deliver(&list);
    }
    /// Calls the listeners on this thread; false when there is none.
    bool FireOverload() { return audio->Fire(kDevice, kAudioDeviceProcessorOverload) > 0; }
    bool FireAliveChanged() { return audio->Fire(kDevice, kAudioDevicePropertyDeviceIsAlive) > 0; }
    /// The device is gone: every call about it fails, and the alive listeners are called.
    void Unplug() {
        audio->FailAll(kAudioHardwareBadDeviceError);
        registry->FailUsbInterfaceNumber(kIOReturnNoDevice);
        registry->FailUsbRequest(kIOReturnNoDevice);
        std::ignore = FireAliveChanged();
    }

    const std::shared_ptr<FakeAudioBackend> audio = std::make_shared<FakeAudioBackend>();
    const std::shared_ptr<FakeRegistryBackend> registry = std::make_shared<FakeRegistryBackend>();
    io_registry_entry_t engine = IO_OBJECT_NULL;
    io_registry_entry_t inputStream = IO_OBJECT_NULL;
    io_registry_entry_t usbInterface = IO_OBJECT_NULL;
};

}  // namespace vorrel::test
