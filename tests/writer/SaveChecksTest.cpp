#include "writer/SaveChecks.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "support/SmallVolume.h"
#include "support/TempDirectory.h"
#include "writer/OtherSystem.h"

namespace vorrel {
namespace {

using test::FatVolume;
using test::SmallVolume;
using test::TempDirectory;

constexpr std::uint64_t kMiB = 1'048'576;
constexpr std::uint64_t kGiB = 1'073'741'824;

void Touch(const std::string& path) {
    std::ofstream(path) << "x";
}

TEST(FileSizeLimitTest, PassesTheBoundAndRefusesOneByteMore) {
    struct Row {
        const char* name;
        std::uint64_t totalBlocks;
        std::uint64_t bound;
    };
    constexpr Row kRows[] = {
        {"FAT32", 100'000, 4'294'967'296}, {"FAT32", 0, 4'294'967'296},
        {"FAT", 4'084, 33'554'432},        {"FAT", 0, 33'554'432},
        {"FAT", 4'085, 2'147'483'648},     {"FAT", 65'524, 2'147'483'648},
        {"hfs", 1'000'000, 2'147'483'648}, {"ufs", 1'000'000, 4'294'967'296},
    };
    for (const Row& row : kRows) {
        EXPECT_TRUE(FileSystemTakes(row.name, row.totalBlocks, row.bound)) << row.name;
        EXPECT_FALSE(FileSystemTakes(row.name, row.totalBlocks, row.bound + 1)) << row.name;
    }
}

TEST(FileSizeLimitTest, FiveGibibytesDoNotFitOnFat32ButOnAJournaledVolume) {
    EXPECT_FALSE(FileSystemTakes("FAT32", 1'000'000, 5 * kGiB));
    EXPECT_TRUE(FileSystemTakes("hfs journaled", 1'000'000, 5 * kGiB));
}

TEST(FileSizeLimitTest, EveryOtherFileSystemHasNoLimit) {
    for (const char* name : {"hfs plus", "hfs case-sensitive", "hfs case-sensitive, journaled",
                             "ext4", "exfat", "tmpfs", "fat32", "FAT3", "FAT32 ", "HFS", ""}) {
        EXPECT_TRUE(FileSystemTakes(name, 100, ~std::uint64_t{0})) << name;
    }
}

TEST(SaveChecksTest, TheDirectoryPartEndsWithTheLastSlash) {
    EXPECT_EQ(DirectoryPart("/a/b/c.wav"), "/a/b/");
    EXPECT_EQ(DirectoryPart("/c.wav"), "/");
    EXPECT_EQ(DirectoryPart("a/b/"), "a/b/");
    EXPECT_EQ(DirectoryPart("c.wav"), "");
    EXPECT_EQ(DirectoryPart(""), "");
}

TEST(SaveChecksTest, AMissingDirectoryIsCreatedAndReported) {
    const TempDirectory directory;
    std::string created;

    EXPECT_EQ(SaveCreateDirectory(directory.File("new/take.wav"), created), VrSuccess);

    EXPECT_TRUE(std::filesystem::is_directory(directory.File("new")));
    EXPECT_EQ(created, directory.File("new/"));
}

TEST(SaveChecksTest, TheLastCreatedDirectoryIsTheOneReported) {
    const TempDirectory directory;
    std::string created;

    EXPECT_EQ(SaveCreateDirectory(directory.File("one/take.wav"), created), VrSuccess);
    EXPECT_EQ(SaveCreateDirectory(directory.File("two/take.wav"), created), VrSuccess);
    EXPECT_EQ(SaveCreateDirectory(directory.File("one/take.wav"), created), VrSuccess);

    EXPECT_EQ(created, directory.File("two/"));
}

TEST(SaveChecksTest, ADirectoryThatWasThereIsNotReported) {
    const TempDirectory directory;
    std::string created;

    EXPECT_EQ(SaveCreateDirectory(directory.File("take.wav"), created), VrSuccess);

    EXPECT_EQ(created, "");
}

TEST(SaveChecksTest, ADirectoryThatCannotBeCreatedIsNoFailureYet) {
    const TempDirectory directory;
    std::string created;

    EXPECT_EQ(SaveCreateDirectory(directory.File("no/parent/take.wav"), created), VrSuccess);

    EXPECT_EQ(created, "");
    EXPECT_FALSE(std::filesystem::exists(directory.File("no")));
}

TEST(SaveChecksTest, APathWithoutASlashHasNoDirectory) {
    std::string created;

    EXPECT_EQ(SaveCreateDirectory("take.wav", created), VrErrorFailed);
    EXPECT_FALSE(CheckDiskSpace("take.wav", 0));
    EXPECT_FALSE(CheckFileSystemFileSizeLimit("take.wav", 0));
}

TEST(SaveChecksTest, AMissingDirectoryHasNoSpaceAndNoFileSystem) {
    const TempDirectory directory;

    EXPECT_FALSE(CheckDiskSpace(directory.File("none/take.wav"), 0));
    EXPECT_FALSE(CheckFileSystemFileSizeLimit(directory.File("none/take.wav"), 0));
}

TEST(SaveChecksTest, SpaceIsCheckedWithoutAMargin) {
    const SmallVolume volume(64 * 1024);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "a volume of our own needs the rights to mount one";
    }

    EXPECT_TRUE(CheckDiskSpace(volume.File("take.wav"), 64 * 1024));
    EXPECT_FALSE(CheckDiskSpace(volume.File("take.wav"), 64 * 1024 + 1));
}

TEST(SaveChecksTest, TheVolumeOfTheTestsTakesLargeFiles) {
    const SmallVolume volume(kMiB);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "a volume of our own needs the rights to mount one";
    }

    EXPECT_TRUE(CheckFileSystemFileSizeLimit(volume.File("take.wav"), 100 * kGiB));
}

TEST(SaveChecksTest, OnAFatVolumeTheCountOfItsBlocksSetsTheLimit) {
    const TempDirectory directory;
    const std::string path = directory.File("take.wav");
    for (const auto& [blocks, limit] : std::vector<std::pair<std::uint64_t, std::uint64_t>>{
             {4'084, 32 * kMiB}, {4'085, 2 * kGiB}, {65'524, 2 * kGiB}, {65'525, 4 * kGiB}}) {
        const FatVolume volume(blocks);

        EXPECT_TRUE(CheckFileSystemFileSizeLimit(path, limit)) << blocks;
        EXPECT_FALSE(CheckFileSystemFileSizeLimit(path, limit + 1)) << blocks;
    }
}

TEST(SaveChecksTest, DeletingTakesTheFileAndItsEmptyDirectory) {
    const TempDirectory directory;
    std::filesystem::create_directory(directory.File("sub"));
    Touch(directory.File("sub/take.wav"));
    const VrSaveSettingInternal setting{directory.File("sub/take.wav"), 0, 1, 0, {}};

    EXPECT_EQ(DeleateSaveFile(&setting), VrSuccess);

    EXPECT_FALSE(std::filesystem::exists(directory.File("sub")));
    EXPECT_TRUE(std::filesystem::exists(directory.Path()));
}

TEST(SaveChecksTest, DeletingLeavesADirectoryWithOtherFiles) {
    const TempDirectory directory;
    Touch(directory.File("take.wav"));
    Touch(directory.File("other.wav"));
    const VrSaveSettingInternal setting{directory.File("take.wav"), 0, 1, 0, {}};

    EXPECT_EQ(DeleateSaveFile(&setting), VrSuccess);

    EXPECT_FALSE(std::filesystem::exists(directory.File("take.wav")));
    EXPECT_TRUE(std::filesystem::exists(directory.File("other.wav")));
}

TEST(SaveChecksTest, DeletingTakesALinkToADirectoryThatIsEmptyThen) {
    const TempDirectory directory;
    std::filesystem::create_directory(directory.File("real"));
    for (const char* path : {"link/take.wav", "link//take.wav"}) {
        std::filesystem::create_directory_symlink(directory.File("real"), directory.File("link"));
        Touch(directory.File("real/take.wav"));
        const VrSaveSettingInternal setting{directory.File(path), 0, 1, 0, {}};

        EXPECT_EQ(DeleateSaveFile(&setting), VrSuccess);

        EXPECT_FALSE(std::filesystem::is_symlink(directory.File("link"))) << path;
        EXPECT_TRUE(std::filesystem::is_empty(directory.File("real"))) << path;
    }
}

TEST(SaveChecksTest, DeletingLeavesALinkToADirectoryWithOtherFiles) {
    const TempDirectory directory;
    std::filesystem::create_directory(directory.File("real"));
    std::filesystem::create_directory_symlink(directory.File("real"), directory.File("link"));
    Touch(directory.File("real/take.wav"));
    Touch(directory.File("real/other.wav"));
    const VrSaveSettingInternal setting{directory.File("link/take.wav"), 0, 1, 0, {}};

    EXPECT_EQ(DeleateSaveFile(&setting), VrSuccess);

    EXPECT_TRUE(std::filesystem::is_symlink(directory.File("link")));
    EXPECT_TRUE(std::filesystem::exists(directory.File("real/other.wav")));
}

TEST(SaveChecksTest, DeletingLeavesAFileInTheDirectorysPlace) {
    const TempDirectory directory;
    Touch(directory.File("file"));
    const VrSaveSettingInternal setting{directory.File("file/take.wav"), 0, 1, 0, {}};

    EXPECT_EQ(DeleateSaveFile(&setting), VrSuccess);

    EXPECT_TRUE(std::filesystem::exists(directory.File("file")));
}

TEST(SaveChecksTest, DeletingLeavesADirectoryOfTheFilesNameAlone) {
    const TempDirectory directory;
    std::filesystem::create_directory(directory.File("take.wav"));
    const VrSaveSettingInternal setting{directory.File("take.wav"), 0, 1, 0, {}};

    EXPECT_EQ(DeleateSaveFile(&setting), VrSuccess);

    EXPECT_TRUE(std::filesystem::is_directory(directory.File("take.wav")));
}

TEST(SaveChecksTest, DeletingNothingOrWithoutADirectory) {
    const VrSaveSettingInternal missing{"no such file of the tests.wav", 0, 1, 0, {}};

    EXPECT_EQ(DeleateSaveFile(nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(DeleateSaveFile(&missing), VrSuccess);
}

}  // namespace
}  // namespace vorrel
