// What salvage is made of: the journal, whose file is whose, the files that come of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <optional>
#include <string>

#include "ExitCode.h"
#include "OutputFile.h"
#include "salvage/HalfWritten.h"
#include "salvage/LeftTake.h"
#include "salvage/SalvageWriter.h"
#include "salvage/SpillFiles.h"
#include "salvage/TakeJournal.h"
#include "support/FileBytes.h"
#include "support/FileSizeLimit.h"
#include "support/TempDirectory.h"

namespace vorrel::cli {
namespace {

using test::Bytes;
using test::ReadBytes;
using test::TempDirectory;
using testing::ElementsAre;

TakeFormat Pcm(std::uint32_t channels = 2, std::uint32_t bits = 24) {
    TakeFormat format;
    format.rateHz = 48'000;
    format.channels = channels;
    format.bits = bits;
    return format;
}

TakeFormat Dsd(std::uint32_t channels = 2) {
    TakeFormat format;
    format.rateHz = 2'822'400;
    format.channels = channels;
    format.bits = 24;
    format.dsd = true;
    return format;
}

void Write(const std::string& path, const Bytes& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

Bytes Floats(const std::vector<float>& samples) {
    Bytes bytes(samples.size() * sizeof(float));
    std::memcpy(bytes.data(), samples.data(), bytes.size());
    return bytes;
}

std::string Text(const Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

// ---- The journal

TEST(TakeJournalTest, WhatIsWrittenIsRead) {
    const TempDirectory directory;
    TakeRecord record;
    record.started = 1'795'277'318;
    record.device = "KD-WV770";
    record.format = Dsd(6);
    record.out = "/m/\"take\".dsf";
    record.gain = -3.5;
    record.tags = {{"Title", "Grüße"}};
    {
        TakeJournal journal(directory.Path());
        journal.Begin(record);
        journal.State("armed", 0.0);
        journal.Start(96'000);
        journal.Mark(4096);
        journal.Mark(8192);
        journal.State("recording", 1.5);
    }

    const std::optional<TakeRecord> read = TakeJournal::Read(directory.Path());

    ASSERT_TRUE(read);
    EXPECT_EQ(read->started, record.started);
    EXPECT_EQ(read->device, record.device);
    EXPECT_TRUE(read->format.dsd);
    EXPECT_EQ(read->format.rateHz, 2'822'400U);
    EXPECT_EQ(read->format.channels, 6U);
    EXPECT_EQ(read->out, record.out);
    EXPECT_EQ(read->gain, -3.5);
    EXPECT_EQ(read->tags, record.tags);
    EXPECT_EQ(read->startFrame, 96'000U);
    EXPECT_THAT(read->marks, ElementsAre(4096, 8192));
    EXPECT_EQ(read->state, "recording");
}

TEST(TakeJournalTest, TheEnginesFilesAreWrittenDownInTheOrderOfTheirMaking) {
    const TempDirectory directory;
    TakeRecord record;
    record.format = Pcm();
    TakeJournal journal(directory.Path());
    journal.Begin(record);
    for (const char* name : {"tmpzzzzzz", "tmpaaaaaa", "other", "tmp", "tmpmmmmmm"}) {
        Write(directory.File(name), {1});
    }
    ::unlink(directory.File("tmpaaaaaa").c_str());
    pollfd source = {journal.Descriptor(), POLLIN, 0};
    ASSERT_EQ(::poll(&source, 1, 60'000), 1);

    journal.Look();

    EXPECT_THAT(TakeJournal::Read(directory.Path())->spills, ElementsAre("tmpzzzzzz", "tmpmmmmmm"));
}

TEST(TakeJournalTest, ARestartForgetsMarksAndStart) {
    const TempDirectory directory;
    TakeRecord record;
    record.format = Pcm();
    TakeJournal journal(directory.Path());
    journal.Begin(record);
    journal.Start(5);
    journal.Mark(6);

    journal.Restart();

    EXPECT_EQ(TakeJournal::Read(directory.Path())->startFrame, 0U);
    EXPECT_THAT(TakeJournal::Read(directory.Path())->marks, testing::IsEmpty());
}

TEST(TakeJournalTest, HalfALastLineIsPassedOver) {
    const TempDirectory directory;
    {
        TakeRecord record;
        record.format = Pcm();
        TakeJournal journal(directory.Path());
        journal.Begin(record);
        journal.Mark(6);
    }
    std::ofstream(directory.File(TakeJournal::kName), std::ios::app) << "{\"mark\": 1";

    EXPECT_THAT(TakeJournal::Read(directory.Path())->marks, ElementsAre(6));
}

TEST(TakeJournalTest, AFullDiskCostsNoLineWhereverItCutsOneOff) {
    // From nothing of the two lines, over each place in them, to all.
    const std::size_t lines = std::string("{\"mark\":16}\n{\"mark\":17}\n").size();
    for (std::size_t taken = 0; taken <= lines; ++taken) {
        const TempDirectory directory;
        TakeRecord record;
        record.format = Pcm();
        TakeJournal journal(directory.Path());
        journal.Begin(record);
        const std::uintmax_t before =
            std::filesystem::file_size(directory.File(TakeJournal::kName));
        {
            const test::FileSizeLimit full(before + taken);
            journal.Mark(16);
            journal.Mark(17);
        }
        journal.Mark(18);

        EXPECT_THAT(TakeJournal::Read(directory.Path())->marks, ElementsAre(16, 17, 18)) << taken;
    }
}

TEST(TakeJournalTest, WhatAFullDiskDidNotTakeIsWrittenWithTheNextLookOrAtTheEnd) {
    const TempDirectory directory;
    TakeRecord record;
    record.format = Pcm();
    std::optional<TakeJournal> journal(std::in_place, directory.Path());
    {
        const test::FileSizeLimit full(9);
        journal->Begin(record);
    }
    EXPECT_FALSE(TakeJournal::Read(directory.Path()));

    journal->Look();

    ASSERT_TRUE(TakeJournal::Read(directory.Path()));
    {
        const test::FileSizeLimit full(
            std::filesystem::file_size(directory.File(TakeJournal::kName)) + 3);
        journal->Mark(8);
    }
    journal.reset();
    EXPECT_THAT(TakeJournal::Read(directory.Path())->marks, ElementsAre(8));
}

TEST(TakeJournalTest, WhatIsNoJournalIsNone) {
    const TempDirectory directory;
    EXPECT_FALSE(TakeJournal::Read(directory.Path()));
    for (const char* text :
         {"", "x\n", "[1]\n", "{}\n", "{\"journal\":2}\n", "{\"journal\":1}\n",
          "{\"journal\":1,\"started\":1,\"device\":\"d\",\"type\":\"pcm\",\"rate_hz\":0,"
          "\"channels\":2,\"bits\":24,\"out\":\"\",\"gain_db\":0,\"tags\":{}}\n",
          "{\"journal\":1,\"started\":1,\"device\":\"d\",\"type\":\"pcm\",\"rate_hz\":48000,"
          "\"channels\":4294967295,\"bits\":24,\"out\":\"\",\"gain_db\":0,\"tags\":{}}\n",
          "{\"journal\":1,\"started\":1,\"device\":\"d\",\"type\":\"dsd\",\"rate_hz\":2822400,"
          "\"channels\":2,\"bits\":24,\"out\":\"\",\"gain_db\":0,\"tags\":{}}\n{\"start_frame\":7}"
          "\n",
          "{\"journal\":1,\"started\":1,\"device\":\"d\",\"type\":\"pcm\",\"rate_hz\":1e300,"
          "\"channels\":2,\"bits\":24,\"out\":\"\",\"gain_db\":0,\"tags\":{}}\n",
          "{\"journal\":1,\"started\":1,\"device\":\"d\",\"type\":\"pcm\",\"rate_hz\":48000,"
          "\"channels\":4294967298,\"bits\":24,\"out\":\"\",\"gain_db\":0,\"tags\":{}}\n",
          "{\"journal\":1,\"started\":1,\"device\":7,\"type\":\"pcm\",\"rate_hz\":48000,"
          "\"channels\":2,\"bits\":24,\"out\":\"\",\"gain_db\":0,\"tags\":{}}\n"}) {
        std::ofstream(directory.File(TakeJournal::kName)) << text;
        EXPECT_FALSE(TakeJournal::Read(directory.Path())) << text;
    }
}

constexpr const char* kFirstLine =
    "{\"journal\":1,\"started\":1,\"device\":\"d\",\"type\":\"pcm\",\"rate_hz\":48000,"
    "\"channels\":2,\"bits\":24,\"out\":\"\",\"gain_db\":0,\"tags\":{\"Title\":\"T\"}}\n";

/// What is read of a journal with these lines behind its first.
TakeRecord RecordWith(const std::string& lines) {
    const TempDirectory directory;
    std::ofstream(directory.File(TakeJournal::kName)) << kFirstLine << lines;
    const std::optional<TakeRecord> record = TakeJournal::Read(directory.Path());
    EXPECT_TRUE(record);
    return record.value_or(TakeRecord{});
}

TEST(TakeJournalTest, NamesThatTheEngineDoesNotGiveAreNoneOfItsFiles) {
    EXPECT_THAT(RecordWith("{\"spill\":\"tmp/../..\"}\n{\"spill\":\"tmp......\"}\n"
                           "{\"spill\":\"tmp\\u0000abcde\"}\n{\"spill\":\"tmpabcde\"}\n"
                           "{\"spill\":\"tmpabcdefg\"}\n{\"spill\":7}\n{\"spill\":\"tmp0Zz9aA\"}\n")
                    .spills,
                ElementsAre("tmp0Zz9aA"));
}

TEST(TakeJournalTest, ANameThatComesTwiceIsOneFile) {
    EXPECT_THAT(RecordWith("{\"spill\":\"tmp000002\"}\n{\"spill\":\"tmp000001\"}\n"
                           "{\"spill\":\"tmp000002\"}\n")
                    .spills,
                ElementsAre("tmp000002", "tmp000001"));
    // Made anew, it is the last.
    EXPECT_THAT(RecordWith("{\"spill\":\"tmp000002\"}\n{\"spill\":\"tmp000001\"}\n"
                           "{\"spill_gone\":\"tmp000002\"}\n{\"spill\":\"tmp000002\"}\n")
                    .spills,
                ElementsAre("tmp000001", "tmp000002"));
}

TEST(TakeJournalTest, NumbersThatAreNoFramesArePassedOver) {
    const TakeRecord record = RecordWith(
        "{\"start_frame\":6}\n{\"start_frame\":1e300}\n{\"start_frame\":-8}\n{\"start_frame\":true}"
        "\n"
        "{\"mark\":7}\n{\"mark\":18446744073709551616}\n{\"mark\":0.5}\n");

    EXPECT_EQ(record.startFrame, 6U);
    EXPECT_THAT(record.marks, ElementsAre(7));
}

TEST(TakeJournalTest, WhatIsNestedDeeperThanTagsTakesLittleMemory) {
    rusage before{};
    ASSERT_EQ(::getrusage(RUSAGE_SELF, &before), 0);

    const TakeRecord record =
        RecordWith(std::string(std::size_t{8} << 20, '[') + "\n{\"mark\":7}\n");

    rusage after{};
    ASSERT_EQ(::getrusage(RUSAGE_SELF, &after), 0);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 300 << 10);  // KiB; as values 640 MiB
    EXPECT_THAT(record.marks, ElementsAre(7));
    EXPECT_EQ(record.tags, (std::map<std::string, std::string>{{"Title", "T"}}));
}

TEST(TakeJournalTest, ADirectoryThatTakesNoJournalIsNoReasonToFail) {
    TakeJournal journal("/proc/self");

    journal.State("recording", 0.0);
    journal.Look();

    EXPECT_FALSE(TakeJournal::Read("/proc/self"));
}

TEST(TakeJournalTest, TheFileThatIsBeingWrittenIsNamedInItsVeryBytes) {
    const TempDirectory directory;
    TakeRecord record;
    record.format = Pcm();
    TakeJournal journal(directory.Path());
    journal.Begin(record);
    const std::string path = "/m/50%/\xFF\"\n \xC3\xA4.wav.partial-7";
    journal.Writing("/m/.a.wav.partial-7");
    journal.Writing(path);
    const auto writing = [&] { return TakeJournal::Read(directory.Path())->writing; };
    EXPECT_THAT(writing(), ElementsAre(testing::Pair(::getpid(), path)));
    EXPECT_THAT(Text(ReadBytes(directory.File(TakeJournal::kName))),
                testing::HasSubstr("/m/50%25/%FF\\\"%0A %C3%A4.wav.partial-7"));

    journal.Written();

    EXPECT_THAT(writing(), testing::IsEmpty());
}

TEST(TakeJournalTest, WhoSavesATakeWritesBehindHalfALastLine) {
    const TempDirectory directory;
    {
        TakeRecord record;
        record.format = Pcm();
        TakeJournal journal(directory.Path());
        journal.Begin(record);
        journal.Writing("/m/.a.wav.partial-7");
    }
    std::ofstream(directory.File(TakeJournal::kName), std::ios::app) << "{\"mark\": 1";

    TakeJournal::NoteWriting(directory.Path(), "/m/.b.wav.partial-8");

    EXPECT_THAT(TakeJournal::Read(directory.Path())->writing,
                ElementsAre(testing::Pair(::getpid(), "/m/.b.wav.partial-8")));
    TakeJournal::NoteWritten(directory.Path());
    EXPECT_THAT(TakeJournal::Read(directory.Path())->writing, testing::IsEmpty());
    TakeJournal::NoteWritten(directory.File("none"));  // changes nothing
}

TEST(TakeJournalTest, TheMachineIsWrittenDownAndAnOldJournalHasNone) {
    const TempDirectory directory;
    TakeRecord record;
    record.format = Pcm();
    {
        TakeJournal journal(directory.Path());
        journal.Begin(record);
    }
    const Machine now = ThisMachine();
    EXPECT_NE(now.host, "");
    EXPECT_EQ(now.boot.size(), 36U);

    const Machine read = TakeJournal::Read(directory.Path())->machine;

    EXPECT_EQ(read.host, now.host);
    EXPECT_EQ(read.boot, now.boot);
    EXPECT_EQ(RecordWith("").machine.host, "");
}

TEST(TakeJournalTest, WhatAnotherMachineWasWritingIsNotOfItsNumberHere) {
    const Machine now = ThisMachine();
    const auto line = [](const std::string& host, const std::string& boot, const char* path) {
        return "{\"writing\":\"" + std::string(path) + "\",\"process\":1,\"host\":\"" + host +
               "\",\"boot\":\"" + boot + "\"}\n";
    };

    const TakeRecord elsewhere =
        RecordWith(line(now.host, now.boot, "/m/.a.partial-1") +
                   line("other", "another", "/m/.b.partial-1") + line("other", "another", ""));
    EXPECT_THAT(elsewhere.writing, ElementsAre(testing::Pair(1, "/m/.a.partial-1")));
    EXPECT_THAT(elsewhere.ended, testing::IsEmpty());

    const TakeRecord before = RecordWith(line(now.host, "another", "/m/.a.partial-1"));
    EXPECT_THAT(before.ended, ElementsAre(1));
    EXPECT_THAT(RecordWith("{\"writing\":\"/m/.a.partial-1\",\"process\":1}\n").writing,
                ElementsAre(testing::Pair(1, "/m/.a.partial-1")));
}

TEST(MachineTest, AnotherNameAndAnotherStartTogetherAreAnotherMachine) {
    const Machine now = {"here", "1"};

    EXPECT_TRUE(IsElsewhere({"there", "2"}, now));
    for (const Machine& same :
         {Machine{"here", "1"}, {"here", "2"}, {"container", "1"}, {"", ""}, {"there", ""}}) {
        EXPECT_FALSE(IsElsewhere(same, now)) << same.host << same.boot;
    }
    EXPECT_TRUE(HasRestarted({"here", "2"}, now));
    for (const Machine& running :
         {Machine{"here", "1"}, {"there", "2"}, {"here", ""}, {"", ""}, {"", "2"}}) {
        EXPECT_FALSE(HasRestarted(running, now)) << running.host << running.boot;
    }
}

// ---- What was half written

TEST(HalfWrittenTest, APathIsReadAsItWasWrittenAndNothingElseIsOne) {
    for (const char* path : {"/a", "/50%25", "/\xFF\x01\x7F/ \"\\"}) {
        EXPECT_EQ(DecodePath(EncodePath(path)), path);
    }
    EXPECT_EQ(EncodePath("/\xC3\xA4%"), "/%C3%A4%25");
    for (const char* text : {"", "a", "/%", "/%4", "/%4g", "/%00", "/\xFF", "%"}) {
        EXPECT_EQ(DecodePath(text), "") << text;
    }
}

TEST(HalfWrittenTest, OnlyANameThatOurOwnFilesHaveIsOne) {
    EXPECT_TRUE(IsStagingName(".a.wav.partial-17", 17));
    EXPECT_TRUE(IsStagingName(".a.wav.partial-17-2", 17));
    for (const char* name :
         {"", "a.wav", "a.wav.partial-17", ".a.wav.partial-1", ".a.wav.partial-171",
          ".a.wav.partial-17-", ".a.wav.partial-17-x", ".a.wav.partial-17.abandoned", ".partial-17",
          ".a.wav.partial-17-2-2"}) {
        EXPECT_FALSE(IsStagingName(name, 17)) << name;
    }
    const TempDirectory directory;
    const std::string staged = OutputFile(directory.File("a.wav"), false).StagingPath();
    EXPECT_TRUE(IsStagingName(staged.substr(staged.rfind('/') + 1), ::getpid()));
}

TEST(HalfWrittenTest, ItIsARegularFileOfAProcessThatHasDied) {
    const TempDirectory directory;
    const pid_t dead = ::fork();
    if (dead == 0) {
        ::_exit(0);
    }
    ASSERT_EQ(::waitpid(dead, nullptr, 0), dead);
    const auto find = [&](const std::string& name, long process) {
        TakeRecord record;
        record.writing = {{process, directory.File(name)}};
        return FindHalfWritten(record).size();
    };
    const std::string number = std::to_string(dead);
    const std::string own = std::to_string(::getpid());
    Write(directory.File(".a.partial-" + number), {1});
    Write(directory.File(".a.partial-" + own), {1});
    Write(directory.File("mine.partial-" + number), {1});
    ASSERT_EQ(::symlink("mine", directory.File(".link.partial-" + number).c_str()), 0);
    ASSERT_EQ(::mkdir(directory.File(".dir.partial-" + number).c_str(), 0700), 0);

    EXPECT_EQ(find(".a.partial-" + number, dead), 1U);
    EXPECT_EQ(find(".a.partial-" + own, ::getpid()), 0U);
    TakeRecord before;
    before.writing = {{::getpid(), directory.File(".a.partial-" + own)}};
    before.ended = {::getpid()};  // by a new start; the number is another's now
    EXPECT_EQ(FindHalfWritten(before).size(), 1U);
    EXPECT_EQ(find(".a.partial-" + own, dead), 0U);
    EXPECT_EQ(find("mine.partial-" + number, dead), 0U);
    EXPECT_EQ(find(".link.partial-" + number, dead), 0U);
    EXPECT_EQ(find(".dir.partial-" + number, dead), 0U);
    EXPECT_EQ(find(".gone.partial-" + number, dead), 0U);
    EXPECT_EQ(find(".a.partial-0", 0), 0U);
    EXPECT_EQ(find(".a.partial--1", -1), 0U);
}

// ---- Whose file is whose

TEST(SpillOwnersTest, ChannelsComeBeforeThePreviewAndBeginNewFilesTogether) {
    // Stereo: a channel's step and the preview's both take 960,000 bytes, 1118 of them a file.
    EXPECT_THAT(SpillOwners(Pcm(), 7), ElementsAre(0, 1, 2, 0, 1, 2, 0));
    // Mono: the preview's is half as large, and fills a file in 2236 steps where a channel's takes
    // 1118; both begin their next at step 2236.
    EXPECT_THAT(SpillOwners(Pcm(1), 6), ElementsAre(0, 1, 0, 0, 1, 0));
    // Eight channels: 3,840,000 bytes of preview, 279 steps a file: at 279, 558, 837, 1116, and
    // then the channels at 1118.
    EXPECT_THAT(SpillOwners(Pcm(8), 8 + 5 + 8 + 1),
                ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 8, 8, 8, 8, 0, 1, 2, 3, 4, 5, 6, 7, 8));
    // Stereo DSD: 1,764,000 bytes, 608 steps, against 882,000 and 1217: channels at 608 and 1216.
    EXPECT_THAT(SpillOwners(Dsd(), 8), ElementsAre(0, 1, 2, 0, 1, 0, 1, 2));
}

class SpillFilesTest : public testing::Test {
protected:
    SpillFilesTest() { record.format = Pcm(); }

    void Spill(const std::string& name, const std::vector<float>& samples) {
        Write(directory.File(name), Floats(samples));
        record.spills.push_back(name);
    }

    TempDirectory directory;
    TakeRecord record;
};

TEST_F(SpillFilesTest, TheShortestChannelTellsTheLength) {
    Spill("tmp000001", {1, 2, 3});
    Spill("tmp000002", {4, 5});
    Spill("tmp000003", {6, 7, 8, 9});  // the preview

    const SpillFiles files(directory.Path(), record);

    EXPECT_EQ(files.Frames(), 2U);
    EXPECT_EQ(files.Bytes(), 36U);
    EXPECT_EQ(files.Doubt(), "");
    Bytes bytes;
    ASSERT_TRUE(files.Read(1, 4, bytes, 4));
    EXPECT_EQ(bytes, Floats({5}));
    EXPECT_FALSE(files.Read(1, 4, bytes, 8));
}

TEST_F(SpillFilesTest, FilesThatTheJournalMissesComeLastInTheOrderOfTheirMaking) {
    Spill("tmpzzzzzz", {1});
    Write(directory.File("tmpmmmmmm"), Floats({2}));

    const SpillFiles files(directory.Path(), record);

    ASSERT_EQ(files.Frames(), 1U);
    Bytes bytes;
    ASSERT_TRUE(files.Read(1, 0, bytes, 4));
    EXPECT_EQ(bytes, Floats({2}));
}

TEST_F(SpillFilesTest, AFullFileOfAnotherSizeIsDoubted) {
    record.format = Pcm(1);
    Spill("tmp000001", {1});
    Spill("tmp000002", {2});  // the preview
    Spill("tmp000003", {3});

    EXPECT_THAT(SpillFiles(directory.Path(), record).Doubt(), testing::HasSubstr("tmp000001"));
}

TEST_F(SpillFilesTest, AMissingFileKeepsItsPlaceAndIsDoubted) {
    Spill("tmp000001", {1});
    record.spills.emplace_back("tmp000002");
    Spill("tmp000003", {6});  // the preview

    const SpillFiles files(directory.Path(), record);

    EXPECT_EQ(files.Frames(), 0U);
    EXPECT_THAT(files.Doubt(), testing::HasSubstr("tmp000002"));
}

TEST_F(SpillFilesTest, ChannelsOfUnequalLengthAreDoubted) {
    record.format.rateHz = 1;  // five frames a step
    Spill("tmp000001", std::vector<float>(20));
    Spill("tmp000002", std::vector<float>(10));

    EXPECT_THAT(SpillFiles(directory.Path(), record).Doubt(), testing::HasSubstr("same length"));
}

TEST_F(SpillFilesTest, WhereChannelsAreOfUnequalLengthSilenceFillsTheShorterOnes) {
    record.format.rateHz = 1;  // five frames a step
    Spill("tmp000001", std::vector<float>(8, 0.5F));
    Spill("tmp000002", {1, 2});

    const SpillFiles files(directory.Path(), record);

    EXPECT_EQ(files.Frames(), 8U);
    Bytes bytes;
    ASSERT_TRUE(files.ReadFilled(1, 4, bytes, 12));
    EXPECT_EQ(bytes, Floats({2, 0, 0}));
    ASSERT_TRUE(files.ReadFilled(1, 16, bytes, 16));
    EXPECT_EQ(bytes, Floats({0, 0, 0, 0}));
    EXPECT_FALSE(files.ReadFilled(1, 28, bytes, 8));
}

TEST_F(SpillFilesTest, SilenceOfADsdTakeIsItsIdlePattern) {
    record.format = Dsd();
    record.format.rateHz = 8;  // five bytes a step
    Write(directory.File("tmp000001"), Bytes(7, 0x01));
    Write(directory.File("tmp000002"), Bytes(1, 0x02));
    record.spills = {"tmp000001", "tmp000002"};

    const SpillFiles files(directory.Path(), record);

    EXPECT_EQ(files.Frames(), 7U * 8U);
    Bytes bytes;
    ASSERT_TRUE(files.ReadFilled(1, 0, bytes, 3));
    EXPECT_EQ(bytes, (Bytes{0x02, 0x69, 0x69}));
}

TEST_F(SpillFilesTest, TheFirstReasonForDoubtIsSaid) {
    record.format.rateHz = 1;
    Spill("tmp000001", std::vector<float>(20));
    record.spills.emplace_back("tmp000002");

    EXPECT_EQ(SpillFiles(directory.Path(), record).Doubt(),
              directory.File("tmp000002") + " is missing; silence fills the shorter channels");
}

TEST_F(SpillFilesTest, ALinkIsNoSpillFile) {
    Write(directory.File("secret"), Floats({7}));
    ASSERT_EQ(::symlink(directory.File("secret").c_str(), directory.File("tmpabcdef").c_str()), 0);
    record.spills = {"tmpabcdef"};

    EXPECT_EQ(SpillFiles(directory.Path(), record).Bytes(), 0U);
}

TEST_F(SpillFilesTest, NoFilesAreNoFrames) {
    EXPECT_EQ(SpillFiles(directory.Path(), record).Frames(), 0U);
}

// ---- The files that come of it

const auto kAdvance = [](std::uint64_t) { return true; };

class SalvageWriterTest : public SpillFilesTest {};

TEST_F(SalvageWriterTest, AWavFileHasTheEnginesRounding) {
    record.format = Pcm(1, 24);
    const float below = 0.99999994F;
    Spill("tmp000001", {0.5F, -1.0F, 2.0F, below, std::nanf(""), -0.00000017881393F});
    const SpillFiles files(directory.Path(), record);
    const auto samples = [&](std::uint32_t bits) {
        TakeFormat format = record.format;
        format.bits = bits;
        WriteSalvaged(files, format, 0, 6, directory.File("a.wav"), kAdvance);
        const Bytes bytes = ReadBytes(directory.File("a.wav"));
        EXPECT_EQ(Text(Bytes(bytes.begin(), bytes.begin() + 4)), "RIFF");
        EXPECT_TRUE(SummarizeWav(directory.File("a.wav")).complete);
        std::vector<std::int64_t> values;
        for (std::size_t at = 44; at < bytes.size(); at += bits / 8) {
            std::int64_t value = 0;
            for (std::size_t byte = 0; byte < bits / 8; ++byte) {
                value |= static_cast<std::int64_t>(bytes[at + byte]) << (8 * byte);
            }
            values.push_back(
                value >= std::int64_t{1} << (bits - 1) ? value - (std::int64_t{1} << bits) : value);
        }
        return values;
    };

    // 24 bits are cut off, the others rounded, ties to even: the last is -1.5 steps of 24 bits.
    EXPECT_THAT(samples(24), ElementsAre(4'194'304, -8'388'608, 8'388'607, 8'388'607, 0, -1));
    EXPECT_THAT(samples(16), ElementsAre(16'384, -32'768, 32'767, 32'767, 0, 0));
    EXPECT_THAT(samples(32),
                ElementsAre(1'073'741'824, -2'147'483'648, 2'147'483'647, 2'147'483'520, 0, -384));
}

TEST_F(SalvageWriterTest, ChannelsAreInterleavedFromTheFrameThatIsAskedFor) {
    Spill("tmp000001", {0, 0.25F, 0.5F});
    Spill("tmp000002", {0, -0.25F, -0.5F});
    TakeFormat format = Pcm(2, 16);

    WriteSalvaged(SpillFiles(directory.Path(), record), format, 1, 3, directory.File("a.wav"),
                  kAdvance);

    const Bytes bytes = ReadBytes(directory.File("a.wav"));
    EXPECT_EQ(Bytes(bytes.begin() + 44, bytes.end()),
              (Bytes{0x00, 0x20, 0x00, 0xE0, 0x00, 0x40, 0x00, 0xC0}));
}

TEST_F(SalvageWriterTest, ADsfFileHasItsBlocksAndTheEarliestBitInTheLowest) {
    record.format = Dsd(2);
    Bytes left(4097, 0x01);
    left.back() = 0x80;
    Write(directory.File("tmp000001"), left);
    Write(directory.File("tmp000002"), Bytes(4097, 0xF0));
    record.spills = {"tmp000001", "tmp000002"};

    WriteSalvaged(SpillFiles(directory.Path(), record), record.format, 0, 4097 * 8,
                  directory.File("a.dsf"), kAdvance);

    const Bytes bytes = ReadBytes(directory.File("a.dsf"));
    ASSERT_EQ(bytes.size(), 92U + 4U * 4096U);
    EXPECT_EQ(bytes[92], 0x80);
    EXPECT_EQ(bytes[92 + 4096], 0x0F);
    EXPECT_EQ(bytes[92 + 2 * 4096], 0x01);
    EXPECT_EQ(bytes[92 + 2 * 4096 + 1], 0x00);  // the padding
    const FileSummary summary = SummarizeDsf(directory.File("a.dsf"));
    EXPECT_TRUE(summary.complete);
    EXPECT_EQ(summary.frames, 4097U * 8U);
}

TEST_F(SalvageWriterTest, GivingUpAndMissingSamplesAreFailures) {
    Spill("tmp000001", {1, 2});
    Spill("tmp000002", {1, 2});
    const SpillFiles files(directory.Path(), record);

    EXPECT_THROW(WriteSalvaged(files, record.format, 0, 2, directory.File("a.wav"),
                               [](std::uint64_t) { return false; }),
                 Failure);
    EXPECT_THROW(WriteSalvaged(files, record.format, 0, 3, directory.File("a.wav"), kAdvance),
                 Failure);
    EXPECT_THROW(WriteSalvaged(files, record.format, 0, 2, directory.File("none/a.wav"), kAdvance),
                 Failure);
    EXPECT_THROW(WriteSalvaged(files, record.format, 0, 2, "/dev/full", kAdvance), Failure);
}

}  // namespace
}  // namespace vorrel::cli
