#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ManagerRig.h"

namespace vorrel::test {
namespace {

/// Holds something up until it is opened, at the latest when it goes.
class Held {
public:
    ~Held() { Open(); }
    void Open() {
        if (!opened) {
            opened = true;
            promise.set_value();
        }
    }
    std::shared_future<void> Opened() const { return future; }

private:
    bool opened = false;
    std::promise<void> promise;
    std::shared_future<void> future{promise.get_future().share()};
};

/// In what order a start and a stop do their work.
class StartAndStopTest : public ManagerRig {
protected:
    /// Waits on a thread that may not dispatch. @return false after a minute.
    static bool Eventually(const std::function<bool()>& holds) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        while (!holds()) {
            std::this_thread::yield();
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
        }
        return true;
    }
    std::vector<PositionRange> Log() {
        return VorrelManagerParts::Ranges(manager).GetAvailableRange_Frames(0, 10'000);
    }
    /// A start that has not begun when a stop is accepted behind it. @return the log between them.
    std::vector<PositionRange> StopInStarting() {
        Held queue;
        VorrelManagerParts::HelperQueue(manager).Async(
            [opened = queue.Opened()] { opened.wait(); });
        EXPECT_EQ(manager.Start(), VrSuccess);
        EXPECT_EQ(manager.Stop(false), VrSuccess);
        EXPECT_EQ(manager.State(), ManagerState::Stopping);
        return Log();
    }
};

TEST_F(StartAndStopTest, TheWorkersRunBeforeTheDeviceDoes) {
    SelectPcm();
    bool converted = false;
    recorder.audio->onStart = [&] {
        Deliver(480);
        converted = Eventually([&] { return Length(false) == 480; });
    };

    ASSERT_EQ(manager.Start(), VrSuccess);
    AwaitOperation(VrRecOperationDeviceStarted);

    EXPECT_TRUE(converted);
    ASSERT_EQ(manager.Stop(true), VrSuccess);
    // What came before the record event does not count as recorded.
    EXPECT_EQ(Length(true), 0U);
}

TEST_F(StartAndStopTest, AStopInStartingLogsItsEventAtOnceAndTheStartBeginsANewLog) {
    SelectPcm();
    recorder.audio->onStop = [this] { Deliver(480); };
    StopInStarting();
    AwaitOperation(VrRecOperationStopped);
    // The take's log has no stop event: a pair of equal positions is open.
    ASSERT_EQ(Log(), (std::vector<PositionRange>{{0, 0}}));
    delegate->operations.clear();
    delivered = 0;
    recorder.audio->onStart = [this] {
        Deliver(100);
        // Converted too: a piece of the preview that spans the event counts from its front.
        EXPECT_TRUE(Eventually([&] { return Length(false) == 100; }));
    };

    const std::vector<PositionRange> logOfTheOldTake = StopInStarting();
    AwaitOperation(VrRecOperationStopped);

    EXPECT_EQ(logOfTheOldTake, (std::vector<PositionRange>{{0, 480}}));
    EXPECT_EQ(Log(), (std::vector<PositionRange>{{100, 100}}));
    EXPECT_EQ(PreviewFrames(false), Frames({{0, 580}}));
    EXPECT_EQ(RecordedFrames(), Frames({{100, 580}}));
    EXPECT_EQ(delegate->operations,
              (std::vector{VrRecOperationDeviceStarted, VrRecOperationStopped}));
}

TEST_F(StartAndStopTest, AFailedStartLeavesStoresAndQueueAsItMadeThem) {
    SelectPcm(96'000);
    recorder.audio->FailStart(kAudioHardwareUnspecifiedError);

    ASSERT_EQ(manager.Start(), VrSuccess);
    ASSERT_TRUE(DispatchUntil([&] { return !delegate->log.empty(); }));

    ASSERT_EQ(delegate->log, std::vector<std::string>{"message 0 "});
    const RecordData& record = VorrelManagerParts::Record(manager);
    EXPECT_EQ(record.GetChannels(), 2);
    EXPECT_EQ(record.GetSampleRate(), 96'000U);
    EXPECT_NE(record.GetSampleTypeInfo(), nullptr);
    const PreviewData& preview = VorrelManagerParts::Preview(manager);
    EXPECT_EQ(preview.GetChannels(), 2);
    EXPECT_EQ(preview.GetSampleRate(), 96'000U);
    AsioDataQueue& queue = VorrelManagerParts::Queue(manager);
    Block block;
    EXPECT_EQ(queue.Dequeue(1, block), VrSuccess);
    EXPECT_EQ(queue.Dequeue(2, block), VrErrorInvalidParameter);
}

TEST_F(StartAndStopTest, SavingAndReadingGoOnWhileAStopIsPending) {
    SelectPcm();
    StartRecording();
    Deliver(480);
    AwaitStored();
    Held device;
    recorder.audio->onStop = [opened = device.Opened()] { opened.wait(); };
    ASSERT_EQ(manager.Stop(false), VrSuccess);
    ASSERT_EQ(manager.State(), ManagerState::Stopping);

    std::vector<std::string> names;
    EXPECT_EQ(manager.GetAudioDevices(&names), VrSuccess);
    EXPECT_EQ(names, std::vector<std::string>{kSupportedDeviceName});
    std::shared_ptr<VrAudioDeviceInfo> info;
    EXPECT_EQ(manager.GetAudioDeviceInfo(&info), VrSuccess);
    EXPECT_NE(info, nullptr);
    std::shared_ptr<VrRecordSetting> setting;
    ASSERT_EQ(manager.GetRecordSetting(&setting), VrSuccess);
    EXPECT_EQ(setting->freq, 48'000U);
    for (const bool available : {true, false}) {
        std::uint64_t length = 0;
        EXPECT_EQ(manager.GetPreviewDataLength(&length, available), VrSuccess);
        EXPECT_EQ(length, 480U);
        std::vector<std::int16_t> samples(2 * 480);
        EXPECT_EQ(manager.GetPreviewData(0, 480, samples.data(), available), VrSuccess);
        EXPECT_EQ(samples.back(), Sample16(479, 1));
    }
    const std::vector<VrSaveSetting> files = {
        {.path = directory.File("take.wav"), .start = 0.0, .end = 0.01, .gain = 0.0, .tags = {}}};
    EXPECT_EQ(manager.SaveFile(&files), VrSuccess);
    AwaitOperation(VrRecOperationSaveFinished);
    EXPECT_TRUE(delegate->messages.empty());
    std::int32_t file = 0;
    std::int32_t total = 0;
    EXPECT_EQ(manager.SaveFileProgress(&file, &total), VrSuccess);
    EXPECT_EQ(total, 1'000);

    EXPECT_EQ(manager.State(), ManagerState::Stopping);
    device.Open();
    AwaitOperation(VrRecOperationStopped);
}

}  // namespace
}  // namespace vorrel::test
