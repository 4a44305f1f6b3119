// What is ours in the place for takes, and what is anybody's.
#include "TakeDirectory.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "PrivateDirectory.h"
#include "salvage/TakeJournal.h"
#include "support/FileBytes.h"
#include "support/TempDirectory.h"

namespace vorrel::cli {
namespace {

using test::ReadBytes;
using test::TempDirectory;
using test::ToBytes;
using testing::ElementsAre;
using testing::IsEmpty;

void Write(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

TEST(TakeNamesTest, OnlySixLettersOrDigitsAreWhatTheSystemDraws) {
    EXPECT_TRUE(IsSpillName("tmpaZ09bY"));
    for (const char* name : {"", "tmp", "tmpaZ09b", "tmpaZ09bYc", "tmp.mp3aa", "tmp-notes",
                             "tmp\xC3\xA4\xC3\xB6\xC3\xBC", "TMPaZ09bY", "tmp a b c"}) {
        EXPECT_FALSE(IsSpillName(name)) << name;
    }
    EXPECT_TRUE(IsTakeName("vorrel-backup"));
    for (const char* name : {"vorrel-", "vorrel-my.bak", "vorrel-backups", "vorrel_backup"}) {
        EXPECT_FALSE(IsTakeName(name)) << name;
    }
}

class TakeDirectoryTest : public testing::Test {
protected:
    int Open() const { return ::open(directory.Path().c_str(), O_RDONLY | O_DIRECTORY); }
    bool Has(const std::string& name) const {
        struct stat status {};
        return ::lstat(directory.File(name).c_str(), &status) == 0;
    }

    TempDirectory directory;
};

TEST_F(TakeDirectoryTest, LinksDirectoriesAndPipesOfOurNamesAreNotOurs) {
    Write(directory.File("tmpspill1"), "12345");
    Write(directory.File("journal.jsonl"), "{}");
    Write(directory.File("mine"), "mine");
    std::filesystem::create_directory(directory.File("tmpfolder"));
    std::filesystem::create_symlink("mine", directory.File("tmplinked"));
    ASSERT_EQ(::mkfifo(directory.File("tmppiped1").c_str(), 0600), 0);
    TakeDirectory take(Open());

    const TakeContents contents = take.Look();

    EXPECT_THAT(contents.ours, ElementsAre("tmpspill1", "journal.jsonl"));
    EXPECT_THAT(contents.foreign, ElementsAre("mine", "tmpfolder", "tmplinked", "tmppiped1"));
    EXPECT_TRUE(contents.hasJournal);
    EXPECT_EQ(contents.spillBytes, 5U);
    EXPECT_THAT(take.DeleteOurs(), ElementsAre("mine", "tmpfolder", "tmplinked", "tmppiped1"));
    EXPECT_FALSE(Has("tmpspill1"));
    EXPECT_FALSE(Has("journal.jsonl"));
    EXPECT_EQ(ReadBytes(directory.File("mine")), ToBytes("mine"));
    EXPECT_TRUE(Has("tmplinked"));
}

TEST_F(TakeDirectoryTest, ALinkThatIsTheJournalIsNone) {
    Write(directory.File("mine"), "{}");
    std::filesystem::create_symlink("mine", directory.File("journal.jsonl"));

    EXPECT_FALSE(TakeDirectory(Open()).Look().hasJournal);
}

TEST_F(TakeDirectoryTest, AnotherDirectoryThatTakesThePathKeepsItsFiles) {
    const std::string path = directory.File("vorrel-abcdef");
    std::filesystem::create_directory(path);
    Write(path + "/tmpspill1", "spill");
    const LeftoverLock lock(path);
    std::filesystem::rename(path, directory.File("moved"));
    std::filesystem::create_directory(path);
    Write(path + "/tmpspill1", "another's");

    EXPECT_THAT(lock.DeleteTake(), IsEmpty());

    EXPECT_FALSE(Has("moved/tmpspill1"));
    EXPECT_TRUE(Has("vorrel-abcdef/tmpspill1"));
}

TEST_F(TakeDirectoryTest, ADescriptorThatIsNoneHoldsNothing) {
    TakeDirectory none(-1);

    EXPECT_THAT(none.Look().ours, IsEmpty());
    EXPECT_THAT(none.DeleteOurs(), IsEmpty());
}

/// What is found in a place that holds `vorrel-abcdef` with some files.
class LeftoversTest : public TakeDirectoryTest {
protected:
    LeftoversTest() { std::filesystem::create_directory(path); }
    std::size_t Found() const { return PrivateDirectory::FindLeftovers(directory.Path()).size(); }
    void WriteJournal() const {
        TakeRecord record;
        record.format.rateHz = 48'000;
        record.format.channels = 2;
        TakeJournal(path).Begin(record);
    }

    const std::string path = directory.File("vorrel-abcdef");
};

TEST_F(LeftoversTest, FilesOfATakeAloneAreOneEvenWithADamagedJournal) {
    EXPECT_EQ(Found(), 0U);
    Write(path + "/tmpspill1", "spill");
    EXPECT_EQ(Found(), 1U);
    Write(path + "/journal.jsonl", "half a li");
    EXPECT_EQ(Found(), 1U);
}

TEST_F(LeftoversTest, WhatALinkInALeftoverLeadsToIsNotCounted) {
    WriteJournal();
    Write(path + "/tmpspill1", "spill");
    Write(directory.File("elsewhere"), "of somebody else");
    std::filesystem::create_symlink(directory.File("elsewhere"), path + "/tmpspill2");

    const std::vector<Leftover> found = PrivateDirectory::FindLeftovers(directory.Path());

    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].bytes, 5U);
}

TEST_F(LeftoversTest, WithSomethingElseInItOnlyAJournalOfOursIsProof) {
    Write(path + "/tmpspill1", "spill");
    Write(path + "/mine", "mine");
    EXPECT_EQ(Found(), 0U);
    Write(path + "/journal.jsonl", "{\"entry\": \"a diary\"}\n");
    EXPECT_EQ(Found(), 0U);
    std::filesystem::remove(path + "/journal.jsonl");
    WriteJournal();
    EXPECT_EQ(Found(), 1U);
}

TEST_F(LeftoversTest, ADirectoryIsInUseWhileItIsLocked) {
    Write(path + "/tmpspill1", "spill");
    EXPECT_THAT(PrivateDirectory::FindUsed(directory.Path()), IsEmpty());
    const LeftoverLock lock(path);

    EXPECT_THAT(PrivateDirectory::FindUsed(directory.Path()), ElementsAre(path));
    EXPECT_EQ(Found(), 0U);
}

TEST(PrivateDirectoryTest, WhatSomebodyHasPutIntoItStays) {
    const TempDirectory directory;
    std::string path;
    {
        const PrivateDirectory own(directory.Path());
        path = own.Path();
        Write(path + "/tmpAAAAAA", "spill");
        Write(path + "/mine", "mine");
    }
    EXPECT_EQ(ReadBytes(path + "/mine"), ToBytes("mine"));
    EXPECT_FALSE(std::filesystem::exists(path + "/tmpAAAAAA"));
}

}  // namespace
}  // namespace vorrel::cli
