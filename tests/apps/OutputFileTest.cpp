#include "OutputFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "ExitCode.h"
#include "PrivateDirectory.h"
#include "support/FileBytes.h"
#include "support/TempDirectory.h"

namespace vorrel::cli {
namespace {

using test::ReadBytes;
using test::TempDirectory;
using test::ToBytes;

void Write(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

std::string Refusal(const std::string& target, bool force) {
    try {
        OutputFile(ResolveTarget(target), force).Check();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exit, ExitCode::Usage);
        return failure.what();
    }
    return "";
}

TEST(OutputFileTest, StagesBesideTheTargetUnderAHiddenNameOfItsOwn) {
    const OutputFile file("/some/where/take.wav", false);

    EXPECT_EQ(file.StagingPath(), "/some/where/.take.wav.partial-" + std::to_string(::getpid()));
}

TEST(OutputFileTest, AForeignStagedFileIsNeitherUsedNorDeleted) {
    const TempDirectory directory;
    const std::string name = directory.File(".a.wav.partial-" + std::to_string(::getpid()));
    Write(name, "kept by an earlier process of our number");
    {
        const OutputFile file(directory.File("a.wav"), false);
        file.Check();
        EXPECT_EQ(file.StagingPath(), name + "-2");
    }
    EXPECT_TRUE(std::filesystem::exists(name));
}

TEST(OutputFileTest, ACheckLeavesNothingBehind) {
    const TempDirectory directory;

    EXPECT_EQ(Refusal(directory.File("a.wav"), false), "");

    EXPECT_TRUE(std::filesystem::is_empty(directory.Path()));
}

TEST(OutputFileTest, AnExistingFileNeedsForce) {
    const TempDirectory directory;
    Write(directory.File("a.wav"), "old");

    EXPECT_THAT(Refusal(directory.File("a.wav"), false), testing::HasSubstr("--force"));
    EXPECT_EQ(Refusal(directory.File("a.wav"), true), "");
    EXPECT_EQ(ReadBytes(directory.File("a.wav")), ToBytes("old"));
}

TEST(OutputFileTest, NeverAimsAtADirectoryADeviceOrADanglingLink) {
    const TempDirectory directory;
    std::filesystem::create_symlink("nowhere", directory.File("link.wav"));

    EXPECT_THAT(Refusal(directory.Path(), true), testing::HasSubstr("directory"));
    EXPECT_THAT(Refusal(directory.Path() + "/", true), testing::HasSubstr("directory"));
    EXPECT_THAT(Refusal("/dev/null", true), testing::HasSubstr("regular"));
    EXPECT_THAT(Refusal(directory.File("link.wav"), true), testing::HasSubstr("link"));
    EXPECT_THAT(Refusal(directory.File("missing/a.wav"), true), testing::HasSubstr("missing"));
    EXPECT_THAT(Refusal("/proc/a.wav", true), testing::HasSubstr("cannot be written"));
    EXPECT_THAT(Refusal("", true), testing::HasSubstr("empty"));
    EXPECT_THAT(Refusal(directory.File(std::string(300, 'a')), true),
                testing::HasSubstr("too long"));
}

TEST(OutputFileTest, TwoSpellingsOfAFileAreOneTarget) {
    const TempDirectory directory;
    Write(directory.File("a.wav"), "old");
    std::filesystem::create_symlink(directory.File("a.wav"), directory.File("link.wav"));

    EXPECT_EQ(ResolveTarget(directory.Path() + "/./b.wav"), ResolveTarget(directory.File("b.wav")));
    EXPECT_EQ(ResolveTarget(directory.File("link.wav")), ResolveTarget(directory.File("a.wav")));
}

TEST(OutputFileTest, CommitsUnderTheTargetsName) {
    const TempDirectory directory;
    OutputFile file(directory.File("a.wav"), false);
    Write(file.StagingPath(), "new");

    EXPECT_EQ(file.Commit(), directory.File("a.wav"));

    EXPECT_EQ(ReadBytes(directory.File("a.wav")), ToBytes("new"));
    EXPECT_FALSE(std::filesystem::exists(file.StagingPath()));
}

TEST(OutputFileTest, AFileThatHasComeMeanwhileStaysAndTheNextFreeNameIsTaken) {
    const TempDirectory directory;
    OutputFile file(directory.File("a.wav"), false);
    Write(file.StagingPath(), "new");
    Write(directory.File("a.wav"), "theirs");
    Write(directory.File("a-2.wav"), "theirs, too");

    EXPECT_EQ(file.Commit(), directory.File("a-3.wav"));

    EXPECT_EQ(ReadBytes(directory.File("a.wav")), ToBytes("theirs"));
    EXPECT_EQ(ReadBytes(directory.File("a-2.wav")), ToBytes("theirs, too"));
    EXPECT_EQ(ReadBytes(directory.File("a-3.wav")), ToBytes("new"));
}

TEST(OutputFileTest, ForceReplaces) {
    const TempDirectory directory;
    OutputFile file(directory.File("a.wav"), true);
    Write(file.StagingPath(), "new");
    Write(directory.File("a.wav"), "old");

    EXPECT_EQ(file.Commit(), directory.File("a.wav"));

    EXPECT_EQ(ReadBytes(directory.File("a.wav")), ToBytes("new"));
}

TEST(OutputFileTest, WhatIsNotCommittedIsDeleted) {
    const TempDirectory directory;
    {
        const OutputFile file(directory.File("a.wav"), false);
        Write(file.StagingPath(), "half");
    }
    EXPECT_TRUE(std::filesystem::is_empty(directory.Path()));
}

TEST(WavSummaryTest, AFileIsCompleteWhenItHasTheBytesThatItAnnounces) {
    const TempDirectory directory;
    std::string bytes("RIFF\x2A\0\0\0WAVEfmt \x10\0\0\0\x01\0\x01\0", 24);  // 42 + 8 bytes
    bytes += std::string("\x44\xAC\0\0\xCC\x04\x02\0\x03\0\x18\0", 12);  // one channel of 24 bits
    bytes += std::string("data\x06\0\0\0", 8) + "abcdef";
    ASSERT_EQ(bytes.size(), 50U);

    Write(directory.File("whole.wav"), bytes);
    Write(directory.File("short.wav"), bytes.substr(0, 49));
    Write(directory.File("other.wav"), std::string(50, 'x'));

    EXPECT_TRUE(SummarizeWav(directory.File("whole.wav")).complete);
    EXPECT_EQ(SummarizeWav(directory.File("whole.wav")).frames, 2U);
    EXPECT_EQ(SummarizeWav(directory.File("whole.wav")).bytes, 50U);
    EXPECT_FALSE(SummarizeWav(directory.File("short.wav")).complete);
    EXPECT_FALSE(SummarizeWav(directory.File("other.wav")).complete);
    EXPECT_FALSE(SummarizeWav(directory.File("none.wav")).complete);
}

TEST(PrivateDirectoryTest, IsMadeInsideAndRemovedWithItsContents) {
    const TempDirectory directory;
    {
        const PrivateDirectory own(directory.Path());
        EXPECT_THAT(own.Path(), testing::StartsWith(directory.Path() + "/vorrel-"));
        Write(own.Path() + "/tmpAAAAAA", "spill");
    }
    EXPECT_TRUE(std::filesystem::is_empty(directory.Path()));
}

TEST(PrivateDirectoryTest, ABaseThatIsMissingIsRefused) {
    const TempDirectory directory;
    EXPECT_THROW(PrivateDirectory(directory.File("missing")), Failure);
}

}  // namespace
}  // namespace vorrel::cli
