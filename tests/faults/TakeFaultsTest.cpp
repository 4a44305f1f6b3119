#include <gtest/gtest.h>

#include <semaphore>

#include "faults/FaultRig.h"

namespace vorrel::test {
namespace {

constexpr std::uint64_t kRateHz = 44'100;
// Two blocks of five seconds of each channel go to the disk, and two of the preview.
constexpr double kSeconds = 10.3;

class TakeFaultsTest : public ::testing::Test {
protected:
    /// A take that meets the fault is stored whole, or up to a point that the host is told of.
    std::uint64_t TakeWith(const Fault& fault) {
        rig.Start();
        ArmedFault armed(fault);
        rig.Deliver(rig.BuffersOf(kSeconds));
        armed.Disarm();
        if (!::testing::Test::HasFailure()) {
            CheckTake();
        }
        return armed.Met();
    }

    void CheckTake() {
        const std::uint64_t delivered = rig.Delivered();
        rig.Stop();
        const std::vector<RecordingDelegate::Message>& messages = rig.take.delegate->messages;
        const std::uint64_t stored = rig.take.Record().GetLength(true);
        ASSERT_LE(messages.size(), 1U);
        if (messages.empty()) {
            EXPECT_EQ(stored, delivered);
            // What could not be written out at once is written with what comes behind it.
            ExpectPreview(delivered);
        } else {
            EXPECT_EQ(messages.front().first, VrMessageRecordWriteFailed);
        }
        rig.ExpectRecorded(stored);
        ExpectSaved(stored);
        // And it makes room for the next.
        EXPECT_EQ(rig.take.manager.New(), VrSuccess);
        EXPECT_EQ(rig.SpillFiles(), 0U);
        rig.ExpectTheNextTakeWorks();
    }

    void ExpectPreview(std::uint64_t frames) {
        // A refused scrap of memory may cost the preview a chunk, never more.
        ASSERT_GE(rig.take.Length(true) + ConvertThread::kChunkFrames, frames);
        std::vector<std::int16_t> preview(rig.take.Length(true) * 2);
        EXPECT_EQ(rig.take.manager.GetPreviewData(0, rig.take.Length(true), preview.data(), true),
                  VrSuccess);
    }

    /// What is stored can be saved: as many samples as there are, at both ends the right ones.
    void ExpectSaved(std::uint64_t frames) {
        const std::string path = rig.take.directory.File("take.wav");
        rig.Forget();
        rig.take.SetBits(32);
        rig.take.Save(path, 0.0, 100.0);
        EXPECT_EQ(std::filesystem::file_size(path), 44 + frames * 8);
    }

    FaultRig rig{kRateHz, Take::Pcm, 2, kSeconds + 6.0};
};

TEST_F(TakeFaultsTest, EveryFailedCallOfASpillIsToldOnceAndKeepsWhatWasStored) {
    for (const int error : {ENOSPC, EIO}) {
        Sweep("take", {.call = Call::WriteAt, .error = error},
              [&](const Fault& fault) { return TakeWith(fault); });
        Sweep("take", {.call = Call::WriteAt, .error = error, .forGood = true},
              [&](const Fault& fault) { return TakeWith(fault); });
    }
    for (const Call call : {Call::MakeFile, Call::Adopt}) {
        Sweep("take", {.call = call, .error = ENOSPC},
              [&](const Fault& fault) { return TakeWith(fault); });
        Sweep("take", {.call = call, .error = EMFILE, .forGood = true},
              [&](const Fault& fault) { return TakeWith(fault); });
    }
}

TEST_F(TakeFaultsTest, AShortOrInterruptedWriteLosesNothing) {
    const auto unharmed = [&](const Fault& fault) {
        rig.Start();
        ArmedFault armed(fault);
        rig.Deliver(rig.BuffersOf(kSeconds));
        armed.Disarm();
        EXPECT_TRUE(rig.take.delegate->messages.empty());
        CheckTake();
        return armed.Met();
    };
    Sweep("take", {.call = Call::WriteAt, .isShort = true}, unharmed);
    Sweep("take", {.call = Call::WriteAt, .error = EINTR}, unharmed);
}

TEST_F(TakeFaultsTest, ADiskThatFillsUpInTheMiddleOfAWriteKeepsWhatWasStored) {
    Sweep("take", {.call = Call::WriteAt, .error = ENOSPC, .isShort = true, .forGood = true},
          [&](const Fault& fault) { return TakeWith(fault); });
}

TEST_F(TakeFaultsTest, MemoryRefusedInATakeIsToldOnceAndKeepsWhatWasStored) {
    // The notifications of the positions are most of what a take asks memory for: every 16th.
    Fault fault{.call = Call::Memory};
    std::uint64_t met = 1;
    for (fault.nth = 1; met > 0 && !HasFailure(); fault.nth += fault.nth < 32 ? 1 : 16) {
        met = 0;
        Once("take", fault, [&](const Fault& one) {
            met = TakeWith(one);
            return std::max<std::uint64_t>(met, 1);
        });
    }
}

TEST_F(TakeFaultsTest, ATemporaryDirectoryThatIsNotAnsweredForIsToldAsMissing) {
    // The first question for it comes before a file is made, the second names the cause.
    for (const std::uint64_t nth : {1U, 2U}) {
        Once("take", {.call = Call::Stat, .nth = nth, .forGood = true}, [&](const Fault& fault) {
            rig.Start();
            ArmedFault armed(fault);
            rig.Deliver(rig.BuffersOf(kSeconds));
            EXPECT_EQ(
                rig.take.delegate->messages,
                (std::vector<RecordingDelegate::Message>{{VrMessageTempDirectoryMissing, ""}}));
            armed.Disarm();
            rig.Stop();
            rig.ExpectRecorded(rig.take.Record().GetLength(true));
            // All but the buffer with which the first block became full.
            EXPECT_GE(rig.take.Record().GetLength(true), 5 * kRateHz - rig.take.BufferFrames());
            rig.ExpectTheNextTakeWorks();
            return armed.Met();
        });
    }
}

TEST_F(TakeFaultsTest, ATemporaryDirectoryThatVanishesKeepsWhatWasStored) {
    const std::string path = rig.take.spillDirectory.Path();
    Fault vanishes{.call = Call::AnyFileCall, .action = [path] {
                       std::error_code ignored;
                       std::filesystem::remove_all(path, ignored);
                   }};
    Sweep("take", vanishes, [&](const Fault& fault) {
        rig.Start();
        ArmedFault armed(fault);
        rig.Deliver(rig.BuffersOf(kSeconds));
        armed.Disarm();
        const std::uint64_t delivered = rig.Delivered();
        rig.Stop();
        // Files that were made before it vanished live on without a name.
        const std::uint64_t stored = rig.take.Record().GetLength(true);
        if (rig.take.delegate->messages.empty()) {
            EXPECT_EQ(stored, delivered);
        } else {
            EXPECT_EQ(
                rig.take.delegate->messages,
                (std::vector<RecordingDelegate::Message>{{VrMessageTempDirectoryMissing, ""}}));
        }
        rig.ExpectRecorded(stored);
        std::filesystem::create_directory(path);
        rig.ExpectTheNextTakeWorks();
        return armed.Met();
    });
}

TEST_F(TakeFaultsTest, ADiskThatStandsStillForFiveSecondsLosesNothing) {
    // Every write of the take stands until the test lets it go.
    for (const std::uint64_t nth : {1U, 2U, 4U}) {
        std::binary_semaphore stands{0};
        std::binary_semaphore goes{0};
        Once("take",
             {.call = Call::WriteAt,
              .nth = nth,
              .action =
                  [&] {
                      stands.release();
                      goes.acquire();
                  }},
             [&](const Fault& fault) {
                 rig.Start();
                 ArmedFault armed(fault);
                 // Nobody asks how much is stored: that, too, waits for the disk.
                 std::uint64_t buffers = rig.BuffersOf(kSeconds);
                 EXPECT_EQ(rig.take.Recorder().DeliverBuffers(buffers), buffers);
                 EXPECT_TRUE(stands.try_acquire_for(std::chrono::seconds(20)));
                 // Nobody takes these off the queue, and the device does not wait for it.
                 EXPECT_EQ(rig.take.Recorder().DeliverBuffers(100), 100U);
                 goes.release();
                 EXPECT_TRUE(SettlesUntil(
                     [&] { return rig.take.Record().GetLength(false) == rig.Delivered(); }));
                 armed.Disarm();
                 rig.Stop();
                 EXPECT_TRUE(rig.take.delegate->messages.empty());
                 rig.ExpectRecorded(rig.Delivered());
                 return armed.Met();
             });
    }
}

}  // namespace
}  // namespace vorrel::test
