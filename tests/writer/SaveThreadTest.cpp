#include <gtest/gtest.h>

#include <cfenv>
#include <filesystem>
#include <new>
#include <optional>
#include <semaphore>
#include <string>
#include <utility>
#include <vector>

#include "support/FakeManager.h"
#include "support/FileBytes.h"
#include "support/Recording.h"
#include "writer/SaveThread.h"
#include "writer/SaveThreadRig.h"

namespace vorrel {
namespace {

using test::blockCount;
using test::FakeManager;
using test::kFinished;
using test::Log;
using test::Messages;
using test::onBlock;
using test::ReadBytes;
using test::Recording;
using test::SaveThreadTest;

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

}  // namespace
}  // namespace vorrel
