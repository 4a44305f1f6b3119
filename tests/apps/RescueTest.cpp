// What becomes of files that cannot be written where they belong.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "FaultsRig.h"
#include "WavReader.h"
#include "support/SmallVolume.h"
#include "support/Subvolumes.h"

namespace vorrel::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class RescueTest : public FaultsTest {};

TEST_F(RescueTest, AFailedSaveLeavesNothingHalfWrittenAndTheOtherFilesAreSaved) {
    Process program(Record("save=fail:b.wav", {places.File("a.wav"), "--duration", "1", "--range",
                                               "0-0.5=" + places.File("b.wav"), "--range",
                                               "0.5-1=" + places.File("c.wav")}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(program.Error(), HasSubstr(places.File("b.wav") + " could not be saved"));
    EXPECT_THAT(places.Files(), ElementsAre("a.wav", "c.wav"));
    EXPECT_EQ(FirstGap(ReadWav(places.File("c.wav")), 24'000), 24'000U);
}

TEST_F(RescueTest, AFileThatCannotBeSavedIsRescuedToTheTemporaryPlace) {
    Process program(Record("save=fail:b.wav", {places.File("a.wav"), "--duration", "1", "--range",
                                               "0.25-0.5=" + places.File("b.wav")}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(places.Rescued(), ElementsAre("b-rescued.wav"));
    const std::string rescued = places.TempFile("b-rescued.wav");
    EXPECT_EQ(ReadWav(rescued).Frames(), 12'000U);
    EXPECT_EQ(FirstGap(ReadWav(rescued), 12'000), 12'000U);
    EXPECT_THAT(program.Error(), HasSubstr("is in " + rescued));
    const nlohmann::json event = Events(program.Out(), "rescued").at(0);
    EXPECT_EQ(event.at("wanted"), places.File("b.wav"));
    EXPECT_EQ(event.at("file"), rescued);
    EXPECT_EQ(Events(program.Out(), "saved").at(1).at("file"), rescued);
}

TEST_F(RescueTest, ARescuedFileReplacesNothingEvenWithForce) {
    std::ofstream(places.TempFile("a-rescued.wav")) << "theirs";
    Process program(
        Record("save=fail:a.wav", {places.File("a.wav"), "--duration", "0.5", "--force"}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_EQ(ReadBytes(places.TempFile("a-rescued.wav")), ToBytes("theirs"));
    EXPECT_EQ(ReadWav(places.TempFile("a-rescued-2.wav")).Frames(), 24'000U);
}

TEST_F(RescueTest, ASkippedFileIsRescuedToo) {
    Process program(Record("save=skip:b.wav", {places.File("a.wav"), "--duration", "1", "--range",
                                               "0-0.5=" + places.File("b.wav")}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(places.Files(), ElementsAre("a.wav"));
    EXPECT_THAT(places.Rescued(), ElementsAre("b-rescued.wav"));
}

TEST_F(RescueTest, WhenThePlaceOfTheRescueFailsTooTheNextIsTaken) {
    const SmallVolume volume(4 << 20);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "needs the right to mount";
    }
    Process program(After("cd " + volume.File(""),
                          Record("save=fail:" + places.FilesPath() + "+" + places.TempPath(),
                                 {places.File("a.wav"), "--duration", "1"})));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_TRUE(places.TempIsEmpty());
    EXPECT_EQ(ReadWav(volume.File("a-rescued.wav")).Frames(), 48'000U);
    EXPECT_EQ(Events(program.Out(), "rescued").at(0).at("wanted"), places.File("a.wav"));
}

TEST_F(RescueTest, WhenNothingTakesTheRecordingWhatTheEngineHasStoredStays) {
    Process program(Record("save=fail:", {places.File("a.wav"), "--duration", "0.5"}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(places.Files(), IsEmpty());
    const std::string kept = Events(program.Out(), "kept").at(0).at("directory");
    EXPECT_EQ(ReadBytes(kept + "/tmpSTORE1"), ToBytes("samples"));
    EXPECT_THAT(program.Error(), HasSubstr(kept));
    EXPECT_EQ(JsonLines(program.Out()).back().at("exit_code"), 3);
}

TEST_F(RescueTest, ATargetThatBecomesReadOnlyIsSaidAndTheRecordingIsRescued) {
    const SmallVolume volume(16 << 20);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "needs the right to mount";
    }
    Process program(Record("", {volume.File("a.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    ASSERT_TRUE(volume.MakeReadOnly());

    program.Send(SIGINT);

    EXPECT_EQ(program.Wait(), 3);
    EXPECT_THAT(program.Error(), HasSubstr("could not be saved: Read-only file system"));
    EXPECT_GT(ReadWav(places.TempFile("a-rescued.wav")).Frames(), 0U);
}

TEST_F(RescueTest, ATargetThatIsFilledMeanwhileIsSaidAndTheRecordingIsRescued) {
    const SmallVolume volume(4 << 20);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "needs the right to mount";
    }
    Process program(Record("", {volume.File("a.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    std::ofstream(volume.File("other")) << std::string(5 << 20, 'x');

    // Seen by the program itself, which stops.
    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(program.Error(), HasSubstr("the disk is full"));
    EXPECT_THAT(program.Error(), HasSubstr("could not be saved: No space left on device"));
    EXPECT_GT(ReadWav(places.TempFile("a-rescued.wav")).Frames(), 0U);
}

TEST_F(RescueTest, ATargetDirectoryThatGoesIsSaidAndTheRecordingIsRescued) {
    std::filesystem::create_directory(places.File("d"));
    Process program(Record("", {places.File("d/a.wav")}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    std::filesystem::remove(places.File("d"));
    std::ofstream(places.File("d")) << "a file";

    program.Send(SIGINT);

    EXPECT_EQ(program.Wait(), 3);
    EXPECT_THAT(program.Error(), HasSubstr("could not be saved: Not a directory"));
    EXPECT_GT(ReadWav(places.TempFile("a-rescued.wav")).Frames(), 0U);
}

TEST_F(RescueTest, AnOldFileThatLeavesNoRoomForItsSuccessorStaysAndTheRecordingIsRescued) {
    const SmallVolume volume(4 << 20);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "needs the right to mount";
    }
    Process program(Record("", {volume.File("a.wav"), "--force"}));
    ASSERT_TRUE(program.AwaitOut("\"position\""));
    std::ofstream(volume.File("a.wav")) << std::string(4 << 20, 'x');

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_EQ(std::filesystem::file_size(volume.File("a.wav")), 4U << 20);
    EXPECT_GT(ReadWav(places.TempFile("a-rescued.wav")).Frames(), 0U);
}

TEST_F(RescueTest, ALimitOfFileSizeIsPlannedForAndDoesNotEndTheProgram) {
    // 1 MiB, in blocks of 512 bytes; the recording has 2.7 MiB.
    Process program(
        After("ulimit -f 2048", Record("", {places.File("a.wav"), "--duration", "10"})));

    EXPECT_EQ(program.Wait(), 0);

    EXPECT_THAT(program.Error(), HasSubstr("; it will be saved in parts"));
    EXPECT_THAT(places.Files(), ElementsAre("a-2.wav", "a-3.wav", "a.wav"));
    std::uint64_t next = 0;
    for (const char* name : {"a.wav", "a-2.wav", "a-3.wav"}) {
        const Wav part = ReadWav(places.File(name));
        EXPECT_EQ(FirstGap(part, next), part.Frames()) << name;
        next += part.Frames();
    }
    EXPECT_EQ(next, 480'000U);
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(RescueTest, EveryVolumeThatAFileGoesToIsLookedAt) {
    const SmallVolume volume(128 << 10);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "needs the right to mount";
    }
    Process program(Record("", {places.File("a.wav"), "--range", "0-=" + volume.File("b.wav")}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(program.Error(), HasSubstr("no space left for a recording in " + volume.File("")));
    EXPECT_THAT(places.Files(), IsEmpty());
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(RescueTest, AFileThatFailsOnOneVolumeCostsTheOtherNothing) {
    const SmallVolume volume(4 << 20);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "needs the right to mount";
    }
    Process program(Record(
        "save=fail:" + volume.File(""),
        {places.File("a.wav"), "--duration", "1", "--range", "0-0.5=" + volume.File("b.wav")}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_EQ(ReadWav(places.File("a.wav")).Frames(), 48'000U);
    EXPECT_THAT(places.Rescued(), ElementsAre("b-rescued.wav"));
}

TEST_F(RescueTest, APictureThatCannotBeDrawnTakesNoFileWithIt) {
    Process unread(Record("preview=fail", {places.File("a.wav"), "--duration", "0.5", "--waveform",
                                           places.File("a.png")}));
    EXPECT_EQ(unread.Wait(), 3);

    EXPECT_THAT(unread.Error(), HasSubstr("a.png"));
    EXPECT_THAT(places.Files(), ElementsAre("a.wav"));
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(RescueTest, ARangeBehindTheEndIsSkippedAndOneAcrossItIsCut) {
    Process program(Record("lose=1", {"--range", "0.5-60=" + places.File("a.wav"), "--range",
                                      "60-61=" + places.File("b.wav")}));

    EXPECT_EQ(program.Wait(), 2);

    EXPECT_THAT(places.Files(), ElementsAre("a.wav"));
    EXPECT_THAT(program.Error(), HasSubstr("shorter than wanted"));
    EXPECT_THAT(program.Error(), HasSubstr("skipped " + places.File("b.wav")));
    EXPECT_EQ(CounterStart(ReadWav(places.File("a.wav"))), 24'000U);
}

TEST_F(RescueTest, ATargetThatComesMeanwhileIsNotReplaced) {
    Process program(Record("appear=1", {places.File("a.wav"), "--duration", "0.5"}));

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(places.Files(), ElementsAre("a-2.wav", "a.wav"));
    EXPECT_EQ(std::filesystem::file_size(places.File("a.wav")), 0U);
    EXPECT_EQ(ReadWav(places.File("a-2.wav")).Frames(), 24'000U);
}

TEST_F(RescueTest, ARangeBeyondFourGibibytesIsToldBeforeTheRecording) {
    // At 48 kHz, stereo and 24 bits a file ends at 4 h 08 min.
    Process program(Record("lose=0.5", {"--range", "0-5:00:00=" + places.File("a.wav")}));

    EXPECT_EQ(program.Wait(), 2);

    EXPECT_THAT(Events(program.Out(), "warning").at(0).at("message").get<std::string>(),
                HasSubstr("4:08:33.0"));
    EXPECT_LT(program.Out().find("4 GiB"), program.Out().find("\"starting\""));
}

TEST_F(RescueTest, ASaveThatFailsForItsGainOrTagsIsMadeWithoutThem) {
    for (const std::vector<std::string>& wish :
         std::vector<std::vector<std::string>>{{"--gain", "-3"}, {"--title", "T"}}) {
        CliPlaces own;
        Process::Setup setup =
            own.Record(VORREL_CLI_FAKE, {own.File("a.wav"), "--duration", "0.5", "--simulate"});
        setup.arguments.insert(setup.arguments.end(), wish.begin(), wish.end());
        setup.environment["FAKE_ENGINE"] = "save=worked:";
        setup.environment["HOME"] = "";
        Process program(setup);

        EXPECT_EQ(program.Wait(), 3);

        EXPECT_THAT(program.Error(), HasSubstr("tried again without gain and tags"));
        EXPECT_THAT(own.Files(), ElementsAre("a-rescued.wav"));
        EXPECT_EQ(ReadWav(own.File("a-rescued.wav")).Frames(), 24'000U);
        EXPECT_TRUE(own.TempIsEmpty());
    }
}

TEST_F(RescueTest, AVolumeThatGoesAwayInTheTakeIsToldAndTheFileIsSavedBelowIt) {
    const SmallVolume volume(4 << 20);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "needs the right to mount";
    }
    Process program(Record("", {volume.File("a.wav")}));
    ASSERT_TRUE(AwaitPosition(program, 0.5));
    ASSERT_TRUE(volume.GoAway());
    ASSERT_TRUE(program.AwaitError("the volume of " + volume.File("") + " is gone"));
    program.Send(SIGTERM);

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_THAT(program.Error(),
                HasSubstr("the volume that was at " + volume.File("") +
                          " before the recording is gone, or another has come over it: " +
                          volume.File("a.wav") + " is on the one that is there now"));
    EXPECT_EQ(Events(program.Out(), "saved").at(0).at("file"), volume.File("a.wav"));
    const Wav wav = ReadWav(volume.File("a.wav"));
    EXPECT_EQ(FirstGap(wav, 0), wav.Frames());
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(RescueTest, WhatIsBelowAVolumeThatHasGoneIsNotReplacedEvenWithForce) {
    const TempDirectory below;
    std::ofstream(below.File("a.wav")) << "theirs";
    std::ofstream(below.File("a.png")) << "theirs, too";
    if (::mount("none", below.Path().c_str(), "tmpfs", 0, "size=4m") != 0) {
        GTEST_SKIP() << "needs the right to mount";
    }
    Process program(
        Record("", {below.File("a.wav"), "--force", "--waveform", below.File("a.png")}));
    ASSERT_TRUE(AwaitPosition(program, 0.5));
    ASSERT_EQ(::umount2(below.Path().c_str(), MNT_DETACH), 0);
    ASSERT_TRUE(program.AwaitError("is gone"));
    program.Send(SIGTERM);

    EXPECT_EQ(program.Wait(), 3);

    EXPECT_EQ(ReadBytes(below.File("a.wav")), ToBytes("theirs"));
    EXPECT_EQ(ReadBytes(below.File("a.png")), ToBytes("theirs, too"));
    EXPECT_GT(ReadWav(below.File("a-2.wav")).Frames(), 0U);
    EXPECT_TRUE(std::filesystem::exists(below.File("a-2.png")));
}

TEST_F(RescueTest, AVolumeThatIsBackForTheSaveIsTheOneThatWasChecked) {
    const TempDirectory place;
    const SmallVolume volume(4 << 20);
    if (!volume.Mounted() ||
        ::mount(volume.Path().c_str(), place.Path().c_str(), nullptr, MS_BIND, nullptr) != 0) {
        GTEST_SKIP() << "needs the right to mount";
    }
    Process program(Record("", {place.File("a.wav")}));
    ASSERT_TRUE(AwaitPosition(program, 0.5));
    ASSERT_EQ(::umount2(place.Path().c_str(), MNT_DETACH), 0);
    ASSERT_TRUE(program.AwaitError("is gone"));
    ASSERT_EQ(::mount(volume.Path().c_str(), place.Path().c_str(), nullptr, MS_BIND, nullptr), 0);
    program.Send(SIGTERM);

    EXPECT_EQ(program.Wait(), 0) << program.Error();

    EXPECT_GT(ReadWav(volume.File("a.wav")).Frames(), 0U);
    EXPECT_EQ(::umount2(place.Path().c_str(), MNT_DETACH), 0);
}

TEST_F(RescueTest, SubvolumesOfOneFileSystemHaveTheRoomOfOne) {
    const Subvolumes volumes;
    if (!volumes.Made()) {
        GTEST_SKIP() << "needs the right to mount, and btrfs";
    }
    // Seconds that are said to fit, when the file goes to this directory.
    const auto room = [&](const std::string& directory) {
        Process::Setup setup = Record("start=fail", {directory + "/a.wav", "--duration", "36000"});
        *std::find(setup.arguments.begin(), setup.arguments.end(), places.TempPath()) = volumes.A();
        Process program(setup);
        EXPECT_EQ(program.Wait(), 2);
        const std::size_t at = program.Error().find("is enough for ");
        int minutes = 0;
        double seconds = 0.0;
        EXPECT_NE(at, std::string::npos) << program.Error();
        EXPECT_EQ(
            std::sscanf(program.Error().c_str() + at, "is enough for %d:%lf", &minutes, &seconds),
            2);
        return minutes * 60 + seconds;
    };

    const double together = room(volumes.A());

    // 9 bytes a sample go to one, and would be 6 if the file were elsewhere.
    EXPECT_NEAR(room(volumes.B()), together, 0.02 * together);
    EXPECT_GT(room(places.FilesPath()), 1.4 * together);
}

}  // namespace
}  // namespace vorrel::test
