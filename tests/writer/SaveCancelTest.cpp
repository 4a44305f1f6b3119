#include <gtest/gtest.h>

#include <filesystem>
#include <semaphore>

#include "support/FileBytes.h"
#include "writer/SaveThreadRig.h"

namespace vorrel {
namespace {

using test::Bytes;
using test::kFinished;
using test::LittleEndian;
using test::Log;
using test::onBlock;
using test::ReadBytes;
using test::SaveThreadTest;

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
    std::binary_semaphore running(0);  // the caller knows of it, too
    onBlock = [&](int block) {
        if (block == 2) {
            running.acquire();
            EXPECT_EQ(thread.SaveCancel(true), VrSuccess);
            EXPECT_EQ(thread.SaveFiles(List({Setting("other.wav", 1.0)}), recording.data),
                      VrErrorFailed);
        }
    };

    ASSERT_EQ(thread.SaveFiles(List({Setting("take.wav", 1.0)}), recording.data), VrSuccess);
    running.release();
    thread.WaitFinished();

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

}  // namespace
}  // namespace vorrel
