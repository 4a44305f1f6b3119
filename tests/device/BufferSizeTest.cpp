#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "CoreAudioManagerRig.h"

namespace vorrel {
namespace {

using test::FakeRecorder;

TEST_F(CoreAudioManagerTest, ABufferSizeAboveTheRangeBecomesItsMaximum) {
    Select();
    frames = 7056;

    EXPECT_EQ(manager.SetBufferSize(frames), VrSuccess);

    EXPECT_EQ(frames, 4096U);
    EXPECT_EQ(recorder.BufferFrames(), 4096U);
    EXPECT_EQ(manager.GetBufferSize(frames), VrSuccess);
    EXPECT_EQ(frames, 4096U);
}

TEST_F(CoreAudioManagerTest, ABufferSizeBelowTheRangeBecomesItsMinimum) {
    Select();
    frames = 0;

    EXPECT_EQ(manager.SetBufferSize(frames), VrSuccess);

    EXPECT_EQ(frames, 14U);
}

TEST_F(CoreAudioManagerTest, ABufferSizeInTheRangeIsTakenWithBothEnds) {
    Select();
    for (const std::uint32_t wanted : {14U, 2205U, 4096U}) {
        frames = wanted;
        EXPECT_EQ(manager.SetBufferSize(frames), VrSuccess);
        EXPECT_EQ(frames, wanted);
    }
}

TEST_F(CoreAudioManagerTest, FractionsOfTheBufferSizeRangeAreDropped) {
    Select();
    recorder.audio->SetValue(FakeRecorder::kDevice, kAudioDevicePropertyBufferFrameSizeRange,
                             AudioValueRange{14.9, 4096.9});
    frames = 1;
    EXPECT_EQ(manager.SetBufferSize(frames), VrSuccess);
    EXPECT_EQ(frames, 14U);
    frames = 4097;
    EXPECT_EQ(manager.SetBufferSize(frames), VrSuccess);
    EXPECT_EQ(frames, 4096U);
}

TEST_F(CoreAudioManagerTest, ABufferSizeRangeThatNoCountCanHoldIsHarmless) {
    Select();
    recorder.audio->SetValue(FakeRecorder::kDevice, kAudioDevicePropertyBufferFrameSizeRange,
                             AudioValueRange{-5.0, 1e12});
    frames = 4'000'000'000U;
    EXPECT_EQ(manager.SetBufferSize(frames), VrSuccess);
    EXPECT_EQ(frames, 4'000'000'000U);

    recorder.audio->SetValue(FakeRecorder::kDevice, kAudioDevicePropertyBufferFrameSizeRange,
                             AudioValueRange{1e12, 1e12});
    EXPECT_EQ(manager.SetBufferSize(frames), VrSuccess);
    EXPECT_EQ(frames, 4'294'967'295U);

    recorder.audio->SetValue(FakeRecorder::kDevice, kAudioDevicePropertyBufferFrameSizeRange,
                             AudioValueRange{-5.0, -1.0});
    EXPECT_EQ(manager.SetBufferSize(frames), VrSuccess);
    EXPECT_EQ(frames, 0U);
}

TEST_F(CoreAudioManagerTest, TheBufferSizeIsWhatTheDeviceReportsBack) {
    Select();
    recorder.audio->onSet = [](AudioObjectID, AudioObjectPropertySelector selector,
                               std::vector<std::byte>& bytes) {
        if (selector == kAudioDevicePropertyBufferFrameSize) {
            UInt32 rounded = 0;
            std::memcpy(&rounded, bytes.data(), sizeof(rounded));
            rounded = rounded / 64 * 64;
            std::memcpy(bytes.data(), &rounded, sizeof(rounded));
        }
        return kAudioHardwareNoError;
    };
    frames = 2205;

    EXPECT_EQ(manager.SetBufferSize(frames), VrSuccess);

    EXPECT_EQ(frames, 2176U);  // 34 x 64
    EXPECT_EQ(manager.GetBufferSize(frames), VrSuccess);
    EXPECT_EQ(frames, 2176U);
}

TEST_F(CoreAudioManagerTest, AnUnreadableBufferSizeRangeLeavesTheArgument) {
    Select();
    recorder.audio->FailGet(kAudioDevicePropertyBufferFrameSizeRange, kAudioHardwareBadDeviceError);
    frames = 7056;

    EXPECT_EQ(manager.SetBufferSize(frames), VrErrorDeviceNotFound);

    EXPECT_EQ(frames, 7056U);
}

TEST_F(CoreAudioManagerTest, ARefusedBufferSizeLeavesTheClampedArgumentAndTheOldSizeInForce) {
    Select();
    recorder.audio->FailSet(kAudioDevicePropertyBufferFrameSize, kAudioHardwareUnspecifiedError);
    frames = 7056;

    EXPECT_EQ(manager.SetBufferSize(frames), VrErrorFailed);

    EXPECT_EQ(frames, 4096U);
    EXPECT_EQ(manager.GetBufferSize(frames), VrSuccess);
    EXPECT_EQ(frames, 512U);
}

TEST_F(CoreAudioManagerTest, ABufferSizeThatCannotBeReadBackIsReported) {
    Select();
    recorder.audio->FailGet(kAudioDevicePropertyBufferFrameSize, kAudioHardwareBadDeviceError);
    frames = 1024;

    EXPECT_EQ(manager.SetBufferSize(frames), VrErrorDeviceNotFound);

    EXPECT_EQ(frames, 1024U);
    EXPECT_EQ(manager.GetBufferSize(frames), VrSuccess);
    EXPECT_EQ(frames, 512U);
}

}  // namespace
}  // namespace vorrel
