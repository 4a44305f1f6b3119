#include "writer/DsfWriter.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "convert/BitReversal.h"
#include "pipeline/DSDStreamProcessing.h"
#include "support/FakeManager.h"
#include "support/FileBytes.h"
#include "support/FileSizeLimit.h"
#include "support/HeldFile.h"
#include "support/NoNewThreads.h"
#include "support/Recording.h"
#include "support/SmallVolume.h"
#include "support/TempDirectory.h"
#include "writer/DsfHeader.h"
#include "writer/PlainDsfWriter.h"
#include "writer/SaveRun.h"

namespace vorrel {
namespace {

using test::BigEndian;
using test::Bytes;
using test::CheckFields;
using test::FakeManager;
using test::FieldCheck;
using test::FileSizeLimit;
using test::HeldFile;
using test::Id;
using test::LittleEndian;
using test::NoNewThreads;
using test::PlainSaveDsfFile;
using test::ReadBytes;
using test::Recording;
using test::SmallVolume;
using test::TempDirectory;
using Messages = std::vector<FakeManager::Message>;

/// Samples a second, so that a second is a block: 4096 bytes of each channel.
constexpr std::uint64_t kBlockRate = 32'768;
constexpr std::uint64_t kBlockFrames = 32'768;
/// The stream buffer of a file that is written.
constexpr std::size_t kStreamBytes = 1'048'576;

const SampleTypeInfo* DsdType() {
    return GetSampleTypeInfo(kSampleTypeDsd);
}

Bytes RandomBytes(std::size_t count, std::uint32_t seed) {
    std::mt19937 random(seed);
    Bytes bytes(count);
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
    }
    return bytes;
}

/// All that a save leaves behind.
struct Outcome {
    VrError result = VrSuccess;
    std::uint64_t fileLength = 0;
    std::uint64_t filePosition = 0;
    std::uint64_t overallPosition = 0;
    Messages messages;
    Bytes file;
};

void ExpectSame(const Outcome& real, const Outcome& plain) {
    EXPECT_EQ(real.result, plain.result);
    EXPECT_EQ(real.fileLength, plain.fileLength);
    EXPECT_EQ(real.filePosition, plain.filePosition);
    EXPECT_EQ(real.overallPosition, plain.overallPosition);
    EXPECT_EQ(real.messages, plain.messages);
    EXPECT_EQ(real.file.size(), plain.file.size());
    EXPECT_TRUE(real.file == plain.file);
}

class DsfWriterTest : public testing::Test {
protected:
    VrSaveSettingInternal Setting(double start, double end,
                                  const std::string& name = "take.dsf") const {
        return {directory.File(name), start, end, 0.0, {}};
    }
    VrError SaveFile(const VrSaveSettingInternal* setting) {
        run.recording = recording.data.GetLayout();
        return SaveDsfFile(setting, run);
    }
    /// Saves frames from `start` to `end` seconds.
    VrError Save(double start, double end) {
        const VrSaveSettingInternal setting = Setting(start, end);
        return SaveFile(&setting);
    }
    Bytes Saved() const { return ReadBytes(directory.File("take.dsf")); }
    Bytes SavedBytes(std::size_t from, std::size_t count) const {
        const Bytes bytes = Saved();
        if (bytes.size() < from + count) {
            return {};
        }
        const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(from);
        return {first, first + static_cast<std::ptrdiff_t>(count)};
    }

    /// A recording of random bytes.
    void MakeRecording(std::uint16_t channels, std::size_t bytes, std::uint64_t rateHz = kBlockRate,
                       const SampleTypeInfo* type = DsdType()) {
        recording.Begin(channels, rateHz, type);
        for (std::uint16_t channel = 0; channel < channels; ++channel) {
            recording.Add<std::uint8_t>(channel, RandomBytes(bytes, channel + 1U));
        }
    }

    /// What `save` leaves behind; nothing is left of the runs before.
    Outcome OutcomeOf(const std::function<VrError(SaveRun&)>& save) {
        FakeManager reported;
        SaveProgress counted;
        SaveRun fresh{reported, recording.data, bits, cancelState, counted, {}};
        fresh.volumeTakes = run.volumeTakes;
        std::filesystem::remove(directory.File("take.dsf"));
        const VrError result = save(fresh);
        return {result,
                counted.fileLength,
                counted.filePosition,
                counted.overallPosition,
                reported.Messages(),
                Saved()};
    }
    void ExpectLikeBlockByBlock(const VrSaveSettingInternal& setting) {
        ExpectSame(OutcomeOf([&](SaveRun& real) { return SaveDsfFile(&setting, real); }),
                   OutcomeOf([&](SaveRun& plain) { return PlainSaveDsfFile(&setting, plain); }));
    }

    /// Saves into a pipe, does `inTheMiddle` when the writer is stuck in the block that overruns
    /// its stream buffer, and lets it go on.
    /// @param stuckBlock  Receives that block, counted from 0.
    Outcome OutcomeOfHeldSave(const VrSaveSettingInternal& setting, std::size_t& stuckBlock,
                              const std::function<void()>& inTheMiddle) {
        FakeManager reported;
        SaveProgress counted;
        SaveRun held{reported, recording.data, bits, cancelState, counted, {}};
        stuckBlock = (kStreamBytes - kDsfHeaderBytes) / (kDsfBlockBytes * held.recording.channels);
        const std::uint64_t frames = (stuckBlock + 1) * kBlockFrames;
        Outcome outcome;
        const HeldFile file(setting.path);
        std::thread saver([&] { outcome.result = SaveDsfFile(&setting, held); });
        EXPECT_TRUE(reported.WaitUntil([&] { return counted.overallPosition >= frames; }));
        EXPECT_EQ(counted.overallPosition, frames);
        inTheMiddle();
        outcome.file = file.ReadToEnd();
        saver.join();
        outcome.fileLength = counted.fileLength;
        outcome.filePosition = counted.filePosition;
        outcome.overallPosition = counted.overallPosition;
        outcome.messages = reported.Messages();
        return outcome;
    }

    const TempDirectory directory;
    const TempDirectory spill;
    FakeManager manager{spill.Path()};
    Recording recording{manager};
    std::atomic<std::uint16_t> bits{16};
    std::atomic<std::int32_t> cancelState{kSaveCancelNone};
    SaveProgress progress;
    SaveRun run{manager, recording.data, bits, cancelState, progress, {}};
};

TEST_F(DsfWriterTest, WritesHeaderBlocksAndTag) {
    recording.Begin(2, kBlockRate, DsdType());
    recording.Add<std::uint8_t>(0, {0x01, 0xF0, 0x34});
    recording.Add<std::uint8_t>(1, {0x80, 0x12, 0xFF});
    VrSaveSettingInternal setting = Setting(0, 24.0 / kBlockRate);
    setting.tags = {{"Title", "AB"}};
    constexpr FieldCheck kFile[] = {
        {0, 4, Id("DSD "), "chunk id"},
        {4, 8, 28, "chunk size"},
        {12, 8, 92 + 8'192 + 27, "file size"},
        {20, 8, 92 + 8'192, "metadata pointer"},
        {28, 4, Id("fmt "), "format chunk id"},
        {32, 8, 52, "format chunk size"},
        {40, 4, 1, "format version"},
        {44, 4, 0, "format id"},
        {48, 4, 2, "channel type"},
        {52, 4, 2, "channels"},
        {56, 4, 32'768, "sampling frequency"},
        {60, 4, 1, "bits per sample"},
        {64, 8, 24, "sample count"},
        {72, 4, 4096, "block size"},
        {76, 4, 0, "reserved"},
        {80, 4, Id("data"), "data chunk id"},
        {84, 8, 8'192 + 12, "data chunk size"},
        {92, 1, 0x80, "channel 0, bits 0 to 7"},
        {93, 1, 0x0F, "channel 0, bits 8 to 15"},
        {94, 1, 0x2C, "channel 0, bits 16 to 23"},
    };
    constexpr FieldCheck kSecondChannel[] = {
        {0, 1, 0x01, "channel 1, bits 0 to 7"},
        {1, 1, 0x48, "channel 1, bits 8 to 15"},
        {2, 1, 0xFF, "channel 1, bits 16 to 23"},
    };
    constexpr FieldCheck kTag[] = {
        {0, 3, Id("ID3"), "tag identifier"},
        {3, 3, 3, "version, revision, flags"},
        {6, 4, BigEndian(17, 4), "tag size"},
        {10, 4, Id("TIT2"), "frame id"},
        {14, 4, BigEndian(7, 4), "frame size"},
        {18, 2, 0, "frame flags"},
        {20, 3, 0xFEFF01, "encoding and byte-order mark"},
        {23, 4, Id(std::string_view("A\0B\0", 4)), "text"},
    };

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    ASSERT_EQ(Saved().size(), 92U + 8'192 + 27);
    CheckFields(SavedBytes(0, 95), kFile);
    EXPECT_EQ(SavedBytes(95, 4'093), Bytes(4'093, 0));
    CheckFields(SavedBytes(92 + 4'096, 3), kSecondChannel);
    EXPECT_EQ(SavedBytes(92 + 4'099, 4'093), Bytes(4'093, 0));
    CheckFields(SavedBytes(92 + 8'192, 27), kTag);
}

TEST_F(DsfWriterTest, OneSecondOfStereoTakes87BlocksAChannel) {
    MakeRecording(2, 352'800, 2'822'400);

    EXPECT_EQ(Save(0, 1), VrSuccess);

    const Bytes bytes = Saved();
    EXPECT_EQ(bytes.size(), 92U + 712'704);
    EXPECT_EQ(LittleEndian(bytes, 12, 8), 92U + 712'704);
    EXPECT_EQ(LittleEndian(bytes, 20, 8), 0U);
    EXPECT_EQ(LittleEndian(bytes, 64, 8), 2'822'400U);
    EXPECT_EQ(LittleEndian(bytes, 84, 8), 712'716U);
    // 352,800 bytes are 86 blocks and 544 bytes: the rest of the last block is zeros.
    const std::size_t lastBlock = 92 + 86 * 8'192;
    EXPECT_NE(SavedBytes(lastBlock, 544), Bytes(544, 0));
    EXPECT_EQ(SavedBytes(lastBlock + 544, 4'096 - 544), Bytes(4'096 - 544, 0));
    EXPECT_EQ(SavedBytes(lastBlock + 4'096 + 544, 4'096 - 544), Bytes(4'096 - 544, 0));
}

TEST_F(DsfWriterTest, AtZeroDecibelsEveryBitIsTheRecordings) {
    for (std::uint16_t channels = 1; channels <= 8; ++channels) {
        MakeRecording(channels, 100'000);

        EXPECT_EQ(Save(0, 100'000 / 4'096.0), VrSuccess);

        const Bytes bytes = Saved();
        ASSERT_EQ(bytes.size(), 92U + 25U * 4'096 * channels);
        std::size_t wrong = 0;
        for (std::uint16_t channel = 0; channel < channels; ++channel) {
            const Bytes source = RandomBytes(100'000, channel + 1U);
            for (std::size_t bit = 0; bit < source.size() * 8; ++bit) {
                const std::size_t block = bit / 32'768 * channels + channel;
                const std::size_t byte = 92 + block * 4'096 + bit % 32'768 / 8;
                // The earlier bit is the higher one in the recording, the lower one in the file.
                const int recorded = source[bit / 8] >> (7 - bit % 8) & 1;
                const int written = bytes[byte] >> (bit % 8) & 1;
                wrong += recorded == written ? 0 : 1;
            }
        }
        EXPECT_EQ(wrong, 0U) << channels;
    }
}

TEST_F(DsfWriterTest, ARecordedWordStandsWithItsLowByteFirst) {
    recording.Begin(1, kBlockRate, DsdType());
    recording.Add<std::uint16_t>(0, {0x1234});

    EXPECT_EQ(Save(0, 16.0 / kBlockRate), VrSuccess);

    EXPECT_EQ(SavedBytes(92, 3), (Bytes{0x2C, 0x48, 0x00}));
}

TEST_F(DsfWriterTest, ASampleTypeWithTheFirstBitLowestIsNotReversed) {
    SampleTypeInfo type = *DsdType();
    type.msbFirst = 0;
    recording.Begin(1, kBlockRate, &type);
    recording.Add<std::uint8_t>(0, {0x01, 0x34, 0xF0});

    EXPECT_EQ(Save(0, 24.0 / kBlockRate), VrSuccess);

    EXPECT_EQ(SavedBytes(92, 4), (Bytes{0x01, 0x34, 0xF0, 0x00}));
}

TEST_F(DsfWriterTest, AnEmptyRangeIsHeaderAndTag) {
    MakeRecording(2, 8'192);
    VrSaveSettingInternal setting = Setting(0.5, 0.5);
    setting.tags = {{"Title", "AB"}};

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    const Bytes bytes = Saved();
    EXPECT_EQ(bytes.size(), 92U + 27);
    EXPECT_EQ(LittleEndian(bytes, 12, 8), 92U + 27);
    EXPECT_EQ(LittleEndian(bytes, 20, 8), 92U);
    EXPECT_EQ(LittleEndian(bytes, 64, 8), 0U);
    EXPECT_EQ(LittleEndian(bytes, 84, 8), 12U);
    EXPECT_EQ(LittleEndian(bytes, 92, 3), Id("ID3"));
}

TEST_F(DsfWriterTest, WithoutTagsTheMetadataPointerIsZero) {
    MakeRecording(2, 8'192);

    EXPECT_EQ(Save(0, 2), VrSuccess);

    const Bytes bytes = Saved();
    EXPECT_EQ(bytes.size(), 92U + 16'384);
    EXPECT_EQ(LittleEndian(bytes, 12, 8), 92U + 16'384);
    EXPECT_EQ(LittleEndian(bytes, 20, 8), 0U);
}

TEST_F(DsfWriterTest, AnAlbumArtistAloneGivesATagOfOneFrame) {
    MakeRecording(1, 4'096);
    VrSaveSettingInternal setting = Setting(0, 1);
    setting.tags = {{"AlbumArtist", "C"}};
    constexpr FieldCheck kTag[] = {
        {0, 3, Id("ID3"), "tag identifier"},
        {3, 3, 3, "version, revision, flags"},
        {6, 4, BigEndian(15, 4), "tag size"},
        {10, 4, Id("TPE2"), "frame id"},
        {14, 4, BigEndian(5, 4), "frame size"},
        {18, 2, 0, "frame flags"},
        {20, 3, 0xFEFF01, "encoding and byte-order mark"},
        {23, 2, 'C', "text"},
    };

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    EXPECT_EQ(Saved().size(), 92U + 4'096 + 25);
    CheckFields(SavedBytes(92 + 4'096, 25), kTag);
}

TEST_F(DsfWriterTest, TheKeyAlbumIsNotKnown) {
    MakeRecording(1, 4'096);
    VrSaveSettingInternal setting = Setting(0, 1);
    setting.tags = {{"Album", "Record"}};

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    EXPECT_EQ(Saved().size(), 92U + 4'096);
    EXPECT_EQ(LittleEndian(Saved(), 20, 8), 0U);
}

TEST_F(DsfWriterTest, AJapaneseTitleIsAnId3FrameOfSixTextBytes) {
    MakeRecording(1, 4'096);
    VrSaveSettingInternal setting = Setting(0, 1);
    setting.tags = {{"Title", "日本語"}};

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    ASSERT_EQ(Saved().size(), 92U + 4'096 + 10 + 13 + 6);
    EXPECT_EQ(LittleEndian(SavedBytes(92 + 4'096, 29), 14, 4), BigEndian(9, 4));
    EXPECT_EQ(SavedBytes(92 + 4'096 + 23, 6), (Bytes{0xE5, 0x65, 0x2C, 0x67, 0x9E, 0x8A}));
}

TEST_F(DsfWriterTest, FourChannelsAreOfTypeFive) {
    MakeRecording(4, 4'096);

    EXPECT_EQ(Save(0, 1), VrSuccess);

    EXPECT_EQ(LittleEndian(Saved(), 48, 4), 5U);
    EXPECT_EQ(LittleEndian(Saved(), 52, 4), 4U);
}

TEST_F(DsfWriterTest, AnEndBeyondTheRecordingIsNotClippedAndFailsThere) {
    MakeRecording(2, 20 * 4'096 + 100);
    VrSaveSettingInternal setting = Setting(0, 30);
    setting.tags = {{"Title", "AB"}};

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);

    const Bytes bytes = Saved();
    EXPECT_EQ(bytes.size(), 92U + 20 * 8'192) << "the whole blocks before the failed one, no tag";
    EXPECT_EQ(LittleEndian(bytes, 64, 8), 30U * 32'768);
    EXPECT_EQ(LittleEndian(bytes, 84, 8), 30U * 8'192 + 12);
    EXPECT_EQ(progress.fileLength, 30U * 32'768);
    EXPECT_EQ(progress.filePosition, 20U * 32'768) << "that of the failed block";
    EXPECT_EQ(progress.overallPosition, 21U * 32'768);
}

TEST_F(DsfWriterTest, TheShortestChannelEndsTheRecording) {
    recording.Begin(2, kBlockRate, DsdType());
    recording.Add<std::uint8_t>(0, RandomBytes(3 * 4'096, 1));
    recording.Add<std::uint8_t>(1, RandomBytes(3 * 4'096 - 1, 2));

    EXPECT_EQ(Save(0, 3), VrErrorFailed);

    EXPECT_EQ(Saved().size(), 92U + 2 * 8'192);
}

TEST_F(DsfWriterTest, ALastBlockOfNoWholeByteFailsTheSave) {
    MakeRecording(1, 3 * 4'096);

    EXPECT_EQ(Save(0, (2 * 32'768.0 + 7) / 32'768), VrErrorFailed);

    const Bytes bytes = Saved();
    EXPECT_EQ(bytes.size(), 92U + 2 * 4'096);
    EXPECT_EQ(LittleEndian(bytes, 64, 8), 2U * 32'768 + 7);
    EXPECT_EQ(LittleEndian(bytes, 84, 8), 2U * 4'096 + 12);
    EXPECT_EQ(progress.overallPosition, 2U * 32'768 + 7);
}

TEST_F(DsfWriterTest, ARangeOfNoWholeByteFailsBehindTheHeader) {
    MakeRecording(1, 4'096);

    EXPECT_EQ(Save(0, 7.0 / 32'768), VrErrorFailed);

    EXPECT_EQ(Saved().size(), 92U);
}

TEST_F(DsfWriterTest, ALastBlockThatEndsWithinAByteLeavesItsBitsOut) {
    recording.Begin(1, kBlockRate, DsdType());
    recording.Add<std::uint8_t>(0, {0x01, 0x01, 0xFF});

    EXPECT_EQ(Save(0, 23.0 / 32'768), VrSuccess);

    EXPECT_EQ(SavedBytes(92, 3), (Bytes{0x80, 0x80, 0x00}));
    EXPECT_EQ(LittleEndian(Saved(), 64, 8), 23U);
}

TEST_F(DsfWriterTest, ARangeFromWithinAByteBeginsWithTheWholeByte) {
    recording.Begin(1, kBlockRate, DsdType());
    recording.Add<std::uint8_t>(0, {0x01, 0xF0, 0xFF});

    // Samples 4 to 19: the bytes 0 and 1 are read, and 15 samples fill one.
    EXPECT_EQ(Save(4.0 / 32'768, 19.0 / 32'768), VrSuccess);

    EXPECT_EQ(SavedBytes(92, 3), (Bytes{0x80, 0x00, 0x00}));
}

TEST_F(DsfWriterTest, AReversedRangeIsInvalid) {
    MakeRecording(1, 4'096);

    EXPECT_EQ(Save(0.5, 0.4), VrErrorInvalidParameter);

    EXPECT_FALSE(std::filesystem::exists(directory.File("take.dsf")));
    EXPECT_EQ(progress.fileLength, 0U);
}

TEST_F(DsfWriterTest, NegativeSecondsAndNotANumberCountAsZero) {
    MakeRecording(1, 2 * 4'096);

    EXPECT_EQ(Save(-5, 1), VrSuccess);
    EXPECT_EQ(Saved().size(), 92U + 4'096);
    EXPECT_EQ(Save(std::numeric_limits<double>::quiet_NaN(), 2), VrSuccess);
    EXPECT_EQ(Saved().size(), 92U + 2 * 4'096);
    EXPECT_EQ(Save(-2, -1), VrSuccess);
    EXPECT_EQ(Saved().size(), 92U);
}

TEST_F(DsfWriterTest, AnInfiniteEndNeedsMoreSpaceThanThereIs) {
    MakeRecording(8, 4'096);

    EXPECT_EQ(Save(0, std::numeric_limits<double>::infinity()), VrErrorFailed);

    EXPECT_FALSE(std::filesystem::exists(directory.File("take.dsf")));
}

TEST_F(DsfWriterTest, AMissingSettingIsInvalid) {
    MakeRecording(1, 4'096);
    progress.filePosition = 5;
    progress.fileLength = 10;

    EXPECT_EQ(SaveFile(nullptr), VrErrorInvalidParameter);

    EXPECT_EQ(progress.filePosition, 0U);
    EXPECT_EQ(progress.fileLength, 0U);
}

TEST_F(DsfWriterTest, ARecordingWithoutASampleTypeFails) {
    EXPECT_EQ(Save(0, 1), VrErrorFailed);

    EXPECT_FALSE(std::filesystem::exists(directory.File("take.dsf")));
}

TEST_F(DsfWriterTest, ARecordingWithoutChannelsFails) {
    MakeRecording(1, 4'096);
    run.recording = recording.data.GetLayout();
    run.recording.channels = 0;
    const VrSaveSettingInternal setting = Setting(0, 1e12);  // has nothing to read, ever

    EXPECT_EQ(SaveDsfFile(&setting, run), VrErrorFailed);

    EXPECT_FALSE(std::filesystem::exists(directory.File("take.dsf")));
}

TEST_F(DsfWriterTest, ASampleWidthThatFillsNoBlockFails) {
    for (const std::uint8_t width : std::to_array<std::uint8_t>({0, 3, 24})) {
        SampleTypeInfo type = *DsdType();
        MakeRecording(1, 4'096, kBlockRate, &type);
        type.bits = width;

        EXPECT_EQ(Save(0, 1), VrErrorFailed);
    }
    EXPECT_FALSE(std::filesystem::exists(directory.File("take.dsf")));
}

TEST_F(DsfWriterTest, PaddingBitsCountInTheWidthOfASample) {
    SampleTypeInfo type = *DsdType();
    type.padBits = 7;
    MakeRecording(2, 40'000, kBlockRate, &type);

    EXPECT_EQ(Save(0, 39'999.0 / 32'768), VrSuccess);

    const Bytes bytes = Saved();
    EXPECT_EQ(LittleEndian(bytes, 60, 4), 8U);
    EXPECT_EQ(LittleEndian(bytes, 64, 8), 39'999U);
    EXPECT_EQ(bytes.size(), 92U + 10 * 8'192);
    ExpectLikeBlockByBlock(Setting(0.25, 39'999.0 / 32'768));
}

TEST_F(DsfWriterTest, AFileThatItsVolumeCannotHoldIsSkippedAndNotMade) {
    MakeRecording(1, 4'096);
    static std::uint64_t askedBytes = 0;
    run.volumeTakes = [](const std::string&, std::uint64_t bytes) {
        askedBytes = bytes;
        return false;
    };
    VrSaveSettingInternal setting = Setting(0, 0.75);
    setting.tags = {{"Title", "AB"}};

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    EXPECT_EQ(askedBytes, 92U + 4'096 + 27);
    EXPECT_FALSE(std::filesystem::exists(directory.File("take.dsf")));
    EXPECT_EQ(manager.Messages(), (Messages{{VrMessageFileSkipped, directory.File("take.dsf")}}));
    EXPECT_EQ(progress.overallPosition, 24'576U);
    EXPECT_EQ(progress.fileLength, 24'576U);
    EXPECT_EQ(progress.filePosition, 0U);
}

TEST_F(DsfWriterTest, ASkippedFileIsNoCancelledOne) {
    MakeRecording(1, 4'096);
    run.volumeTakes = [](const std::string&, std::uint64_t) { return false; };
    cancelState = kSaveCancelDelete;

    EXPECT_EQ(Save(0, 1), VrSuccess);
}

/// 5 GiB of samples in all, though the recording ends after a block.
constexpr double kFiveGibibyteSeconds = 5.0 * 1'073'741'824 * 8 / 2 / 32'768;
template <bool (*takes)(std::uint64_t)>
bool VolumeTakes(const std::string&, std::uint64_t bytes) {
    return takes(bytes);
}
bool Fat32Takes(std::uint64_t bytes) {
    return FileSystemTakes("FAT32", 1'000'000, bytes);
}
bool JournaledTakes(std::uint64_t bytes) {
    return FileSystemTakes("hfs journaled", 1'000'000, bytes);
}

TEST_F(DsfWriterTest, AFileOfFiveGibibytesIsSkippedOnFat32) {
    const SmallVolume volume(std::size_t{6} << 30U);  // takes no more memory than is written
    if (!volume.Mounted()) {
        GTEST_SKIP() << "a volume of our own needs the rights to mount one";
    }
    MakeRecording(2, 4'096);
    run.volumeTakes = &VolumeTakes<Fat32Takes>;
    const VrSaveSettingInternal setting{volume.File("take.dsf"), 0, kFiveGibibyteSeconds, 0, {}};

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    EXPECT_FALSE(std::filesystem::exists(setting.path));
    EXPECT_EQ(manager.Messages(), (Messages{{VrMessageFileSkipped, setting.path}}));
    EXPECT_EQ(progress.overallPosition, 21'474'836'480U);
}

TEST_F(DsfWriterTest, AFileOfFiveGibibytesIsBegunOnAJournaledVolume) {
    const SmallVolume volume(std::size_t{6} << 30U);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "a volume of our own needs the rights to mount one";
    }
    MakeRecording(2, 4'096);
    run.volumeTakes = &VolumeTakes<JournaledTakes>;
    const VrSaveSettingInternal setting{volume.File("take.dsf"), 0, kFiveGibibyteSeconds, 0, {}};

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed) << "where the recording ends";

    const Bytes bytes = ReadBytes(setting.path);
    EXPECT_EQ(bytes.size(), 92U + 8'192);
    EXPECT_EQ(LittleEndian(bytes, 12, 8), 5'368'709'120U + 92);
    EXPECT_EQ(LittleEndian(bytes, 64, 8), 21'474'836'480U);
    EXPECT_EQ(LittleEndian(bytes, 84, 8), 5'368'709'120U + 12);
    EXPECT_TRUE(manager.Messages().empty());
}

TEST_F(DsfWriterTest, AFileThatCannotBeOpenedIsSkipped) {
    MakeRecording(2, 4'096);
    std::filesystem::create_directory(directory.File("take.dsf"));

    EXPECT_EQ(Save(0, 0.5), VrSuccess);

    EXPECT_EQ(manager.Messages(), (Messages{{VrMessageFileSkipped, directory.File("take.dsf")}}));
    EXPECT_EQ(progress.overallPosition, 16'384U);
}

TEST_F(DsfWriterTest, AFileThatCannotBeOpenedWhileACancelIsPendingIsCancelled) {
    MakeRecording(2, 4'096);
    std::filesystem::create_directory(directory.File("take.dsf"));
    for (const std::int32_t pending : {kSaveCancelDelete, kSaveCancelKeep}) {
        cancelState = pending;

        EXPECT_EQ(Save(0, 0.5), VrErrorCanceled);
    }

    EXPECT_EQ(manager.Messages().size(), 2U);
    EXPECT_EQ(progress.overallPosition, 2 * 16'384U);
}

TEST_F(DsfWriterTest, AnExistingFileIsReplaced) {
    MakeRecording(1, 4'096);
    std::ofstream(directory.File("take.dsf")) << std::string(50'000, 'x');

    EXPECT_EQ(Save(0, 1), VrSuccess);

    EXPECT_EQ(Saved().size(), 92U + 4'096);
}

TEST_F(DsfWriterTest, APathWithoutASlashFails) {
    MakeRecording(1, 4'096);
    const VrSaveSettingInternal setting{"take of a test.dsf", 0, 1, 0, {}};

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);

    EXPECT_FALSE(std::filesystem::exists("take of a test.dsf"));
}

TEST_F(DsfWriterTest, AMissingParentDirectoryFailsAtTheSpaceCheck) {
    MakeRecording(1, 4'096);
    const VrSaveSettingInternal setting = Setting(0, 1, "no/parent/take.dsf");

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);

    EXPECT_TRUE(manager.Messages().empty());
    EXPECT_FALSE(std::filesystem::exists(directory.File("no")));
}

TEST_F(DsfWriterTest, AMissingDirectoryIsMade) {
    MakeRecording(1, 4'096);
    const VrSaveSettingInternal setting = Setting(0, 1, "new/take.dsf");

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    EXPECT_EQ(ReadBytes(setting.path).size(), 92U + 4'096);
    EXPECT_EQ(run.createdDirectory, directory.File("new/"));
}

TEST_F(DsfWriterTest, TooLittleSpaceFailsBeforeTheFileIsMade) {
    const SmallVolume volume(16 * 4'096);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "a volume of our own needs the rights to mount one";
    }
    MakeRecording(1, 16 * 4'096);
    const VrSaveSettingInternal setting{volume.File("new/take.dsf"), 0, 16, 0, {}};

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);

    EXPECT_TRUE(std::filesystem::is_directory(volume.File("new")));
    EXPECT_FALSE(std::filesystem::exists(volume.File("new/take.dsf")));
}

TEST_F(DsfWriterTest, TheSpaceForPaddingAndTagIsAskedFor) {
    const SmallVolume volume(16 * 4'096);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "a volume of our own needs the rights to mount one";
    }
    MakeRecording(1, 16 * 4'096);
    // 92 bytes, 15 blocks: 61,532 bytes, which leaves 4,004 for the tag: 10 + 13 + 2 x 1,990.
    VrSaveSettingInternal setting{volume.File("take.dsf"), 0, 14.25, 0, {}};
    setting.tags = {{"Title", std::string(1'991, 'x')}};

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);
    EXPECT_FALSE(std::filesystem::exists(setting.path));
    setting.tags = {{"Title", std::string(1'990, 'x')}};
    EXPECT_EQ(SaveFile(&setting), VrSuccess);
    EXPECT_EQ(ReadBytes(setting.path).size(), 65'535U);
}

TEST_F(DsfWriterTest, WithoutThreadsForTheProcessorsTheSaveFailsBehindTheHeader) {
    MakeRecording(2, 4'096);
    VrSaveSettingInternal setting = Setting(0, 1);
    setting.tags = {{"Title", "AB"}};
    const NoNewThreads none;

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);

    EXPECT_EQ(Saved().size(), 92U);
}

TEST_F(DsfWriterTest, AFailedWriteLeavesThePartialFile) {
    MakeRecording(2, 200 * 4'096);  // 1.6 MB: more than the stream buffers
    VrSaveSettingInternal setting = Setting(0, 200);
    setting.tags = {{"Title", "AB"}};
    const FileSizeLimit limit(1'200'000);

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);

    EXPECT_EQ(Saved().size(), 1'200'000U);
    EXPECT_EQ(LittleEndian(Saved(), 12, 8), 92U + 200 * 8'192 + 27);
}

TEST_F(DsfWriterTest, AFailedHeaderIsAFailedSave) {
    if (!std::filesystem::exists("/dev/full")) {
        GTEST_SKIP() << "no /dev/full here";
    }
    MakeRecording(1, 4'096);
    const VrSaveSettingInternal setting{"/dev/full", 0, 0, 0, {}};

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);
    cancelState = kSaveCancelKeep;
    EXPECT_EQ(SaveFile(&setting), VrErrorCanceled);
}

TEST_F(DsfWriterTest, AFailureAtTheCloseIsAFailedWrite) {
    MakeRecording(1, 4'096);
    VrSaveSettingInternal setting = Setting(0, 1);
    setting.tags = {{"Title", "AB"}};
    const FileSizeLimit limit(92 + 4'096 + 10);  // ends within the tag

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);

    EXPECT_EQ(Saved().size(), 92U + 4'096 + 10);
}

TEST_F(DsfWriterTest, ARecordingThatCannotBeReadFailsTheSave) {
    MakeRecording(1, 300 * 4'096);  // far more than stays in memory
    for (const auto& entry : std::filesystem::directory_iterator(spill.Path())) {
        std::filesystem::resize_file(entry.path(), 100 * 4'096);
    }

    EXPECT_EQ(Save(0, 300), VrErrorFailed);

    EXPECT_EQ(Saved().size(), 92U + 100 * 4'096) << "the blocks before the failure";
}

TEST_F(DsfWriterTest, ATakeThatHasBegunMeanwhileIsNotSaved) {
    MakeRecording(1, 4'096);
    run.recording = recording.data.GetLayout();
    MakeRecording(1, 4'096);
    const VrSaveSettingInternal setting = Setting(0, 1);

    EXPECT_EQ(SaveDsfFile(&setting, run), VrErrorFailed);

    EXPECT_FALSE(std::filesystem::exists(setting.path));
}

TEST_F(DsfWriterTest, TheFilePositionEndsWithTheStartOfTheLastBlock) {
    MakeRecording(2, 100 * 4'096);

    EXPECT_EQ(Save(0, 99.5), VrSuccess);

    EXPECT_EQ(progress.fileLength, 99U * 32'768 + 16'384);
    EXPECT_EQ(progress.filePosition, 99U * 32'768);
    EXPECT_EQ(progress.overallPosition, 99U * 32'768 + 16'384);
}

TEST_F(DsfWriterTest, ACancelThatDeletesBeforeTheFirstBlockLeavesHeaderAndTag) {
    MakeRecording(1, 40 * 4'096);
    VrSaveSettingInternal setting = Setting(0, 40);
    setting.tags = {{"Title", "AB"}};
    cancelState = kSaveCancelDelete;

    EXPECT_EQ(SaveFile(&setting), VrErrorCanceled);

    const Bytes bytes = Saved();
    ASSERT_EQ(bytes.size(), 92U + 27);
    EXPECT_EQ(LittleEndian(bytes, 12, 8), 92U + 40 * 4'096 + 27) << "that of the complete file";
    EXPECT_EQ(LittleEndian(bytes, 92, 3), Id("ID3"));
    EXPECT_EQ(progress.overallPosition, 0U);
}

TEST_F(DsfWriterTest, AFileWithoutBlocksIsCancelledToo) {
    MakeRecording(1, 4'096);
    for (const std::int32_t pending : {kSaveCancelDelete, kSaveCancelKeep}) {
        cancelState = pending;

        EXPECT_EQ(Save(0, 0), VrErrorCanceled);
        EXPECT_EQ(Saved().size(), 92U);
    }
}

TEST_F(DsfWriterTest, ACancelThatKeepsCompletesTheFile) {
    MakeRecording(2, 40 * 4'096);
    VrSaveSettingInternal setting = Setting(0, 40);
    setting.tags = {{"Title", "AB"}};
    ASSERT_EQ(SaveFile(&setting), VrSuccess);
    const Bytes complete = Saved();
    cancelState = kSaveCancelKeep;

    EXPECT_EQ(SaveFile(&setting), VrErrorCanceled);

    EXPECT_EQ(complete.size(), 92U + 40 * 8'192 + 27);
    EXPECT_TRUE(Saved() == complete);
}

TEST_F(DsfWriterTest, AFailureWhileACancelIsPendingIsACancelledSave) {
    MakeRecording(1, 4'096);
    cancelState = kSaveCancelKeep;

    EXPECT_EQ(Save(0, 2), VrErrorCanceled);

    EXPECT_EQ(Saved().size(), 92U + 4'096);
}

TEST_F(DsfWriterTest, ACancelThatDeletesStopsBeforeTheNextBlock) {
    for (const std::uint16_t channels : std::to_array<std::uint16_t>({1, 2, 3, 5, 8})) {
        MakeRecording(channels, 330 * 4'096);
        VrSaveSettingInternal setting = Setting(0, 330);
        setting.tags = {{"Title", "AB"}};
        std::size_t stuckBlock = 0;

        cancelState = kSaveCancelNone;
        std::filesystem::remove(setting.path);
        const Outcome real =
            OutcomeOfHeldSave(setting, stuckBlock, [&] { cancelState = kSaveCancelDelete; });

        EXPECT_EQ(real.result, VrErrorCanceled);
        EXPECT_EQ(real.file.size(), 92U + (stuckBlock + 1) * 4'096 * channels + 27);
        cancelState = kSaveCancelNone;
        ExpectSame(real, OutcomeOf([&](SaveRun& plain) {
                       return PlainSaveDsfFile(&setting, plain, [&](std::size_t block) {
                           if (block == stuckBlock + 1) {
                               cancelState = kSaveCancelDelete;
                           }
                       });
                   }));
    }
}

TEST_F(DsfWriterTest, ACancelThatKeepsInTheMiddleCompletesTheFile) {
    MakeRecording(2, 200 * 4'096);
    VrSaveSettingInternal setting = Setting(0, 200);
    setting.tags = {{"Title", "AB"}};
    std::size_t stuckBlock = 0;

    const Outcome real =
        OutcomeOfHeldSave(setting, stuckBlock, [&] { cancelState = kSaveCancelKeep; });

    EXPECT_EQ(real.result, VrErrorCanceled);
    EXPECT_EQ(real.file.size(), 92U + 200 * 8'192 + 27);
    EXPECT_EQ(real.filePosition, 199 * kBlockFrames);
    EXPECT_EQ(real.overallPosition, 200 * kBlockFrames);
}

TEST_F(DsfWriterTest, ATakeThatBeginsInTheMiddleFailsTheFileAndIsNotMixedIn) {
    for (const std::uint16_t channels : std::to_array<std::uint16_t>({1, 2})) {
        MakeRecording(2, 330 * 4'096);
        VrSaveSettingInternal setting = Setting(0, 330);
        setting.tags = {{"Title", "AB"}};
        const Outcome whole =
            OutcomeOf([&](SaveRun& plain) { return PlainSaveDsfFile(&setting, plain); });
        std::filesystem::remove(setting.path);
        std::size_t stuckBlock = 0;

        const Outcome real = OutcomeOfHeldSave(setting, stuckBlock, [&] {
            recording.Begin(channels, kBlockRate, DsdType());
            recording.Add<std::uint8_t>(0, Bytes(330 * 4'096, 0x69));
        });

        EXPECT_EQ(real.result, VrErrorFailed);
        EXPECT_EQ(real.file.size(), 92 + (stuckBlock + 1) * 8'192) << "no tag";
        EXPECT_EQ(real.overallPosition, (stuckBlock + 2) * kBlockFrames);
        ASSERT_LT(real.file.size(), whole.file.size());
        EXPECT_TRUE(std::equal(real.file.begin(), real.file.end(), whole.file.begin()));
        std::filesystem::remove(setting.path);
    }
}

TEST_F(DsfWriterTest, GainIsOneStreamOverAllBlocksAndLeavesThePaddingAlone) {
    MakeRecording(1, 40 * 4'096);
    VrSaveSettingInternal setting = Setting(0, 17.5);
    setting.gain = -6.0;

    EXPECT_EQ(SaveFile(&setting), VrSuccess);

    // Most significant bit first here, least significant first in the file.
    Bytes expected = RandomBytes(71'680, 1);
    DSDStreamProcessing processing;
    ASSERT_EQ(processing.Init(32'768, 0), DSDStreamProcessing::kDone);
    ASSERT_EQ(processing.SetGain(-6.0F), DSDStreamProcessing::kDone);
    ASSERT_EQ(processing.Process(expected.data(), expected.size()), DSDStreamProcessing::kDone);
    ReverseBits(expected.data(), expected.size());
    ASSERT_EQ(Saved().size(), 92U + 18 * 4'096);
    EXPECT_TRUE(SavedBytes(92, 71'680) == expected);
    EXPECT_EQ(SavedBytes(92 + 71'680, 2'048), Bytes(2'048, 0));
}

TEST_F(DsfWriterTest, EachChannelHasAStreamOfItsOwn) {
    MakeRecording(3, 18 * 4'096);
    VrSaveSettingInternal setting = Setting(0, 18);
    setting.gain = 1.5;
    ASSERT_EQ(SaveFile(&setting), VrSuccess);
    const Bytes three = Saved();

    for (std::uint16_t channel = 0; channel < 3; ++channel) {
        recording.Begin(1, kBlockRate, DsdType());
        recording.Add<std::uint8_t>(0, RandomBytes(18 * 4'096, channel + 1U));
        ASSERT_EQ(SaveFile(&setting), VrSuccess);
        for (std::size_t block = 0; block < 18; ++block) {
            const auto first =
                three.begin() + static_cast<std::ptrdiff_t>(92 + (block * 3 + channel) * 4'096);
            EXPECT_TRUE(
                std::equal(first, first + 4'096,
                           Saved().begin() + static_cast<std::ptrdiff_t>(92 + block * 4'096)))
                << channel << ", " << block;
        }
    }
}

/// A range in blocks against a recording of `recorded` blocks: everything that a save leaves
/// behind is that of the literal, block by block writer.
struct Shape {
    std::uint16_t channels;
    double recorded;
    double start;
    double end;
    double gain;
};

void PrintTo(const Shape& shape, std::ostream* out) {
    *out << shape.channels << " channels of " << shape.recorded << " blocks, " << shape.start
         << " to " << shape.end << ", " << shape.gain << " dB";
}

class DsfBatchTest : public DsfWriterTest, public testing::WithParamInterface<Shape> {
protected:
    VrSaveSettingInternal Make() {
        const Shape& shape = GetParam();
        MakeRecording(shape.channels,
                      static_cast<std::size_t>(std::lround(shape.recorded * 4'096)));
        return {directory.File("take.dsf"),
                shape.start,
                shape.end,
                shape.gain,
                {{"Title", "AB"}, {"Artist", "C"}}};
    }
};

TEST_P(DsfBatchTest, LeavesWhatBlockByBlockLeaves) {
    const VrSaveSettingInternal setting = Make();
    for (const std::int32_t pending : {kSaveCancelNone, kSaveCancelDelete, kSaveCancelKeep}) {
        cancelState = pending;
        ExpectLikeBlockByBlock(setting);
    }
}

TEST_P(DsfBatchTest, FailsAWriteWhereBlockByBlockFails) {
    const VrSaveSettingInternal setting = Make();
    for (const std::uint64_t bytes :
         {50U, 92U, 3'000U, 30'000U, 90'000U, 1'048'575U, 1'048'576U, 1'060'000U, 1'200'000U}) {
        const FileSizeLimit limit(bytes);
        ExpectLikeBlockByBlock(setting);
    }
}

constexpr double kSample = 1.0 / 32'768;  // of a block
constexpr double kBatch = kDsfBatchBlocks;

INSTANTIATE_TEST_SUITE_P(
    Shapes, DsfBatchTest,
    testing::Values(
        // Around one batch and two, whole and short last blocks.
        Shape{1, 2, 0, 1, 0}, Shape{2, 2 * kBatch, 0, kBatch - 1, 0},
        Shape{2, 2 * kBatch, 0, kBatch - 0.5, 0}, Shape{3, 2 * kBatch, 0, kBatch, 0},
        Shape{2, 2 * kBatch, 0, kBatch + 8 * kSample, 0},
        Shape{2, 2 * kBatch, 0, 2 * kBatch - 0.25, 0}, Shape{1, 2 * kBatch, 0, 2 * kBatch, 0},
        Shape{2, 3 * kBatch, 0, 2 * kBatch + 1, 0}, Shape{8, 3 * kBatch, 0, 2.5 * kBatch + 0.25, 0},
        Shape{2, 5, 0, 0, 0}, Shape{2, 5, 0, 16 * kSample, 0},
        // Last blocks of no whole byte, aligned and not: the latter write a block of zeros.
        Shape{1, 5, 0, 7 * kSample, 0}, Shape{2, 2 * kBatch, 0, kBatch + 7 * kSample, 0},
        Shape{2, 5, 3 * kSample, 10 * kSample, 0},
        Shape{2, 2 * kBatch, 3 * kSample, kBatch + 9 * kSample, 0},
        Shape{2, 2 * kBatch, 0, kBatch + 1 + 4 * kSample, 0},
        // Starts within a byte and within a batch.
        Shape{2, 2 * kBatch, 5 * kSample, kBatch + 4, 0},
        Shape{1, 2 * kBatch, 7 * kSample, kBatch + 15 * kSample, 0},
        Shape{1, 5, 7 * kSample, 1 + 22 * kSample, 0},
        Shape{2, 2 * kBatch, 10.25, kBatch + 20.5, 0},
        // Ends past the recording, in every place of a batch.
        Shape{2, 10, 0, 12, 0}, Shape{2, kBatch - 0.5, 0, kBatch, 0},
        Shape{2, kBatch, 0, kBatch + 1, 0}, Shape{2, kBatch + 0.25, 0, 2 * kBatch, 0},
        Shape{2, 2 * kBatch - 1, 0, 2 * kBatch, 0}, Shape{2, 2 * kBatch, 0, 2 * kBatch + 0.5, 0},
        Shape{1, 2 * kBatch + 1, 0, 20 * kBatch, 0}, Shape{2, 20, 20, 21, 0},
        Shape{2, 20, 25, 30, 0}, Shape{2, 20.5, 4 * kSample, 20.5 + 4 * kSample, 0},
        // More than all batches that are in hand.
        Shape{1, 20 * kBatch, 0, 19.5 * kBatch, 0},
        // With gain, which goes on from block to block.
        Shape{2, kBatch + 4, 0, kBatch + 2.5, -6}, Shape{1, 2 * kBatch, 0.5, kBatch + 3.25, 6},
        Shape{2, 17, 0.5, 30, -20}, Shape{2, kBatch + 4, 5 * kSample, kBatch + 7 * kSample, -3},
        Shape{8, 2, 0, 2, -0.5}, Shape{1, kBatch + 4, 0, kBatch + 1, -400}));

}  // namespace
}  // namespace vorrel
