#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <new>
#include <tuple>
#include <vector>

#include "device/CoreAudioManager.h"
#include "support/FakeDeviceNotify.h"
#include "support/FakeRecorder.h"

namespace vorrel {
namespace {

using test::FakeDeviceNotify;
using test::FakeRecorder;

/// A device whose calls have their effect and end in a want of memory all the same.
class ExclusiveUseTest : public testing::Test {
protected:
    static constexpr AudioDeviceID kSecond = 52;

    ExclusiveUseTest() {
        recorder.AddDevice(kSecond, "second", "second:0001");
        recorder.audio->SetValue<SInt32>(kSecond, kAudioDevicePropertyHogMode, -1);
        recorder.audio->SetValue<UInt32>(kSecond, kAudioDevicePropertyBufferFrameSize, 512);
        recorder.audio->SetValues<AudioStreamID>(kSecond, kAudioDevicePropertyStreams,
                                                 {FakeRecorder::kInputStream},
                                                 kAudioObjectPropertyScopeInput);
    }
    VrError Select() { return manager->SetAudioDevice(recorder.Found(), &notify); }
    VrError SelectSecond() {
        FoundDeviceInfo found;
        found.deviceId = kSecond;
        return manager->SetAudioDevice(found, &notify);
    }
    SInt32 OwnerOf(AudioDeviceID device) const {
        return recorder.audio->Value<SInt32>(device, kAudioDevicePropertyHogMode);
    }
    /// From now on every release ends before it has its effect.
    void RefuseReleases() {
        recorder.audio->onSet = [](AudioObjectID, AudioObjectPropertySelector selector,
                                   std::vector<std::byte>& bytes) -> OSStatus {
            SInt32 owner = 0;
            std::memcpy(&owner, bytes.data(), sizeof owner);
            if (selector == kAudioDevicePropertyHogMode && owner == -1) {
                throw std::bad_alloc();
            }
            return kAudioHardwareNoError;
        };
    }

    FakeRecorder recorder;
    FakeDeviceNotify notify;
    std::unique_ptr<CoreAudioManager> manager =
        std::make_unique<CoreAudioManager>(recorder.Provider());
};

TEST_F(ExclusiveUseTest, IsGivenUpWhenTakingItFailsBehindItsEffect) {
    recorder.audio->onSet = [this](AudioObjectID device, AudioObjectPropertySelector selector,
                                   std::vector<std::byte>&) -> OSStatus {
        if (selector == kAudioDevicePropertyHogMode && OwnerOf(device) == -1) {
            recorder.audio->SetValue<SInt32>(device, selector, ::getpid());
            throw std::bad_alloc();
        }
        return kAudioHardwareNoError;
    };

    EXPECT_EQ(Select(), VrErrorFailed);

    EXPECT_EQ(recorder.HogOwner(), -1);
    recorder.audio->onSet = nullptr;
    EXPECT_EQ(Select(), VrSuccess);
}

TEST_F(ExclusiveUseTest, IsGivenUpAtTheLatestWithTheManager) {
    ASSERT_EQ(Select(), VrSuccess);
    RefuseReleases();
    EXPECT_EQ(manager->ReleaseDevice(), VrSuccess);
    ASSERT_EQ(recorder.HogOwner(), ::getpid());
    recorder.audio->onSet = nullptr;

    manager.reset();

    EXPECT_EQ(recorder.HogOwner(), -1);
}

TEST_F(ExclusiveUseTest, OfTwoDevicesThatCouldNotBeLetGoIsGivenUpOfBoth) {
    RefuseReleases();
    ASSERT_EQ(Select(), VrSuccess);
    EXPECT_EQ(manager->ReleaseDevice(), VrSuccess);
    ASSERT_EQ(SelectSecond(), VrSuccess);
    EXPECT_EQ(manager->ReleaseDevice(), VrSuccess);
    ASSERT_EQ(OwnerOf(FakeRecorder::kDevice), ::getpid());
    ASSERT_EQ(OwnerOf(kSecond), ::getpid());
    recorder.audio->onSet = nullptr;

    ASSERT_EQ(SelectSecond(), VrSuccess);

    EXPECT_EQ(OwnerOf(FakeRecorder::kDevice), -1);
    EXPECT_EQ(manager->ReleaseDevice(), VrSuccess);
    EXPECT_EQ(OwnerOf(kSecond), -1);
}

TEST_F(ExclusiveUseTest, OfADeviceThatIsGoneIsNotHeldOnTo) {
    ASSERT_EQ(Select(), VrSuccess);
    recorder.Unplug();
    EXPECT_EQ(manager->ReleaseDevice(), VrSuccess);
    recorder.audio->FailAll(kAudioHardwareNoError);
    recorder.audio->ClearLog();

    EXPECT_EQ(SelectSecond(), VrSuccess);

    EXPECT_EQ(recorder.audio->Log().front(), "set oink");
    EXPECT_EQ(OwnerOf(kSecond), ::getpid());
    EXPECT_EQ(OwnerOf(FakeRecorder::kDevice), ::getpid());  // as the fake, which forgets nothing
}

TEST_F(ExclusiveUseTest, TheRateOfASettingThatFailedBehindItsEffectIsTheDevices) {
    ASSERT_EQ(Select(), VrSuccess);
    recorder.audio->onSet = [this](AudioObjectID stream, AudioObjectPropertySelector selector,
                                   std::vector<std::byte>& bytes) -> OSStatus {
        if (selector == kAudioStreamPropertyPhysicalFormat) {
            AudioStreamBasicDescription format{};
            std::memcpy(&format, bytes.data(), sizeof format);
            recorder.audio->SetValue(stream, selector, format);
            throw std::bad_alloc();
        }
        return kAudioHardwareNoError;
    };

    EXPECT_THROW(std::ignore = manager->SetSampleRate(96'000), std::bad_alloc);

    double rate = 0;
    recorder.audio->FailGet(kAudioStreamPropertyPhysicalFormat, kAudioHardwareUnspecifiedError);
    EXPECT_EQ(manager->GetSampleRate(rate), VrErrorFailed);
    recorder.audio->FailGet(kAudioStreamPropertyPhysicalFormat, kAudioHardwareNoError);
    EXPECT_EQ(manager->GetSampleRate(rate), VrSuccess);
    EXPECT_EQ(rate, 96'000);
    recorder.audio->onSet = nullptr;
    EXPECT_EQ(manager->SetSampleRate(48'000), VrSuccess);
    EXPECT_EQ(manager->GetSampleRate(rate), VrSuccess);
    EXPECT_EQ(rate, 48'000);
}

}  // namespace
}  // namespace vorrel
