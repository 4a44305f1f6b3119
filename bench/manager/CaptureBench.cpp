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

/// One form of a take and of the device's buffers.
struct Form {
    std::int32_t recType;
    std::uint32_t channels;
    std::uint64_t rateHz;  // of samples; at DSD, of single bits
    std::size_t frames;    // of a buffer; at DSD, words of 16 single bits

    static constexpr std::int32_t kPcm = 0;
    static constexpr std::int32_t kDsd = 1;

    double BufferSeconds() const {
        const double samples = static_cast<double>(frames) * (recType == kDsd ? 16.0 : 1.0);
        return samples / static_cast<double>(rateHz);
    }
    std::uint64_t PreviewFrames() const { return recType == kDsd ? frames / 4 : frames; }
};

enum class Buffers { Full, None };

/// Records and times each callback. The worker drains between two buffers, as it does at a real
/// device's pace. Without buffers, what is left is the wake-up of the worker.
void Callback(benchmark::State& state, const Form& form, Buffers buffers = Buffers::Full) {
    TempDirectory directory;
    FakeRecorder recorder;
    recorder.audio->SetBuffers(FakeRecorder::kDevice, kAudioObjectPropertyScopeInput,
                               {form.channels});
    // The engine asks for 50 ms at PCM, for more than there is at DSD, and prepares for what it is
    // given.
    recorder.audio->SetValue(FakeRecorder::kDevice, kAudioDevicePropertyBufferFrameSizeRange,
                             AudioValueRange{14.0, static_cast<double>(form.frames)});
    const auto delegate = std::make_shared<RecordingDelegate>();
    VorrelManager manager(recorder.Provider());
    const VrRecordSetting setting{.rec_type = form.recType, .freq = form.rateHz, .bits = 24};
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
    std::vector<float> samples(form.frames * form.channels, 0.25F);
    const AudioBufferList list{
        buffers == Buffers::Full ? 1U : 0U,
        {{form.channels, static_cast<UInt32>(samples.size() * sizeof(float)), samples.data()}}};
    std::vector<double> seconds;
    std::uint64_t delivered = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        manager.AudioDevice_IOProc(&list, nullptr);
        seconds.push_back(std::chrono::duration<double>(Clock::now() - start).count());
        state.SetIterationTime(seconds.back());
        if (buffers == Buffers::None) {
            // Nothing tells when the worker waits again.
            while (Clock::now() - start < std::chrono::microseconds(200)) {
            }
            continue;
        }
        delivered += form.PreviewFrames();
        std::uint64_t stored = 0;
        while (stored < delivered) {
            std::ignore = manager.GetPreviewDataLength(&stored, false);
        }
        MainQueue::Dispatch();
    }
    std::ranges::sort(seconds);
    const double share = 100 / form.BufferSeconds();
    state.counters["buffer_ms"] = 1000 * form.BufferSeconds();
    state.counters["median_percent"] = share * seconds[seconds.size() / 2];
    state.counters["p99.9_percent"] = share * seconds[seconds.size() * 999 / 1000];
    if (delegate->Has(VrMessageBufferOverflow)) {
        state.SkipWithError("buffers were lost");
    }
    std::ignore = manager.Stop(true);
}

constexpr Form Pcm384k(std::uint32_t channels) {
    return {Form::kPcm, channels, 384'000, 19'200};
}
/// The longest buffers of a card, and those of the simulated recorder.
constexpr Form Dsd256(std::uint32_t channels, std::size_t words) {
    return {Form::kDsd, channels, 11'289'600, words};
}

#define CALLBACK_BENCHMARK(name, form) \
    BENCHMARK_CAPTURE(Callback, name, form)->UseManualTime()->Iterations(2'000)

BENCHMARK_CAPTURE(Callback, wake_up_alone_dsd256_32768_words, Dsd256(2, 32'768), Buffers::None)
    ->UseManualTime()
    ->Iterations(2'000);
CALLBACK_BENCHMARK(stereo_384k, Pcm384k(2));
CALLBACK_BENCHMARK(eight_channels_384k, Pcm384k(8));
CALLBACK_BENCHMARK(stereo_dsd256_4096_words, Dsd256(2, 4'096));
CALLBACK_BENCHMARK(stereo_dsd256_32768_words, Dsd256(2, 32'768));
CALLBACK_BENCHMARK(eight_channels_dsd256_4096_words, Dsd256(8, 4'096));
CALLBACK_BENCHMARK(eight_channels_dsd256_32768_words, Dsd256(8, 32'768));

}  // namespace

BENCHMARK_MAIN();
