#include "OutputFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "ExitCode.h"
#include "PrivateDirectory.h"
#include "Volumes.h"
#include "support/FileBytes.h"
#include "support/SmallVolume.h"
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
    EXPECT_THAT(Refusal(directory.File("missing/a.wav"), true),
                testing::EndsWith("there is no directory " + directory.File("missing")));
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

TEST(OutputFileTest, ARefusedReplacementTakesTheNextFreeName) {
    const TempDirectory directory;
    OutputFile file(directory.File("a.wav"), true);
    Write(file.StagingPath(), "new");
    // No file can take a directory's name.
    std::filesystem::create_directory(directory.File("a.wav"));

    EXPECT_EQ(file.Commit(), directory.File("a-2.wav"));

    EXPECT_EQ(ReadBytes(directory.File("a-2.wav")), ToBytes("new"));
}

TEST(OutputFileTest, AFileThatIsNotThereCannotBeCommittedAndIsNotKept) {
    const TempDirectory directory;
    OutputFile file(directory.File("a.wav"), false);

    EXPECT_THROW(file.Commit(), Failure);

    EXPECT_FALSE(file.IsKept());
}

TEST(OutputFileTest, AFreeNameIsTheFirstAtWhichThereIsNothing) {
    const TempDirectory directory;
    EXPECT_EQ(FreeName(directory.File("a.wav")), directory.File("a.wav"));
    Write(directory.File("a.wav"), "theirs");
    std::filesystem::create_symlink("nowhere", directory.File("a-2.wav"));
    EXPECT_EQ(FreeName(directory.File("a.wav")), directory.File("a-3.wav"));
}

TEST(OutputFileTest, AFullVolumeIsAStorageError) {
    const test::SmallVolume volume(64 << 10, ",nr_inodes=2");  // its root and one more
    if (!volume.Mounted()) {
        GTEST_SKIP() << "needs the right to mount";
    }
    Write(volume.File("other"), "");

    try {
        OutputFile(volume.File("a.wav"), false).Check();
        ADD_FAILURE();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exit, ExitCode::Storage);
        EXPECT_THAT(failure.what(), testing::HasSubstr("No space left"));
    }
}

TEST(MayReplaceTest, InAStickyDirectoryOnlyTheOwnersMay) {
    EXPECT_TRUE(MayReplace(0777, 1, 2, 3));
    EXPECT_FALSE(MayReplace(01777, 1, 2, 3));
    EXPECT_TRUE(MayReplace(01777, 1, 3, 3));  // one's own file
    EXPECT_TRUE(MayReplace(01777, 3, 2, 3));  // ... or directory
    EXPECT_TRUE(MayReplace(01777, 1, 2, 0));
}

/// A DSF file of 3 channels and 40,000 bits of each: two blocks of 4096 bytes a channel, and a tag
/// of 10 bytes when wanted.
std::string DsfFile(bool tagged) {
    std::string bytes;
    const auto number = [&bytes](std::uint64_t value, int width) {
        for (int index = 0; index < width; ++index) {
            bytes += static_cast<char>(value >> (8 * index));
        }
    };
    bytes += "DSD ";
    number(28, 8);
    number(92 + 24'576 + (tagged ? 10 : 0), 8);
    number(tagged ? 92 + 24'576 : 0, 8);
    bytes += "fmt ";
    number(52, 8);
    number(1, 4);
    number(0, 4);
    number(3, 4);
    number(3, 4);
    number(2'822'400, 4);
    number(1, 4);
    number(40'000, 8);
    number(4'096, 4);
    number(0, 4);
    bytes += "data";
    number(24'576 + 12, 8);
    bytes += std::string(24'576, 'i');
    return bytes + std::string(tagged ? "ID3 + seven" : "").substr(0, 10);
}

TEST(DsfSummaryTest, AFileIsCompleteWhenAllItsSizesAgree) {
    const TempDirectory directory;
    const std::string path = directory.File("a.dsf");
    const auto summaryOf = [&path](const std::string& bytes) {
        Write(path, bytes);
        return SummarizeDsf(path);
    };

    EXPECT_TRUE(summaryOf(DsfFile(false)).complete);
    EXPECT_TRUE(summaryOf(DsfFile(true)).complete);
    EXPECT_EQ(SummarizeDsf(path).frames, 40'000U);
    EXPECT_EQ(SummarizeDsf(path).bytes, 92U + 24'576 + 10);
}

TEST(DsfSummaryTest, AFileThatIsShortOrDisagreesWithItselfIsNotComplete) {
    const TempDirectory directory;
    const std::string path = directory.File("a.dsf");
    const std::string whole = DsfFile(true);
    const auto complete = [&path](const std::string& bytes) {
        Write(path, bytes);
        return SummarizeDsf(path).complete;
    };
    const auto with = [&whole](std::size_t offset, char value) {
        std::string bytes = whole;
        bytes[offset] = value;
        return bytes;
    };

    EXPECT_FALSE(complete(whole.substr(0, whole.size() - 1)));
    EXPECT_FALSE(complete(whole.substr(0, 92 + 24'576)));  // the tag is announced and missing
    EXPECT_FALSE(complete(whole + "x"));
    EXPECT_FALSE(complete(whole.substr(0, 91)));
    EXPECT_FALSE(complete(with(0, 'd')));
    EXPECT_FALSE(complete(with(12, 0)));  // total size
    EXPECT_FALSE(complete(with(20, 1)));  // place of the tag
    EXPECT_FALSE(complete(with(52, 2)));  // channels
    EXPECT_FALSE(complete(with(66, 2)));  // samples: 131,072 more
    EXPECT_FALSE(complete(with(72, 1)));  // block size
    EXPECT_FALSE(complete(with(84, 1)));  // size of the samples
    EXPECT_FALSE(complete(DsfFile(false) + "ID3 + seven"));
    EXPECT_FALSE(SummarizeDsf(directory.File("none.dsf")).complete);
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

TEST(PrivateDirectoryTest, WhatIsKeptStaysAndIsFoundLater) {
    const TempDirectory directory;
    std::string path;
    {
        PrivateDirectory own(directory.Path());
        path = own.Path();
        Write(path + "/tmpAAAAAA", "spill");
        EXPECT_THAT(PrivateDirectory::FindLeftovers(directory.Path()), testing::IsEmpty());
        own.Keep();
    }

    const std::vector<Leftover> found = PrivateDirectory::FindLeftovers(directory.Path());

    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].path, path);
    EXPECT_EQ(found[0].bytes, 5U);
    EXPECT_EQ(ReadBytes(path + "/tmpAAAAAA"), ToBytes("spill"));
}

TEST(PrivateDirectoryTest, OnlyWhatLooksLikeOursAndHoldsSomethingIsALeftover) {
    const TempDirectory directory;
    std::filesystem::create_directory(directory.File("vorrel-empty1"));
    for (const char* name : {"vorrel-toolong", "other-abcdef"}) {
        std::filesystem::create_directory(directory.File(name));
        Write(directory.File(name) + "/tmpAAAAAA", "spill");
    }
    Write(directory.File("vorrel-afile1"), "no directory");

    EXPECT_THAT(PrivateDirectory::FindLeftovers(directory.Path()), testing::IsEmpty());
    EXPECT_THAT(PrivateDirectory::FindLeftovers(directory.File("none")), testing::IsEmpty());
}

TEST(VolumesTest, APlaceThatTakesNoFileIsNoRescueAndAVolumeIsOneOnce) {
    const TempDirectory directory;
    const std::string second = directory.File("second");
    std::filesystem::create_directory(second);

    const std::vector<RescuePlace> places =
        FindRescuePlaces({"", "/proc", directory.File("none"), directory.Path(), second}, 3);

    ASSERT_EQ(places.size(), 1U);
    EXPECT_EQ(places[0].number, 6U);
    EXPECT_EQ(places[0].directory, directory.Path() + "/");
    EXPECT_GT(places[0].freeBytes, 0.0);
    EXPECT_TRUE(std::filesystem::is_empty(second));
}

TEST(VolumesTest, TheSystemsReasonIsFoundByTrying) {
    const TempDirectory directory;
    Write(directory.File("file"), "");

    EXPECT_EQ(WhyNotWritten(directory.File("a.wav"), 1.0, 1.0), "");
    EXPECT_EQ(WhyNotWritten(directory.File("none/a.wav"), 1.0, 1.0), "No such file or directory");
    EXPECT_EQ(WhyNotWritten(directory.File("file/a.wav"), 1.0, 1.0), "Not a directory");
    EXPECT_EQ(WhyNotWritten(directory.File("a.wav"), 1.0, 1e18), "No space left on device");
}

TEST(VolumesTest, ALimitOfSizeIsForTheWholeFileAndNotForWhatIsMissingOfIt) {
    const TempDirectory directory;
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    rlimit limit = before;
    limit.rlim_cur = 1'000'000;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);

    EXPECT_EQ(LargestFile(directory.Path()), 1e6);
    EXPECT_EQ(WhyNotWritten(directory.File("a.wav"), 2e6, 5e5), "File too large");
    EXPECT_EQ(WhyNotWritten(directory.File("a.wav"), 1e6, 2e6), "");

    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
}

TEST(BuildTest, TheSourceIsNamedWithoutTheDirectoriesOfTheBuildMachine) {
    // A compiler cache names it from the build directory.
    EXPECT_THAT(__FILE__, testing::MatchesRegex("(\\.\\./)*tests/apps/OutputFileTest.cpp"));
}

TEST(PrivateDirectoryTest, ABaseThatIsMissingIsRefused) {
    const TempDirectory directory;
    EXPECT_THROW(PrivateDirectory(directory.File("missing")), Failure);
}

}  // namespace
}  // namespace vorrel::cli
