#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <tuple>
#include <vector>

#include "device/CoreAudioManager.h"
#include "support/FakeDeviceNotify.h"
#include "support/FakeRecorder.h"

namespace vorrel {
namespace {

using test::FakeDeviceNotify;
using test::FakeRecorder;
using testing::ElementsAre;

class DeviceSelectionTest : public testing::Test {
protected:
    VrError Select() { return manager.SetAudioDevice(recorder.Found(), &notify); }

    /// No device selected, exclusive use given up, nothing registered.
    void ExpectNothingLeftBehind() {
        std::uint32_t frames = 0;
        EXPECT_EQ(manager.GetBufferSize(frames), VrErrorInvalidState);
        EXPECT_EQ(recorder.HogOwner(), -1);
        EXPECT_TRUE(recorder.audio->Listeners().empty());
        EXPECT_TRUE(recorder.audio->IoProcs().empty());
        EXPECT_EQ(recorder.registry->OpenUsbInterfaces(), 0);
        EXPECT_EQ(recorder.registry->Outstanding(), 0U);
    }

    FakeRecorder recorder;
    FakeDeviceNotify notify;
    CoreAudioManager manager{recorder.Provider()};
};

TEST_F(DeviceSelectionTest, SelectsADeviceForExclusiveUseInPcmMode) {
    ASSERT_EQ(Select(), VrSuccess);

    EXPECT_TRUE(recorder.IsHeldByThisProcess());
    std::int64_t type = -1;
    EXPECT_EQ(manager.GetSampleType(type), VrSuccess);
    EXPECT_EQ(type, 0);
    double rate = 0;
    EXPECT_EQ(manager.GetSampleRate(rate), VrSuccess);
    EXPECT_EQ(rate, 44'100.0);
    std::uint32_t frames = 0;
    EXPECT_EQ(manager.GetBufferSize(frames), VrSuccess);
    EXPECT_EQ(frames, 512U);
    EXPECT_EQ(manager.SelectedDevice().uid, FakeRecorder::kUid);
    ASSERT_EQ(recorder.registry->UsbRequests().size(), 1U);
    EXPECT_EQ(recorder.registry->UsbRequests()[0].value, 0);
}

TEST_F(DeviceSelectionTest,
       ExclusiveUseComesFirstThenTheIoProcThenTheOverloadThenTheAliveListener) {
    ASSERT_EQ(Select(), VrSuccess);

    EXPECT_THAT(recorder.audio->Log(),
                ElementsAre("set oink", "create", "listen over", "listen livn"));
}

TEST_F(DeviceSelectionTest, ANullNotifyIsAnInvalidParameterWhetherADeviceIsSelectedOrNot) {
    EXPECT_EQ(manager.SetAudioDevice(recorder.Found(), nullptr), VrErrorInvalidParameter);
    ExpectNothingLeftBehind();

    ASSERT_EQ(Select(), VrSuccess);
    EXPECT_EQ(manager.SetAudioDevice(recorder.Found(), nullptr), VrErrorInvalidParameter);
    EXPECT_TRUE(recorder.IsHeldByThisProcess());
}

TEST_F(DeviceSelectionTest, ASecondSelectionIsRefusedAndChangesNothing) {
    ASSERT_EQ(Select(), VrSuccess);
    recorder.audio->ClearLog();
    FakeDeviceNotify other;
    FoundDeviceInfo another = recorder.Found();
    another.uid = "another";

    EXPECT_EQ(manager.SetAudioDevice(another, &other), VrErrorInvalidState);

    EXPECT_TRUE(recorder.audio->Log().empty());
    EXPECT_EQ(manager.SelectedDevice().uid, FakeRecorder::kUid);
    EXPECT_TRUE(recorder.FireOverload());
    EXPECT_EQ(notify.overloads, 1);
    EXPECT_EQ(other.overloads, 0);
}

TEST_F(DeviceSelectionTest, ADeviceWithoutAnInputStreamIsNotSupportedAndStaysFree) {
    recorder.audio->SetValues<AudioStreamID>(FakeRecorder::kDevice, kAudioDevicePropertyStreams, {},
                                             kAudioObjectPropertyScopeInput);

    EXPECT_EQ(Select(), VrErrorNotSupported);

    ExpectNothingLeftBehind();
    EXPECT_TRUE(recorder.audio->Log().empty());
}

TEST_F(DeviceSelectionTest, AFailedReadOfTheStreamsIsReportedBeforeAnythingIsTaken) {
    recorder.audio->FailGet(kAudioDevicePropertyStreams, kAudioHardwareBadDeviceError);

    EXPECT_EQ(Select(), VrErrorDeviceNotFound);

    ExpectNothingLeftBehind();
    EXPECT_TRUE(recorder.audio->Log().empty());
}

TEST_F(DeviceSelectionTest, WithoutBackEndsTheDeviceIsNotFound) {
    CoreAudioManager none{[] { return DeviceBackends{}; }};

    EXPECT_EQ(none.SetAudioDevice(recorder.Found(), &notify), VrErrorDeviceNotFound);
}

TEST_F(DeviceSelectionTest, ADeviceThatSomebodyElseHoldsFailsAndStaysTheirs) {
    recorder.audio->SetValue<SInt32>(FakeRecorder::kDevice, kAudioDevicePropertyHogMode, 1);
    recorder.audio->FailSet(kAudioDevicePropertyHogMode, kAudioDevicePermissionsError);

    EXPECT_EQ(Select(), VrErrorFailed);

    EXPECT_EQ(recorder.HogOwner(), 1);
    EXPECT_TRUE(recorder.audio->IoProcs().empty());
}

TEST_F(DeviceSelectionTest, AFailedReadOfTheDevicesStateEndsTheSelectionAndFreesTheDevice) {
    for (const AudioObjectPropertySelector selector :
         {kAudioDevicePropertyBufferFrameSize, kAudioStreamPropertyPhysicalFormat,
          kAudioStreamPropertyAvailablePhysicalFormats}) {
        for (const auto& [status, expected] :
             {std::pair{kAudioHardwareUnspecifiedError, VrErrorFailed},
              std::pair{kAudioHardwareBadStreamError, VrErrorDeviceNotFound}}) {
            recorder.audio->FailGet(selector, status);

            EXPECT_EQ(Select(), expected) << test::SelectorText(selector);
            ExpectNothingLeftBehind();
            EXPECT_TRUE(recorder.registry->UsbRequests().empty());
        }
        recorder.audio->FailGet(selector, kAudioHardwareNoError);
    }
    EXPECT_EQ(Select(), VrSuccess);
}

TEST_F(DeviceSelectionTest, AMissingUsbInterfaceFailsAndRollsBack) {
    recorder.registry->FailUsbInterface(true);

    EXPECT_EQ(Select(), VrErrorFailed);

    ExpectNothingLeftBehind();
}

TEST_F(DeviceSelectionTest, AUsbInterfaceThatRefusesPcmModeFailsAndRollsBack) {
    recorder.registry->FailUsbRequest(kIOUSBPipeStalled);

    EXPECT_EQ(Select(), VrErrorFailed);

    ExpectNothingLeftBehind();
}

TEST_F(DeviceSelectionTest, ADeviceThatIsUnpluggedBeforePcmModeIsSetFailsAndRollsBack) {
    recorder.registry->FailUsbInterfaceNumber(kIOReturnNoDevice);

    EXPECT_EQ(Select(), VrErrorFailed);

    ExpectNothingLeftBehind();
}

TEST_F(DeviceSelectionTest, AFailedIoProcRollsBack) {
    recorder.audio->FailCreateIOProc(kAudioHardwareBadDeviceError);

    EXPECT_EQ(Select(), VrErrorDeviceNotFound);

    ExpectNothingLeftBehind();
}

TEST_F(DeviceSelectionTest, AFailedOverloadListenerRollsBack) {
    recorder.audio->FailAddListener(kAudioDeviceProcessorOverload, kAudioHardwareUnspecifiedError);

    EXPECT_EQ(Select(), VrErrorFailed);

    ExpectNothingLeftBehind();
}

TEST_F(DeviceSelectionTest, AFailedAliveListenerRollsBackInReverseWithExclusiveUseLast) {
    recorder.audio->FailAddListener(kAudioDevicePropertyDeviceIsAlive,
                                    kAudioHardwareUnsupportedOperationError);

    EXPECT_EQ(Select(), VrErrorNotSupported);

    ExpectNothingLeftBehind();
    EXPECT_THAT(recorder.audio->Log(), ElementsAre("set oink", "create", "listen over",
                                                   "unlisten over", "destroy", "set oink"));
}

TEST_F(DeviceSelectionTest, AWantOfMemoryAfterExclusiveUseWasTakenRollsBack) {
    recorder.audio->onListenerAdded = [](AudioObjectID, AudioObjectPropertySelector) {
        throw std::bad_alloc();
    };

    EXPECT_EQ(Select(), VrErrorFailed);

    ExpectNothingLeftBehind();
    EXPECT_TRUE(manager.SelectedDevice().name.empty());
    recorder.audio->onListenerAdded = nullptr;
    EXPECT_EQ(Select(), VrSuccess);
}

TEST_F(DeviceSelectionTest, AFailedSelectionCanBeTriedAgain) {
    recorder.audio->FailCreateIOProc(kAudioHardwareUnspecifiedError);
    ASSERT_EQ(Select(), VrErrorFailed);
    recorder.audio->FailCreateIOProc(kAudioHardwareNoError);

    EXPECT_EQ(Select(), VrSuccess);
}

TEST_F(DeviceSelectionTest, ADeviceWithoutTheControlInterfaceBitIsSelectedWithoutUsb) {
    FoundDeviceInfo found = recorder.Found();
    found.excludedRateMask &= ~(1U << 16);

    EXPECT_EQ(manager.SetAudioDevice(found, &notify), VrSuccess);

    EXPECT_EQ(recorder.registry->OpenUsbInterfaces(), 0);
    EXPECT_TRUE(recorder.registry->UsbRequests().empty());
}

TEST_F(DeviceSelectionTest, EventsDuringTheSelectionDoNothing) {
    int fired = 0;
    recorder.audio->onListenerAdded = [&](AudioObjectID object,
                                          AudioObjectPropertySelector selector) {
        fired += static_cast<int>(recorder.audio->Fire(object, selector));
    };

    ASSERT_EQ(Select(), VrSuccess);

    EXPECT_EQ(fired, 2);
    EXPECT_EQ(notify.overloads, 0);
    EXPECT_EQ(notify.aliveChanges, 0);
}

TEST_F(DeviceSelectionTest, ListenersReachTheNotifyObject) {
    ASSERT_EQ(Select(), VrSuccess);

    EXPECT_TRUE(recorder.FireOverload());
    EXPECT_TRUE(recorder.FireOverload());
    EXPECT_TRUE(recorder.FireAliveChanged());

    EXPECT_EQ(notify.overloads, 2);
    EXPECT_EQ(notify.aliveChanges, 1);
}

TEST_F(DeviceSelectionTest, AnIoCycleReachesTheNotifyObjectWithBothBufferLists) {
    ASSERT_EQ(Select(), VrSuccess);
    ASSERT_EQ(manager.Start(), VrSuccess);
    const AudioBufferList input{0, {}};
    AudioBufferList output{0, {}};

    EXPECT_EQ(recorder.audio->Deliver(FakeRecorder::kDevice, &input, &output), 1U);

    EXPECT_EQ(notify.cycles, 1);
    EXPECT_EQ(notify.lastInput, &input);
    EXPECT_EQ(notify.lastOutput, &output);
}

TEST_F(DeviceSelectionTest, CallbacksAfterTheReleaseDoNothing) {
    ASSERT_EQ(Select(), VrSuccess);
    const auto listeners = recorder.audio->Listeners();
    const auto procs = recorder.audio->IoProcs();
    ASSERT_EQ(manager.ReleaseDevice(), VrSuccess);

    for (const auto& listener : listeners) {
        EXPECT_EQ(listener.proc(listener.object, 0, nullptr, listener.clientData), 0);
    }
    EXPECT_EQ(procs.at(0).proc(FakeRecorder::kDevice, nullptr, nullptr, nullptr, nullptr, nullptr,
                               procs.at(0).clientData),
              0);

    EXPECT_EQ(notify.overloads, 0);
    EXPECT_EQ(notify.aliveChanges, 0);
    EXPECT_EQ(notify.cycles, 0);
}

TEST_F(DeviceSelectionTest, ReleasePutsTheDeviceBackAsItWasFound) {
    ASSERT_EQ(Select(), VrSuccess);
    ASSERT_EQ(manager.SetSampleType(1), VrSuccess);
    ASSERT_EQ(manager.SetSampleRate(2'822'400), VrSuccess);
    std::uint32_t frames = 1024;
    ASSERT_EQ(manager.SetBufferSize(frames), VrSuccess);
    recorder.audio->ClearLog();

    EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);

    ExpectNothingLeftBehind();
    const AudioStreamBasicDescription expected = test::PcmFormat(44'100, 24, 2);
    const AudioStreamBasicDescription restored = recorder.PhysicalFormat();
    EXPECT_EQ(std::memcmp(&restored, &expected, sizeof(expected)), 0);
    EXPECT_EQ(recorder.BufferFrames(), 512U);
    EXPECT_EQ(recorder.registry->UsbRequests().back().value, 0);
    EXPECT_THAT(recorder.audio->Log(), ElementsAre("unlisten livn", "unlisten over", "destroy",
                                                   "set pft ", "set fsiz", "set oink"));
}

TEST_F(DeviceSelectionTest, AWantOfMemoryInAReleaseLeavesNoStepOut) {
    ASSERT_EQ(Select(), VrSuccess);
    recorder.audio->onSet = [](AudioObjectID, AudioObjectPropertySelector selector,
                               std::vector<std::byte>&) -> OSStatus {
        if (selector != kAudioDevicePropertyHogMode) {
            throw std::bad_alloc();
        }
        return kAudioHardwareNoError;
    };

    EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);

    ExpectNothingLeftBehind();
    EXPECT_EQ(manager.ReleaseDevice(), VrErrorInvalidState);
}

TEST_F(DeviceSelectionTest, ReleaseIsRefusedWithoutADeviceAndWhileRunning) {
    EXPECT_EQ(manager.ReleaseDevice(), VrErrorInvalidState);
    ASSERT_EQ(Select(), VrSuccess);
    ASSERT_EQ(manager.Start(), VrSuccess);

    EXPECT_EQ(manager.ReleaseDevice(), VrErrorInvalidState);

    EXPECT_TRUE(recorder.IsRunning());
    EXPECT_EQ(manager.Stop(), VrSuccess);
    EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);
    EXPECT_EQ(manager.ReleaseDevice(), VrErrorInvalidState);
}

TEST_F(DeviceSelectionTest, ReleaseOfADeviceThatIsGoneSucceeds) {
    ASSERT_EQ(Select(), VrSuccess);
    recorder.Unplug();

    EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);

    EXPECT_EQ(notify.aliveChanges, 1);
    EXPECT_TRUE(recorder.audio->Listeners().empty());
    EXPECT_TRUE(recorder.audio->IoProcs().empty());
    EXPECT_EQ(recorder.registry->OpenUsbInterfaces(), 0);
}

TEST_F(DeviceSelectionTest, EachFailureOfTheRestoreLeavesTheOtherStepsDone) {
    for (const AudioObjectPropertySelector selector :
         {kAudioStreamPropertyPhysicalFormat, kAudioDevicePropertyBufferFrameSize}) {
        ASSERT_EQ(Select(), VrSuccess);
        recorder.audio->FailSet(selector, kAudioHardwareUnspecifiedError);

        EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);

        ExpectNothingLeftBehind();
        recorder.audio->FailSet(selector, kAudioHardwareNoError);
    }
}

TEST_F(DeviceSelectionTest, AReleasedDeviceCanBeSelectedAgainInPcmMode) {
    ASSERT_EQ(Select(), VrSuccess);
    ASSERT_EQ(manager.SetSampleType(1), VrSuccess);
    ASSERT_EQ(manager.ReleaseDevice(), VrSuccess);

    ASSERT_EQ(Select(), VrSuccess);

    std::int64_t type = -1;
    EXPECT_EQ(manager.GetSampleType(type), VrSuccess);
    EXPECT_EQ(type, 0);
}

/// A device that is given to nobody while somebody has it, and whose releases may fail.
class HeldDeviceTest : public DeviceSelectionTest {
protected:
    HeldDeviceTest() {
        recorder.audio->onSet = [this](AudioObjectID, AudioObjectPropertySelector selector,
                                       std::vector<std::byte>& bytes) -> OSStatus {
            if (selector != kAudioDevicePropertyHogMode) {
                return kAudioHardwareNoError;
            }
            SInt32 owner = 0;
            std::memcpy(&owner, bytes.data(), sizeof owner);
            if (owner != -1) {
                return recorder.HogOwner() == -1 ? kAudioHardwareNoError
                                                 : kAudioDevicePermissionsError;
            }
            if (releasesToFail == 0) {
                return kAudioHardwareNoError;
            }
            --releasesToFail;
            return kAudioHardwareUnspecifiedError;
        };
    }
    int releasesToFail = 0;
};

TEST_F(HeldDeviceTest, ADeviceWhoseReleaseFailedIsReleasedByTheNextSelection) {
    ASSERT_EQ(Select(), VrSuccess);
    releasesToFail = 1;

    EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);

    EXPECT_TRUE(recorder.IsHeldByThisProcess());
    EXPECT_EQ(Select(), VrSuccess);
    EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);
    ExpectNothingLeftBehind();
}

TEST_F(HeldDeviceTest, ADeviceWhoseReleaseFailedTwiceCanBeSelectedAllTheSame) {
    ASSERT_EQ(Select(), VrSuccess);
    releasesToFail = 2;
    EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);
    EXPECT_EQ(Select(), VrErrorFailed);
    EXPECT_TRUE(recorder.IsHeldByThisProcess());

    EXPECT_EQ(Select(), VrSuccess);

    EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);
    ExpectNothingLeftBehind();
}

TEST_F(HeldDeviceTest, ADeviceThatWasTakenInACallThatFailedIsReleasedByTheNextSelection) {
    const auto refusing = recorder.audio->onSet;
    recorder.audio->onSet = [&](AudioObjectID, AudioObjectPropertySelector,
                                std::vector<std::byte>&) -> OSStatus {
        recorder.audio->SetValue<SInt32>(FakeRecorder::kDevice, kAudioDevicePropertyHogMode,
                                         ::getpid());
        throw std::bad_alloc();
    };
    EXPECT_EQ(Select(), VrErrorFailed);
    recorder.audio->onSet = refusing;

    EXPECT_EQ(Select(), VrSuccess);

    EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);
    ExpectNothingLeftBehind();
}

TEST_F(DeviceSelectionTest, TheDestructorStopsARunningDeviceAndThenReleasesIt) {
    auto doomed = std::make_unique<CoreAudioManager>(recorder.Provider());
    ASSERT_EQ(doomed->SetAudioDevice(recorder.Found(), &notify), VrSuccess);
    ASSERT_EQ(doomed->Start(), VrSuccess);
    recorder.audio->ClearLog();

    doomed.reset();

    ExpectNothingLeftBehind();
    EXPECT_THAT(recorder.audio->Log(), ElementsAre("stop", "unlisten livn", "unlisten over",
                                                   "destroy", "set pft ", "set fsiz", "set oink"));
}

TEST_F(DeviceSelectionTest, TheDestructorReleasesEvenWhenTheStopFails) {
    auto doomed = std::make_unique<CoreAudioManager>(recorder.Provider());
    ASSERT_EQ(doomed->SetAudioDevice(recorder.Found(), &notify), VrSuccess);
    ASSERT_EQ(doomed->Start(), VrSuccess);
    recorder.audio->FailStop(kAudioHardwareUnspecifiedError);

    doomed.reset();

    ExpectNothingLeftBehind();
}

}  // namespace
}  // namespace vorrel
