#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "manager/ManagerRig.h"
#include "support/AllocationLimit.h"
#include "support/RefusedThread.h"

namespace vorrel::test {
namespace {

// Bytes of a raw buffer of each store, as a start clears it, and what is less than any other
// allocation of a start that is as large.
constexpr std::size_t kClearedPreview = 882'000;
constexpr std::size_t kClearedRecord = 441'000;
constexpr std::size_t kPart = 10'000;

/// A second start that fails half-way, in its own thread, and the take after it.
class RefusedStartTest : public ManagerRig {
protected:
    void SetUp() override {
        SelectPcm(48'000);
        StartRecording();
        Deliver(10);
        StopRecording();
        Forget();
    }
    void Forget() {
        MainQueue::Dispatch();
        delegate->operations.clear();
        delegate->messages.clear();
        delegate->log.clear();
        delivered = 0;
    }
    /// The start ends, in one way or the other.
    void Start() {
        ASSERT_EQ(manager.Start(), VrSuccess);
        ASSERT_TRUE(DispatchUntil([&] { return !delegate->log.empty(); }));
    }
    void ExpectRefused() {
        EXPECT_EQ(delegate->log, std::vector<std::string>{"message 0 "});
        EXPECT_EQ(manager.State(), ManagerState::Ready);
        EXPECT_FALSE(recorder.IsRunning());
    }
    void ExpectTheNextTakeRecords() {
        ASSERT_EQ(manager.State(), ManagerState::Ready);
        Forget();
        Start();
        ASSERT_EQ(delegate->log, std::vector<std::string>{"operation 1"});
        Deliver(20);
        StopRecording();
        EXPECT_EQ(RecordedFrames(), Frames({{0, 20}}));
        Forget();
    }
};

TEST_F(RefusedStartTest, APreviewStoreThatCannotBeClearedFailsTheStart) {
    {
        const AllocationLimit limit(kClearedPreview, kClearedPreview + kPart,
                                    AllocationLimit::Threads::All);
        Start();
    }

    ExpectRefused();
    ExpectTheNextTakeRecords();
}

TEST_F(RefusedStartTest, ARecordStoreThatCannotBeClearedFailsTheStart) {
    {
        const AllocationLimit limit(kClearedRecord, kClearedRecord + kPart,
                                    AllocationLimit::Threads::All);
        Start();
    }

    ExpectRefused();
    ExpectTheNextTakeRecords();
}

TEST_F(RefusedStartTest, AWorkerWithoutAThreadFailsTheStartAndNoOtherIsLeft) {
    for (const std::size_t worker : {1U, 2U}) {  // the record worker, the convert worker
        {
            const RefusedThread refused(worker);
            Start();
            EXPECT_TRUE(refused.WasMet());
        }

        ExpectRefused();
        ASSERT_NO_FATAL_FAILURE(ExpectTheNextTakeRecords()) << worker;
    }
}

TEST_F(RefusedStartTest, AConvertWorkerWithoutMemoryFailsTheStart) {
    constexpr std::size_t kInterleaved = 4'096 * 2 * 2;  // frames, channels, bytes
    {
        const AllocationLimit limit(kInterleaved, kInterleaved + 1, AllocationLimit::Threads::All);
        Start();
    }

    ExpectRefused();
    ExpectTheNextTakeRecords();
}

}  // namespace
}  // namespace vorrel::test
