#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "manager/ManagerRig.h"
#include "platform/MainQueueTasks.h"
#include "support/AllocationLimit.h"

namespace vorrel::test {
namespace {

/// The host's calls on a thread that gets no memory at all.
class ManagerMemoryTest : public ManagerRig {
protected:
    template <class Call>
    static VrError WithoutMemory(const Call& call) {
        const AllocationLimit limit(1);
        return call();
    }
};

TEST_F(ManagerMemoryTest, AnInitThatRunsOutOfMemoryKeepsNothingOfTheDelegate) {
    const std::size_t allocations =
        RefuseEachAllocation([&] { std::ignore = manager.Init(delegate); },
                             [&] {
                                 EXPECT_EQ(manager.State(), ManagerState::Uninitialized);
                                 EXPECT_EQ(delegate.use_count(), 1);
                             });

    EXPECT_GE(allocations, 10U);  // a notification of each kind at least
    EXPECT_EQ(manager.State(), ManagerState::Initialized);
}

TEST_F(ManagerMemoryTest, AStartWithoutMemoryIsRefusedAndTheNextOneRecords) {
    SelectPcm();

    EXPECT_EQ(WithoutMemory([&] { return manager.Start(); }), VrErrorFailed);

    EXPECT_EQ(manager.State(), ManagerState::Ready);
    EXPECT_TRUE(delegate->log.empty());
    StartRecording();
    Deliver(10);
    StopRecording();
    EXPECT_EQ(RecordedFrames(), Frames({{0, 10}}));
}

TEST_F(ManagerMemoryTest, APreRecordingWithoutMemoryIsRefused) {
    SelectPcm();

    EXPECT_EQ(WithoutMemory([&] { return manager.StartPreRecording(); }), VrErrorFailed);

    EXPECT_EQ(manager.State(), ManagerState::Ready);
    StartPreRecording();
    ASSERT_EQ(manager.Stop(true), VrSuccess);
}

TEST_F(ManagerMemoryTest, AStopWithoutMemoryIsRefusedAndTheTakeGoesOn) {
    SelectPcm();
    StartRecording();
    Deliver(10);
    AwaitStored();
    for (const bool wait : {true, false}) {
        EXPECT_EQ(WithoutMemory([&] { return manager.Stop(wait); }), VrErrorFailed);

        EXPECT_EQ(manager.State(), ManagerState::Recording);
        Deliver(10);
        AwaitStored();
    }

    StopRecording();
    EXPECT_EQ(RecordedFrames(), Frames({{0, 30}}));
}

TEST_F(ManagerMemoryTest, AStartWithoutMemoryAndADeviceThatThrowsEndsInReadyWithItsMessage) {
    SelectPcm();
    // Memory ends with the device's start: none is left to log the record event.
    std::optional<AllocationLimit> limit;
    recorder.audio->onStart = [&] { limit.emplace(1); };
    recorder.audio->onStop = [&] {
        limit.reset();
        throw std::runtime_error("the bus is gone");
    };

    ASSERT_EQ(manager.Start(), VrSuccess);

    ASSERT_TRUE(DispatchUntil([&] { return !delegate->log.empty(); }));
    EXPECT_EQ(delegate->log, std::vector<std::string>{"message 0 "});
    EXPECT_EQ(manager.State(), ManagerState::Ready);
    recorder.audio->onStart = nullptr;
    recorder.audio->onStop = nullptr;
    StartRecording();
    Deliver(10);
    StopRecording();
    EXPECT_EQ(RecordedFrames(), Frames({{0, 10}}));
}

TEST_F(ManagerMemoryTest, ATempDirectoryThatIsRefusedForWantOfMemoryChangesNothing) {
    ASSERT_EQ(manager.Init(delegate), VrSuccess);
    const TempDirectory other;
    const auto set = [&](const std::string& path) {
        const char* const text = path.c_str();
        return WithoutMemory([&] {
            try {
                return manager.SetTempDirectory(text);
            } catch (const std::bad_alloc&) {
                return VrErrorFailed;  // as the exported function has it
            }
        });
    };
    std::ofstream(directory.File("tmpABCdef")) << "left behind";

    EXPECT_EQ(set(directory.Path()), VrErrorFailed);
    EXPECT_STREQ(manager.GetTempDirectory(), "");
    EXPECT_TRUE(std::filesystem::exists(directory.File("tmpABCdef")));

    ASSERT_EQ(manager.SetTempDirectory(directory.Path().c_str()), VrSuccess);
    std::ofstream(directory.File("tmpABCdef")) << "left behind";
    EXPECT_EQ(set(other.Path()), VrErrorFailed);
    EXPECT_EQ(manager.GetTempDirectory(), directory.Path());
    EXPECT_TRUE(std::filesystem::exists(directory.File("tmpABCdef")));
}

TEST_F(ManagerMemoryTest, ANotificationWithoutMemoryStillTellsItsKind) {
    Init();

    {
        const AllocationLimit limit(1);
        for (int operation = 0; operation < 4; ++operation) {
            manager.NotifyOperationProc(static_cast<VrRecOperation>(operation));
        }
        for (int kind = 0; kind < 6; ++kind) {
            manager.NotifyErrorMessageProc(kind, "/takes/one.wav");
        }
    }

    ASSERT_TRUE(DispatchUntil([&] { return delegate->log.size() >= 10; }));
    EXPECT_EQ(delegate->log,
              (std::vector<std::string>{"operation 0", "operation 1", "operation 2", "operation 3",
                                        "message 0 ", "message 1 ", "message 2 ", "message 3 ",
                                        "message 4 ", "message 5 "}));
}

TEST_F(ManagerMemoryTest, APositionWithoutMemoryIsLostAndTheNextArrives) {
    Init();

    {
        const AllocationLimit limit(1);
        manager.NotifyStreamPosProc(1.5);
        manager.NotifyConvertPosProc(2.5);
    }
    manager.NotifyStreamPosProc(3.5);

    ASSERT_TRUE(DispatchUntil([&] { return !delegate->streamPositions.empty(); }));
    EXPECT_EQ(delegate->streamPositions, std::vector<double>{3.5});
    EXPECT_TRUE(delegate->convertPositions.empty());
}

TEST_F(ManagerMemoryTest, NotificationsPastTheReserveAreLost) {
    Init();

    {
        const AllocationLimit limit(1);
        for (std::size_t count = 0; count <= RealtimeTask::kCopies; ++count) {
            manager.NotifyOperationProc(VrRecOperationStopped);
        }
    }
    manager.NotifyOperationProc(VrRecOperationDeviceStarted);

    AwaitOperation(VrRecOperationDeviceStarted);
    EXPECT_EQ(delegate->Count(VrRecOperationStopped), RealtimeTask::kCopies);
}

}  // namespace
}  // namespace vorrel::test
