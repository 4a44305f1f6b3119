#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <set>
#include <vector>

#include "LoadTools.h"

namespace vorrel::test {
namespace {

constexpr std::uint64_t kRateHz = 48'000;

/// A host that calls whatever comes to its mind.
class RandomHost {
public:
    RandomHost(LoadRig& target, std::uint32_t seed) : rig(target), random(seed) {}

    void Step() {
        switch (Pick(14)) {
            case 0:
                Expect(rig.manager.Start(), {VrSuccess, VrErrorInvalidState});
                break;
            case 1:
                Expect(rig.manager.StartPreRecording(), {VrSuccess, VrErrorInvalidState});
                break;
            case 2:
                Expect(rig.manager.Stop(Pick(2) == 0), {VrSuccess, VrErrorInvalidState});
                break;
            case 3:
                Expect(rig.manager.Pause(), {VrSuccess, VrErrorInvalidState});
                break;
            case 4:
                Expect(rig.manager.Resume(), {VrSuccess, VrErrorInvalidState});
                break;
            case 5:
            case 6:
                Save();
                break;
            case 7:
                Expect(rig.manager.SaveFileCancel(Pick(2) == 0), {VrSuccess, VrErrorInvalidState});
                break;
            case 8: {
                std::int32_t file = 0;
                std::int32_t total = 0;
                Expect(rig.manager.SaveFileProgress(&file, &total),
                       {VrSuccess, VrErrorInvalidState});
                break;
            }
            case 9:
            case 10:
                ReadPreview(Pick(2) == 0);
                break;
            case 11:
                // Only between takes: what was recorded goes.
                Expect(rig.manager.New(), {VrSuccess, VrErrorInvalidState, VrErrorFailed});
                break;
            default:
                MainQueue::Wait(std::chrono::milliseconds(Pick(20)));
                MainQueue::Dispatch();
        }
        ++calls;
        // The recorder counts anew with every start. A run so short that the next has as many
        // already is missed: there were at least so many.
        const std::uint64_t ofRun = rig.Recorder().DeliveredBuffers();
        delivered += ofRun - (ofRun < lastOfRun ? 0 : lastOfRun);
        lastOfRun = ofRun;
    }

    std::uint64_t calls = 0;
    std::uint64_t delivered = 0;  // buffers

private:
    std::uint32_t Pick(std::uint32_t count) { return static_cast<std::uint32_t>(random() % count); }
    static void Expect(VrError result, const std::set<VrError>& allowed) {
        EXPECT_TRUE(allowed.contains(result)) << static_cast<int>(result);
    }
    void Save() {
        std::vector<VrSaveSetting> files;
        for (std::uint32_t index = 0; index <= Pick(3); ++index) {
            VrSaveSetting setting;
            setting.path = rig.files.File("file" + std::to_string(Pick(6)) + ".wav");
            setting.start = Pick(3);
            setting.end = setting.start + Pick(8);
            setting.gain = Pick(2) == 0 ? 0.0 : -3.0;
            files.push_back(setting);
        }
        Expect(rig.manager.SaveFile(&files),
               {VrSuccess, VrErrorInvalidState, VrErrorFailed, VrErrorInvalidParameter});
    }
    void ReadPreview(bool available) {
        std::uint64_t length = 0;
        Expect(rig.manager.GetPreviewDataLength(&length, available),
               {VrSuccess, VrErrorInvalidState});
        const std::uint64_t count = std::min<std::uint64_t>(length, 1 + Pick(5'000));
        std::vector<std::int16_t> samples(count * 2);
        if (count > 0) {
            // Straight after a start the length may have become another one.
            Expect(rig.manager.GetPreviewData(length - count, length, samples.data(), available),
                   {VrSuccess, VrErrorInvalidState, VrErrorInvalidParameter, VrErrorFailed});
        }
    }

    LoadRig& rig;
    std::mt19937 random;
    std::uint64_t lastOfRun = 0;
};

TEST(RandomHostTest, WhateverItCallsTheNextTakeIsRight) {
    // Another host in every long run, the same one in every short run.
    const char* text = std::getenv("VORREL_TEST_SEED");
    std::uint32_t seed = 20'261'121;
    if (text != nullptr) {
        seed = static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
    } else if (std::getenv("VORREL_LOAD_SECONDS") != nullptr) {
        seed = std::random_device()();
    }
    SCOPED_TRACE("VORREL_TEST_SEED=" + std::to_string(seed));
    SimulatedRecorderConfig config;
    config.source = SimulatedSource::Counter;
    config.speed = 20.0;
    LoadRig rig(config);
    ASSERT_TRUE(rig.Select(0, kRateHz));
    RandomHost host(rig, seed);

    const auto until = std::chrono::steady_clock::now() +
                       std::chrono::duration<double>(LoadLength("VORREL_LOAD_SECONDS", 4));
    while (std::chrono::steady_clock::now() < until && !testing::Test::HasFailure()) {
        for (int step = 0; step < 100; ++step) {
            host.Step();
        }
    }

    std::ignore = rig.manager.Stop(true);
    std::ignore = rig.manager.SaveFileCancel(true);
    ASSERT_TRUE(DispatchUntil([&] { return rig.manager.New() == VrSuccess; }));
    MainQueue::Dispatch();
    // Told once a take, which has then lost some.
    const std::size_t overflows = rig.delegate->Count(VrMessageBufferOverflow);
    rig.delegate->messages.clear();
    ASSERT_TRUE(rig.Start());
    ASSERT_TRUE(DispatchUntil([&] { return rig.Record().GetLength(true) >= 12 * kRateHz; }));
    ASSERT_EQ(rig.manager.Stop(true), VrSuccess);
    const std::uint64_t lost = LostBuffers(rig.Recorder(), rig.Record(), false);
    std::printf(
        "%llu calls, seed %u, at least %llu buffers delivered meanwhile, %zu takes that lost some; "
        "then a "
        "take "
        "of %llu buffers, %llu lost\n",
        static_cast<unsigned long long>(host.calls), seed,
        static_cast<unsigned long long>(host.delivered), overflows,
        static_cast<unsigned long long>(rig.Recorder().DeliveredBuffers()),
        static_cast<unsigned long long>(lost));
    EXPECT_EQ(lost, 0U);
    // A save that still ran when the take began may tell that it failed; nothing else may come.
    for (const VrMessageKind kind : {VrMessageDeviceError, VrMessageBufferOverflow,
                                     VrMessageRecordWriteFailed, VrMessageTempDirectoryMissing}) {
        EXPECT_FALSE(rig.delegate->Has(kind)) << kind;
    }
    EXPECT_EQ(WrongSamples(rig.Record(), 2, false), 0U);
}

}  // namespace
}  // namespace vorrel::test
