#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "device/simulated/SampleSource.h"
#include "device/simulated/SimulatedBackends.h"
#include "manager/VorrelManager.h"
#include "support/RecordingDelegate.h"
#include "support/TempDirectory.h"

namespace vorrel::test {

/// A whole engine over a simulated recorder that delivers when the test says so.
class Take {
public:
    Take(SimulatedRecorderConfig configuration, std::uint64_t takeRateHz)
        : config(Manual(std::move(configuration))), rateHz(takeRateHz), backends({config}) {}

    void Select() {
        ASSERT_EQ(manager.Init(delegate), VrSuccess);
        ASSERT_EQ(manager.SetTempDirectory(spillDirectory.Path().c_str()), VrSuccess);
        ASSERT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);
        SetBits(16);
    }
    void SetBits(std::uint16_t bits) {
        const VrRecordSetting setting{.rec_type = 0, .freq = rateHz, .bits = bits};
        ASSERT_EQ(manager.SetRecordSetting(&setting), VrSuccess);
    }
    void Start() {
        ASSERT_EQ(manager.Start(), VrSuccess);
        ASSERT_TRUE(DispatchUntil([&] { return delegate->Has(VrRecOperationDeviceStarted); }));
    }
    void StartPreRecording() {
        ASSERT_EQ(manager.StartPreRecording(), VrSuccess);
        ASSERT_TRUE(DispatchUntil([&] { return delegate->Has(VrRecOperationDeviceStarted); }));
    }
    /// Delivers buffers and waits until they are stored and converted.
    void Deliver(std::uint64_t buffers) {
        // A device does not wait; the test does, so that nothing is lost however slow it runs. Two
        // seconds are well inside what queue and memory buffers hold.
        constexpr std::uint64_t kBuffersAhead = 40;
        while (buffers > 0) {
            const std::uint64_t count = std::min(buffers, kBuffersAhead);
            ASSERT_EQ(Recorder().DeliverBuffers(count), count);
            ASSERT_TRUE(
                DispatchUntil([&] { return Length(false) == Recorder().DeliveredFrames(); }));
            buffers -= count;
        }
    }
    void Save(const std::string& path, double start, double end, double gain = 0.0) {
        const std::vector<VrSaveSetting> files = {{path, start, end, gain, {}}};
        delegate->operations.clear();
        ASSERT_EQ(manager.SaveFile(&files), VrSuccess);
        ASSERT_TRUE(DispatchUntil([&] { return delegate->Has(VrRecOperationSaveFinished); }));
        ASSERT_TRUE(delegate->messages.empty());
    }
    std::uint64_t Length(bool available) {
        std::uint64_t length = 0;
        EXPECT_EQ(manager.GetPreviewDataLength(&length, available), VrSuccess);
        return length;
    }
    SimulatedRecorder& Recorder() { return backends.Recorder(); }
    std::uint64_t BufferFrames() { return Recorder().BufferFrames(); }
    /// What the recorder delivers from its first frame on, interleaved.
    std::vector<float> Captured(std::uint64_t frames) {
        const SourceFormat format{static_cast<double>(rateHz), 32, Recorder().Config().channels,
                                  false};
        std::vector<float> samples(frames * format.channels);
        MakeSampleSource(Recorder().Config(), format)->Read(samples.data(), frames);
        return samples;
    }

    SimulatedRecorderConfig config;
    std::uint64_t rateHz;
    TempDirectory directory;
    TempDirectory spillDirectory;
    SimulatedBackends backends;
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    VorrelManager manager{[this] { return backends.Backends(); }};

private:
    static SimulatedRecorderConfig Manual(SimulatedRecorderConfig configuration) {
        configuration.manual = true;
        return configuration;
    }
};

}  // namespace vorrel::test
