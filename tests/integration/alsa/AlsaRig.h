#pragma once

#include <gtest/gtest.h>

#include <dirent.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "TestCards.h"
#include "device/alsa/AlsaAudioBackend.h"
#include "device/backend/AudioRegistry.h"
#include "device/backend/DeviceBackends.h"
#include "manager/VorrelManager.h"
#include "support/Await.h"
#include "support/FileBytes.h"
#include "support/RecordingDelegate.h"
#include "support/TempDirectory.h"
#include "support/VorrelManagerParts.h"

namespace vorrel::test {

/// The registry over the test's cards; their USB interfaces take every request.
class TestRegistry final : public AudioRegistry {
public:
    explicit TestRegistry(std::shared_ptr<const TestCards> testCards)
        : cards(std::move(testCards)) {}
    std::shared_ptr<std::atomic<int>> lastMode = std::make_shared<std::atomic<int>>(-1);

private:
    class Interface final : public UsbInterface {
    public:
        explicit Interface(std::shared_ptr<std::atomic<int>> lastMode)
            : mode(std::move(lastMode)) {}
        IOReturn GetInterfaceNumber(std::uint8_t* number) override {
            *number = 1;
            return kIOReturnSuccess;
        }
        IOReturn ControlRequest(const UsbControlRequest& request) override {
            *mode = request.value;
            return kIOReturnSuccess;
        }

    private:
        const std::shared_ptr<std::atomic<int>> mode;
    };

    std::vector<RegistryDevice> Devices() override {
        std::vector<RegistryDevice> devices;
        for (const SoundCard& card : cards->All()) {
            RegistryDevice device;
            device.key = card.uid + std::to_string(card.usb->deviceAddress);
            device.uid = card.uid;
            device.name = card.name;
            device.usb = RegistryDevice::Usb{card.usb->vendorId, card.usb->productId, 0, 1};
            device.hasInputStream = true;
            devices.push_back(std::move(device));
        }
        return devices;
    }
    std::unique_ptr<UsbInterface> OpenUsbInterface(const RegistryDevice&, std::uint8_t) override {
        return std::make_unique<Interface>(lastMode);
    }

    const std::shared_ptr<const TestCards> cards;
};

constexpr AudioObjectPropertyAddress Address(
    AudioObjectPropertySelector selector,
    AudioObjectPropertyScope scope = kAudioObjectPropertyScopeGlobal) {
    return {selector, scope, kAudioObjectPropertyElementMain};
}

/// What a sample of the test card becomes as a float when it has so many bits.
inline float CapturedSample(std::uint64_t frame, std::uint32_t channel, std::uint32_t channels,
                            unsigned bits) {
    const std::uint32_t word = TestSample(frame, channel, channels) >> (32 - bits) << (32 - bits);
    return static_cast<float>(static_cast<std::int32_t>(word)) / 2147483648.0F;
}

/// Entries of a directory of this process: its threads, its open files.
inline std::size_t CountOf(const char* directory) {
    std::size_t count = 0;
    DIR* entries = ::opendir(directory);
    while (entries != nullptr && ::readdir(entries) != nullptr) {
        ++count;
    }
    if (entries != nullptr) {
        ::closedir(entries);
    }
    return count;
}

/// Counts the calls of a listener.
struct CountingListener {
    static OSStatus Proc(AudioObjectID, UInt32, const AudioObjectPropertyAddress*, void* self) {
        ++static_cast<CountingListener*>(self)->calls;
        return 0;
    }
    void Await(int count) const {
        test::Await([&] { return calls >= count; });
    }
    std::atomic<int> calls{0};
};

/// One test card with the audio layer over it.
class AlsaCardTest : public testing::Test {
public:
    AlsaCardTest() { cards->Set({card.Found()}); }

    std::vector<AudioDeviceID> Devices() {
        std::vector<AudioDeviceID> ids(8);
        UInt32 size = static_cast<UInt32>(ids.size() * sizeof(AudioDeviceID));
        EXPECT_EQ(audio->GetPropertyData(kAudioObjectSystemObject,
                                         Address(kAudioHardwarePropertyDevices), &size, ids.data()),
                  0);
        ids.resize(size / sizeof(AudioDeviceID));
        return ids;
    }
    AudioDeviceID Device() { return Devices().at(0); }
    AudioStreamID Stream() {
        AudioStreamID stream = 0;
        UInt32 size = sizeof stream;
        EXPECT_EQ(
            audio->GetPropertyData(
                Device(), Address(kAudioDevicePropertyStreams, kAudioObjectPropertyScopeInput),
                &size, &stream),
            0);
        return stream;
    }
    template <class T>
    OSStatus Get(AudioObjectID object, AudioObjectPropertySelector selector, T& value) {
        UInt32 size = sizeof value;
        return audio->GetPropertyData(object, Address(selector), &size, &value);
    }
    template <class T>
    T Value(AudioObjectID object, AudioObjectPropertySelector selector) {
        T value{};
        EXPECT_EQ(Get(object, selector, value), 0);
        return value;
    }
    template <class T>
    OSStatus Set(AudioObjectID object, AudioObjectPropertySelector selector, const T& value) {
        return audio->SetPropertyData(object, Address(selector), sizeof value, &value);
    }
    std::vector<AudioStreamRangedDescription> Formats() {
        const AudioStreamID stream = Stream();
        const auto address = Address(kAudioStreamPropertyAvailablePhysicalFormats);
        UInt32 size = 0;
        EXPECT_EQ(audio->GetPropertyDataSize(stream, address, &size), 0);
        std::vector<AudioStreamRangedDescription> formats(size /
                                                          sizeof(AudioStreamRangedDescription));
        EXPECT_EQ(audio->GetPropertyData(stream, address, &size, formats.data()), 0);
        return formats;
    }
    AudioStreamBasicDescription Format(double rateHz, UInt32 bits) {
        for (const AudioStreamRangedDescription& format : Formats()) {
            if (format.mFormat.mSampleRate == rateHz && format.mFormat.mBitsPerChannel == bits) {
                return format.mFormat;
            }
        }
        ADD_FAILURE() << "no format of " << rateHz << " Hz and " << bits << " bits";
        return {};
    }
    /// Counts what the listeners of a property are called.
    void Listen(AudioObjectID object, AudioObjectPropertySelector selector,
                CountingListener& listener) {
        ASSERT_EQ(audio->AddPropertyListener(object, Address(selector), &CountingListener::Proc,
                                             &listener),
                  0);
    }
    OSStatus Hog() { return Set(Device(), kAudioDevicePropertyHogMode, SInt32{::getpid()}); }
    OSStatus Unhog(AudioDeviceID device) {
        return Set(device, kAudioDevicePropertyHogMode, SInt32{-1});
    }

    TestCard card;
    std::shared_ptr<TestCards> cards = std::make_shared<TestCards>();
    std::shared_ptr<AlsaAudioBackend> audio = std::make_shared<AlsaAudioBackend>(cards);
};

/// Collects what an IO proc is given.
class Collector {
public:
    static OSStatus Proc(AudioObjectID, const AudioTimeStamp*, const AudioBufferList* input,
                         const AudioTimeStamp*, AudioBufferList*, const AudioTimeStamp*,
                         void* self) {
        return static_cast<Collector*>(self)->Take(*input);
    }
    /// Room for so many samples is taken now, not in the callback.
    explicit Collector(std::size_t samples) : wanted(samples) { collected.reserve(samples); }

    /// @return False after a minute.
    bool WaitForAll() {
        const MutexLock lock(mutex);
        while (collected.size() < wanted) {
            if (!changed.WaitFor(mutex, std::chrono::minutes(1))) {
                return false;
            }
        }
        return true;
    }
    std::vector<float> Samples() {
        const MutexLock lock(mutex);
        return collected;
    }
    std::atomic<std::uint64_t> calls{0};
    std::atomic<std::uint32_t> bufferBytes{0};
    std::function<void()> onCall;  // set before the start

private:
    OSStatus Take(const AudioBufferList& input) {
        {
            const MutexLock lock(mutex);
            const AudioBuffer& buffer = input.mBuffers[0];
            bufferBytes = buffer.mDataByteSize;
            const std::size_t room = wanted - collected.size();
            const auto* samples = static_cast<const float*>(buffer.mData);
            collected.insert(collected.end(), samples,
                             samples + std::min(room, buffer.mDataByteSize / sizeof(float)));
            ++calls;
            changed.NotifyAll();
        }
        if (onCall) {
            onCall();
        }
        return 0;
    }

    const std::size_t wanted;
    Mutex mutex;
    ConditionVariable changed;
    std::vector<float> collected VORREL_GUARDED_BY(mutex);
};

/// A whole engine over a test card.
class AlsaTake {
public:
    enum Type : std::int32_t { Pcm = 0, Dsd = 1 };

    explicit AlsaTake(TestCard& testCard) : card(testCard) { cards->Set({card.Found()}); }

    void Select() {
        ASSERT_EQ(manager.Init(delegate), VrSuccess);
        ASSERT_EQ(manager.SetTempDirectory(spillDirectory.Path().c_str()), VrSuccess);
        ASSERT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);
    }
    void SetUp(Type takeType, std::uint64_t rateHz) {
        type = takeType;
        const VrRecordSetting setting{.rec_type = type, .freq = rateHz, .bits = 24};
        ASSERT_EQ(manager.SetRecordSetting(&setting), VrSuccess);
    }
    void Start() {
        delegate->operations.clear();
        ASSERT_EQ(manager.Start(), VrSuccess);
        ASSERT_TRUE(DispatchUntil([&] { return delegate->Has(VrRecOperationDeviceStarted); }));
    }
    /// Frames of the device that are recorded.
    std::uint64_t StoredFrames() { return Record().GetLength(true) / (type == Dsd ? 16 : 1); }
    /// The first of them: a take begins with a buffer that comes when the device has started.
    /// @param holds  Whether the recording begins with that frame.
    std::uint64_t FirstFrame(const std::function<bool(std::uint64_t)>& holds) {
        const std::uint64_t buffer = card.State().periodFrames;
        for (std::uint64_t frame = 0; frame < 200 * buffer; frame += buffer) {
            if (holds(frame)) {
                return frame;
            }
        }
        ADD_FAILURE() << "it does not begin with a buffer of the card's";
        return 0;
    }
    std::uint64_t FirstPcmFrame(const std::vector<float>& samples, std::uint32_t channel,
                                std::uint32_t channels, unsigned bits) {
        return FirstFrame([&](std::uint64_t frame) {
            for (std::size_t i = 0; i < std::min<std::size_t>(samples.size(), 16); ++i) {
                if (samples[i] != CapturedSample(frame + i, channel, channels, bits)) {
                    return false;
                }
            }
            return true;
        });
    }
    /// The first recorded sample that is not what the card heard; -1 when all are.
    std::int64_t FirstWrong(std::uint16_t channel, std::uint32_t channels, unsigned bits) {
        const std::vector<float> samples = RecordedPcm(channel);
        const std::uint64_t first = FirstPcmFrame(samples, channel, channels, bits);
        for (std::size_t i = 0; i < samples.size(); ++i) {
            if (samples[i] != CapturedSample(first + i, channel, channels, bits)) {
                return static_cast<std::int64_t>(i);
            }
        }
        return -1;
    }
    void RecordFrames(std::uint64_t frames) {
        ASSERT_TRUE(DispatchUntil([&] { return StoredFrames() >= frames; }));
    }
    RecordData& Record() { return VorrelManagerParts::Record(manager); }
    /// All that was recorded of a channel.
    Bytes Recorded(std::uint16_t channel) {
        Bytes bytes;
        EXPECT_EQ(Record().GetData(channel, 0, Record().GetLength(true), bytes, true), VrSuccess);
        return bytes;
    }
    std::vector<float> RecordedPcm(std::uint16_t channel) {
        const Bytes bytes = Recorded(channel);
        std::vector<float> samples(bytes.size() / sizeof(float));
        std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(float));
        return samples;
    }

    TestCard& card;
    Type type = Pcm;
    TempDirectory spillDirectory;
    std::shared_ptr<TestCards> cards = std::make_shared<TestCards>();
    std::shared_ptr<AlsaAudioBackend> audio = std::make_shared<AlsaAudioBackend>(cards);
    std::shared_ptr<TestRegistry> registry = std::make_shared<TestRegistry>(cards);
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    VorrelManager manager{[this] { return DeviceBackends{audio, registry}; }};
};

}  // namespace vorrel::test
