// The device code over the simulated back end: each half is written against the seam alone, here
// they meet.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "device/AudioDeviceList.h"
#include "device/BackendTable.h"
#include "device/CoreAudioManager.h"
#include "support/FakeDeviceNotify.h"

namespace vorrel {
namespace {

class SimulatedDeviceTest : public testing::Test {
protected:
    void SetUp() override {
        std::vector<FoundDeviceInfo> list;
        ASSERT_EQ(manager.GetAudioDevices(list), VrSuccess);
        AudioDeviceList().FilterDevices(list);
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

}  // namespace
}  // namespace vorrel
