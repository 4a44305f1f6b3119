#include "writer/SaveThread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cfenv>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <semaphore>
#include <string>
#include <utility>
#include <vector>

#include "support/FakeManager.h"
#include "support/FileBytes.h"
#include "support/HeldFile.h"
#include "support/Recording.h"
#include "support/TempDirectory.h"

namespace vorrel {
namespace {

using test::Bytes;
using test::CheckFields;
using test::FakeManager;
using test::FieldCheck;
using test::HeldFile;
using test::Id;
using test::LittleEndian;
using test::ReadBytes;
using test::Recording;
using test::TempDirectory;
using Log = std::vector<std::string>;
using Messages = std::vector<FakeManager::Message>;

constexpr const char* kFinished = "operation 3";

/// A float sample type whose converter calls the test: on the save thread, once for each block of
/// each channel, so that something can happen in a certain block.
std::function<void(int block)> onBlock;
int blockCount = 0;

void ConvertAndCall(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    if (onBlock) {
        onBlock(++blockCount);
    }
    GetSampleTypeInfo(kSampleTypePcm)->toFloat32(destination, source, count);
}

class SaveThreadTest : public testing::Test {
protected:
    SaveThreadTest() {
        onBlock = nullptr;
        blockCount = 0;
        callingType.type = 77;
        callingType.toFloat32 = &ConvertAndCall;
    }

    /// One channel at 1,000 Hz: blocks of 100 frames, 200 bytes as 16 bits.
    void MakeRecording(std::size_t frames, bool calling = false) {
        recording.Make(1, 1'000, frames, Recording::Steps,
                       calling ? &callingType : GetSampleTypeInfo(kSampleTypePcm));
        thread.SetBits(16);
    }
    VrSaveSettingInternal Setting(const std::string& name, double end, double start = 0) const {
        return {directory.File(name), start, end, 0.0, {}};
    }
    static SaveList List(std::vector<VrSaveSettingInternal> files) {
        return std::make_shared<const std::vector<VrSaveSettingInternal>>(std::move(files));
    }
    /// Runs a request to its very end.
    void Save(const SaveList& list) {
        ASSERT_EQ(thread.SaveFiles(list, recording.data), VrSuccess);
        thread.WaitFinished();
    }
    bool Exists(const std::string& name) const {
        return std::filesystem::exists(directory.File(name));
    }
    std::size_t SizeOf(const std::string& name) const {
        return ReadBytes(directory.File(name)).size();
    }

    const TempDirectory directory;
    const TempDirectory spill;
    FakeManager manager{spill.Path()};
    SampleTypeInfo callingType = *GetSampleTypeInfo(kSampleTypePcm);
    Recording recording{manager};
    SaveThread thread{manager};
};

TEST_F(SaveThreadTest, WritesAllFilesOfARequest) {
    MakeRecording(1'000);

    Save(List({Setting("one.wav", 0.5), Setting("two.wav", 1.0, 0.25)}));

    EXPECT_EQ(SizeOf("one.wav"), 44U + 1'000);
    EXPECT_EQ(SizeOf("two.wav"), 44U + 1'500);
    EXPECT_EQ(manager.Log(), (Log{kFinished}));
}

TEST_F(SaveThreadTest, SixteenTwentyFourAndThirtyTwoBitsAreSet) {
    SaveThread fresh(manager);

    EXPECT_EQ(fresh.GetBits(), 32);
    for (const std::uint16_t bits : std::vector<std::uint16_t>{16, 24, 32}) {
        fresh.SetBits(bits);
        EXPECT_EQ(fresh.GetBits(), bits);
    }
}

TEST_F(SaveThreadTest, ProgressBeforeAnyRequestIsAnInvalidStateAndWritesNothing) {
    int file = -7;
    int total = -8;

    EXPECT_EQ(thread.GetProgress(file, total), VrErrorInvalidState);

    EXPECT_EQ(file, -7);
    EXPECT_EQ(total, -8);
}

TEST_F(SaveThreadTest, ProgressIsInPerMilleOfFileAndRequest) {
    MakeRecording(1'000, true);
    std::vector<std::pair<int, int>> seen;
    onBlock = [&](int) {
        int file = -1;
        int total = -1;
        EXPECT_EQ(thread.GetProgress(file, total), VrSuccess);
        seen.emplace_back(file, total);
    };

    Save(List({Setting("one.wav", 0.3), Setting("two.wav", 0.35, 0.05)}));

    // 600 frames in all; a block counts before it is written, and parts of a thousandth are cut.
    EXPECT_EQ(seen,
              (std::vector<std::pair<int, int>>{
                  {333, 166}, {666, 333}, {1'000, 500}, {333, 666}, {666, 833}, {1'000, 1'000}}));
}

TEST_F(SaveThreadTest, ProgressCountsTheRangeThatWasAskedFor) {
    MakeRecording(1'000);

    Save(List({Setting("take.wav", 2.0)}));

    int file = 0;
    int total = 0;
    EXPECT_EQ(thread.GetProgress(file, total), VrSuccess);
    EXPECT_EQ(file, 1'000);
    EXPECT_EQ(total, 500);
}

TEST_F(SaveThreadTest, AReversedRangeAddsNothingToTheLength) {
    MakeRecording(1'000);

    Save(List({Setting("one.wav", 0.4), Setting("two.wav", 0.1, 0.9)}));

    int file = 0;
    int total = 0;
    EXPECT_EQ(thread.GetProgress(file, total), VrSuccess);
    EXPECT_EQ(file, 0);
    EXPECT_EQ(total, 1'000);
    EXPECT_EQ(manager.Messages(), (Messages{{VrMessageSaveFailed, directory.File("two.wav")}}));
}

TEST_F(SaveThreadTest, ARequestOfNoLengthHasNoProgress) {
    MakeRecording(1'000);
    int file = -7;
    int total = -8;

    Save(List({Setting("take.wav", 0.5, 0.5)}));

    EXPECT_EQ(thread.GetProgress(file, total), VrErrorInvalidState);
    EXPECT_EQ(SizeOf("take.wav"), 44U);
}

TEST_F(SaveThreadTest, ProgressStaysWithinAThousandForAbsurdRanges) {
    MakeRecording(1'000);
    constexpr double kInfinity = std::numeric_limits<double>::infinity();

    // The lengths add up to 2^64 + 99, which counts as 99.
    Save(List({Setting("one.wav", kInfinity), Setting("two.wav", 0.1)}));

    int file = 0;
    int total = 0;
    EXPECT_EQ(thread.GetProgress(file, total), VrSuccess);
    EXPECT_EQ(file, 1'000);
    EXPECT_EQ(total, 1'000);
}

TEST_F(SaveThreadTest, TheFirstCancelOfASaveWins) {
    MakeRecording(1'000, true);
    onBlock = [&](int block) {
        if (block == 3) {
            EXPECT_EQ(thread.SaveCancel(false), VrSuccess);
            EXPECT_EQ(thread.SaveCancel(true), VrSuccess);
        }
    };

    Save(List({Setting("take.wav", 1.0)}));

    EXPECT_EQ(SizeOf("take.wav"), 44U + 3 * 200);
}

TEST_F(SaveThreadTest, ARequestThatIsRefusedDoesNotTakeBackTheCancelOfTheRunningOne) {
    MakeRecording(1'000, true);
    onBlock = [&](int block) {
        if (block == 2) {
            EXPECT_EQ(thread.SaveCancel(true), VrSuccess);
            EXPECT_EQ(thread.SaveFiles(List({Setting("other.wav", 1.0)}), recording.data),
                      VrErrorFailed);
        }
    };

    Save(List({Setting("take.wav", 1.0)}));

    EXPECT_FALSE(Exists("take.wav"));
    EXPECT_FALSE(Exists("other.wav"));
    EXPECT_EQ(manager.Log(), (Log{kFinished}));
}

TEST_F(SaveThreadTest, ACancelThatKeepsLeavesThePartialFile) {
    MakeRecording(1'000, true);
    onBlock = [&](int block) {
        if (block == 2) {
            EXPECT_EQ(thread.SaveCancel(false), VrSuccess);
        }
    };

    Save(List({Setting("new/take.wav", 1.0), Setting("next.wav", 1.0)}));

    const Bytes bytes = ReadBytes(directory.File("new/take.wav"));
    EXPECT_EQ(bytes.size(), 44U + 2 * 200);
    EXPECT_EQ(LittleEndian(bytes, 4, 4), 2'036U);  // the sizes of the complete file
    EXPECT_EQ(LittleEndian(bytes, 40, 4), 2'000U);
    EXPECT_FALSE(Exists("next.wav"));
    EXPECT_EQ(manager.Log(), (Log{kFinished}));
}

TEST_F(SaveThreadTest, ACancelThatDeletesTakesTheFileAndItsEmptyDirectory) {
    MakeRecording(1'000, true);
    std::filesystem::create_directory(directory.File("old"));  // not made by the request
    bool existed = false;
    onBlock = [&](int block) {
        if (block == 2) {
            existed = Exists("old/take.wav");
            EXPECT_EQ(thread.SaveCancel(true), VrSuccess);
        }
    };

    Save(List({Setting("old/take.wav", 1.0), Setting("next.wav", 1.0)}));

    EXPECT_TRUE(existed);
    EXPECT_FALSE(Exists("old"));
    EXPECT_FALSE(Exists("next.wav"));
    EXPECT_EQ(manager.Log(), (Log{kFinished}));
}

TEST_F(SaveThreadTest, ACancelThatDeletesLeavesTheFilesBefore) {
    MakeRecording(1'000, true);
    onBlock = [&](int block) {
        if (block == 11) {  // the first of the second file
            EXPECT_EQ(thread.SaveCancel(true), VrSuccess);
        }
    };

    Save(List({Setting("one.wav", 1.0), Setting("two.wav", 1.0)}));

    EXPECT_EQ(SizeOf("one.wav"), 44U + 2'000);
    EXPECT_FALSE(Exists("two.wav"));
}

TEST_F(SaveThreadTest, ACancelBehindTheLastBlockComesTooLate) {
    MakeRecording(1'000, true);
    onBlock = [&](int block) {
        if (block == 10) {
            EXPECT_EQ(thread.SaveCancel(true), VrSuccess);
        }
    };

    Save(List({Setting("take.wav", 1.0)}));

    EXPECT_EQ(SizeOf("take.wav"), 44U + 2'000);
}

TEST_F(SaveThreadTest, ACancelFromBeforeAStartIsForgotten) {
    MakeRecording(1'000);
    EXPECT_EQ(thread.SaveCancel(true), VrSuccess);

    Save(List({Setting("take.wav", 1.0)}));

    EXPECT_EQ(SizeOf("take.wav"), 44U + 2'000);
}

TEST_F(SaveThreadTest, ASecondFileThatFailsEndsTheRequestAndLeavesTheFirst) {
    MakeRecording(1'000);

    Save(List(
        {Setting("one.wav", 0.5), Setting("no/parent/two.wav", 0.5), Setting("three.wav", 0.5)}));

    EXPECT_EQ(manager.Log(), (Log{kFinished, "message 3"}));
    EXPECT_EQ(manager.Messages(),
              (Messages{{VrMessageSaveFailed, directory.File("no/parent/two.wav")}}));
    EXPECT_EQ(SizeOf("one.wav"), 44U + 1'000);
    EXPECT_FALSE(Exists("three.wav"));
}

TEST_F(SaveThreadTest, APathWithoutASlashFailsTheRequest) {
    MakeRecording(1'000);

    Save(List({{"take of a test.wav", 0.0, 0.5, 0.0, {}}}));

    EXPECT_EQ(manager.Log(), (Log{kFinished, "message 3"}));
    EXPECT_EQ(manager.Messages(), (Messages{{VrMessageSaveFailed, "take of a test.wav"}}));
    EXPECT_FALSE(std::filesystem::exists("take of a test.wav"));
}

TEST_F(SaveThreadTest, AFailureWithoutATemporaryDirectoryNamesThatInstead) {
    MakeRecording(1'000);
    manager.tempDirectoryExists = false;
    std::optional<bool> textIsNull;
    manager.onMessage = [&](int, const char* text) { textIsNull = text == nullptr; };

    Save(List({Setting("no/parent/take.wav", 0.5)}));

    EXPECT_EQ(manager.Log(), (Log{kFinished, "message 5"}));
    EXPECT_EQ(textIsNull, true);
}

TEST_F(SaveThreadTest, ASkippedFileIsNoFailure) {
    MakeRecording(1'000);
    std::filesystem::create_directory(directory.File("one.wav"));  // cannot be opened as a file

    Save(List({Setting("one.wav", 0.5), Setting("two.wav", 0.5)}));

    EXPECT_EQ(manager.Log(), (Log{"message 4", kFinished}));
    EXPECT_EQ(manager.Messages(), (Messages{{VrMessageFileSkipped, directory.File("one.wav")}}));
    EXPECT_EQ(SizeOf("two.wav"), 44U + 1'000);
    int file = 0;
    int total = 0;
    EXPECT_EQ(thread.GetProgress(file, total), VrSuccess);
    EXPECT_EQ(total, 1'000);
}

TEST_F(SaveThreadTest, AFileOfFourGibibytesIsSkippedAndTheNextIsWritten) {
    // A width that no file ever gets, so that the bound is met with a small recording; once the
    // first file is skipped, the width is set right.
    recording.Make(2, 192'000, 262'177);
    thread.SetBits(65'528);
    manager.onMessage = [&](int, const char*) { thread.SetBits(32); };

    Save(List({Setting("one.wav", 2.0), Setting("two.wav", 0.001)}));

    EXPECT_EQ(manager.Log(), (Log{"message 4", kFinished}));
    EXPECT_FALSE(Exists("one.wav"));
    EXPECT_EQ(SizeOf("two.wav"), 44U + 192 * 8);
}

TEST_F(SaveThreadTest, AWidthOfEightBitsFailsTheRequest) {
    MakeRecording(1'000);
    thread.SetBits(8);

    Save(List({Setting("take.wav", 0.5)}));

    EXPECT_EQ(manager.Log(), (Log{kFinished, "message 3"}));
    EXPECT_EQ(SizeOf("take.wav"), 44U);
}

TEST_F(SaveThreadTest, ACreatedDirectoryIsRemovedAfterAFailureWhenItIsEmpty) {
    MakeRecording(1'000, true);
    onBlock = [&](int) {
        std::filesystem::remove(directory.File("new/take.wav"));
        throw std::bad_alloc();
    };

    Save(List({Setting("new/take.wav", 0.5)}));

    EXPECT_EQ(manager.Log(), (Log{kFinished, "message 3"}));
    EXPECT_FALSE(Exists("new"));
}

TEST_F(SaveThreadTest, ACreatedDirectoryWithThePartialFileStaysAfterAFailure) {
    MakeRecording(1'000, true);
    onBlock = [](int) { throw std::bad_alloc(); };

    Save(List({Setting("new/take.wav", 0.5)}));

    EXPECT_TRUE(Exists("new/take.wav"));
}

TEST_F(SaveThreadTest, AnEmptyDirectoryThatWasThereStaysAfterAFailure) {
    MakeRecording(1'000, true);
    std::filesystem::create_directory(directory.File("old"));
    onBlock = [&](int) {
        std::filesystem::remove(directory.File("old/take.wav"));
        throw std::bad_alloc();
    };

    Save(List({Setting("old/take.wav", 0.5)}));

    EXPECT_TRUE(Exists("old"));
}

TEST_F(SaveThreadTest, ADirectoryCreatedByAnEarlierRequestStays) {
    MakeRecording(1'000, true);
    Save(List({Setting("new/take.wav", 0.5)}));
    onBlock = [&](int) {
        std::filesystem::remove(directory.File("new/take.wav"));
        throw std::bad_alloc();
    };

    Save(List({Setting("new/take.wav", 0.5)}));

    EXPECT_TRUE(Exists("new"));
}

TEST_F(SaveThreadTest, RunningOutOfMemoryIsAFailedSave) {
    MakeRecording(1'000, true);
    onBlock = [](int block) {
        if (block == 2) {
            throw std::bad_alloc();
        }
    };

    Save(List({Setting("take.wav", 0.5)}));

    EXPECT_EQ(manager.Log(), (Log{kFinished, "message 3"}));
    EXPECT_EQ(manager.Messages(), (Messages{{VrMessageSaveFailed, directory.File("take.wav")}}));
}

TEST_F(SaveThreadTest, ANotificationThatThrowsDoesNotKeepTheNextBack) {
    MakeRecording(1'000);
    manager.onOperation = [](VrRecOperation) { throw std::bad_alloc(); };

    Save(List({Setting("no/parent/take.wav", 0.5)}));

    EXPECT_EQ(manager.Log(), (Log{kFinished, "message 3"}));
}

TEST_F(SaveThreadTest, AnEmptyRequestStillFinishes) {
    MakeRecording(1'000);

    Save(List({}));
    Save(nullptr);
    ASSERT_EQ(thread.Start(List({Setting("take.wav", 0.5)}), nullptr, nullptr), VrSuccess);
    thread.WaitFinished();

    EXPECT_EQ(manager.Log(), (Log{kFinished, kFinished, kFinished}));
    EXPECT_FALSE(Exists("take.wav"));
}

TEST_F(SaveThreadTest, ARequestWithoutASampleTypeStillFinishes) {
    Save(List({Setting("take.wav", 0.5)}));  // nothing was ever recorded

    EXPECT_EQ(manager.Log(), (Log{kFinished}));
    EXPECT_FALSE(Exists("take.wav"));
}

TEST_F(SaveThreadTest, ASaveDuringASaveIsRefusedAndTheFirstGoesOn) {
    MakeRecording(1'000, true);
    std::binary_semaphore reached(0);
    std::binary_semaphore goOn(0);
    onBlock = [&](int block) {
        if (block == 1) {
            reached.release();
            goOn.acquire();
        }
    };
    SaveList list = List({Setting("one.wav", 0.5), Setting("two.wav", 0.5)});
    ASSERT_EQ(thread.SaveFiles(list, recording.data), VrSuccess);
    reached.acquire();

    list = List({Setting("three.wav", 0.5)});  // the manager's own list is another one now
    EXPECT_EQ(thread.SaveFiles(list, recording.data), VrErrorFailed);
    list.reset();
    goOn.release();
    thread.WaitFinished();

    EXPECT_EQ(SizeOf("one.wav"), 44U + 1'000);
    EXPECT_EQ(SizeOf("two.wav"), 44U + 1'000);
    EXPECT_FALSE(Exists("three.wav"));
    EXPECT_EQ(manager.Log(), (Log{kFinished}));
}

TEST_F(SaveThreadTest, TheListIsLetGoAtTheEnd) {
    MakeRecording(1'000);
    const SaveList list = List({Setting("take.wav", 0.5)});

    Save(list);

    EXPECT_EQ(list.use_count(), 1);
}

TEST_F(SaveThreadTest, TheNextSaveMayStartFromWithinTheNotification) {
    MakeRecording(1'000);
    int starts = 1;
    manager.onOperation = [&](VrRecOperation) {
        if (++starts <= 5) {
            EXPECT_EQ(thread.SaveFiles(List({Setting(std::to_string(starts) + ".wav", 0.5)}),
                                       recording.data),
                      VrSuccess);
        }
    };

    Save(List({Setting("1.wav", 0.5)}));

    EXPECT_EQ(manager.Log(), Log(5, kFinished));
    for (const char* name : {"1.wav", "2.wav", "3.wav", "4.wav", "5.wav"}) {
        EXPECT_EQ(SizeOf(name), 44U + 1'000) << name;
    }
}

TEST_F(SaveThreadTest, AFailedSaveStillReportsItselfWhenTheNextHasStarted) {
    MakeRecording(1'000, true);
    std::binary_semaphore messageMade(0);
    onBlock = [&](int block) {
        if (block == 1) {
            std::filesystem::remove(directory.File("new/take.wav"));
            throw std::bad_alloc();
        }
        if (block == 2) {  // in the next save: the first one has all its last lines to itself
            EXPECT_EQ(thread.SaveCancel(false), VrSuccess);  // meant for the next one
            messageMade.acquire();
        }
    };
    bool first = true;
    manager.onOperation = [&](VrRecOperation) {
        if (std::exchange(first, false)) {
            EXPECT_EQ(thread.SaveFiles(List({Setting("next.wav", 0.2)}), recording.data),
                      VrSuccess);
        }
    };
    manager.onMessage = [&](int, const char*) { messageMade.release(); };

    Save(List({Setting("new/take.wav", 0.5)}));

    EXPECT_EQ(manager.Messages(),
              (Messages{{VrMessageSaveFailed, directory.File("new/take.wav")}}));
    EXPECT_FALSE(Exists("new"));
    EXPECT_TRUE(Exists("next.wav"));
}

TEST_F(SaveThreadTest, ATakeThatBeginsDuringASaveFailsTheFileAndIsNotMixedIn) {
    for (const std::uint16_t channels :
         std::vector<std::uint16_t>{1, 8}) {  // the same form, and a wider one
        MakeRecording(1'000, true);
        blockCount = 0;
        onBlock = [&](int block) {
            if (block == 3) {
                recording.Make(channels, 1'000, 1'000, Recording::Steps, &callingType);
            }
        };

        Save(List({Setting("take.wav", 1.0)}));

        EXPECT_EQ(blockCount, 3) << "nothing of the new take is converted";
        EXPECT_EQ(manager.Messages().back(),
                  (FakeManager::Message{VrMessageSaveFailed, directory.File("take.wav")}));
        EXPECT_EQ(SizeOf("take.wav"), 44U + 3 * 200U);
    }
}

TEST_F(SaveThreadTest, DiscardingTheRecordingDuringASaveFailsTheFile) {
    MakeRecording(1'000, true);
    onBlock = [&](int block) {
        if (block == 3) {
            EXPECT_EQ(recording.data.TemporaryClear(), VrSuccess);
        }
    };

    Save(List({Setting("take.wav", 1.0), Setting("next.wav", 1.0)}));

    EXPECT_EQ(manager.Messages(), (Messages{{VrMessageSaveFailed, directory.File("take.wav")}}));
    EXPECT_FALSE(Exists("next.wav"));
}

TEST_F(SaveThreadTest, DestructionWaitsForTheSave) {
    MakeRecording(1'000);
    {
        SaveThread other(manager);
        other.SetBits(16);
        ASSERT_EQ(other.SaveFiles(List({Setting("take.wav", 1.0)}), recording.data), VrSuccess);
    }

    EXPECT_EQ(SizeOf("take.wav"), 44U + 2'000);
    EXPECT_EQ(manager.Log(), (Log{kFinished}));
}

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
    /// Waits until the request has come to that block of `blocks`, which counts as soon as it
    /// begins.
    void WaitForBlock(int block, int blocks) {
        EXPECT_TRUE(manager.WaitUntil([&] {
            int file = 0;
            int total = 0;
            return thread.GetProgress(file, total) == VrSuccess && total >= block * 1'000 / blocks;
        }));
    }
};

TEST_F(SaveThreadDsdTest, RunningOutOfMemoryUnderACancelIsACancel) {
    MakeDsdRecording(1, 4);
    std::filesystem::create_directory(directory.File("taken.dsf"));  // cannot be opened: skipped
    manager.onMessage = [&](int, const char*) {
        EXPECT_EQ(thread.SaveCancel(false), VrSuccess);
        throw std::bad_alloc();
    };

    Save(List({Titled("taken.dsf", 2.0)}));

    EXPECT_EQ(manager.Log(), (Log{"message 4", kFinished}));  // and no word of a failed save
}

TEST_F(SaveThreadTest, AHostsRoundingModeChangesNoFrameAndNoSample) {
    // 0.7 s x 1,000 Hz is 699.99... in double precision and 700 when rounded upwards, 0.3 alike;
    // the gain's factor has a last bit of its own in every mode.
    MakeRecording(1'000);
    VrSaveSettingInternal setting = Setting("near.wav", 0.7, 0.3);
    setting.gain = -7.3;
    Save(List({setting}));
    for (const int mode : {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
        setting.path = directory.File("turned.wav");
        ASSERT_EQ(std::fesetround(mode), 0);
        Save(List({setting}));
        ASSERT_EQ(std::fesetround(FE_TONEAREST), 0);

        EXPECT_EQ(ReadBytes(directory.File("turned.wav")), ReadBytes(directory.File("near.wav")));
    }
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
    ASSERT_EQ(thread.SaveFiles(List({Setting("take.dsf", 400.0)}), recording.data), VrSuccess);
    // 255 blocks and the header fit into the stream's 1,048,576 bytes: it is stuck in the 256th.
    WaitForBlock(256, 400);
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
    ASSERT_EQ(thread.SaveFiles(List({Titled("old/take.dsf", 400.0), Titled("next.dsf", 1.0)}),
                               recording.data),
              VrSuccess);
    WaitForBlock(256, 401);

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
    ASSERT_EQ(thread.SaveFiles(List({Titled("take.dsf", 400.0), Titled("next.dsf", 1.0)}),
                               recording.data),
              VrSuccess);
    WaitForBlock(256, 401);

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
    ASSERT_EQ(thread.SaveFiles(List({Titled("take.dsf", 100.0)}), recording.data), VrSuccess);
    WaitForBlock(100, 100);

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
    ASSERT_EQ(thread.SaveFiles(List({Titled("take.dsf", 400.0), Titled("next.dsf", 1.0)}),
                               recording.data),
              VrSuccess);
    WaitForBlock(256, 401);

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

/// Makes a directory the process's working directory.
class WorkingDirectory {
public:
    explicit WorkingDirectory(const std::string& path) : old(std::filesystem::current_path()) {
        std::filesystem::current_path(path);
    }
    ~WorkingDirectory() { std::filesystem::current_path(old); }
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;

private:
    const std::filesystem::path old;
};

class PreviewFileTest : public SaveThreadTest {
protected:
    /// Three stereo preview frames, and `more` frames of silence behind them.
    void MakePreview(std::size_t more) {
        ASSERT_TRUE(ranges.Reset());
        ranges.AddRecordEvent(0, kRecordEventRecord);
        ASSERT_EQ(preview.Init(2, 44'100, &ranges), VrSuccess);
        std::vector<std::int16_t> frames = {1, -1, 258, -32'768, 32'767, 0};
        frames.resize(frames.size() + 2 * more);
        ASSERT_EQ(preview.Add(frames), VrSuccess);
        ASSERT_EQ(thread.Start(nullptr, nullptr, &preview), VrSuccess);
        thread.WaitFinished();
    }

    RecordRangeManager ranges;
    PreviewData preview{manager};
};

TEST_F(PreviewFileTest, IsA16BitFileOfTheWholePreviewNamedAfterTheTime) {
    MakePreview(0);
    const WorkingDirectory inside(directory.Path());
    constexpr FieldCheck kPreview[] = {
        {0, 4, Id("RIFF"), "chunk id"},
        {4, 4, 12 + 36, "RIFF size"},
        {8, 4, Id("WAVE"), "form type"},
        {12, 4, Id("fmt "), "format chunk id"},
        {16, 4, 16, "format chunk size"},
        {20, 2, 1, "format tag"},
        {22, 2, 2, "channels"},
        {24, 4, 44'100, "sample rate"},
        {28, 4, 176'400, "byte rate"},
        {32, 2, 4, "block align"},
        {34, 2, 16, "bits per sample"},
        {36, 4, Id("data"), "data chunk id"},
        {40, 4, 12, "data size"},
        {44, 2, 1, "frame 0, left"},
        {46, 2, 65'535, "frame 0, right"},
        {48, 2, 258, "frame 1, left"},
        {50, 2, 32'768, "frame 1, right"},
        {52, 2, 32'767, "frame 2, left"},
        {54, 2, 0, "frame 2, right"},
    };

    EXPECT_EQ(thread.SavePreviewFile(), VrSuccess);

    const std::filesystem::directory_iterator first(directory.Path());
    ASSERT_NE(first, std::filesystem::directory_iterator());
    EXPECT_THAT(first->path().filename().string(),
                testing::MatchesRegex("[0-9]{8}_[0-9]{6}\\.wav"));
    CheckFields(ReadBytes(first->path().string()), kPreview);
}

TEST_F(PreviewFileTest, IsWrittenOverManyBlocks) {
    MakePreview(10'000);
    const WorkingDirectory inside(directory.Path());

    EXPECT_EQ(thread.SavePreviewFile(), VrSuccess);

    const std::filesystem::directory_iterator first(directory.Path());
    ASSERT_NE(first, std::filesystem::directory_iterator());
    EXPECT_EQ(std::filesystem::file_size(first->path()), 44U + 10'003 * 4);
}

TEST_F(PreviewFileTest, NeedsPreviewData) {
    const WorkingDirectory inside(directory.Path());

    EXPECT_EQ(thread.SavePreviewFile(), VrErrorFailed);

    EXPECT_TRUE(std::filesystem::is_empty(directory.Path()));
}

TEST_F(PreviewFileTest, IsNotGivenByASaveRequest) {
    MakePreview(0);
    MakeRecording(100);
    Save(List({}));
    const WorkingDirectory inside(directory.Path());

    EXPECT_EQ(thread.SavePreviewFile(), VrErrorFailed);
}

TEST_F(PreviewFileTest, FailsWhereItCannotBeOpened) {
    MakePreview(0);
    std::filesystem::create_directory(directory.File("gone"));
    const WorkingDirectory inside(directory.File("gone"));
    std::filesystem::remove(directory.File("gone"));

    EXPECT_EQ(thread.SavePreviewFile(), VrErrorFailed);
}

TEST_F(PreviewFileTest, OfAnEmptyPreviewIsAHeader) {
    ASSERT_EQ(thread.Start(nullptr, nullptr, &preview), VrSuccess);
    thread.WaitFinished();
    const WorkingDirectory inside(directory.Path());

    EXPECT_EQ(thread.SavePreviewFile(), VrSuccess);

    const std::filesystem::directory_iterator first(directory.Path());
    ASSERT_NE(first, std::filesystem::directory_iterator());
    EXPECT_EQ(std::filesystem::file_size(first->path()), 44U);
}

}  // namespace
}  // namespace vorrel
