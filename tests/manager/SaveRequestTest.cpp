#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "ManagerRig.h"
#include "support/HeldFile.h"

namespace vorrel::test {
namespace {

class SaveRequestTest : public ManagerRig {
protected:
    void Touch(const std::string& path) { std::ofstream(path) << "x"; }
    void Record(std::uint64_t frames) {
        SelectPcm();
        StartRecording();
        Deliver(frames);
        StopRecording();
        AwaitOperation(VrRecOperationStopped);
    }
    void AwaitSaved() { AwaitOperation(VrRecOperationSaveFinished); }
};

TEST_F(SaveRequestTest, AnEmptyRequestFinishesAtOnce) {
    Init();
    const std::vector<VrSaveSetting> nothing;

    EXPECT_EQ(manager.SaveFile(&nothing), VrSuccess);

    AwaitSaved();
    EXPECT_TRUE(delegate->messages.empty());
}

TEST_F(SaveRequestTest, ARequestIsCheckedBeforeItIsTaken) {
    const std::vector<VrSaveSetting> nothing;

    EXPECT_EQ(manager.SaveFile(nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(manager.SaveFile(&nothing), VrErrorNotInitialized);
}

TEST_F(SaveRequestTest, TheFirstCancelWins) {
    Record(48'000 * 4);
    std::vector<VrSaveSetting> many;
    for (int file = 0; file < 400; ++file) {
        many.push_back({directory.File(std::to_string(file) + ".wav"), 0.0, 4.0, -1.0, {}});
    }
    ASSERT_EQ(manager.SaveFile(&many), VrSuccess);

    EXPECT_EQ(manager.SaveFileCancel(true), VrSuccess);
    EXPECT_EQ(manager.SaveFileCancel(false), VrSuccess);
    AwaitSaved();

    // Cut short, and the file that was being written is gone, not half there.
    EXPECT_FALSE(std::filesystem::exists(many.back().path));
    for (const VrSaveSetting& file : many) {
        if (std::filesystem::exists(file.path)) {
            EXPECT_EQ(std::filesystem::file_size(file.path), 44U + 768'000U);
        }
    }
    EXPECT_TRUE(delegate->messages.empty());
}

TEST_F(SaveRequestTest, ACancelBeforeASaveDoesNotTouchIt) {
    Record(4'800);
    const std::string path = directory.File("takes/take.wav");
    ASSERT_EQ(manager.SaveFileCancel(true), VrSuccess);

    const std::vector<VrSaveSetting> files = {{path, 0.0, 0.1, 0.0, {}}};
    ASSERT_EQ(manager.SaveFile(&files), VrSuccess);
    AwaitSaved();

    EXPECT_EQ(std::filesystem::file_size(path), 44U + 4'800U * 4U);
    EXPECT_TRUE(delegate->messages.empty());
}

TEST_F(SaveRequestTest, ARangeIsSavedWithItsTags) {
    Record(4'800);
    const std::string path = directory.File("take.wav");
    const std::vector<VrSaveSetting> files = {{path, 0.025, 0.05, 0.0, {{"Title", "AB"}}}};

    ASSERT_EQ(manager.SaveFile(&files), VrSuccess);
    AwaitSaved();

    // 1,200 frames of 2 x 2 bytes; tags of 60 bytes.
    EXPECT_EQ(std::filesystem::file_size(path), 44U + 4'800U + 60U);
    std::ifstream in(path, std::ios::binary);
    in.seekg(44);
    std::vector<std::int16_t> samples(2 * 1'200);
    in.read(reinterpret_cast<char*>(samples.data()), 4'800);
    EXPECT_EQ(samples.front(), Sample16(1'200, 0));
    EXPECT_EQ(samples.back(), Sample16(2'399, 1));
}

TEST_F(SaveRequestTest, ASaveDuringASaveFailsAndHarmsNothing) {
    Record(48'000 * 4);
    std::vector<VrSaveSetting> many;
    for (int file = 0; file < 4; ++file) {
        many.push_back({directory.File(std::to_string(file) + ".wav"), 0.0, 4.0, -1.0, {}});
    }
    const HeldFile held(many.front().path);  // until it is read, the first save goes on
    ASSERT_EQ(manager.SaveFile(&many), VrSuccess);
    const std::vector<VrSaveSetting> other = {{directory.File("other.wav"), 0.0, 1.0, 0.0, {}}};

    const VrError result = manager.SaveFile(&other);

    EXPECT_EQ(result, VrErrorFailed);
    EXPECT_GE(held.ReadToEnd().size(), 44U + 768'000U);
    AwaitSaved();
    EXPECT_FALSE(std::filesystem::exists(directory.File("other.wav")));
    for (std::size_t file = 1; file < many.size(); ++file) {
        EXPECT_EQ(std::filesystem::file_size(many[file].path), 44U + 768'000U);
    }
}

TEST_F(SaveRequestTest, TheNextSaveMayStartFromWithinTheNotification) {
    Record(4'800);
    const std::vector<VrSaveSetting> first = {{directory.File("1.wav"), 0.0, 0.1, 0.0, {}}};
    const std::vector<VrSaveSetting> second = {{directory.File("2.wav"), 0.0, 0.1, 0.0, {}}};
    std::vector<VrError> results;
    delegate->onOperation = [&](VrRecOperation operation) {
        if (operation == VrRecOperationSaveFinished && results.empty()) {
            results.push_back(manager.SaveFile(&second));
        }
    };

    ASSERT_EQ(manager.SaveFile(&first), VrSuccess);
    ASSERT_TRUE(DispatchUntil([&] { return delegate->Count(VrRecOperationSaveFinished) == 2; }));

    EXPECT_EQ(results, std::vector{VrSuccess});
    EXPECT_EQ(std::filesystem::file_size(directory.File("2.wav")), 44U + 4'800U * 4U);
}

TEST_F(SaveRequestTest, ASaveRunsDuringARecording) {
    SelectPcm();
    StartRecording();
    Deliver(4'800);
    AwaitStored();
    const std::vector<VrSaveSetting> files = {{directory.File("part.wav"), 0.0, 0.1, 0.0, {}}};

    ASSERT_EQ(manager.SaveFile(&files), VrSuccess);
    Deliver(4'800);
    AwaitSaved();
    StopRecording();

    EXPECT_EQ(std::filesystem::file_size(directory.File("part.wav")), 44U + 4'800U * 4U);
    EXPECT_EQ(Length(true), 9'600U);
}

TEST_F(SaveRequestTest, ProgressBeforeAnySaveIsAnInvalidState) {
    std::int32_t file = 11;
    std::int32_t total = 12;
    EXPECT_EQ(manager.SaveFileProgress(&file, &total), VrErrorNotInitialized);
    Init();

    EXPECT_EQ(manager.SaveFileProgress(&file, &total), VrErrorInvalidState);

    EXPECT_EQ(file, 11);
    EXPECT_EQ(total, 12);
    EXPECT_EQ(manager.SaveFileProgress(nullptr, &total), VrErrorInvalidParameter);
    EXPECT_EQ(manager.SaveFileProgress(&file, nullptr), VrErrorInvalidParameter);
}

TEST_F(SaveRequestTest, APreviewReadChecksItsArguments) {
    std::int16_t samples[4] = {1, 2, 3, 4};
    EXPECT_EQ(manager.GetPreviewData(0, 1, nullptr, true), VrErrorInvalidParameter);
    EXPECT_EQ(manager.GetPreviewData(0, 1, samples, true), VrErrorNotInitialized);
    EXPECT_EQ(manager.GetPreviewDataLength(nullptr, true), VrErrorInvalidParameter);
    Record(10);

    EXPECT_EQ(manager.GetPreviewData(3, 3, samples, true), VrErrorInvalidParameter);
    EXPECT_EQ(manager.GetPreviewData(4, 3, samples, false), VrErrorInvalidParameter);
    EXPECT_EQ(manager.GetPreviewData(9, 11, samples, true), VrErrorInvalidParameter);
    EXPECT_EQ(samples[0], 1);

    EXPECT_EQ(manager.GetPreviewData(8, 10, samples, true), VrSuccess);
    EXPECT_EQ(samples[0], Sample16(8, 0));
    EXPECT_EQ(samples[3], Sample16(9, 1));
}

TEST_F(SaveRequestTest, ThePreviewIsEmptyBeforeARecording) {
    Init();

    EXPECT_EQ(Length(true), 0U);
    EXPECT_EQ(Length(false), 0U);
}

TEST_F(SaveRequestTest, KeepsTheFirstTempDirectoryAlthoughItIsRefused) {
    ASSERT_EQ(manager.Init(delegate), VrSuccess);
    const std::string missing = directory.File("missing");

    EXPECT_EQ(manager.SetTempDirectory(missing.c_str()), VrErrorInvalidParameter);
    EXPECT_EQ(manager.GetTempDirectory(), missing);
    EXPECT_FALSE(manager.IsTempDirectoryExists());

    EXPECT_EQ(manager.SetTempDirectory(directory.File("another").c_str()), VrErrorInvalidParameter);
    EXPECT_EQ(manager.GetTempDirectory(), missing);
}

TEST_F(SaveRequestTest, NoTempDirectoryIsNoneAtAll) {
    ASSERT_EQ(manager.Init(delegate), VrSuccess);

    EXPECT_EQ(manager.SetTempDirectory(nullptr), VrErrorInvalidParameter);

    EXPECT_STREQ(manager.GetTempDirectory(), "");
    EXPECT_FALSE(manager.IsTempDirectoryExists());
}

TEST_F(SaveRequestTest, NullIsNoTempDirectoryAndKeepsTheOneInForce) {
    Init();

    EXPECT_EQ(manager.SetTempDirectory(nullptr), VrErrorInvalidParameter);

    EXPECT_EQ(manager.GetTempDirectory(), directory.Path());
}

TEST_F(SaveRequestTest, AFileIsNoTempDirectory) {
    Init();
    Touch(directory.File("file"));

    EXPECT_EQ(manager.SetTempDirectory(directory.File("file").c_str()), VrErrorInvalidParameter);

    EXPECT_EQ(manager.GetTempDirectory(), directory.Path());
}

TEST_F(SaveRequestTest, TheTempDirectoryCannotChangeDuringARecording) {
    EXPECT_EQ(manager.SetTempDirectory(directory.Path().c_str()), VrErrorNotInitialized);
    SelectPcm();
    StartRecording();

    EXPECT_EQ(manager.SetTempDirectory(directory.Path().c_str()), VrErrorInvalidState);
    EXPECT_EQ(manager.SetTempDirectory(nullptr), VrErrorInvalidState);
}

TEST_F(SaveRequestTest, ChangingTheTempDirectoryCleansTheOldOne) {
    const std::string old = directory.File("old");
    const std::string next = directory.File("next");
    std::filesystem::create_directories(old + "/tmpdir");
    std::filesystem::create_directory(next);
    ASSERT_EQ(manager.Init(delegate), VrSuccess);
    ASSERT_EQ(manager.SetTempDirectory(old.c_str()), VrSuccess);
    Touch(old + "/tmpABCdef");
    Touch(old + "/notes.tmp");
    Touch(old + "/tmpdir/tmpABCdef");
    Touch(directory.File("precious"));
    std::filesystem::create_symlink(directory.File("precious"), old + "/tmplink");
    Touch(next + "/tmpABCdef");

    ASSERT_EQ(manager.SetTempDirectory(next.c_str()), VrSuccess);

    EXPECT_FALSE(std::filesystem::exists(old + "/tmpABCdef"));
    EXPECT_TRUE(std::filesystem::exists(old + "/notes.tmp"));
    EXPECT_TRUE(std::filesystem::exists(old + "/tmpdir/tmpABCdef"));
    EXPECT_TRUE(std::filesystem::is_symlink(old + "/tmplink"));
    EXPECT_TRUE(std::filesystem::exists(directory.File("precious")));
    EXPECT_TRUE(std::filesystem::exists(next + "/tmpABCdef"));
    EXPECT_EQ(manager.GetTempDirectory(), next);
}

TEST_F(SaveRequestTest, CleaningDeletesRegularFilesAloneAndNothingThroughALink) {
    const std::string elsewhere = directory.File("elsewhere");
    const std::string temp = directory.File("temp");
    std::filesystem::create_directories(elsewhere);
    std::filesystem::create_directories(temp);
    Touch(elsewhere + "/tmpABCdef");
    Touch(temp + "/tmpABCdef");
    Touch(temp + "/Tmp123456");
    Touch(temp + "/tm");
    std::filesystem::create_symlink(elsewhere, temp + "/tmpDIRlnk");
    std::filesystem::create_symlink(elsewhere + "/tmpABCdef", temp + "/tmpFILlnk");
    std::filesystem::create_symlink(elsewhere + "/nothing", temp + "/tmpNONlnk");
    std::filesystem::create_directory(temp + "/tmpEMPTYd");
    ASSERT_EQ(::mkfifo((temp + "/tmpFIFOxx").c_str(), 0600), 0);
    ASSERT_EQ(manager.Init(delegate), VrSuccess);

    ASSERT_EQ(manager.SetTempDirectory(temp.c_str()), VrSuccess);

    std::vector<std::string> left;
    for (const auto& entry : std::filesystem::directory_iterator(temp)) {
        left.push_back(entry.path().filename());
    }
    EXPECT_THAT(left, testing::UnorderedElementsAre("Tmp123456", "tm", "tmpDIRlnk", "tmpFILlnk",
                                                    "tmpNONlnk", "tmpEMPTYd", "tmpFIFOxx"));
    EXPECT_TRUE(std::filesystem::exists(elsewhere + "/tmpABCdef"));
}

TEST_F(SaveRequestTest, ADirectoryThatCannotBeListedIsTakenAllTheSame) {
    ASSERT_EQ(manager.Init(delegate), VrSuccess);
    Touch(directory.File("tmpABCdef"));
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{0, limit.rlim_max};  // no descriptor for a listing
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);

    const VrError result = manager.SetTempDirectory(directory.Path().c_str());

    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(result, VrSuccess);
    EXPECT_EQ(manager.GetTempDirectory(), directory.Path());
    EXPECT_TRUE(std::filesystem::exists(directory.File("tmpABCdef")));
}

TEST_F(SaveRequestTest, TheFirstTempDirectoryIsCleanedItself) {
    ASSERT_EQ(manager.Init(delegate), VrSuccess);
    Touch(directory.File("tmpABCdef"));

    ASSERT_EQ(manager.SetTempDirectory(directory.Path().c_str()), VrSuccess);

    EXPECT_FALSE(std::filesystem::exists(directory.File("tmpABCdef")));
}

TEST_F(SaveRequestTest, SettingTheSameTempDirectoryAgainCleansIt) {
    Init();
    Touch(directory.File("tmpABCdef"));

    ASSERT_EQ(manager.SetTempDirectory(directory.Path().c_str()), VrSuccess);

    EXPECT_FALSE(std::filesystem::exists(directory.File("tmpABCdef")));
    EXPECT_EQ(manager.GetTempDirectory(), directory.Path());
}

TEST_F(SaveRequestTest, AnEmptyTempDirectoryIsNoneAtAll) {
    ASSERT_EQ(manager.Init(delegate), VrSuccess);
    EXPECT_EQ(manager.SetTempDirectory(""), VrErrorInvalidParameter);
    Touch(directory.File("tmpABCdef"));

    ASSERT_EQ(manager.SetTempDirectory(directory.Path().c_str()), VrSuccess);

    EXPECT_FALSE(std::filesystem::exists(directory.File("tmpABCdef")));  // as the first one
}

TEST_F(SaveRequestTest, ADirectoryBehindARefusedFirstOneComesIntoForceAndIsNotCleaned) {
    ASSERT_EQ(manager.Init(delegate), VrSuccess);
    ASSERT_EQ(manager.SetTempDirectory(directory.File("missing").c_str()), VrErrorInvalidParameter);
    const std::string valid = directory.File("valid");
    std::filesystem::create_directory(valid);
    Touch(valid + "/tmpABCdef");

    EXPECT_EQ(manager.SetTempDirectory(valid.c_str()), VrSuccess);

    EXPECT_EQ(manager.GetTempDirectory(), valid);
    EXPECT_TRUE(manager.IsTempDirectoryExists());
    // It was not in force when the one in force was to be cleaned.
    EXPECT_TRUE(std::filesystem::exists(valid + "/tmpABCdef"));
}

TEST_F(SaveRequestTest, AVanishedTempDirectoryEndsTheRecordingsStorage) {
    const std::string spill = directory.File("spill");
    std::filesystem::create_directory(spill);
    SelectPcm();
    ASSERT_EQ(manager.SetTempDirectory(spill.c_str()), VrSuccess);
    StartRecording();
    std::filesystem::remove_all(spill);

    Deliver(48'000 * 6);  // more than a memory buffer of five seconds: has to spill

    ASSERT_TRUE(DispatchUntil([&] { return !delegate->messages.empty(); }));
    EXPECT_EQ(delegate->messages.front(),
              RecordingDelegate::Message(VrMessageTempDirectoryMissing, ""));
    ASSERT_EQ(manager.Stop(true), VrSuccess);
    EXPECT_EQ(manager.State(), ManagerState::Ready);
}

}  // namespace
}  // namespace vorrel::test
