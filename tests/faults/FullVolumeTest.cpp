#include <gtest/gtest.h>

#include <fstream>

#include "faults/FaultRig.h"
#include "support/SmallVolume.h"

namespace vorrel::test {
namespace {

constexpr std::uint64_t kRateHz = 44'100;
constexpr std::size_t kMebibyte = 1 << 20;

/// Volumes that are really too small.
class FullVolumeTest : public ::testing::Test {
protected:
    FaultRig rig{kRateHz, Take::Pcm, 2, 17.0};
};

TEST_F(FullVolumeTest, ATakeThatFillsTheVolumeKeepsWhatWasStoredAndSaysSoOnce) {
    // A take of 16 s writes three blocks of 0.84 MiB of each channel and of the preview.
    const SmallVolume volume(4 * kMebibyte);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "no right to mount a volume";
    }
    ASSERT_EQ(rig.take.manager.SetTempDirectory(volume.Path().c_str()), VrSuccess);

    rig.Start();
    rig.Deliver(rig.BuffersOf(16.0));
    rig.Stop();

    EXPECT_EQ(rig.take.delegate->messages,
              (std::vector<RecordingDelegate::Message>{{VrMessageRecordWriteFailed, ""}}));
    const std::uint64_t stored = rig.take.Record().GetLength(true);
    EXPECT_GE(stored, 5 * kRateHz);
    EXPECT_LT(stored, 15 * kRateHz + rig.take.BufferFrames());
    rig.ExpectRecorded(stored);
    rig.Forget();
    rig.take.Save(rig.take.directory.File("take.wav"), 0.0, 100.0);
    EXPECT_EQ(std::filesystem::file_size(rig.take.directory.File("take.wav")), 44 + stored * 4);
    ASSERT_EQ(rig.take.manager.New(), VrSuccess);
    rig.ExpectTheNextTakeWorks();
}

TEST_F(FullVolumeTest, AVolumeThatFillsUpDuringASaveIsAFailedSaveAndTheNextOneIsWhole) {
    const SmallVolume volume(4 * kMebibyte);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "no right to mount a volume";
    }
    rig.Start();
    rig.Deliver(rig.BuffersOf(16.0));
    rig.Stop();
    const std::uint64_t bytes = 44 + rig.Delivered() * 4;  // 2.7 MiB
    const std::vector<VrSaveSetting> files = {{volume.File("take.wav"), 0.0, 100.0, 0.0, {}}};
    rig.Forget();
    std::uint64_t met = 0;
    {
        // The space is there when it is asked for, and somebody else's when the file is open.
        ArmedFault armed({.call = Call::Open, .action = [&] {
                              std::ofstream other(volume.File("other"), std::ios::binary);
                              const std::vector<char> block(kMebibyte);
                              while (other.write(block.data(), kMebibyte / 16).flush()) {
                              }
                              other.clear();
                              other.close();
                              std::filesystem::resize_file(volume.File("other"), 2 * kMebibyte);
                          }});
        ASSERT_EQ(rig.take.manager.SaveFile(&files), VrSuccess);
        ASSERT_TRUE(SettlesUntil([&] { return rig.take.delegate->Has(VrMessageSaveFailed); }));
        armed.Disarm();
        met = armed.Met();
    }

    EXPECT_EQ(met, 1U);
    EXPECT_EQ(rig.take.delegate->log,
              (std::vector<std::string>{"operation 3", "message 3 " + files.front().path}));
    EXPECT_LE(std::filesystem::file_size(files.front().path), 2 * kMebibyte);
    std::filesystem::remove(volume.File("other"));
    std::filesystem::remove(files.front().path);  // the part that was written takes space as well
    rig.Forget();
    rig.take.Save(files.front().path, 0.0, 100.0);
    EXPECT_EQ(std::filesystem::file_size(files.front().path), bytes);
}

}  // namespace
}  // namespace vorrel::test
