#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "device/CoreAudioManager.h"
#include "support/FakeDeviceNotify.h"
#include "support/FakeRecorder.h"

namespace vorrel {

/// A device manager over a fake recorder that is not selected yet.
class CoreAudioManagerTest : public testing::Test {
protected:
    void Select() { ASSERT_EQ(manager.SetAudioDevice(recorder.Found(), &notify), VrSuccess); }
    void SelectWith(const std::vector<AudioStreamRangedDescription>& formats) {
        recorder.SetFormats(formats);
        Select();
    }
    void SelectWithoutUsb() {
        FoundDeviceInfo found = recorder.Found();
        found.excludedRateMask = 0;
        ASSERT_EQ(manager.SetAudioDevice(found, &notify), VrSuccess);
    }

    test::FakeRecorder recorder;
    test::FakeDeviceNotify notify;
    CoreAudioManager manager{recorder.Provider()};

    std::uint16_t inputs = 9;
    std::uint16_t outputs = 9;
    std::uint16_t bits = 9;
    std::uint16_t containerBits = 9;
    double rate = 9;
    std::int64_t type = 9;
    std::uint32_t frames = 9;
};

}  // namespace vorrel
