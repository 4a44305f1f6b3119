// What a killed program has left, saved by another run.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "CliProgram.h"
#include "WavReader.h"
#include "support/Await.h"

namespace vorrel::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class SalvageTest : public testing::Test {
protected:
    /// Records until position `seconds`, and dies; not before the journal names all of the engine's
    /// files, of which a take this short has one a channel and, sooner or later, one of the
    /// preview.
    void RecordAndDie(std::vector<std::string> arguments, double seconds,
                      std::size_t channels = 2) {
        arguments.insert(arguments.begin(), places.File("lost"));
        Process program(places.Record(VORREL_CLI, arguments));
        ASSERT_TRUE(AwaitPosition(program, seconds)) << program.Error();
        Await([&] {
            // The journal is the one file beside them.
            const std::filesystem::directory_iterator files(Take());
            const std::ptrdiff_t there = std::distance(begin(files), end(files));
            const std::size_t named = Spills().size();
            return named >= channels && there == static_cast<std::ptrdiff_t>(named) + 1;
        });
        program.Send(SIGKILL);
        ASSERT_EQ(program.Wait(), -SIGKILL);
    }

    /// The directory of the only take.
    std::string Take() const {
        return std::filesystem::directory_iterator(places.TempPath())->path().string();
    }

    /// Paths of the engine's files, as the journal of the only take names them.
    std::vector<std::string> Spills() const {
        std::vector<std::string> paths;
        const std::string take = Take();
        std::ifstream journal(take + "/journal.jsonl");
        for (std::string line; std::getline(journal, line);) {
            const nlohmann::json object = nlohmann::json::parse(line, nullptr, false);
            if (object.is_object() && object.contains("spill")) {
                paths.push_back(take + "/" + object.at("spill").get<std::string>());
            }
        }
        return paths;
    }

    Process::Setup Salvage(std::vector<std::string> arguments) const {
        Process::Setup setup;
        setup.arguments = {VORREL_CLI, "salvage", "--json", "--temp-dir", places.TempPath()};
        setup.arguments.insert(setup.arguments.end(), arguments.begin(), arguments.end());
        return setup;
    }

    CliPlaces places;
};

TEST_F(SalvageTest, EverySampleOfAKilledTakeThatReachedTheDiskIsSaved) {
    RecordAndDie({"--simulate=source=counter,speed=40,channels=3"}, 31.0, 3);
    Process list(Salvage({}));
    ASSERT_EQ(list.Wait(), 0) << list.Error();
    const std::vector<nlohmann::json> takes = Events(list.Out(), "take");
    ASSERT_EQ(takes.size(), 1U);
    EXPECT_EQ(takes[0].at("rate_hz"), 48'000);
    EXPECT_EQ(takes[0].at("channels"), 3);
    EXPECT_EQ(takes[0].at("out"), places.File("lost"));
    EXPECT_EQ(takes[0].at("state"), "recording");

    Process save(Salvage({takes[0].at("take"), places.File("a.wav")}));

    ASSERT_EQ(save.Wait(), 0) << save.Error();
    const Wav wav = ReadWav(places.File("a.wav"));
    EXPECT_EQ(wav.channels, 3U);
    EXPECT_EQ(wav.bits, 24U);
    EXPECT_EQ(wav.Frames(), takes[0].at("frames").get<std::size_t>());
    EXPECT_EQ(FirstGap(wav, CounterStart(wav)), wav.Frames());
    // The engine's memory holds five seconds, and a block may not have been written out.
    EXPECT_GE(wav.Frames(), 48'000U * 20);
    EXPECT_FALSE(places.TempIsEmpty());  // it stays until it is told to go
}

TEST_F(SalvageTest, ADsdTakeHasTheBytesThatTheEngineWouldHaveSaved) {
    RecordAndDie({"--type", "dsd", "--simulate=source=counter,speed=5"}, 21.0);
    Process save(Salvage({"vorrel-", places.File("a.dsf")}));
    ASSERT_EQ(save.Wait(), 0) << save.Error();
    Process whole(places.Record(VORREL_CLI, {places.File("b.dsf"), "--type", "dsd", "--duration",
                                             "6", "--simulate=source=counter,speed=5"}));
    ASSERT_EQ(whole.Wait(), 0) << whole.Error();

    const Bytes salvaged = ReadBytes(places.File("a.dsf"));
    const Bytes saved = ReadBytes(places.File("b.dsf"));

    // The same counter from its start: all of whole blocks agrees.
    constexpr std::ptrdiff_t kBytes = 2 * 4096 * 500;
    ASSERT_GT(salvaged.size(), static_cast<std::size_t>(kBytes) + 92);
    EXPECT_TRUE(
        std::equal(salvaged.begin() + 92, salvaged.begin() + 92 + kBytes, saved.begin() + 92));
    EXPECT_EQ(LittleEndian(salvaged, 48, 4), LittleEndian(saved, 48, 4));
    EXPECT_EQ(LittleEndian(salvaged, 56, 4), 2'822'400U);
}

TEST_F(SalvageTest, PausesAreCutOutOfASalvagedTakeToo) {
    Process::Setup setup =
        places.Record(VORREL_CLI, {places.File("lost"), "--simulate=source=counter,speed=40"});
    setup.terminal = true;
    {
        Process program(setup);
        ASSERT_TRUE(AwaitPosition(program, 12.0));
        ASSERT_TRUE(program.Type(" "));
        ASSERT_TRUE(program.AwaitOut("\"paused\""));
        ASSERT_TRUE(program.AwaitOut("\"level\""));
        ASSERT_TRUE(program.AwaitOut("\"level\""));
        ASSERT_TRUE(program.Type(" "));
        ASSERT_TRUE(AwaitPosition(program, 40.0));
        program.Send(SIGKILL);
        ASSERT_EQ(program.Wait(), -SIGKILL);
    }
    Process save(Salvage({"vorrel-", places.File("a.wav")}));

    ASSERT_EQ(save.Wait(), 0) << save.Error();

    const Wav wav = ReadWav(places.File("a.wav"));
    const std::size_t pause = FirstGap(wav, CounterStart(wav));
    ASSERT_GE(pause, 48'000U * 12);
    ASSERT_LT(pause, wav.Frames());
    EXPECT_GT(wav.Frames(),
              48'000U * 25);  // how long it went on until the kill, the machine decides
}

TEST_F(SalvageTest, APreRollIsNotPartOfTheTake) {
    {
        Process program(places.Record(VORREL_CLI, {places.File("lost"), "--pre-roll", "1",
                                                   "--simulate=source=counter,speed=40"}));
        ASSERT_TRUE(program.AwaitOut("\"armed\""));
        for (int look = 0; look < 4; ++look) {
            ASSERT_TRUE(program.AwaitOut("\"level\""));
        }
        program.Send(SIGUSR1);
        ASSERT_TRUE(AwaitPosition(program, 20.0));
        program.Send(SIGKILL);
        ASSERT_EQ(program.Wait(), -SIGKILL);
    }
    Process save(Salvage({"vorrel-", places.File("a.wav")}));

    ASSERT_EQ(save.Wait(), 0) << save.Error();

    const Wav wav = ReadWav(places.File("a.wav"));
    EXPECT_GT(CounterStart(wav), 0U);
    EXPECT_EQ(FirstGap(wav, CounterStart(wav)), wav.Frames());
}

TEST_F(SalvageTest, ANewTakeCleansNobodyElsesAndSaysWhatSavesIt) {
    RecordAndDie({"--simulate=source=counter,speed=40"}, 11.0);

    Process next(places.Record(VORREL_CLI, {places.File("b.wav"), "--duration", "1",
                                            "--simulate=source=counter,speed=20"}));

    EXPECT_EQ(next.Wait(), 0);
    EXPECT_THAT(next.Error(), HasSubstr("vorrel salvage"));
    Process list(Salvage({}));
    EXPECT_EQ(list.Wait(), 0);
    EXPECT_EQ(Events(list.Out(), "take").size(), 1U);
}

TEST_F(SalvageTest, ATakeThatStillRunsIsNotLeftBehind) {
    Process running(
        places.Record(VORREL_CLI, {places.File("a.wav"), "--simulate=source=counter,speed=40"}));
    ASSERT_TRUE(AwaitPosition(running, 11.0));

    Process list(Salvage({}));

    EXPECT_EQ(list.Wait(), 0);
    EXPECT_THAT(Events(list.Out(), "take"), IsEmpty());
    Process save(Salvage({"vorrel-", places.File("b.wav")}));
    EXPECT_EQ(save.Wait(), 3);
    EXPECT_THAT(save.Error(), HasSubstr("in use"));
    running.Send(SIGTERM);
    EXPECT_EQ(running.Wait(), 0);
}

TEST_F(SalvageTest, RemoveDeletesATakeOnlyWhenItIsSavedOrAskedForAlone) {
    RecordAndDie({"--simulate=source=counter,speed=40"}, 11.0);
    std::ofstream(places.File("old.wav")) << "old";

    Process refused(Salvage({"vorrel-", places.File("old.wav"), "--remove"}));
    EXPECT_EQ(refused.Wait(), 1);
    EXPECT_FALSE(places.TempIsEmpty());
    Process saved(Salvage({"vorrel-", places.File("a.wav"), "--remove", "--bits", "16"}));
    EXPECT_EQ(saved.Wait(), 0) << saved.Error();
    EXPECT_TRUE(places.TempIsEmpty());
    EXPECT_EQ(ReadWav(places.File("a.wav")).bits, 16U);

    RecordAndDie({"--simulate=source=counter,speed=40"}, 11.0);
    Process removed(Salvage({"vorrel-", "--remove"}));
    EXPECT_EQ(removed.Wait(), 0) << removed.Error();
    EXPECT_TRUE(places.TempIsEmpty());
    EXPECT_EQ(ReadBytes(places.File("old.wav")), ToBytes("old"));
}

TEST_F(SalvageTest, WhatCannotBeSavedIsSaidAndTheTakeStays) {
    RecordAndDie({"--simulate=source=counter,speed=40"}, 11.0);
    const auto expect = [&](const std::vector<std::string>& arguments, int code,
                            const std::string& text) {
        Process program(Salvage(arguments));
        EXPECT_EQ(program.Wait(), code) << text;
        EXPECT_THAT(program.Error(), HasSubstr(text));
        EXPECT_FALSE(places.TempIsEmpty());
    };
    expect({"nothing", places.File("a.wav")}, 1, "no take called");
    expect({"vorrel-", places.File("none/a.wav")}, 1, "there is no directory");
    expect({"vorrel-", places.File("a.dsf")}, 1, "*.wav");
    expect({"vorrel-"}, 1, "--remove");
    expect({"vorrel-", "/proc/a.wav"}, 1, "cannot be written");
    const std::string inside =
        std::filesystem::directory_iterator(places.TempPath())->path().string();
    expect({"vorrel-", inside + "/a.wav", "--remove"}, 1, "inside the take");
    expect({"vorrel-", inside + "/journal.jsonl", "--force"}, 1, "inside the take");
    EXPECT_THAT(places.Files(), IsEmpty());
}

TEST_F(SalvageTest, ADirectoryWithoutAJournalIsListedButNotRead) {
    std::filesystem::create_directory(places.TempFile("vorrel-abcdef"));
    std::ofstream(places.TempFile("vorrel-abcdef") + "/tmp123456") << "samples";

    Process list(Salvage({}));
    EXPECT_EQ(list.Wait(), 0);
    Process save(Salvage({"vorrel-abcdef", places.File("a.wav")}));

    EXPECT_EQ(save.Wait(), 1);
    EXPECT_EQ(Events(list.Out(), "take").at(0).at("frames"), 0);
    EXPECT_THAT(save.Error(), HasSubstr("no journal"));
}

TEST_F(SalvageTest, ATakeIsCalledByItsPathToo) {
    RecordAndDie({"--simulate=source=counter,speed=40"}, 11.0);
    const std::string take =
        std::filesystem::directory_iterator(places.TempPath())->path().string();
    const std::string name = take.substr(take.rfind('/') + 1);
    int number = 0;
    for (const std::string& path :
         {take, take + "/", take + "//", name + "/", places.TempPath() + "/./" + name}) {
        Process save(Salvage({path, places.File("a" + std::to_string(++number) + ".wav")}));
        EXPECT_EQ(save.Wait(), 0) << path << ": " << save.Error();
    }
    for (const std::string& path : {std::string("/"), std::string("//"), std::string("./")}) {
        Process none(Salvage({path, places.File("a.wav")}));
        EXPECT_EQ(none.Wait(), 1) << path;
    }
}

TEST_F(SalvageTest, ADirectoryWithoutAJournalIsCalledByItsWholeNameOnly) {
    std::filesystem::create_directory(places.TempFile("vorrel-abcdef"));
    std::ofstream(places.TempFile("vorrel-abcdef") + "/tmp123456") << "samples";

    Process part(Salvage({"abcdef", "--remove"}));
    EXPECT_EQ(part.Wait(), 1);
    EXPECT_THAT(part.Error(), HasSubstr("vorrel-abcdef has no journal"));
    EXPECT_FALSE(places.TempIsEmpty());
    Process whole(Salvage({"vorrel-abcdef", "--remove"}));
    EXPECT_EQ(whole.Wait(), 0) << whole.Error();

    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(SalvageTest, SomebodysDirectoryOfSuchANameIsNoTake) {
    const std::string own = places.TempFile("vorrel-backup");
    std::filesystem::create_directories(own + "/photos");
    std::ofstream(own + "/photos/one") << std::string(1'000'000, 'x');
    std::ofstream(own + "/tmp123456") << "mine, too";

    Process list(Salvage({}));
    EXPECT_EQ(list.Wait(), 0);
    EXPECT_THAT(Events(list.Out(), "take"), IsEmpty());
    for (const std::string& name : {std::string("ba"), std::string("vorrel-backup"), own}) {
        Process remove(Salvage({name, "--remove"}));
        EXPECT_EQ(remove.Wait(), 1);
        EXPECT_THAT(remove.Error(), HasSubstr("no take called \"" + name + "\""));
    }
    Process next(places.Record(VORREL_CLI, {places.File("b.wav"), "--duration", "1",
                                            "--simulate=source=counter,speed=20"}));
    EXPECT_EQ(next.Wait(), 0);
    EXPECT_THAT(next.Error(), testing::Not(HasSubstr("killed")));

    EXPECT_EQ(ReadBytes(own + "/photos/one").size(), 1'000'000U);
    EXPECT_EQ(ReadBytes(own + "/tmp123456"), ToBytes("mine, too"));
}

TEST_F(SalvageTest, WhatSomebodyHasPutIntoATakeStaysAndIsSaid) {
    RecordAndDie({"--simulate=source=counter,speed=40"}, 11.0);
    const std::string take =
        std::filesystem::directory_iterator(places.TempPath())->path().string();
    std::filesystem::create_directory(take + "/sub");
    std::ofstream(take + "/sub/notes") << "mine";
    std::ofstream(places.File("secret")) << "secret";
    std::filesystem::create_symlink(places.File("secret"), take + "/tmplinked");

    Process remove(Salvage({"vorrel-", "--remove"}));

    EXPECT_EQ(remove.Wait(), 3);
    EXPECT_THAT(remove.Error(), HasSubstr(take + " stays: there is more in it than the take (sub, "
                                                 "tmplinked)"));
    std::set<std::string> left;
    for (const auto& entry : std::filesystem::directory_iterator(take)) {
        left.insert(entry.path().filename().string());
    }
    EXPECT_THAT(left, ElementsAre("sub", "tmplinked"));
    EXPECT_EQ(ReadBytes(take + "/sub/notes"), ToBytes("mine"));
    EXPECT_EQ(ReadBytes(places.File("secret")), ToBytes("secret"));
    Process list(Salvage({}));
    EXPECT_EQ(list.Wait(), 0);
    EXPECT_THAT(Events(list.Out(), "take"), IsEmpty());
}

TEST_F(SalvageTest, WhatTheJournalMissesIsDoubted) {
    RecordAndDie({"--simulate=source=counter,speed=40"}, 11.0);
    const std::string take = Take();
    const Bytes bytes = ReadBytes(take + "/journal.jsonl");
    std::string text(bytes.begin(), bytes.end());
    const std::size_t line = text.find("{\"spill\"");
    text.erase(line, text.find('\n', line) + 1 - line);
    std::ofstream(take + "/journal.jsonl") << text;

    Process save(Salvage({"vorrel-", places.File("a.wav")}));

    EXPECT_EQ(save.Wait(), 3) << save.Error();
    EXPECT_THAT(save.Error(), HasSubstr("the journal does not name"));
    EXPECT_GT(ReadWav(places.File("a.wav")).Frames(), 0U);
}

TEST_F(SalvageTest, ATakeThatIsDoubtedIsSavedToTheEndOfItsLongestChannelAndKept) {
    RecordAndDie({"--simulate=source=counter,speed=40"}, 31.0);
    const std::string take = Take();
    const std::vector<std::string> spills = Spills();
    const std::size_t longest = std::filesystem::file_size(spills.at(0)) / 4;
    std::filesystem::resize_file(spills.at(1), 48'000 * 4);

    Process save(Salvage({"vorrel-", places.File("a.wav"), "--remove"}));

    EXPECT_EQ(save.Wait(), 3);
    EXPECT_THAT(save.Error(), HasSubstr("the channels have not the same length; silence fills the "
                                        "shorter channels"));
    EXPECT_THAT(save.Error(), HasSubstr("the take stays in " + take + " in spite of --remove"));
    EXPECT_EQ(Events(save.Out(), "kept").at(0).at("directory"), take);
    EXPECT_EQ(Spills(), spills);
    for (const std::string& spill : spills) {
        EXPECT_TRUE(std::filesystem::exists(spill)) << spill;
    }
    const Wav wav = ReadWav(places.File("a.wav"));
    ASSERT_EQ(wav.Frames(), longest);
    ASSERT_GT(longest, 48'000U * 15);
    std::size_t wrong = 0;
    for (std::size_t frame = 0; frame < longest; ++frame) {
        const bool cut = frame >= 48'000;
        if (wav.samples[frame * 2] != CounterValue(frame, 0, 2) ||
            wav.samples[frame * 2 + 1] != (cut ? 0 : CounterValue(frame, 1, 2))) {
            ++wrong;
        }
    }
    EXPECT_EQ(wrong, 0U);

    Process remove(Salvage({"vorrel-", "--remove"}));
    EXPECT_EQ(remove.Wait(), 0) << remove.Error();
    EXPECT_TRUE(places.TempIsEmpty());
}

TEST_F(SalvageTest, ATakeOfAnotherMachineIsSavedButNeverDeletedFromHere) {
    RecordAndDie({"--simulate=source=counter,speed=40"}, 11.0);
    const std::string journal = Take() + "/journal.jsonl";
    const Bytes bytes = ReadBytes(journal);
    std::string text(bytes.begin(), bytes.end());
    nlohmann::json first = nlohmann::json::parse(text.substr(0, text.find('\n')));
    first["host"] = "studio-b";
    first["boot"] = "another";
    text.replace(0, text.find('\n'), first.dump());
    std::ofstream(journal) << text;

    Process list(Salvage({}));
    EXPECT_EQ(list.Wait(), 0);
    EXPECT_EQ(Events(list.Out(), "take").at(0).at("elsewhere"), "studio-b");
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"vorrel-", "--remove"},
          {"vorrel-", places.File("a.wav"), "--remove"}}) {
        Process remove(Salvage(arguments));
        EXPECT_EQ(remove.Wait(), 3);
        EXPECT_THAT(remove.Error(), HasSubstr("is of another machine (studio-b)"));
    }
    EXPECT_THAT(places.Files(), IsEmpty());
    Process save(Salvage({"vorrel-", places.File("a.wav")}));
    EXPECT_EQ(save.Wait(), 0) << save.Error();
    EXPECT_THAT(save.Error(), HasSubstr("may still be recorded"));
    EXPECT_EQ(ReadBytes(journal), ToBytes(text));  // which its machine may be writing
    EXPECT_GT(ReadWav(places.File("a.wav")).Frames(), 0U);

    Process next(places.Record(VORREL_CLI, {places.File("b.wav"), "--duration", "1",
                                            "--simulate=source=counter,speed=20"}));
    EXPECT_EQ(next.Wait(), 0);
    EXPECT_THAT(next.Error(), testing::Not(HasSubstr("killed")));
}

TEST_F(SalvageTest, ASavedTakeIsToldWithItsDigest) {
    RecordAndDie({"--simulate=source=counter,speed=40"}, 11.0);
    Process save(Salvage({"vorrel-", places.File("a.wav")}));

    EXPECT_EQ(save.Wait(), 0) << save.Error();

    EXPECT_EQ(Events(save.Out(), "saved").at(0).at("sha256").get<std::string>().size(), 64U);
}

TEST_F(SalvageTest, NothingLeftBehindIsNoError) {
    Process list(Salvage({}));

    EXPECT_EQ(list.Wait(), 0);

    EXPECT_THAT(list.Error(), HasSubstr("nothing is left behind"));
}

}  // namespace
}  // namespace vorrel::test
