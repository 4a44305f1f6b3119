#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <vector>

#include "manager/VorrelManager.h"
#include "support/FakeRecorder.h"
#include "support/RecordingDelegate.h"
#include "support/TempDirectory.h"
#include "support/VorrelManagerParts.h"

namespace vorrel::test {

/// A manager over a fake recorder that delivers what the test hands it, on the test's thread.
class ManagerRig : public testing::Test {
protected:
    /// Sample of frame `frame`, channel `channel`: exact in 16 bits, never 0.
    static float Sample(std::uint64_t frame, std::uint32_t channel) {
        return static_cast<float>((frame * 2 + channel) % 30'000 + 1) / 32768.0F;
    }
    static std::int16_t Sample16(std::uint64_t frame, std::uint32_t channel) {
        return static_cast<std::int16_t>((frame * 2 + channel) % 30'000 + 1);
    }

    void Init() {
        ASSERT_EQ(manager.Init(delegate), VrSuccess);
        ASSERT_EQ(manager.SetTempDirectory(directory.Path().c_str()), VrSuccess);
    }
    void Select() {
        Init();
        ASSERT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);
    }
    VrError TrySet(std::int32_t type, std::uint64_t rateHz, std::uint16_t bits) {
        const VrRecordSetting setting{.rec_type = type, .freq = rateHz, .bits = bits};
        return manager.SetRecordSetting(&setting);
    }
    void Set(std::int32_t type, std::uint64_t rateHz, std::uint16_t bits) {
        const VrRecordSetting setting{.rec_type = type, .freq = rateHz, .bits = bits};
        ASSERT_EQ(manager.SetRecordSetting(&setting), VrSuccess);
    }
    void SelectPcm(std::uint64_t rateHz = 48'000, std::uint16_t bits = 16) {
        Select();
        Set(0, rateHz, bits);
    }
    void AwaitOperation(VrRecOperation operation) {
        ASSERT_TRUE(DispatchUntil([&] { return delegate->Has(operation); }));
    }
    void StartRecording() {
        ASSERT_EQ(manager.Start(), VrSuccess);
        AwaitOperation(VrRecOperationDeviceStarted);
        ASSERT_EQ(manager.State(), ManagerState::Recording);
    }
    void StartPreRecording() {
        ASSERT_EQ(manager.StartPreRecording(), VrSuccess);
        AwaitOperation(VrRecOperationDeviceStarted);
        ASSERT_EQ(manager.State(), ManagerState::Paused);
    }
    /// Delivers the next `frames` frames as one buffer of two channels.
    void Deliver(std::uint64_t frames) {
        std::vector<float> samples;
        samples.reserve(frames * 2);
        for (std::uint64_t frame = 0; frame < frames; ++frame) {
            samples.push_back(Sample(delivered + frame, 0));
            samples.push_back(Sample(delivered + frame, 1));
        }
        ASSERT_TRUE(recorder.Deliver(2, samples));
        delivered += frames;
    }
    /// Waits until all that was delivered has been stored and converted.
    void AwaitStored() {
        ASSERT_TRUE(DispatchUntil([&] { return Length(false) == delivered; }));
    }
    /// Stops when all that was delivered has been stored: what still waits in the queue at a stop
    /// is stored behind the stop's event and does not count as recorded.
    void StopRecording() {
        AwaitStored();
        ASSERT_EQ(manager.Stop(true), VrSuccess);
    }
    std::uint64_t Length(bool available) {
        std::uint64_t length = ~std::uint64_t{0};
        EXPECT_EQ(manager.GetPreviewDataLength(&length, available), VrSuccess);
        return length;
    }
    /// The preview, of what counts as recorded or of all, as the delivered frame numbers in it.
    std::vector<std::uint64_t> PreviewFrames(bool available) {
        const std::uint64_t length = Length(available);
        std::vector<std::int16_t> samples(length * 2);
        if (length > 0) {
            EXPECT_EQ(manager.GetPreviewData(0, length, samples.data(), available), VrSuccess);
        }
        std::vector<std::uint64_t> frames;
        for (std::size_t index = 0; index < samples.size(); index += 2) {
            const auto frame = static_cast<std::uint64_t>((samples[index] - 1) / 2);
            EXPECT_EQ(samples[index], Sample16(frame, 0));
            EXPECT_EQ(samples[index + 1], Sample16(frame, 1));
            frames.push_back(frame);
        }
        return frames;
    }
    std::vector<std::uint64_t> RecordedFrames() { return PreviewFrames(true); }
    static std::vector<std::uint64_t> Frames(
        std::initializer_list<std::pair<std::uint64_t, std::uint64_t>> spans) {
        std::vector<std::uint64_t> frames;
        for (const auto& [first, last] : spans) {
            for (std::uint64_t frame = first; frame < last; ++frame) {
                frames.push_back(frame);
            }
        }
        return frames;
    }

    TempDirectory directory;
    FakeRecorder recorder;
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    VorrelManager manager{recorder.Provider()};
    std::uint64_t delivered = 0;
};

/// Holds a start on the helper queue, where it sets the device's buffer size, until it is opened.
class StartGate {
public:
    explicit StartGate(FakeRecorder& fakeRecorder) : recorder(fakeRecorder) {
        recorder.audio->onSet = [this](AudioObjectID, AudioObjectPropertySelector selector,
                                       std::vector<std::byte>&) -> OSStatus {
            if (selector == kAudioDevicePropertyBufferFrameSize && !passed) {
                passed = true;
                reached.set_value();
                opened.get_future().wait();
            }
            return kAudioHardwareNoError;
        };
    }
    ~StartGate() { recorder.audio->onSet = nullptr; }  // the start is through by then
    StartGate(const StartGate&) = delete;
    StartGate& operator=(const StartGate&) = delete;
    void AwaitReached() { reached.get_future().wait(); }
    void Open() { opened.set_value(); }

private:
    FakeRecorder& recorder;
    bool passed = false;
    std::promise<void> reached;
    std::promise<void> opened;
};

}  // namespace vorrel::test
