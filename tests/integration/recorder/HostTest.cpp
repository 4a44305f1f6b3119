// A recorder on Linux as a host sees it: the library as it is installed, its public functions, and
// behind them the real back end from the device manager's list to the samples. Mocked are the USB
// device, its node and the sound card's PCM alone.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "PluggedRecorder.h"
#include "apps/WavReader.h"
#include "support/DsfBytes.h"
#include "support/RecordingDelegate.h"
#include "support/TempDirectory.h"
#include "vorrel/Vorrel.h"

namespace vorrel::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kName[] = "KD-WV770";
constexpr std::int32_t kPcm = 0;
constexpr std::int32_t kDsd = 1;

/// What a process has once: the library with its manager, and the system under it.
class Host {
public:
    static Host& OfTheProcess() {
        static Host host;
        return host;
    }

    MockedSystem system;
    TempDirectory spillDirectory;
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();

private:
    Host() {
        ::setenv("VORREL_BACKEND", "alsa", 1);
        EXPECT_EQ(Vorrel_Init(delegate), VrSuccess);
        EXPECT_EQ(Vorrel_SetTempDirectory(spillDirectory.Path().c_str()), VrSuccess);
    }
};

class HostTest : public testing::Test {
protected:
    void SetUp() override {
        // Asked once: the answer takes a system of its own, and there may be one at a time.
        static const std::string why = MockedSystem::WhyNot();
        if (!why.empty()) {
            GTEST_SKIP() << why;
        }
        host = &Host::OfTheProcess();
        host->system.AnswerRequests(0);
        requestsBefore = host->system.Requests().size();
        *host->delegate = RecordingDelegate();
        recorder.emplace(host->system);
    }
    void TearDown() override {
        if (host != nullptr) {
            EXPECT_EQ(Vorrel_New(), VrSuccess);
            Release();
            EXPECT_FALSE(recorder->IsOpen());
            EXPECT_EQ(host->system.Claims(), 0);
        }
    }

    static std::vector<std::string> Listed() {
        std::vector<std::string> names;
        EXPECT_EQ(Vorrel_GetAudioDevices(&names), VrSuccess);
        return names;
    }
    /// A selection that finds nothing lets go what was selected before.
    static void Release() { EXPECT_EQ(Vorrel_SetAudioDevice("none"), VrErrorDeviceNotFound); }
    static VrError Set(std::int32_t type, std::uint64_t rateHz) {
        const VrRecordSetting setting{.rec_type = type, .freq = rateHz, .bits = 24};
        return Vorrel_SetRecordSetting(&setting);
    }
    /// Records until so much of the recording is stored.
    void Record(double seconds) {
        StartRecording();
        ASSERT_TRUE(DispatchUntil([&] {
            const auto& positions = host->delegate->streamPositions;
            return !positions.empty() && positions.back() >= seconds;
        }));
        ASSERT_EQ(Vorrel_Stop(true), VrSuccess);
        ASSERT_EQ(recorder->card.State().lateReaders, 0U);
    }
    void StartRecording() {
        *host->delegate = RecordingDelegate();
        ASSERT_EQ(Vorrel_Start(), VrSuccess);
        ASSERT_TRUE(
            DispatchUntil([&] { return host->delegate->Has(VrRecOperationDeviceStarted); }));
    }
    /// Saves so many samples of a channel, from the first on. @return The file.
    std::string Save(const char* name, std::uint64_t samples, std::uint64_t rateHz) {
        std::string path = directory.File(name);
        // In the middle of the last one, so that no rounding of the seconds loses it.
        const double end = (static_cast<double>(samples) + 0.5) / static_cast<double>(rateHz);
        const std::vector<VrSaveSetting> files = {{path, 0.0, end, 0.0, {}}};
        EXPECT_EQ(Vorrel_SaveFile(&files), VrSuccess);
        EXPECT_TRUE(DispatchUntil([&] { return host->delegate->Has(VrRecOperationSaveFinished); }));
        EXPECT_THAT(host->delegate->messages, IsEmpty());
        return path;
    }
    /// The frame of the card's with which a take begins, which is the first of a buffer.
    template <class Holds>
    std::uint64_t FirstFrame(const Holds& holds) const {
        const std::uint64_t buffer = recorder->card.State().periodFrames;
        for (std::uint64_t frame = 0; frame < 200 * buffer; frame += buffer) {
            if (holds(frame)) {
                return frame;
            }
        }
        ADD_FAILURE() << "it does not begin with a buffer of the card's";
        return 0;
    }
    /// The modes to which the recorders were told to switch in this test.
    std::vector<int> Modes() const {
        std::vector<int> modes;
        const auto requests = host->system.Requests();
        for (std::size_t index = requestsBefore; index < requests.size(); ++index) {
            const std::uint8_t mode = requests[index].at(2);
            EXPECT_EQ(requests[index], SwitchTo(mode));
            modes.push_back(mode);
        }
        return modes;
    }

    Host* host = nullptr;
    std::size_t requestsBefore = 0;
    TempDirectory directory;
    std::optional<PluggedRecorder> recorder;
};

TEST_F(HostTest, ARecorderIsListedAndDescribedAndSwitchedBackToPcm) {
    EXPECT_THAT(Listed(), ElementsAre(kName));
    ASSERT_EQ(Vorrel_SetAudioDevice(kName), VrSuccess);

    std::shared_ptr<VrAudioDeviceInfo> info;
    ASSERT_EQ(Vorrel_GetAudioDeviceInfo(&info), VrSuccess);
    EXPECT_EQ(info->device_name, kName);
    EXPECT_EQ(info->vid, 0x6666);
    EXPECT_EQ(info->pid, 0x0770);
    EXPECT_EQ(info->i_ch, 2);
    EXPECT_EQ(info->o_ch, 0);
    EXPECT_EQ(info->PCM_supported_bits, 24);
    EXPECT_EQ(info->PCM_record_bits, 24);
    EXPECT_THAT(info->PCM_supported_freq, ElementsAre(44'100, 48'000, 96'000, 192'000, 384'000));
    EXPECT_THAT(info->DSD_supported_freq, ElementsAre(2'822'400, 5'644'800, 11'289'600));
    // A selection begins in PCM mode and tries DSD for the rates.
    EXPECT_THAT(Modes(), ElementsAre(kPcm, kDsd, kPcm));
}

TEST_F(HostTest, ASelectedRecorderIsNobodyElsesUntilItIsLetGo) {
    ASSERT_EQ(Vorrel_SetAudioDevice(kName), VrSuccess);
    EXPECT_TRUE(recorder->IsOpen());

    Release();

    EXPECT_FALSE(recorder->IsOpen());
    recorder->card.HeldByAnother().reset();  // it can be
}

TEST_F(HostTest, APcmTakeHoldsEverySampleOfTheRecorder) {
    constexpr std::uint64_t kRateHz = 96'000;
    constexpr std::uint64_t kFrames = 48'000;
    ASSERT_EQ(Vorrel_SetAudioDevice(kName), VrSuccess);
    ASSERT_EQ(Set(kPcm, kRateHz), VrSuccess);

    Record(0.5);

    EXPECT_EQ(recorder->card.State().rateHz, kRateHz);
    EXPECT_EQ(recorder->card.State().format, kS24In3);
    const Wav wav = ReadWav(Save("take.wav", kFrames, kRateHz));
    ASSERT_EQ(wav.bits, 24U);
    ASSERT_EQ(wav.channels, 2U);
    ASSERT_EQ(wav.Frames(), kFrames);
    const auto is = [&wav](std::uint64_t at, std::uint64_t frame) {
        for (std::uint32_t channel = 0; channel < 2; ++channel) {
            const auto heard = static_cast<std::int32_t>(TestSample(frame, channel, 2)) >> 8;
            if (wav.samples[2 * at + channel] != heard) {
                return false;
            }
        }
        return true;
    };
    const std::uint64_t first =
        FirstFrame([&](std::uint64_t frame) { return is(0, frame) && is(1, frame + 1); });
    for (std::uint64_t at = 0; at < kFrames; ++at) {
        ASSERT_TRUE(is(at, first + at)) << at;
    }
}

TEST_F(HostTest, ADsdTakeHoldsEveryBitOfTheRecorder) {
    constexpr std::uint64_t kRateHz = 2'822'400;
    constexpr std::uint64_t kBits = 1'128'960;  // 0.4 s, 70,560 words
    constexpr std::size_t kHeaderBytes = 92;
    constexpr std::size_t kBlockBytes = 4'096;
    ASSERT_EQ(Vorrel_SetAudioDevice(kName), VrSuccess);
    ASSERT_EQ(Set(kDsd, kRateHz), VrSuccess);
    EXPECT_EQ(Modes().back(), kDsd);

    Record(0.5);

    EXPECT_EQ(recorder->card.State().rateHz, kRateHz / 16);
    EXPECT_EQ(recorder->card.State().format, kS16);
    const Bytes dsf = ReadBytes(Save("take.dsf", kBits, kRateHz));
    ASSERT_EQ(LittleEndian(dsf, 52, 4), 2U);     // channels
    ASSERT_EQ(LittleEndian(dsf, 64, 8), kBits);  // of each channel
    ASSERT_EQ(LittleEndian(dsf, 72, 4), kBlockBytes);
    // 35 blocks of each channel, in turn; the last one is filled up.
    ASSERT_EQ(dsf.size(), kHeaderBytes + 2 * 35 * kBlockBytes);
    for (std::uint32_t channel = 0; channel < 2; ++channel) {
        const auto byteAt = [&](std::uint64_t byte) {
            return dsf[kHeaderBytes + (byte / kBlockBytes * 2 + channel) * kBlockBytes +
                       byte % kBlockBytes];
        };
        // The low byte of a word is the earlier one; a file begins a byte with its lowest bit.
        const auto is = [&](std::uint64_t word, std::uint64_t frame) {
            const std::uint32_t heard = TestSample(frame, channel, 2) >> 16;
            return byteAt(2 * word) == Mirrored(static_cast<std::uint8_t>(heard)) &&
                   byteAt(2 * word + 1) == Mirrored(static_cast<std::uint8_t>(heard >> 8));
        };
        const std::uint64_t first = FirstFrame([&](std::uint64_t frame) {
            return is(0, frame) && is(1, frame + 1) && is(2, frame + 2);
        });
        for (std::uint64_t word = 0; word < kBits / 16; ++word) {
            ASSERT_TRUE(is(word, first + word)) << word;
        }
    }
    ASSERT_EQ(Vorrel_New(), VrSuccess);
    EXPECT_EQ(Modes().back(), kDsd);
    Release();
    EXPECT_EQ(Modes().back(), kPcm);
}

TEST_F(HostTest, OfTwoRecordersOfOneNameTheFirstIsTakenAndTheOtherStaysFree) {
    PluggedRecorder second(host->system);
    EXPECT_THAT(Listed(), ElementsAre(kName, kName));

    ASSERT_EQ(Vorrel_SetAudioDevice(kName), VrSuccess);
    EXPECT_TRUE(recorder->IsOpen());
    EXPECT_FALSE(second.IsOpen());
    second.card.HeldByAnother().reset();  // it can be
    EXPECT_THAT(host->system.RequestsTo(second.usb), IsEmpty());
    Release();

    // Also where the first is somebody else's: a name is not tried on the next.
    const std::shared_ptr<void> other = recorder->card.HeldByAnother();
    EXPECT_EQ(Vorrel_SetAudioDevice(kName), VrErrorFailed);
    EXPECT_FALSE(second.IsOpen());

    recorder->Unplug();
    EXPECT_THAT(Listed(), ElementsAre(kName));
    EXPECT_EQ(Vorrel_SetAudioDevice(kName), VrSuccess);
    EXPECT_TRUE(second.IsOpen());
    EXPECT_FALSE(host->system.RequestsTo(second.usb).empty());
    Release();
}

TEST_F(HostTest, AnUnpluggedRecorderIsToldAndListedNoMoreAndSelectedWhenItIsBack) {
    ASSERT_EQ(Vorrel_SetAudioDevice(kName), VrSuccess);
    ASSERT_EQ(Set(kPcm, 48'000), VrSuccess);
    StartRecording();

    recorder->Unplug();

    ASSERT_TRUE(DispatchUntil([&] { return host->delegate->Has(VrMessageDeviceError); }));
    EXPECT_THAT(Listed(), IsEmpty());
    ASSERT_EQ(Vorrel_Stop(true), VrSuccess);
    ASSERT_EQ(Vorrel_New(), VrSuccess);
    EXPECT_EQ(host->delegate->Count(VrMessageDeviceError), 1U);
    EXPECT_EQ(Vorrel_SetAudioDevice(kName), VrErrorDeviceNotFound);
    EXPECT_FALSE(recorder->IsOpen());
    recorder->PlugIn();
    EXPECT_THAT(Listed(), ElementsAre(kName));
    ASSERT_EQ(Vorrel_SetAudioDevice(kName), VrSuccess);
    ASSERT_EQ(Set(kPcm, 48'000), VrSuccess);
    Record(0.2);
}

struct Refusal {
    const char* name;
    int errorNumber;
    VrError result;  // of a switch of the selected recorder
};

class RefusedSwitchTest : public HostTest, public testing::WithParamInterface<Refusal> {};

TEST_P(RefusedSwitchTest, InASelectionLeavesTheCardFree) {
    host->system.AnswerRequests(GetParam().errorNumber);

    EXPECT_EQ(Vorrel_SetAudioDevice(kName), VrErrorFailed);

    EXPECT_EQ(recorder->card.State().opens, recorder->card.State().closes);
    recorder->card.HeldByAnother().reset();  // it can be
    std::shared_ptr<VrAudioDeviceInfo> info;
    EXPECT_EQ(Vorrel_GetAudioDeviceInfo(&info), VrErrorInvalidState);
    host->system.AnswerRequests(0);
    EXPECT_EQ(Vorrel_SetAudioDevice(kName), VrSuccess);
}

TEST_P(RefusedSwitchTest, OfASelectedRecorderLeavesItSelectedInPcm) {
    ASSERT_EQ(Vorrel_SetAudioDevice(kName), VrSuccess);
    ASSERT_EQ(Set(kPcm, 48'000), VrSuccess);
    host->system.AnswerRequests(GetParam().errorNumber);

    EXPECT_EQ(Set(kDsd, 2'822'400), GetParam().result);

    std::shared_ptr<VrRecordSetting> setting;
    ASSERT_EQ(Vorrel_GetRecordSetting(&setting), VrSuccess);
    EXPECT_EQ(setting->rec_type, kPcm);
    EXPECT_EQ(setting->freq, 48'000U);
    EXPECT_TRUE(recorder->IsOpen());
    Release();  // which asks for PCM in vain
    EXPECT_FALSE(recorder->IsOpen());
}

INSTANTIATE_TEST_SUITE_P(Answers, RefusedSwitchTest,
                         testing::Values(Refusal{"Stalled", EPIPE, VrErrorFailed},
                                         Refusal{"Gone", ENODEV, VrErrorDeviceNotFound}),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace vorrel::test
