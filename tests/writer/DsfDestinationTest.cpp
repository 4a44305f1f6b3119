#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "support/FileBytes.h"
#include "support/SmallVolume.h"
#include "writer/DsfWriterRig.h"
#include "writer/SaveRun.h"

namespace vorrel {
namespace {

using test::Bytes;
using test::DsfWriterTest;
using test::LittleEndian;
using test::Messages;
using test::ReadBytes;
using test::SmallVolume;

TEST_F(DsfWriterTest, AFileThatItsVolumeCannotHoldIsSkippedAndNotMade) {
    MakeRecording(1, 4'096);
    static std::uint64_t askedBytes = 0;
    run.volumeTakes = [](const std::string&, std::uint64_t bytes) {
        askedBytes = bytes;
        return false;
    };
    VrSaveSettingInternal setting = Setting(0, 0.75);
    setting.tags = {{"Title", "AB"}};

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    EXPECT_EQ(askedBytes, 92U + 4'096 + 27);
    EXPECT_FALSE(std::filesystem::exists(directory.File("take.dsf")));
    EXPECT_EQ(manager.Messages(), (Messages{{VrMessageFileSkipped, directory.File("take.dsf")}}));
    EXPECT_EQ(progress.overallPosition, 24'576U);
    EXPECT_EQ(progress.fileLength, 24'576U);
    EXPECT_EQ(progress.filePosition, 0U);
}

TEST_F(DsfWriterTest, ASkippedFileIsNoCancelledOne) {
    MakeRecording(1, 4'096);
    run.volumeTakes = [](const std::string&, std::uint64_t) { return false; };
    cancelState = kSaveCancelDelete;

    EXPECT_EQ(Save(0, 1), VrSuccess);
}

/// 5 GiB of samples in all, though the recording ends after a block.
constexpr double kFiveGibibyteSeconds = 5.0 * 1'073'741'824 * 8 / 2 / 32'768;
template <bool (*takes)(std::uint64_t)>
bool VolumeTakes(const std::string&, std::uint64_t bytes) {
    return takes(bytes);
}
bool Fat32Takes(std::uint64_t bytes) {
    return FileSystemTakes("FAT32", 1'000'000, bytes);
}
bool JournaledTakes(std::uint64_t bytes) {
    return FileSystemTakes("hfs journaled", 1'000'000, bytes);
}

TEST_F(DsfWriterTest, AFileOfFiveGibibytesIsSkippedOnFat32) {
    const SmallVolume volume(std::size_t{6} << 30U);  // takes no more memory than is written
    if (!volume.Mounted()) {
        GTEST_SKIP() << "a volume of our own needs the rights to mount one";
    }
    MakeRecording(2, 4'096);
    run.volumeTakes = &VolumeTakes<Fat32Takes>;
    const VrSaveSettingInternal setting{volume.File("take.dsf"), 0, kFiveGibibyteSeconds, 0, {}};

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    EXPECT_FALSE(std::filesystem::exists(setting.path));
    EXPECT_EQ(manager.Messages(), (Messages{{VrMessageFileSkipped, setting.path}}));
    EXPECT_EQ(progress.overallPosition, 21'474'836'480U);
}

TEST_F(DsfWriterTest, AFileOfFiveGibibytesIsBegunOnAJournaledVolume) {
    const SmallVolume volume(std::size_t{6} << 30U);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "a volume of our own needs the rights to mount one";
    }
    MakeRecording(2, 4'096);
    run.volumeTakes = &VolumeTakes<JournaledTakes>;
    const VrSaveSettingInternal setting{volume.File("take.dsf"), 0, kFiveGibibyteSeconds, 0, {}};

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed) << "where the recording ends";

    const Bytes bytes = ReadBytes(setting.path);
    EXPECT_EQ(bytes.size(), 92U + 8'192);
    EXPECT_EQ(LittleEndian(bytes, 12, 8), 5'368'709'120U + 92);
    EXPECT_EQ(LittleEndian(bytes, 64, 8), 21'474'836'480U);
    EXPECT_EQ(LittleEndian(bytes, 84, 8), 5'368'709'120U + 12);
    EXPECT_TRUE(manager.Messages().empty());
}

TEST_F(DsfWriterTest, AFileThatCannotBeOpenedIsSkipped) {
    MakeRecording(2, 4'096);
    std::filesystem::create_directory(directory.File("take.dsf"));

    EXPECT_EQ(Save(0, 0.5), VrSuccess);

    EXPECT_EQ(manager.Messages(), (Messages{{VrMessageFileSkipped, directory.File("take.dsf")}}));
    EXPECT_EQ(progress.overallPosition, 16'384U);
}

TEST_F(DsfWriterTest, AFileThatCannotBeOpenedWhileACancelIsPendingIsCancelled) {
    MakeRecording(2, 4'096);
    std::filesystem::create_directory(directory.File("take.dsf"));
    for (const std::int32_t pending : {kSaveCancelDelete, kSaveCancelKeep}) {
        cancelState = pending;

        EXPECT_EQ(Save(0, 0.5), VrErrorCanceled);
    }

    EXPECT_EQ(manager.Messages().size(), 2U);
    EXPECT_EQ(progress.overallPosition, 2 * 16'384U);
}

TEST_F(DsfWriterTest, AnExistingFileIsReplaced) {
    MakeRecording(1, 4'096);
    std::ofstream(directory.File("take.dsf")) << std::string(50'000, 'x');

    EXPECT_EQ(Save(0, 1), VrSuccess);

    EXPECT_EQ(Saved().size(), 92U + 4'096);
}

TEST_F(DsfWriterTest, APathWithoutASlashFails) {
    MakeRecording(1, 4'096);
    const VrSaveSettingInternal setting{"take of a test.dsf", 0, 1, 0, {}};

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);

    EXPECT_FALSE(std::filesystem::exists("take of a test.dsf"));
}

TEST_F(DsfWriterTest, AMissingParentDirectoryFailsAtTheSpaceCheck) {
    MakeRecording(1, 4'096);
    const VrSaveSettingInternal setting = Setting(0, 1, "no/parent/take.dsf");

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);

    EXPECT_TRUE(manager.Messages().empty());
    EXPECT_FALSE(std::filesystem::exists(directory.File("no")));
}

TEST_F(DsfWriterTest, AMissingDirectoryIsMade) {
    MakeRecording(1, 4'096);
    const VrSaveSettingInternal setting = Setting(0, 1, "new/take.dsf");

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    EXPECT_EQ(ReadBytes(setting.path).size(), 92U + 4'096);
    EXPECT_EQ(run.createdDirectory, directory.File("new/"));
}

TEST_F(DsfWriterTest, TooLittleSpaceFailsBeforeTheFileIsMade) {
    const SmallVolume volume(16 * 4'096);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "a volume of our own needs the rights to mount one";
    }
    MakeRecording(1, 16 * 4'096);
    const VrSaveSettingInternal setting{volume.File("new/take.dsf"), 0, 16, 0, {}};

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);

    EXPECT_TRUE(std::filesystem::is_directory(volume.File("new")));
    EXPECT_FALSE(std::filesystem::exists(volume.File("new/take.dsf")));
}

TEST_F(DsfWriterTest, TheSpaceForPaddingAndTagIsAskedFor) {
    const SmallVolume volume(16 * 4'096);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "a volume of our own needs the rights to mount one";
    }
    MakeRecording(1, 16 * 4'096);
    // 92 bytes, 15 blocks: 61,532 bytes, which leaves 4,004 for the tag: 10 + 13 + 2 x 1,990.
    VrSaveSettingInternal setting{volume.File("take.dsf"), 0, 14.25, 0, {}};
    setting.tags = {{"Title", std::string(1'991, 'x')}};

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);
    EXPECT_FALSE(std::filesystem::exists(setting.path));
    setting.tags = {{"Title", std::string(1'990, 'x')}};
    EXPECT_EQ(SaveFile(&setting), VrSuccess);
    EXPECT_EQ(ReadBytes(setting.path).size(), 65'535U);
}

}  // namespace
}  // namespace vorrel
