// The device code over the simulated back end: each half is written against the seam alone, here
// they meet.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sndfile.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "device/AudioDeviceList.h"
#include "device/BackendTable.h"
#include "device/CoreAudioManager.h"
#include "device/simulated/SimulatedBackends.h"
#include "support/DsfBytes.h"
#include "support/FakeDeviceNotify.h"
#include "support/TempDirectory.h"

namespace vorrel {
namespace {

std::vector<FoundDeviceInfo> SupportedDevices(CoreAudioManager& manager) {
    std::vector<FoundDeviceInfo> list;
    EXPECT_EQ(manager.GetAudioDevices(list), VrSuccess);
    AudioDeviceList().FilterDevices(list);
    return list;
}

/// By name, as a host gets it, with the recorder that stands for no configuration.
class SimulatedDeviceTest : public testing::Test {
protected:
    SimulatedDeviceTest() { ::unsetenv("VORREL_SIMULATED"); }

    void SetUp() override {
        const std::vector<FoundDeviceInfo> list = SupportedDevices(manager);
        ASSERT_EQ(list.size(), 1U);
        ASSERT_EQ(manager.SetAudioDevice(list[0], &notify), VrSuccess);
    }

    test::FakeDeviceNotify notify;
    CoreAudioManager manager{[] { return MakeBackends("simulated"); }};
};

TEST_F(SimulatedDeviceTest, OffersAllPcmRatesOfTheModelIn32Bits) {
    for (const double rate :
         {44'100.0, 48'000.0, 88'200.0, 96'000.0, 176'400.0, 192'000.0, 352'800.0, 384'000.0}) {
        EXPECT_EQ(manager.CanSampleRate(rate), VrSuccess) << rate;
    }
    std::uint16_t bits = 0;
    std::uint16_t containerBits = 0;
    EXPECT_EQ(manager.GetBits(bits, containerBits), VrSuccess);
    EXPECT_EQ(bits, 32);
    EXPECT_EQ(containerBits, 32);
}

TEST_F(SimulatedDeviceTest, OffersTheThreeDsdRatesInDsdMode) {
    ASSERT_EQ(manager.SetSampleType(1), VrSuccess);
    for (const double rate : {2'822'400.0, 5'644'800.0, 11'289'600.0}) {
        EXPECT_EQ(manager.SetSampleRate(rate), VrSuccess) << rate;
        double inForce = 0;
        EXPECT_EQ(manager.GetSampleRate(inForce), VrSuccess);
        EXPECT_EQ(inForce, rate);
    }
}

TEST_F(SimulatedDeviceTest, DeliversCyclesFromStartToStop) {
    ASSERT_EQ(manager.SetSampleRate(96'000), VrSuccess);
    std::uint32_t frames = 4'800;
    ASSERT_EQ(manager.SetBufferSize(frames), VrSuccess);
    EXPECT_GT(frames, 0U);

    ASSERT_EQ(manager.Start(), VrSuccess);
    notify.cycles.wait(0);  // ends with the first cycle
    EXPECT_EQ(manager.Stop(), VrSuccess);

    EXPECT_GE(notify.cycles, 1);
    EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);
}

/// With the test's hand on the recorder, which delivers by hand.
class HandledDeviceTest : public testing::Test {
protected:
    static SimulatedRecorderConfig Manual() {
        SimulatedRecorderConfig config;
        config.manual = true;
        return config;
    }

    VrError Select(CoreAudioManager& by) {
        const std::vector<FoundDeviceInfo> list = SupportedDevices(by);
        EXPECT_EQ(list.size(), 1U);
        return list.empty() ? VrErrorDeviceNotFound : by.SetAudioDevice(list[0], &notify);
    }
    /// That nothing of the selection is left with the back ends.
    void ExpectNothingHeld() {
        EXPECT_EQ(recorder.IoProcCount(), 0U);
        EXPECT_EQ(recorder.HogOwner(), -1);
        EXPECT_FALSE(recorder.IsRunning());
        EXPECT_EQ(backends.ListenerCount(), 0U);
        EXPECT_EQ(backends.Registry().References(), 0U);
        EXPECT_EQ(backends.Registry().ExcessReleases(), 0U);
        EXPECT_EQ(backends.Registry().UsbInterfaces(), 0U);
    }

    SimulatedBackends backends{{Manual()}};
    SimulatedRecorder& recorder = backends.Recorder();
    test::FakeDeviceNotify notify;
    CoreAudioManager manager{[this] { return backends.Backends(); }};
};

TEST_F(HandledDeviceTest, ASecondOwnerIsRefusedUntilTheFirstLetsGo) {
    CoreAudioManager second([this] { return backends.Backends(); });
    ASSERT_EQ(Select(manager), VrSuccess);

    EXPECT_EQ(Select(second), VrErrorFailed);

    EXPECT_EQ(recorder.HogOwner(), ::getpid());
    EXPECT_EQ(manager.Start(), VrSuccess);  // the refused one took nothing away
    EXPECT_TRUE(recorder.DeliverBuffer());
    EXPECT_EQ(notify.cycles, 1);
    ASSERT_EQ(manager.Stop(), VrSuccess);
    ASSERT_EQ(manager.ReleaseDevice(), VrSuccess);
    EXPECT_EQ(Select(second), VrSuccess);
    ASSERT_EQ(second.ReleaseDevice(), VrSuccess);
    ExpectNothingHeld();
}

TEST_F(HandledDeviceTest, AnotherProcessesDeviceIsRefused) {
    recorder.SetHogOwner(::getppid());

    EXPECT_EQ(Select(manager), VrErrorFailed);

    EXPECT_EQ(recorder.HogOwner(), ::getppid());
    EXPECT_EQ(recorder.IoProcCount(), 0U);
    EXPECT_EQ(backends.ListenerCount(), 0U);
}

TEST_F(HandledDeviceTest, UnpluggedWhileItRunsItIsStoppedAndReleasedWithoutARest) {
    ASSERT_EQ(Select(manager), VrSuccess);
    ASSERT_EQ(manager.Start(), VrSuccess);
    ASSERT_TRUE(recorder.DeliverBuffer());

    recorder.Unplug();
    backends.FlushNotifications();

    EXPECT_EQ(notify.aliveChanges, 1);
    EXPECT_EQ(manager.Stop(), VrErrorDeviceNotFound);
    EXPECT_EQ(manager.Stop(), VrErrorInvalidState);
    EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);
    EXPECT_EQ(notify.cycles, 1);
    ExpectNothingHeld();
    EXPECT_TRUE(SupportedDevices(manager).empty());
}

TEST_F(HandledDeviceTest, PluggedInAgainBeforeTheReleaseItIsReleasedAndSelectedAnew) {
    ASSERT_EQ(Select(manager), VrSuccess);
    ASSERT_EQ(manager.Start(), VrSuccess);
    recorder.Unplug();
    recorder.Plug();

    EXPECT_EQ(manager.Stop(), VrErrorDeviceNotFound);
    EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);
    ExpectNothingHeld();

    ASSERT_EQ(Select(manager), VrSuccess);
    ASSERT_EQ(manager.Start(), VrSuccess);
    EXPECT_TRUE(recorder.DeliverBuffer());
    EXPECT_EQ(notify.cycles, 1);
    EXPECT_EQ(manager.Stop(), VrSuccess);
    EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);
    ExpectNothingHeld();
}

TEST_F(HandledDeviceTest, AControlRequestThatFailsKeepsTheDeviceFromBeingSelected) {
    for (const IOReturn result : {kIOUSBPipeStalled, kIOReturnNoDevice}) {
        recorder.FailControlRequest(result);
        EXPECT_EQ(Select(manager), VrErrorFailed);
        ExpectNothingHeld();

        recorder.FailInterfaceNumber(result);
        EXPECT_EQ(Select(manager), VrErrorFailed);
        ExpectNothingHeld();
    }
    EXPECT_EQ(Select(manager), VrSuccess);
}

TEST_F(HandledDeviceTest, ASwitchThatStallsLeavesTheModeAsItWas) {
    ASSERT_EQ(Select(manager), VrSuccess);
    recorder.FailControlRequest(kIOUSBPipeStalled);

    EXPECT_EQ(manager.SetSampleType(1), VrErrorFailed);

    std::int64_t type = -1;
    EXPECT_EQ(manager.GetSampleType(type), VrSuccess);
    EXPECT_EQ(type, 0);
    EXPECT_FALSE(recorder.IsDsdMode());
    recorder.FailControlRequest(kIOReturnNoDevice);
    EXPECT_EQ(manager.SetSampleType(1), VrErrorDeviceNotFound);
    EXPECT_EQ(manager.SetSampleType(1), VrSuccess);
    EXPECT_TRUE(recorder.IsDsdMode());
}

TEST_F(HandledDeviceTest, ADeviceWhoseNameIsNoTextIsLeftOutOfTheList) {
    recorder.Faults().SetNumber(kAudioObjectPropertyName, 42);
    EXPECT_TRUE(SupportedDevices(manager).empty());

    recorder.Faults().Clear();
    recorder.Faults().SetSize(kAudioDevicePropertyDeviceUID, 1);
    EXPECT_TRUE(SupportedDevices(manager).empty());

    recorder.Faults().Clear();
    EXPECT_EQ(SupportedDevices(manager).size(), 1U);
}

TEST_F(HandledDeviceTest, AStalledStreamIsStoppedLikeAnother) {
    ASSERT_EQ(Select(manager), VrSuccess);
    ASSERT_EQ(manager.Start(), VrSuccess);
    recorder.SetStalled(true);

    EXPECT_FALSE(recorder.DeliverBuffer());

    EXPECT_EQ(notify.cycles, 0);
    EXPECT_EQ(manager.Stop(), VrSuccess);
    EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);
    ExpectNothingHeld();
}

TEST_F(HandledDeviceTest, UnpluggedBeforeWhicheverCallOfASelectionItIsLetGoOfWholly) {
    const std::vector<FoundDeviceInfo> list = SupportedDevices(manager);
    ASSERT_EQ(list.size(), 1U);
    std::uint64_t before = backends.CallCount();
    ASSERT_EQ(manager.SetAudioDevice(list[0], &notify), VrSuccess);
    const std::uint64_t calls = backends.CallCount() - before;
    ASSERT_EQ(manager.ReleaseDevice(), VrSuccess);
    ASSERT_GT(calls, 10U);
    for (std::uint64_t nth = 1; nth <= calls; ++nth) {
        const std::vector<FoundDeviceInfo> now = SupportedDevices(manager);
        ASSERT_EQ(now.size(), 1U) << nth;
        backends.BeforeCall(nth, [this] { recorder.Unplug(); });

        // What only gives references back no longer minds; all else fails.
        const VrError error = manager.SetAudioDevice(now[0], &notify);
        if (error == VrSuccess) {
            EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);
        }

        EXPECT_FALSE(recorder.IsPlugged()) << nth;
        EXPECT_TRUE(error == VrErrorDeviceNotFound || error == VrErrorFailed)
            << nth << " " << error;
        ExpectNothingHeld();
        recorder.Plug();
    }
}

/// A recorder that plays a file.
class SimulatedFileTest : public testing::Test {
protected:
    void Select(const std::string& path) {
        SimulatedRecorderConfig config;
        config.source = SimulatedSource::File;
        config.filePath = path;
        config.manual = true;
        backends = std::make_unique<SimulatedBackends>(std::vector{config});
        ASSERT_EQ(backends->RecorderCount(), 1U);
        notify.onCycle = [this] {
            const AudioBuffer& buffer = notify.lastInput.load()->mBuffers[0];
            const auto* samples = static_cast<const float*>(buffer.mData);
            read.assign(samples, samples + buffer.mDataByteSize / sizeof(float));
        };
        const std::vector<FoundDeviceInfo> list = SupportedDevices(manager);
        ASSERT_EQ(list.size(), 1U);
        ASSERT_EQ(manager.SetAudioDevice(list[0], &notify), VrSuccess);
    }

    const test::TempDirectory directory;
    std::vector<float> read;  // the buffer that came last
    std::unique_ptr<SimulatedBackends> backends;
    test::FakeDeviceNotify notify;
    CoreAudioManager manager{[this] { return backends->Backends(); }};
};

TEST_F(SimulatedFileTest, AFileArrivesThroughTheDeviceCodeBitForBit) {
    const std::string path = directory.File("take.wav");
    const std::vector<float> written = {0.25F, -0.0F, 1.5F, -1.0F, 1e-45F, 0.1F};
    SF_INFO info{};
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    info.samplerate = 96'000;
    info.channels = 2;
    SNDFILE* file = ::sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(::sf_write_float(file, written.data(), 6), 6);
    ::sf_close(file);
    Select(path);
    EXPECT_EQ(manager.CanSampleRate(44'100), VrErrorNotSupported);
    ASSERT_EQ(manager.SetSampleRate(96'000), VrSuccess);
    ASSERT_EQ(manager.Start(), VrSuccess);

    ASSERT_TRUE(backends->Recorder().DeliverBuffer());

    ASSERT_EQ(read.size(), 512U * 2);
    EXPECT_EQ(std::memcmp(read.data(), written.data(), written.size() * sizeof(float)), 0);
    EXPECT_THAT(std::vector<float>(read.begin() + 6, read.end()), testing::Each(0.0F));
    EXPECT_EQ(manager.Stop(), VrSuccess);
}

TEST_F(SimulatedFileTest, ADsfFileArrivesThroughTheDeviceCodeAtItsRateAlone) {
    const std::string path = directory.File("take.dsf");
    test::WriteBytes(
        path,
        test::DsfBytes{.rateHz = 11'289'600, .channels = {{0x2C, 0x48}, {0xFF, 0xFF}}}.Make());
    Select(path);
    for (const double rateHz : {44'100.0, 176'400.0, 352'800.0, 384'000.0}) {
        EXPECT_EQ(manager.CanSampleRate(rateHz), VrErrorNotSupported) << rateHz;
    }
    EXPECT_EQ(manager.Start(), VrErrorNotSupported);  // it has no PCM to give
    ASSERT_EQ(manager.SetSampleType(1), VrSuccess);
    EXPECT_EQ(manager.CanSampleRate(2'822'400), VrErrorNotSupported);
    EXPECT_EQ(manager.CanSampleRate(5'644'800), VrErrorNotSupported);
    ASSERT_EQ(manager.SetSampleRate(11'289'600), VrSuccess);
    ASSERT_EQ(manager.Start(), VrSuccess);

    ASSERT_TRUE(backends->Recorder().DeliverBuffer());

    ASSERT_EQ(read.size(), 512U * 2);
    EXPECT_EQ(read[0], 0x1234 / 32'768.0F);
    EXPECT_EQ(read[1], -1 / 32'768.0F);
    EXPECT_THAT(std::vector<float>(read.begin() + 2, read.end()),
                testing::Each(0x6969 / 32'768.0F));
    EXPECT_EQ(manager.Stop(), VrSuccess);
}

}  // namespace
}  // namespace vorrel
