#include <gtest/gtest.h>

#include <filesystem>
#include <new>
#include <string>
#include <vector>

#include "support/FileBytes.h"
#include "support/HeldFile.h"
#include "writer/SaveThreadRig.h"

namespace vorrel {
namespace {

using test::Bytes;
using test::HeldFile;
using test::Id;
using test::kFinished;
using test::LittleEndian;
using test::Log;
using test::Messages;
using test::ReadBytes;
using test::SaveThreadTest;

/// Requests for a DSD recording at 32,768 samples a second: a second is a block of 4,096 bytes of
/// each channel.
class SaveThreadDsdTest : public SaveThreadTest {
protected:
    void MakeDsdRecording(std::uint16_t channels, std::size_t blocks) {
        recording.Begin(channels, 32'768, GetSampleTypeInfo(kSampleTypeDsd));
        for (std::uint16_t channel = 0; channel < channels; ++channel) {
            recording.Add<std::uint8_t>(channel, std::vector<std::uint8_t>(blocks * 4'096, 0x69));
        }
    }
    VrSaveSettingInternal Titled(const std::string& name, double end, double start = 0) const {
        VrSaveSettingInternal setting = Setting(name, end, start);
        setting.tags = {{"Title", "AB"}};  // 27 bytes of tag
        return setting;
    }
    /// Begins a request and waits until it has come to that block of `blocks`, which counts as
    /// soon as it begins.
    void SaveUntilBlock(int block, int blocks, const SaveList& list) {
        ASSERT_EQ(thread.SaveFiles(list, recording.data), VrSuccess);
        ASSERT_TRUE(manager.WaitUntil([&] {
            int file = 0;
            int total = 0;
            return thread.GetProgress(file, total) == VrSuccess && total >= block * 1'000 / blocks;
        }));
    }
};

TEST_F(SaveThreadDsdTest, ACancelDeletesNothingThatWasNotOpenedWhenMemoryRanOut) {
    MakeDsdRecording(1, 4);
    std::filesystem::create_directory(directory.File("taken.dsf"));  // cannot be opened: skipped
    manager.onMessage = [&](int kind, const char*) {
        if (kind == VrMessageFileSkipped) {
            EXPECT_EQ(thread.SaveCancel(true), VrSuccess);
            throw std::bad_alloc();
        }
    };

    Save(List({Titled("taken.dsf", 2.0)}));

    EXPECT_EQ(manager.Log(), (Log{"message 4", kFinished, "message 3"}));
    EXPECT_TRUE(Exists("taken.dsf"));
}

TEST_F(SaveThreadDsdTest, RunningOutOfMemoryWithoutACancelIsAFailedSave) {
    MakeDsdRecording(1, 4);
    std::filesystem::create_directory(directory.File("taken.dsf"));  // cannot be opened: skipped
    manager.onMessage = [&](int kind, const char*) {
        if (kind == VrMessageFileSkipped) {
            throw std::bad_alloc();
        }
    };

    Save(List({Titled("taken.dsf", 2.0)}));

    EXPECT_EQ(manager.Log(), (Log{"message 4", kFinished, "message 3"}));
}

TEST_F(SaveThreadDsdTest, ADsdRecordingIsSavedAsDsf) {
    MakeDsdRecording(2, 20);

    Save(List({Titled("one.dsf", 2.0), Titled("two.dsf", 20.0, 0.5)}));

    EXPECT_EQ(SizeOf("one.dsf"), 92U + 2 * 8'192 + 27);
    EXPECT_EQ(SizeOf("two.dsf"), 92U + 20 * 8'192 + 27);
    EXPECT_EQ(LittleEndian(ReadBytes(directory.File("one.dsf")), 0, 4), Id("DSD "));
    EXPECT_EQ(manager.Log(), (Log{kFinished}));
}

TEST_F(SaveThreadDsdTest, TheBitDepthOfPcmDoesNotMatter) {
    MakeDsdRecording(1, 2);
    thread.SetBits(8);

    Save(List({Setting("take.dsf", 2.0)}));

    EXPECT_EQ(SizeOf("take.dsf"), 92U + 2 * 4'096);
    EXPECT_EQ(manager.Log(), (Log{kFinished}));
}

TEST_F(SaveThreadDsdTest, TheProgressOfAFileEndsShortOfAThousandThatOfTheRequestDoesNot) {
    MakeDsdRecording(2, 20);

    Save(List({Setting("one.dsf", 10.0), Setting("two.dsf", 20.0)}));

    int file = 0;
    int total = 0;
    EXPECT_EQ(thread.GetProgress(file, total), VrSuccess);
    EXPECT_EQ(file, 950);
    EXPECT_EQ(total, 1'000);
}

TEST_F(SaveThreadDsdTest, ProgressInTheMiddleIsThatOfTheBlockInHand) {
    MakeDsdRecording(1, 400);
    const HeldFile held(directory.File("take.dsf"));
    // 255 blocks and the header fit into the stream's 1,048,576 bytes: it is stuck in the 256th.
    SaveUntilBlock(256, 400, List({Setting("take.dsf", 400.0)}));
    int file = 0;
    int total = 0;

    EXPECT_EQ(thread.GetProgress(file, total), VrSuccess);

    EXPECT_EQ(file, 637);   // it begins at 255 / 400
    EXPECT_EQ(total, 640);  // and ends at 256 / 400
    EXPECT_EQ(held.ReadToEnd().size(), 92U + 400 * 4'096);
    thread.WaitFinished();
}

TEST_F(SaveThreadDsdTest, ACancelThatDeletesStopsAndTakesTheFileAndItsEmptyDirectory) {
    MakeDsdRecording(1, 400);
    std::filesystem::create_directory(directory.File("old"));
    const HeldFile held(directory.File("old/take.dsf"));
    SaveUntilBlock(256, 401, List({Titled("old/take.dsf", 400.0), Titled("next.dsf", 1.0)}));

    EXPECT_EQ(thread.SaveCancel(true), VrSuccess);

    EXPECT_EQ(held.ReadToEnd().size(), 92U + 256 * 4'096 + 27);
    thread.WaitFinished();
    EXPECT_FALSE(Exists("old"));
    EXPECT_FALSE(Exists("next.dsf"));
    EXPECT_EQ(manager.Log(), (Log{kFinished}));
}

TEST_F(SaveThreadDsdTest, ACancelThatKeepsCompletesTheFileAndEndsTheRequest) {
    MakeDsdRecording(1, 400);
    const HeldFile held(directory.File("take.dsf"));
    SaveUntilBlock(256, 401, List({Titled("take.dsf", 400.0), Titled("next.dsf", 1.0)}));

    EXPECT_EQ(thread.SaveCancel(false), VrSuccess);
    EXPECT_EQ(thread.SaveCancel(true), VrSuccess);  // the first one wins

    EXPECT_EQ(held.ReadToEnd().size(), 92U + 400 * 4'096 + 27);
    thread.WaitFinished();
    EXPECT_TRUE(Exists("take.dsf"));
    EXPECT_FALSE(Exists("next.dsf"));
    EXPECT_EQ(manager.Log(), (Log{kFinished}));
}

TEST_F(SaveThreadDsdTest, ACancelBehindTheLastBlockStillCounts) {
    // Where a WAV file has come too far to be cancelled.
    MakeDsdRecording(1, 100);
    const HeldFile held(
        directory.File("take.dsf"));  // holds less than the file: stuck at its close
    SaveUntilBlock(100, 100, List({Titled("take.dsf", 100.0)}));

    EXPECT_EQ(thread.SaveCancel(true), VrSuccess);

    EXPECT_EQ(held.ReadToEnd().size(), 92U + 100 * 4'096 + 27) << "complete, and deleted";
    thread.WaitFinished();
    EXPECT_FALSE(Exists("take.dsf"));
    EXPECT_EQ(manager.Log(), (Log{kFinished}));
}

TEST_F(SaveThreadDsdTest, ASecondFileThatReachesPastTheRecordingFailsAndLeavesTheFirst) {
    MakeDsdRecording(2, 20);

    Save(List({Titled("one.dsf", 20.0), Titled("two.dsf", 21.0), Titled("three.dsf", 1.0)}));

    EXPECT_EQ(manager.Log(), (Log{kFinished, "message 3"}));
    EXPECT_EQ(manager.Messages(), (Messages{{VrMessageSaveFailed, directory.File("two.dsf")}}));
    EXPECT_EQ(SizeOf("one.dsf"), 92U + 20 * 8'192 + 27);
    EXPECT_EQ(SizeOf("two.dsf"), 92U + 20 * 8'192);
    EXPECT_FALSE(Exists("three.dsf"));
}

TEST_F(SaveThreadDsdTest, ATakeThatBeginsDuringASaveFailsTheFileAndTheNextIsNotBegun) {
    MakeDsdRecording(1, 400);
    const HeldFile held(directory.File("take.dsf"));
    SaveUntilBlock(256, 401, List({Titled("take.dsf", 400.0), Titled("next.dsf", 1.0)}));

    MakeRecording(1'000);  // a PCM take

    const Bytes written = held.ReadToEnd();
    thread.WaitFinished();
    EXPECT_EQ(manager.Messages(), (Messages{{VrMessageSaveFailed, directory.File("take.dsf")}}));
    EXPECT_FALSE(Exists("next.dsf"));
    ASSERT_EQ(written.size(), 92U + 256 * 4'096);
    EXPECT_EQ(Bytes(written.begin() + 92, written.end()), Bytes(written.size() - 92, 0x96));
}

TEST_F(SaveThreadDsdTest, ASkippedFileIsNoFailure) {
    MakeDsdRecording(1, 4);
    std::filesystem::create_directory(directory.File("one.dsf"));

    Save(List({Setting("one.dsf", 4.0), Setting("two.dsf", 4.0)}));

    EXPECT_EQ(manager.Log(), (Log{"message 4", kFinished}));
    EXPECT_EQ(SizeOf("two.dsf"), 92U + 4 * 4'096);
    int file = 0;
    int total = 0;
    EXPECT_EQ(thread.GetProgress(file, total), VrSuccess);
    EXPECT_EQ(total, 1'000);
}

TEST_F(SaveThreadDsdTest, APathWithoutASlashFailsTheRequest) {
    MakeDsdRecording(1, 1);

    Save(List({{"take of a test.dsf", 0.0, 1.0, 0.0, {}}}));

    EXPECT_EQ(manager.Messages(), (Messages{{VrMessageSaveFailed, "take of a test.dsf"}}));
    EXPECT_FALSE(std::filesystem::exists("take of a test.dsf"));
}

}  // namespace
}  // namespace vorrel
