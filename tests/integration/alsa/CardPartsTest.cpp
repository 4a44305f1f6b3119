#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "AlsaRig.h"
#include "device/alsa/CycleTimes.h"
#include "device/alsa/DeviceHolder.h"
#include "device/alsa/LockedBuffer.h"
#include "device/alsa/PcmFormat.h"
#include "support/TempDirectory.h"
#include "support/WithoutLocking.h"

namespace vorrel::test {
namespace {

std::vector<float> Convert(SampleLayout layout, const std::vector<std::uint8_t>& bytes,
                           std::size_t samples) {
    std::vector<float> floats(samples);
    ConverterOf(layout)(reinterpret_cast<std::uint8_t*>(floats.data()), bytes.data(), samples);
    return floats;
}

TEST(PcmFormatTest, SixteenBitsBecomeExactMultiples) {
    // Every word there is.
    std::vector<std::uint8_t> bytes;
    for (int value = -32'768; value <= 32'767; ++value) {
        bytes.push_back(static_cast<std::uint8_t>(value & 0xFF));
        bytes.push_back(static_cast<std::uint8_t>(value >> 8 & 0xFF));
    }

    const std::vector<float> floats = Convert(SampleLayout::Int16, bytes, 65'536);

    for (int value = -32'768; value <= 32'767; ++value) {
        ASSERT_EQ(floats[static_cast<std::size_t>(value + 32'768)] * 32'768.0F,
                  static_cast<float>(value));
    }
}

TEST(PcmFormatTest, TwentyFourBitsBecomeExactMultiplesInThreeBytesAndInFour) {
    const std::vector<std::uint8_t> three = {0x00, 0x00, 0x80, 0xFF, 0xFF, 0x7F,
                                             0x01, 0x00, 0x00, 0xFF, 0xFF, 0xFF};
    // What lies in the fourth byte is nothing of the sample's.
    const std::vector<std::uint8_t> four = {0x00, 0x00, 0x80, 0x00, 0xFF, 0xFF, 0x7F, 0xA5,
                                            0x01, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
    const std::vector<float> expected = {-1.0F, 8'388'607.0F / 8'388'608.0F, 1.0F / 8'388'608.0F,
                                         -1.0F / 8'388'608.0F};

    EXPECT_EQ(Convert(SampleLayout::Int24In3, three, 4), expected);
    EXPECT_EQ(Convert(SampleLayout::Int24In4, four, 4), expected);
}

TEST(PcmFormatTest, ThirtyTwoBitsBecomeTheNearestFloat) {
    const std::vector<std::uint8_t> bytes = {0x00, 0x00, 0x00, 0x80, 0xFF, 0xFF, 0xFF, 0x7F,
                                             0x40, 0x00, 0x00, 0x40, 0x41, 0x00, 0x00, 0x40};
    // 0x40000040 lies half way between two floats, the even of which is 0x40000000.
    const std::vector<float> expected = {-1.0F, 1.0F, 0.5F, 1'073'741'952.0F / 2'147'483'648.0F};

    EXPECT_EQ(Convert(SampleLayout::Int32, bytes, 4), expected);
}

TEST(PcmFormatTest, ADescriptionOffersItsStandardRatesOnce) {
    const std::vector<CaptureFormat> described = {{2, 24, 3, {44'100, 50'000}, 0, 0},
                                                  {2, 24, 3, {44'100}, 0, 0},
                                                  {2, 16, 2, {}, 700'000, 800'000},
                                                  {2, 8, 1, {44'100}, 0, 0}};

    const std::vector<PcmFormat> formats = DescribedFormats(described);

    const std::vector<PcmFormat> expected = {{44'100, SampleLayout::Int24In3, 2},
                                             {705'600, SampleLayout::Int16, 2},
                                             {768'000, SampleLayout::Int16, 2}};
    EXPECT_EQ(formats, expected);
}

TEST(PcmFormatTest, BitsThatFillLessThanTheirBytesLieHigh) {
    const AudioStreamBasicDescription format =
        DescribeFormat({48'000, SampleLayout::Int24In3, 2}, 20).mFormat;

    EXPECT_EQ(format.mFormatFlags, kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsAlignedHigh);
    EXPECT_EQ(format.mBitsPerChannel, 20U);
    EXPECT_EQ(format.mBytesPerFrame, 6U);
}

TEST(PcmFormatTest, BitsBelowTheSignificantOnesComeAlong) {
    const std::vector<std::uint8_t> bytes = {0x01, 0x01, 0x00, 0x00};

    EXPECT_EQ(Convert(SampleLayout::Int32, bytes, 1), std::vector{257.0F / 2'147'483'648.0F});
}

TEST(PcmFormatTest, OfSeveralSettingsThatFitTheMostBitsCount) {
    const PcmFormat format{48'000, SampleLayout::Int32, 2};

    EXPECT_EQ(DescribedBits(format, {{2, 24, 4, {48'000}, 0, 0}, {2, 32, 4, {48'000}, 0, 0}}), 32U);
    EXPECT_EQ(DescribedBits(format, {{2, 24, 4, {48'000}, 0, 0}, {2, 32, 4, {96'000}, 0, 0}}), 24U);
    EXPECT_EQ(DescribedBits(format, {{2, 20, 4, {}, 44'100, 96'000}, {2, 24, 4, {48'000}, 0, 0}}),
              24U);
}

TEST(PcmFormatTest, BitsOfADescriptionWithoutRatesHoldForEachRateThatIsNotDescribed) {
    const std::vector<CaptureFormat> unknown = {{2, 24, 4, {}, 0, 0}};

    EXPECT_EQ(DescribedBits({48'000, SampleLayout::Int32, 2}, unknown), 24U);
    EXPECT_EQ(DescribedBits({48'000, SampleLayout::Int32, 1}, unknown), 32U);
    EXPECT_EQ(DescribedBits({48'000, SampleLayout::Int32, 2},
                            {{2, 24, 4, {}, 0, 0}, {2, 20, 4, {48'000}, 0, 0}}),
              20U);
    EXPECT_TRUE(DescribedFormats(unknown).empty());  // nobody knows a rate to offer
}

TEST(LockedBufferTest, EachPageIsThereFromTheBeginningWhetherItIsLockedOrNot) {
    constexpr std::size_t kBytes = 64 << 10;
    const std::size_t pageBytes = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    std::unique_ptr<LockedBuffer> buffer;
    WithoutLocking([&] { buffer = std::make_unique<LockedBuffer>(kBytes); });

    EXPECT_EQ(buffer->SizeBytes(), kBytes);
    std::vector<unsigned char> pages(kBytes / pageBytes);
    ASSERT_EQ(::mincore(buffer->Data(), kBytes, pages.data()), 0);
    for (const unsigned char page : pages) {
        EXPECT_EQ(page & 1, 1);
    }
}

class DeviceHolderTest : public testing::Test {
protected:
    void Write(const std::string& path, const std::string& text) {
        const std::filesystem::path file = directory.File(path);
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << text;
    }
    TempDirectory directory;
};

TEST_F(DeviceHolderTest, TheDriverNamesTheOwner) {
    Write("asound/card2/pcm0c/sub0/status",
          "state: RUNNING\nowner_pid   : 4711\ntrigger_time: 1\n");
    Write("4711/status", "Name:\tsoundserver\nTgid:\t4711\nPid:\t4711\n");
    Write("4711/comm", "soundserver\n");

    const DeviceHolder holder = FindDeviceHolder(2, 0, directory.Path());

    EXPECT_EQ(holder.processId, 4'711);
    EXPECT_EQ(HolderText(holder), "process 4711 (soundserver)");
}

TEST_F(DeviceHolderTest, AThreadThatOpenedItStandsForItsProcess) {
    Write("asound/card2/pcm0c/sub0/status", "state: RUNNING\nowner_pid   : 4713\n");
    Write("4713/status", "Name:\taudio-thread\nTgid:\t4711\nPid:\t4713\n");
    Write("4713/comm", "audio-thread\n");
    Write("4711/comm", "soundserver\n");

    EXPECT_EQ(HolderText(FindDeviceHolder(2, 0, directory.Path())), "process 4711 (soundserver)");
}

TEST_F(DeviceHolderTest, WhenTheThreadThatOpenedItHasEndedItsFilesTell) {
    Write("asound/card2/pcm0c/sub0/status", "state: RUNNING\nowner_pid   : 4713\n");
    Write("4711/comm", "soundserver\n");
    std::filesystem::create_directories(directory.File("4711/fd"));
    std::filesystem::create_symlink("/dev/snd/pcmC2D0c", directory.File("4711/fd/5"));

    EXPECT_EQ(HolderText(FindDeviceHolder(2, 0, directory.Path())), "process 4711 (soundserver)");
}

TEST_F(DeviceHolderTest, AHolderThatVanishesMeanwhileIsNobodyThatIsKnown) {
    Write("asound/card2/pcm0c/sub0/status", "state: RUNNING\nowner_pid   : 4713\n");

    EXPECT_EQ(FindDeviceHolder(2, 0, directory.Path()).processId, -1);
}

/// A process that is known to hold the card without hog mode.
class HogOwnerTest : public AlsaCardTest {
protected:
    /// @param process  Whose thread 4713 has the card open.
    AudioDeviceID HeldBy(pid_t process) {
        const std::string status =
            directory.File("asound/card" + std::to_string(card.Number()) + "/pcm0c/sub0/status");
        std::filesystem::create_directories(std::filesystem::path(status).parent_path());
        std::ofstream(status) << "state: RUNNING\nowner_pid   : 4713\n";
        std::filesystem::create_directories(directory.File("4713"));
        std::ofstream(directory.File("4713/status")) << "Tgid:\t" << process << "\n";
        audio = std::make_shared<AlsaAudioBackend>(cards, directory.Path());
        return Device();
    }
    TempDirectory directory;
};

TEST_F(HogOwnerTest, AThreadOfThisProcessIsThisProcess) {
    const AudioDeviceID device = HeldBy(::getpid());

    EXPECT_EQ(Value<SInt32>(device, kAudioDevicePropertyHogMode), ::getpid());
    EXPECT_EQ(Unhog(device), 0);
}

TEST_F(HogOwnerTest, AThreadOfAnotherProcessIsThatProcessAndKeepsIt) {
    const AudioDeviceID device = HeldBy(1);

    EXPECT_EQ(Value<SInt32>(device, kAudioDevicePropertyHogMode), 1);
    EXPECT_EQ(Unhog(device), kAudioDevicePermissionsError);
}

TEST_F(DeviceHolderTest, ElseTheProcessWithTheFileOpen) {
    Write("asound/card2/pcm0c/sub0/status", "closed\n");
    Write("17/comm", "other\n");
    std::filesystem::create_directories(directory.File("17/fd"));
    Write("99/comm", "player\n");
    std::filesystem::create_directories(directory.File("99/fd"));
    std::filesystem::create_symlink("/dev/snd/pcmC2D1c", directory.File("17/fd/3"));
    std::filesystem::create_symlink("/dev/snd/pcmC2D0c", directory.File("99/fd/5"));

    EXPECT_EQ(HolderText(FindDeviceHolder(2, 0, directory.Path())), "process 99 (player)");
}

TEST_F(DeviceHolderTest, NobodyThatIsKnownIsAnotherProcess) {
    EXPECT_EQ(HolderText(FindDeviceHolder(2, 0, directory.Path())), "another process");
    EXPECT_EQ(FindDeviceHolder(2, 0, directory.Path() + "/none").processId, -1);
    EXPECT_EQ(HolderText({5, ""}), "process 5");
}

TEST(CycleTimesTest, TheSummaryIsOfAllThatWasAdded) {
    CycleTimes times;
    EXPECT_EQ(times.Summarise().cycles, 0U);
    for (int count = 0; count < 998; ++count) {
        times.Add(std::chrono::microseconds(10));
    }
    times.Add(std::chrono::microseconds(400));
    times.Add(std::chrono::milliseconds(70));

    const CycleTimes::Summary summary = times.Summarise();

    EXPECT_EQ(summary.cycles, 1'000U);
    EXPECT_EQ(summary.median.count(), 10);
    EXPECT_EQ(summary.percentile999.count(), 400);
    EXPECT_EQ(summary.maximum.count(), 70'000);
}

}  // namespace
}  // namespace vorrel::test
