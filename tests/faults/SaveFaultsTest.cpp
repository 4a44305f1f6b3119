#include <gtest/gtest.h>

#include <fstream>

#include "faults/FaultRig.h"

namespace vorrel::test {
namespace {

constexpr const char* kEarlierFile = "an earlier take";

/// How a save may end.
enum Ending : unsigned {
    kWritten = 1,  // the whole file
    kFailed = 2,   // one message that it failed
    kSkipped = 4,  // one message that it was left out
    kRefused = 8,  // the request itself
};

/// A take of ten and a half seconds, of which ten are on the disk, and saves of it into a new
/// directory.
class SaveFaults {
public:
    SaveFaults(std::string operationName, std::uint64_t rateHz, Take::Type type, VrSaveSetting file)
        : operation(std::move(operationName)),
          rig(rateHz, type, 2, 11.0),
          directory(rig.take.directory.File("new")) {
        file.path = directory + "/take";
        files = {std::move(file)};
        rig.Start();
        rig.Deliver(rig.BuffersOf(10.5));
        rig.Stop();
        EXPECT_EQ(SaveWith({.call = Call::Write, .nth = ~std::uint64_t{0}}, 0), 0U);
        whole = ReadBytes(files.front().path);
        EXPECT_FALSE(whole.empty());
    }

    void Sweep(Fault fault, unsigned allowed) {
        test::Sweep(operation, std::move(fault),
                    [&](const Fault& one) { return SaveWith(one, allowed); });
    }

    /// Saves with the fault, checks how that ended, and saves again without one.
    std::uint64_t SaveWith(const Fault& fault, unsigned allowed) {
        Clear();
        ArmedFault armed(fault);
        const VrError result = AsHost([&] { return rig.take.manager.SaveFile(&files); });
        if (result == VrSuccess) {
            EXPECT_TRUE(
                SettlesUntil([&] { return rig.take.delegate->Has(VrRecOperationSaveFinished); }));
        }
        VorrelManagerParts::Saver(rig.take.manager).WaitFinished();
        armed.Disarm();
        MainQueue::Dispatch();
        if (allowed != 0) {
            // A call that is not met is one behind the last.
            CheckEnding(result, armed.Met() == 0 ? unsigned{kWritten} : allowed, fault);
            ExpectTheNextSaveIsWhole();
        }
        return armed.Met();
    }

    /// The directory is taken away in the middle of the save, at each of its calls.
    std::uint64_t SaveWhileTheDirectoryVanishes(const Fault& fault) {
        const std::uint64_t met = SaveWith(fault, 0);
        const std::vector<std::string>& log = rig.take.delegate->log;
        EXPECT_EQ(std::ranges::count(log, "operation 3"), 1);
        EXPECT_LE(log.size(), 2U);
        ExpectTheNextSaveIsWhole();
        return met;
    }

    /// A cancel comes with the fault, and a file of somebody else stands at the path.
    std::uint64_t CancelOverAnExistingFile(Fault fault, bool deleteFile) {
        Clear();
        const std::string& path = files.front().path;
        const std::string witness = rig.take.directory.File("witness");
        std::filesystem::create_directory(directory);
        std::ofstream(path) << kEarlierFile;
        std::filesystem::remove(witness);
        std::filesystem::create_hard_link(path, witness);  // shows whether it was ever opened
        fault.action = [&] { std::ignore = rig.take.manager.SaveFileCancel(deleteFile); };
        fault.failsToo = true;
        ArmedFault armed(fault);
        if (AsHost([&] { return rig.take.manager.SaveFile(&files); }) == VrSuccess) {
            EXPECT_TRUE(
                SettlesUntil([&] { return rig.take.delegate->Has(VrRecOperationSaveFinished); }));
        }
        VorrelManagerParts::Saver(rig.take.manager).WaitFinished();
        armed.Disarm();
        const bool isUntouched = Text(witness) == kEarlierFile;
        EXPECT_TRUE(std::filesystem::exists(path) || (deleteFile && !isUntouched));
        if (isUntouched) {
            EXPECT_EQ(Text(path), kEarlierFile);
        }
        return armed.Met();
    }

    const std::string& Directory() const { return directory; }

private:
    void Clear() {
        std::filesystem::remove_all(directory);
        rig.Forget();
    }

    static std::string Text(const std::string& path) {
        const Bytes bytes = ReadBytes(path);
        return {bytes.begin(), bytes.end()};
    }

    void CheckEnding(VrError result, unsigned allowed, const Fault& fault) {
        const std::vector<std::string>& log = rig.take.delegate->log;
        const std::string& path = files.front().path;
        // There may be no memory for the path; the message comes all the same.
        const auto isMessage = [&](const std::string& line, const std::string& kind) {
            return line == kind + path || (fault.call == Call::Memory && line == kind);
        };
        const std::string all = ::testing::PrintToString(log);
        if (result != VrSuccess) {
            EXPECT_EQ(result, VrErrorFailed);
            EXPECT_TRUE((allowed & kRefused) != 0);
            EXPECT_TRUE(log.empty()) << all;
        } else if (log.size() == 1) {
            EXPECT_TRUE((allowed & kWritten) != 0) << all;
            EXPECT_EQ(log.front(), "operation 3");
            if (fault.call == Call::Encoding) {
                ExpectSizesHold(ReadBytes(path));
            } else {
                EXPECT_TRUE(ReadBytes(path) == whole);
            }
        } else if (log.size() == 2 && isMessage(log[1], "message 3 ")) {
            EXPECT_TRUE((allowed & kFailed) != 0) << all;
            EXPECT_EQ(log.front(), "operation 3");
            // The part that was written stays; a directory with nothing in it does not.
            EXPECT_EQ(std::filesystem::exists(directory), std::filesystem::exists(path));
            EXPECT_LE(ReadBytes(path).size(), whole.size());
        } else if (log.size() == 2 && isMessage(log[0], "message 4 ")) {
            EXPECT_TRUE((allowed & kSkipped) != 0) << all;
            EXPECT_EQ(log.back(), "operation 3");
            EXPECT_FALSE(std::filesystem::exists(path));
        } else {
            ADD_FAILURE() << all;
        }
    }

    /// The file is as long as its header says.
    static void ExpectSizesHold(const Bytes& file) {
        const bool isWav = LittleEndian(file, 0, 4) == Id("RIFF");
        EXPECT_EQ(file.size(), isWav ? LittleEndian(file, 4, 4) + 8 : LittleEndian(file, 12, 8));
    }

    void ExpectTheNextSaveIsWhole() {
        Clear();
        ASSERT_EQ(rig.take.manager.SaveFile(&files), VrSuccess);
        ASSERT_TRUE(
            SettlesUntil([&] { return rig.take.delegate->Has(VrRecOperationSaveFinished); }));
        VorrelManagerParts::Saver(rig.take.manager).WaitFinished();
        EXPECT_TRUE(rig.take.delegate->messages.empty());
        EXPECT_TRUE(ReadBytes(files.front().path) == whole);
    }

    const std::string operation;
    FaultRig rig;
    const std::string directory;
    std::vector<VrSaveSetting> files;
    Bytes whole;
};

// Partly in characters of more than a byte, one of which Shift-JIS lacks.
const std::map<std::string, std::string> kTags = {
    {"Title", "録音"}, {"Alubum", "Nr. 1"}, {"Artist", "é"}, {"AlbumArtist", "B"}};

/// What is the same for both kinds of files.
void SweepTheRoadToAFile(SaveFaults& faults) {
    faults.Sweep({.call = Call::MakeDirectory, .error = EACCES}, kFailed);
    faults.Sweep({.call = Call::FreeSpace}, kFailed);
    faults.Sweep({.call = Call::FileSystem}, kSkipped);
    faults.Sweep({.call = Call::Open, .error = EACCES}, kSkipped);
    faults.Sweep({.call = Call::Open, .error = EINTR}, kSkipped);
    for (const int error : {ENOSPC, EIO}) {
        faults.Sweep({.call = Call::Write, .error = error}, kFailed);
        faults.Sweep({.call = Call::Write, .error = error, .forGood = true}, kFailed);
        faults.Sweep({.call = Call::Write, .error = error, .isShort = true, .forGood = true},
                     kFailed);
        faults.Sweep({.call = Call::Close, .error = error}, kFailed);
    }
    faults.Sweep({.call = Call::Write, .isShort = true}, kWritten);
    for (const Call call : {Call::Read, Call::Seek}) {
        // Blocks that cannot be read together are read one by one: a failure that passes is none.
        faults.Sweep({.call = call}, kWritten | kFailed);
        faults.Sweep({.call = call, .forGood = true}, kFailed);
    }
}

/// Texts that cannot be converted, for this cause or that.
void SweepTheTags(SaveFaults& faults) {
    for (const int error : {EMFILE, ENFILE, ENOMEM}) {
        faults.Sweep({.call = Call::Encoding, .error = error}, kFailed);
        faults.Sweep({.call = Call::Encoding, .error = error, .forGood = true}, kFailed);
    }
    // No table of the encoding: substitutes, and sizes that hold.
    faults.Sweep({.call = Call::Encoding, .error = EINVAL}, kWritten);
    faults.Sweep({.call = Call::Encoding, .error = EINVAL, .forGood = true}, kWritten);
}

/// A file of somebody else stands at the path, and goes only if this save has opened it.
void SweepCancels(SaveFaults& faults, const std::string& operation) {
    for (const bool deleteFile : {true, false}) {
        for (const Fault& fault : {Fault{.call = Call::Open, .error = EACCES},
                                   Fault{.call = Call::Open, .error = EMFILE},
                                   Fault{.call = Call::FileSystem}, Fault{.call = Call::Memory}}) {
            Sweep("cancel of " + operation, fault, [&](const Fault& one) {
                return faults.CancelOverAnExistingFile(one, deleteFile);
            });
        }
    }
}

/// A directory that vanishes, threads and memory that are not there.
void SweepTheSurroundings(SaveFaults& faults, const std::string& operation) {
    Sweep(operation,
          {.call = Call::AnyFileCall,
           .action =
               [&] {
                   std::error_code ignored;
                   std::filesystem::remove_all(faults.Directory(), ignored);
               }},
          [&](const Fault& fault) { return faults.SaveWhileTheDirectoryVanishes(fault); });
    faults.Sweep({.call = Call::Thread}, kRefused | kFailed | kWritten);
    faults.Sweep({.call = Call::Thread, .forGood = true}, kRefused | kFailed | kWritten);
    // Left out is only a file that cannot stand where it is to stand.
    constexpr unsigned kNotSkipped = kRefused | kFailed | kWritten;
    faults.Sweep({.call = Call::Memory}, kNotSkipped);
    faults.Sweep({.call = Call::Memory, .forGood = true}, kNotSkipped);
}

TEST(SaveFaultsTest, AWavFileIsWholeOrItsFailureIsToldOnce) {
    SaveFaults faults("save WAV", 44'100, Take::Pcm, {{}, 0.25, 10.5, -3.0, kTags});
    SweepTheRoadToAFile(faults);
    SweepTheTags(faults);
    SweepTheSurroundings(faults, "save WAV");
    SweepCancels(faults, "save WAV");
}

TEST(SaveFaultsTest, ADsfFileIsWholeOrItsFailureIsToldOnce) {
    SaveFaults faults("save DSF", 2'822'400, Take::Dsd, {{}, 0.25, 10.5, 0.0, {}});
    SweepTheRoadToAFile(faults);
    for (const int error : {ENOSPC, EIO}) {
        faults.Sweep({.call = Call::WriteMany, .error = error}, kFailed);
        faults.Sweep({.call = Call::WriteMany, .error = error, .isShort = true, .forGood = true},
                     kFailed);
    }
    faults.Sweep({.call = Call::WriteMany, .isShort = true}, kWritten);
    faults.Sweep({.call = Call::WriteMany, .error = EINTR}, kWritten);
    SweepTheSurroundings(faults, "save DSF");
}

TEST(SaveFaultsTest, ADsfFileWithGainAndTagsIsWholeOrItsFailureIsToldOnce) {
    // From the end of the first block on the disk into the second.
    SaveFaults faults("save DSF, gain, tags", 2'822'400, Take::Dsd, {{}, 4.8, 5.4, -6.0, kTags});
    SweepTheRoadToAFile(faults);
    SweepTheTags(faults);
    SweepTheSurroundings(faults, "save DSF, gain, tags");
    SweepCancels(faults, "save DSF, gain, tags");
}

}  // namespace
}  // namespace vorrel::test
