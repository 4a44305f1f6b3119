#include <gtest/gtest.h>

#include "manager/ManagerRig.h"
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

}  // namespace
}  // namespace vorrel::test
