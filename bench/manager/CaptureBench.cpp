// The capture callback, buffer after buffer as the device delivers them, against the duration of a
// buffer: how much of its time the device's thread spends in the engine.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "manager/VorrelManager.h"
#include "support/FakeRecorder.h"
#include "support/RecordingDelegate.h"
#include "support/TempDirectory.h"

namespace {

using namespace vorrel;
using namespace vorrel::test;
using Clock = std::chrono::steady_clock;

/// Records `channels` channels at `rateHz` and times each callback. The worker drains between two
/// buffers, as it does at a real device's pace.
void Callback(benchmark::State& state, std::uint32_t channels, std::uint64_t rateHz) {
    TempDirectory directory;
    FakeRecorder recorder;
    recorder.audio->SetBuffers(FakeRecorder::kDevice, kAudioObjectPropertyScopeInput, {channels});
    const auto delegate = std::make_shared<RecordingDelegate>();
    VorrelManager manager(recorder.Provider());
    const VrRecordSetting setting{.rec_type = 0, .freq = rateHz, .bits = 24};
    if (manager.Init(delegate) != VrSuccess ||
        manager.SetTempDirectory(directory.Path().c_str()) != VrSuccess ||
        manager.SetAudioDevice(kSupportedDeviceName) != VrSuccess ||
        manager.SetRecordSetting(&setting) != VrSuccess ||
        manager.StartPreRecording() != VrSuccess ||
        !DispatchUntil([&] { return delegate->Has(VrRecOperationDeviceStarted); })) {
        state.SkipWithError("the recording does not start");
        return;
    }

    // Kept apart from what the callback writes; a device's buffer is in the cache when it comes.
    const std::size_t frames = rateHz / 20;
    std::vector<float> samples(frames * channels, 0.25F);
    const AudioBufferList list{
        1, {{channels, static_cast<UInt32>(samples.size() * sizeof(float)), samples.data()}}};
    std::vector<double> seconds;
    std::uint64_t delivered = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        manager.AudioDevice_IOProc(&list, nullptr);
        seconds.push_back(std::chrono::duration<double>(Clock::now() - start).count());
        state.SetIterationTime(seconds.back());
        delivered += frames;
        std::uint64_t stored = 0;
        while (stored < delivered) {
            std::ignore = manager.GetPreviewDataLength(&stored, false);
        }
        MainQueue::Dispatch();
    }
    std::ranges::sort(seconds);
    const double bufferSeconds = 0.05;
    state.counters["median_percent"] = 100 * seconds[seconds.size() / 2] / bufferSeconds;
    state.counters["p99.9_percent"] = 100 * seconds[seconds.size() * 999 / 1000] / bufferSeconds;
    if (delegate->Has(VrMessageBufferOverflow)) {
        state.SkipWithError("buffers were lost");
    }
    std::ignore = manager.Stop(true);
}

BENCHMARK_CAPTURE(Callback, stereo_384k, 2U, std::uint64_t{384'000})
    ->UseManualTime()
    ->Iterations(2'000);
BENCHMARK_CAPTURE(Callback, eight_channels_384k, 8U, std::uint64_t{384'000})
    ->UseManualTime()
    ->Iterations(2'000);

}  // namespace

BENCHMARK_MAIN();
