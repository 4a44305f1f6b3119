#include <gtest/gtest.h>

#include <fstream>

#include "faults/FaultRig.h"
#include "support/FakeManager.h"

namespace vorrel::test {
namespace {

constexpr std::uint64_t kRateHz = 44'100;
constexpr double kSeconds = 10.5;  // two blocks of each channel and of the preview are on the disk
constexpr std::int16_t kUntouched = 0x5A5A;
constexpr const char* kEarlierFile = "an earlier take";

class StoreFaultsTest : public ::testing::Test {
protected:
    void MakeTake() {
        rig.Start();
        rig.Deliver(rig.BuffersOf(kSeconds));
        rig.Stop();
    }

    std::vector<std::int16_t> ReadPreview() {
        std::vector<std::int16_t> samples(rig.take.Length(true) * 2, kUntouched);
        EXPECT_EQ(rig.take.manager.GetPreviewData(0, samples.size() / 2, samples.data(), true),
                  VrSuccess);
        return samples;
    }

    /// The engine lets go of the take, and may need to be told twice.
    std::uint64_t NewWith(const Fault& fault) {
        MakeTake();
        EXPECT_EQ(rig.SpillFiles(), 3U);
        ArmedFault armed(fault);
        EXPECT_EQ(AsHost([&] { return rig.take.manager.New(); }), VrSuccess);
        armed.Disarm();
        EXPECT_EQ(rig.take.Record().GetLength(true), 0U);
        EXPECT_EQ(rig.take.Length(true), 0U);
        // What cannot be deleted now is deleted when the directory is set again.
        EXPECT_EQ(rig.SpillFiles(), fault.call == Call::Unlink ? armed.Met() : 0U);
        EXPECT_EQ(rig.take.manager.SetTempDirectory(rig.take.spillDirectory.Path().c_str()),
                  VrSuccess);
        EXPECT_EQ(rig.SpillFiles(), 0U);
        rig.ExpectTheNextTakeWorks();
        return armed.Met();
    }

    /// A start lets go of the take before it.
    std::uint64_t StartWith(const Fault& fault) {
        MakeTake();
        rig.Forget();
        ArmedFault armed(fault);
        EXPECT_EQ(rig.take.manager.Start(), VrSuccess);
        EXPECT_TRUE(
            SettlesUntil([&] { return rig.take.delegate->Has(VrRecOperationDeviceStarted); }));
        armed.Disarm();
        rig.Deliver(2);
        rig.Stop();
        EXPECT_TRUE(rig.take.delegate->messages.empty());
        rig.ExpectRecorded(rig.Delivered());
        return armed.Met();
    }

    /// Another directory is set, or the old one stays in force.
    std::uint64_t SetDirectoryWith(const Fault& fault, VrError failure) {
        const TempDirectory other;
        VrError result = VrSuccess;
        std::uint64_t met = 0;
        {
            std::ofstream(rig.take.spillDirectory.File("tmpabcdef")) << "left behind";
            ArmedFault armed(fault);
            result =
                AsHost([&] { return rig.take.manager.SetTempDirectory(other.Path().c_str()); });
            armed.Disarm();
            met = armed.Met();
        }
        const std::string& inForce =
            result == VrSuccess ? other.Path() : rig.take.spillDirectory.Path();
        if (result != VrSuccess) {
            // Nothing has changed: the directory in force has its files.
            EXPECT_EQ(result, failure);
            EXPECT_TRUE(std::filesystem::exists(rig.take.spillDirectory.File("tmpabcdef")));
        }
        EXPECT_EQ(rig.take.manager.GetTempDirectory(), inForce);
        MakeTake();
        EXPECT_TRUE(rig.take.delegate->messages.empty());
        EXPECT_GE(std::distance(std::filesystem::directory_iterator(inForce), {}), 3);
        // Back, and what was left behind goes, at the latest now.
        EXPECT_EQ(rig.take.manager.New(), VrSuccess);
        EXPECT_EQ(rig.take.manager.SetTempDirectory(rig.take.spillDirectory.Path().c_str()),
                  VrSuccess);
        EXPECT_EQ(rig.take.manager.SetTempDirectory(rig.take.spillDirectory.Path().c_str()),
                  VrSuccess);
        EXPECT_EQ(rig.SpillFiles(), 0U);
        return met;
    }

    FaultRig rig{kRateHz, Take::Pcm, 2, kSeconds};
};

TEST_F(StoreFaultsTest, APreviewThatCannotBeReadFailsAndWritesNothing) {
    MakeTake();
    const std::vector<std::int16_t> whole = ReadPreview();
    ASSERT_EQ(whole.size() / 2, rig.Delivered());
    for (const Call call : {Call::Read, Call::Seek, Call::Memory}) {
        for (const bool forGood : {false, true}) {
            Sweep("preview read", {.call = call, .forGood = forGood}, [&](const Fault& fault) {
                std::vector<std::int16_t> samples(whole.size(), kUntouched);
                ArmedFault armed(fault);
                const VrError result = AsHost([&] {
                    return rig.take.manager.GetPreviewData(0, whole.size() / 2, samples.data(),
                                                           true);
                });
                armed.Disarm();
                // A stream reads ahead where it seeks, and gets over it when that fails.
                if (armed.Met() == 0 || call != Call::Read || forGood) {
                    EXPECT_EQ(result, armed.Met() == 0 ? VrSuccess : VrErrorFailed);
                }
                EXPECT_TRUE(samples == (result == VrSuccess
                                            ? whole
                                            : std::vector<std::int16_t>(whole.size(), kUntouched)));
                EXPECT_TRUE(ReadPreview() == whole);
                return armed.Met();
            });
        }
    }
}

TEST_F(StoreFaultsTest, ANewTakeIsEmptyWhateverFails) {
    for (const Call call : {Call::Close, Call::Unlink, Call::Memory}) {
        for (const bool forGood : {false, true}) {
            Sweep("new", {.call = call, .forGood = forGood},
                  [&](const Fault& fault) { return NewWith(fault); });
        }
    }
}

TEST_F(StoreFaultsTest, AStartThatCannotDeleteTheTakeBeforeItStillStarts) {
    for (const Call call : {Call::Close, Call::Unlink}) {
        Sweep("start after a take", {.call = call, .error = EIO, .forGood = true},
              [&](const Fault& fault) { return StartWith(fault); });
    }
}

/// A start that may fail, and a save after it over a file of somebody else.
std::uint64_t StartAndSaveWith(const Fault& fault, FaultRig& rig) {
    rig.Start();
    rig.Deliver(3);
    rig.Stop();
    const std::string path = rig.take.directory.File("take.wav");
    std::ofstream(path, std::ios::trunc) << kEarlierFile;
    rig.Forget();
    ArmedFault armed(fault);
    if (AsHost([&] { return rig.take.manager.Start(); }) == VrSuccess) {
        EXPECT_TRUE(SettlesUntil([&] { return !rig.take.delegate->log.empty(); }));
    }
    armed.Disarm();
    if (rig.take.manager.State() == ManagerState::Recording) {
        rig.Stop();
    }
    const RecordLayout layout = rig.take.Record().GetLayout();
    EXPECT_EQ(layout.channels == 0, layout.sampleType == nullptr);
    EXPECT_EQ(layout.channels == 0, layout.sampleRate == 0);

    rig.Forget();
    const std::vector<VrSaveSetting> files = {{path, 0.0, 1.0, 0.0, {}}};
    EXPECT_EQ(rig.take.manager.SaveFile(&files), VrSuccess);
    EXPECT_TRUE(SettlesUntil([&] { return rig.take.delegate->Has(VrRecOperationSaveFinished); }));
    VorrelManagerParts::Saver(rig.take.manager).WaitFinished();
    const Bytes file = ReadBytes(path);
    if (layout.channels == 0) {
        EXPECT_EQ(std::string(file.begin(), file.end()), kEarlierFile);
    } else {
        EXPECT_EQ(LittleEndian(file, 22, 2), 2U);  // channels
    }
    rig.ExpectTheNextTakeWorks();
    return armed.Met();
}

TEST(SaveAfterStartFaultsTest, ASaveAfterAStartWithoutMemoryNeverWritesAFileWithoutChannels) {
    // At this rate the capture queue's pool is a small part of what a start asks memory for.
    FaultRig rig(384'000, Take::Pcm, 2, 1.0);
    Sweep("save after a start", {.call = Call::Memory},
          [&](const Fault& fault) { return StartAndSaveWith(fault, rig); });
}

/// The store of all channels by itself: two of them, each with a file.
class RecordDataFaultsTest : public ::testing::Test {
protected:
    RecordDataFaultsTest() { log.AddRecordEvent(0, kRecordEventRecord); }

    void Fill() {
        ASSERT_EQ(data.Init(2, 1'000, GetSampleTypeInfo(kSampleTypePcm), &log), VrSuccess);
        for (std::uint16_t channel = 0; channel < 2; ++channel) {
            ASSERT_EQ(data.Add(channel, Bytes(20'000)), VrSuccess);
        }
        ASSERT_EQ(std::distance(std::filesystem::directory_iterator(directory.Path()), {}), 2);
    }
    bool HasFiles() const { return !std::filesystem::is_empty(directory.Path()); }

    TempDirectory directory;
    FakeManager manager{directory.Path()};
    RecordRangeManager log;
    RecordData data{manager};
};

TEST_F(RecordDataFaultsTest, AnInitThatFailsForAnyChannelLeavesNothingOfTheOldRecording) {
    Sweep("init of a recording", {.call = Call::Memory}, [&](const Fault& fault) {
        Fill();
        const std::uint64_t generation = data.GetLayout().generation;
        ArmedFault armed(fault);
        const VrError result =
            AsHost([&] { return data.Init(3, 2'000, GetSampleTypeInfo(kSampleTypePcm), &log); });
        armed.Disarm();
        const RecordLayout layout = data.GetLayout();
        EXPECT_EQ(result, armed.Met() == 0 ? VrSuccess : VrErrorFailed);
        EXPECT_EQ(layout.channels, armed.Met() == 0 ? 3U : 0U);
        EXPECT_EQ(layout.sampleRate, armed.Met() == 0 ? 2'000U : 0U);
        EXPECT_EQ(layout.sampleType == nullptr, armed.Met() != 0);
        EXPECT_EQ(layout.generation, generation + 1);
        EXPECT_FALSE(HasFiles());
        return armed.Met();
    });
}

TEST_F(RecordDataFaultsTest, AClearThatFailsForOneChannelFailsAndEmptiesAll) {
    Sweep("clear of a recording", {.call = Call::Memory}, [&](const Fault& fault) {
        Fill();
        ArmedFault armed(fault);
        const VrError result = AsHost([&] { return data.TemporaryClear(); });
        armed.Disarm();
        EXPECT_EQ(result, armed.Met() == 0 ? VrSuccess : VrErrorFailed);
        EXPECT_EQ(data.GetChannels(), 2U);
        EXPECT_EQ(data.GetLength(false), 0U);
        EXPECT_FALSE(HasFiles());
        return armed.Met();
    });
}

TEST_F(StoreFaultsTest, ATemporaryDirectoryIsSetOrTheFormerStays) {
    Sweep("set temporary directory", {.call = Call::Stat},
          [&](const Fault& fault) { return SetDirectoryWith(fault, VrErrorInvalidParameter); });
    for (const Call call : {Call::List, Call::Remove}) {
        Sweep("set temporary directory", {.call = call, .error = EACCES},
              [&](const Fault& fault) { return SetDirectoryWith(fault, VrSuccess); });
    }
    for (const bool forGood : {false, true}) {
        Sweep("set temporary directory", {.call = Call::Memory, .forGood = forGood},
              [&](const Fault& fault) { return SetDirectoryWith(fault, VrErrorFailed); });
    }
}

}  // namespace
}  // namespace vorrel::test
