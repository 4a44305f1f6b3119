#include <gtest/gtest.h>

#include <vector>

#include "ManagerRig.h"
#include "platform/MainQueueTasks.h"
#include "support/AsioDataQueueParts.h"
#include "support/Await.h"

namespace vorrel::test {
namespace {

/// What the device's thread has to say while the host takes no notifications: of each message 16
/// may wait, and the next one is told when the host has taken some.
class UntakenMessagesTest : public ManagerRig {};

TEST_F(UntakenMessagesTest, RecordStartedIsToldWithALaterBuffer) {
    SelectPcm();
    StartPreRecording();
    for (std::size_t count = 0; count <= RealtimeTask::kCopies; ++count) {
        if (count > 0) {
            ASSERT_EQ(manager.Pause(), VrSuccess);
        }
        ASSERT_EQ(manager.Start(), VrSuccess);
        Deliver(10);
    }
    MainQueue::Dispatch();
    ASSERT_EQ(delegate->Count(VrRecOperationRecordStarted), 16U);

    Deliver(10);
    MainQueue::Dispatch();
    EXPECT_EQ(delegate->Count(VrRecOperationRecordStarted), 17U);

    Deliver(10);
    MainQueue::Dispatch();
    EXPECT_EQ(delegate->Count(VrRecOperationRecordStarted), 17U);
}

TEST_F(UntakenMessagesTest, AnOverflowIsToldWithALaterLoss) {
    SelectPcm();
    StartRecording();
    std::vector<float> samples(2 * 262'144, 0.25F);  // 1 MiB a channel: ten fit
    RealtimeTask& task = VorrelManagerParts::MessageTask(manager, VrMessageBufferOverflow);
    while (task.Post()) {
    }
    const ExclusiveLock stall(VorrelManagerParts::TurnLock(manager));  // as a disk that stalls
    ASSERT_TRUE(recorder.Deliver(2, samples));  // the worker's, which waits with it
    Await([&] { return AsioDataQueueParts::IsEmpty(VorrelManagerParts::Queue(manager)); });
    for (int buffer = 0; buffer < 30; ++buffer) {
        ASSERT_TRUE(recorder.Deliver(2, samples));
    }
    MainQueue::Dispatch();
    ASSERT_EQ(delegate->Count(VrMessageBufferOverflow), 16U);

    ASSERT_TRUE(recorder.Deliver(2, samples));
    MainQueue::Dispatch();
    EXPECT_EQ(delegate->Count(VrMessageBufferOverflow), 17U);

    ASSERT_TRUE(recorder.Deliver(2, samples));
    MainQueue::Dispatch();
    EXPECT_EQ(delegate->Count(VrMessageBufferOverflow), 17U);
}

}  // namespace
}  // namespace vorrel::test
