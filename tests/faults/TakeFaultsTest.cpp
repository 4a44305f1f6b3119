#include <gtest/gtest.h>

#include <cmath>
#include <semaphore>

#include "faults/FaultRig.h"

namespace vorrel::test {
namespace {

constexpr std::uint64_t kRateHz = 44'100;
// Two blocks of five seconds of each channel go to the disk, and two of the preview.
constexpr double kSeconds = 10.3;

class TakeFaultsTest : public ::testing::Test {
protected:
    // The engine's lasting threads are there before anything is counted.
    void SetUp() override { rig.ExpectTheNextTakeWorks(); }

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

    /// The preview is that of what was delivered. A refused scrap of memory may cost it a chunk,
    /// never more: what comes behind follows at once.
    void ExpectPreview(std::uint64_t frames) {
        const std::uint64_t length = rig.take.Length(true);
        ASSERT_LE(length, frames);
        ASSERT_GE(length + ConvertThread::kChunkFrames, frames);
        std::vector<std::int16_t> preview(length * 2);
        ASSERT_EQ(rig.take.manager.GetPreviewData(0, length, preview.data(), true), VrSuccess);
        const std::vector<std::int16_t> whole = PreviewOf(frames);
        const auto [lost, lostInWhole] =
            std::mismatch(preview.begin(), preview.end(), whole.begin());
        EXPECT_TRUE(std::equal(lost, preview.end(),
                               lostInWhole + static_cast<std::ptrdiff_t>((frames - length) * 2)))
            << "from sample " << lost - preview.begin() << " on";
    }

    /// What was delivered, as 16-bit samples: the nearest whole multiples of 2^-15.
    std::vector<std::int16_t> PreviewOf(std::uint64_t frames) const {
        std::vector<std::int16_t> preview(frames * 2);
        for (std::size_t index = 0; index < preview.size(); ++index) {
            float sample = 0.0F;
            std::memcpy(&sample, &rig.expected[index % 2][index / 2 * sizeof(float)],
                        sizeof(float));
            const float scaled = std::nearbyint(sample * 32'768.0F);
            preview[index] = static_cast<std::int16_t>(std::clamp(scaled, -32'768.0F, 32'767.0F));
        }
        return preview;
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

TEST_F(TakeFaultsTest, APauseBehindAFailedSpillIsLeftOutAllTheSame) {
    for (const bool forGood : {false, true}) {
        Sweep("take with a pause", {.call = Call::WriteAt, .error = ENOSPC, .forGood = forGood},
              [&](const Fault& fault) {
                  rig.Start();
                  ArmedFault armed(fault);
                  rig.Deliver(rig.BuffersOf(5.2));
                  const std::uint64_t before = rig.Delivered();
                  EXPECT_EQ(rig.take.manager.Pause(), VrSuccess);
                  rig.Deliver(3);
                  const std::uint64_t paused = rig.Delivered() - before;
                  EXPECT_EQ(rig.take.manager.Resume(), VrSuccess);
                  rig.Deliver(rig.BuffersOf(5.1));
                  armed.Disarm();
                  const std::uint64_t delivered = rig.Delivered();
                  rig.Stop();

                  std::vector<Bytes> cut = rig.expected;
                  for (Bytes& channel : cut) {
                      const auto from = channel.begin() + static_cast<std::ptrdiff_t>(before * 4);
                      channel.erase(from, from + static_cast<std::ptrdiff_t>(paused * 4));
                  }
                  cut.swap(rig.expected);
                  const auto& messages = rig.take.delegate->messages;
                  const std::uint64_t stored = rig.take.Record().GetLength(true);
                  if (messages.empty()) {
                      EXPECT_EQ(stored, delivered - paused);
                  } else {
                      EXPECT_EQ(messages, (std::vector<RecordingDelegate::Message>{
                                              {VrMessageRecordWriteFailed, ""}}));
                      EXPECT_LE(stored, delivered - paused);
                  }
                  rig.ExpectRecorded(stored);
                  cut.swap(rig.expected);
                  rig.ExpectTheNextTakeWorks();
                  return armed.Met();
              });
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
                 EXPECT_EQ(rig.take.manager.New(), VrSuccess);
                 return armed.Met();
             });
    }
}

}  // namespace
}  // namespace vorrel::test
