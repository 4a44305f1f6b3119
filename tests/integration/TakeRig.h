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
#include "support/FileBytes.h"
#include "support/RecordingDelegate.h"
#include "support/TempDirectory.h"
#include "support/VorrelManagerParts.h"

namespace vorrel::test {

/// A recorder whose samples tell where in the take they stand.
inline SimulatedRecorderConfig Counting(std::uint32_t channels) {
    SimulatedRecorderConfig config;
    config.source = SimulatedSource::Counter;
    config.channels = channels;
    return config;
}

/// A recorder of noise at full level, the same every time.
inline SimulatedRecorderConfig Noise(std::uint32_t channels) {
    SimulatedRecorderConfig config;
    config.source = SimulatedSource::Noise;
    config.channels = channels;
    config.levelDb = 0.0;
    return config;
}

/// How many buffers come in each stretch of a take with one pause.
struct Stretches {
    std::uint64_t preRecorded = 0;
    std::uint64_t recorded = 0;
    std::uint64_t paused = 0;
    std::uint64_t resumed = 0;
};

/// A whole engine over a simulated recorder that delivers when the test says so.
class Take {
public:
    enum Type : std::int32_t { Pcm = 0, Dsd = 1 };

    /// @param takeRateHz  Samples of one channel a second: at DSD, single bits.
    Take(SimulatedRecorderConfig configuration, std::uint64_t takeRateHz, Type takeType = Pcm)
        : config(Manual(std::move(configuration))),
          rateHz(takeRateHz),
          type(takeType),
          backends({config}) {}

    void Select() {
        ASSERT_EQ(manager.Init(delegate), VrSuccess);
        ASSERT_EQ(manager.SetTempDirectory(spillDirectory.Path().c_str()), VrSuccess);
        ASSERT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);
        SetBits(16);
    }
    void SetBits(std::uint16_t bits) {
        const VrRecordSetting setting{.rec_type = type, .freq = rateHz, .bits = bits};
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
        const std::uint64_t buffersAhead =
            std::max<std::uint64_t>(2 * rateHz / (BufferFrames() * SamplesPerFrame()), 1);
        while (buffers > 0) {
            const std::uint64_t count = std::min(buffers, buffersAhead);
            ASSERT_EQ(Recorder().DeliverBuffers(count), count);
            ASSERT_TRUE(DispatchUntil([&] {
                const std::uint64_t samples = Recorder().DeliveredFrames() * SamplesPerFrame();
                return Record().GetLength(false) == samples &&
                       Length(false) == samples / SamplesPerPreviewFrame();
            }));
            buffers -= count;
        }
    }
    /// Makes a take from its start to its stop; each change comes when the buffers of the stretch
    /// before it are stored.
    void Make(const Stretches& buffers) {
        if (buffers.preRecorded > 0) {
            StartPreRecording();
            Deliver(buffers.preRecorded);
            ASSERT_EQ(manager.Start(), VrSuccess);
        } else {
            Start();
        }
        Deliver(buffers.recorded);
        if (buffers.paused > 0) {
            ASSERT_EQ(manager.Pause(), VrSuccess);
            Deliver(buffers.paused);
            ASSERT_EQ(manager.Resume(), VrSuccess);
            Deliver(buffers.resumed);
        }
        ASSERT_EQ(manager.Stop(true), VrSuccess);
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
    RecordData& Record() { return VorrelManagerParts::Record(manager); }
    /// Samples of one channel in a frame of the device: at DSD, the single bits of a word.
    std::uint64_t SamplesPerFrame() const { return type == Dsd ? 16 : 1; }
    std::uint64_t SamplesPerPreviewFrame() const { return type == Dsd ? 64 : 1; }
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

    /// The same in DSD, of each channel as bytes, the earlier one of a word first.
    std::vector<Bytes> CapturedBits(std::uint64_t words) {
        const std::uint32_t channels = Recorder().Config().channels;
        std::vector<float> samples(words * channels);
        MakeSampleSource(Recorder().Config(),
                         {static_cast<double>(rateHz) / 16, 16, channels, true})
            ->Read(samples.data(), words);
        std::vector<Bytes> bits(channels);
        for (std::size_t i = 0; i < samples.size(); ++i) {
            const auto word = static_cast<unsigned>(static_cast<int>(samples[i] * 32'768.0F));
            bits[i % channels].push_back(static_cast<std::uint8_t>(word));
            bits[i % channels].push_back(static_cast<std::uint8_t>(word >> 8));
        }
        return bits;
    }
    /// All that the record store holds of a channel as recorded.
    Bytes Recorded(std::uint16_t channel) {
        Bytes bytes;
        EXPECT_EQ(Record().GetData(channel, 0, Record().GetLength(true), bytes, true), VrSuccess);
        return bytes;
    }

    SimulatedRecorderConfig config;
    std::uint64_t rateHz;
    Type type;
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
