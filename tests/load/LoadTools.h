#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "device/simulated/SampleSource.h"
#include "device/simulated/SimulatedBackends.h"
#include "manager/VorrelManager.h"
#include "support/Holdings.h"
#include "support/RecordingDelegate.h"
#include "support/TempDirectory.h"
#include "support/VorrelManagerParts.h"

namespace vorrel::test {

/// A length of load from the environment; `usual` without one.
inline double LoadLength(const char* variable, double usual) {
    const char* text = std::getenv(variable);
    const double value = text == nullptr ? 0.0 : std::strtod(text, nullptr);
    return value > 0.0 ? value : usual;
}

/// Samples of the counter source that do not stand where they have to in what counts as recorded;
/// read piece by piece, because the whole would not fit into memory. At DSD a sample is a word.
inline std::uint64_t WrongSamples(RecordData& data, std::uint16_t channels, bool dsd) {
    constexpr std::uint64_t kPiece = 1 << 20;
    const std::uint64_t samplesAWord = dsd ? kDsdWordBits : 1;
    const std::uint64_t length = data.GetLength(true);
    std::uint64_t wrong = 0;
    for (std::uint16_t channel = 0; channel < channels; ++channel) {
        for (std::uint64_t start = 0; start < length; start += kPiece) {
            const std::uint64_t end = std::min(length, start + kPiece);
            std::vector<std::uint8_t> bytes;
            if (data.GetData(channel, start, end, bytes, true) != VrSuccess) {
                return wrong + (end - start);
            }
            const std::uint64_t first = start / samplesAWord;
            for (std::uint64_t index = 0; index < (end - start) / samplesAWord; ++index) {
                if (dsd) {
                    std::uint16_t word = 0;
                    std::memcpy(&word, bytes.data() + index * sizeof word, sizeof word);
                    wrong += word == CounterWord(first + index, channel, channels) ? 0U : 1U;
                } else {
                    float sample = 0.0F;
                    std::memcpy(&sample, bytes.data() + index * sizeof sample, sizeof sample);
                    wrong += sample == CounterSample(first + index, channel, channels) ? 0U : 1U;
                }
            }
        }
    }
    return wrong;
}

/// Buffers of the recorder's last run that did not reach the store as a whole; the run has ended.
inline std::uint64_t LostBuffers(SimulatedRecorder& recorder, RecordData& data, bool dsd) {
    const std::uint64_t samplesAFrame = dsd ? kDsdWordBits : 1;
    const std::uint64_t samplesABuffer = recorder.BufferFrames() * samplesAFrame;
    const std::uint64_t missing =
        recorder.DeliveredFrames() * samplesAFrame - data.GetLength(false);
    return (missing + samplesABuffer - 1) / samplesABuffer;
}

/// A whole engine over a simulated recorder that delivers by the clock.
class LoadRig {
public:
    explicit LoadRig(const SimulatedRecorderConfig& configuration) : backends({configuration}) {}

    bool Select(std::int32_t type, std::uint64_t rateHz, std::uint16_t bits = 24) {
        const VrRecordSetting setting{.rec_type = type, .freq = rateHz, .bits = bits};
        return manager.Init(delegate) == VrSuccess &&
               manager.SetTempDirectory(spills.Path().c_str()) == VrSuccess &&
               manager.SetAudioDevice(kSupportedDeviceName) == VrSuccess &&
               manager.SetRecordSetting(&setting) == VrSuccess;
    }
    bool Start() {
        delegate->operations.clear();
        return manager.Start() == VrSuccess &&
               DispatchUntil([this] { return delegate->Has(VrRecOperationDeviceStarted); });
    }
    RecordData& Record() { return VorrelManagerParts::Record(manager); }
    SimulatedRecorder& Recorder() { return backends.Recorder(); }
    std::size_t SpillFiles() const {
        return static_cast<std::size_t>(
            std::distance(std::filesystem::directory_iterator(spills.Path()), {}));
    }

    TempDirectory spills, files;
    SimulatedBackends backends;
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    VorrelManager manager{[this] { return backends.Backends(); }};
};

}  // namespace vorrel::test
