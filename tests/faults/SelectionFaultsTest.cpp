#include <gtest/gtest.h>

#include <memory>

#include "faults/FaultRig.h"

namespace vorrel::test {
namespace {

constexpr std::uint64_t kFastHz = 384'000;
constexpr std::uint64_t kOtherHz = 192'000;

class SelectionFaultsTest : public ::testing::Test {
protected:
    /// What fails can be done again, and then a take runs.
    void ExpectASelectionAndATake() {
        ASSERT_EQ(rig.take.manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);
        rig.take.SetBits(16);
        rig.ExpectTheNextTakeWorks();
    }

    /// A device that is not selected is nobody's.
    void ExpectNothingHeld() {
        EXPECT_EQ(rig.take.Recorder().HogOwner(), -1);
        EXPECT_EQ(rig.take.Recorder().IoProcCount(), 0U);
        EXPECT_EQ(rig.take.backends.ListenerCount(), 0U);
        EXPECT_EQ(rig.take.backends.Registry().References(), 0U);
        EXPECT_EQ(rig.take.backends.Registry().UsbInterfaces(), 0U);
    }
    /// What the engine takes for the rate in force is the recorder's.
    void ExpectTheRecordersRate() {
        std::shared_ptr<VrRecordSetting> inForce;
        ASSERT_EQ(rig.take.manager.GetRecordSetting(&inForce), VrSuccess);
        EXPECT_EQ(static_cast<double>(inForce->freq), rig.take.Recorder().Format().mSampleRate);
    }

    FaultRig rig{kFastHz, Take::Pcm, 1, 1.0};
};

TEST_F(SelectionFaultsTest, ADeviceIsSelectedOrThereIsNone) {
    for (const bool forGood : {false, true}) {
        Sweep("device selection", {.call = Call::Memory, .forGood = forGood},
              [&](const Fault& fault) {
                  ArmedFault armed(fault);
                  const VrError result =
                      AsHost([&] { return rig.take.manager.SetAudioDevice(kSupportedDeviceName); });
                  armed.Disarm();
                  EXPECT_EQ(rig.take.manager.State(),
                            result == VrSuccess ? ManagerState::Ready : ManagerState::Initialized);
                  if (result != VrSuccess) {
                      ExpectNothingHeld();
                  }
                  ExpectASelectionAndATake();
                  EXPECT_EQ(rig.take.Recorder().IoProcCount(), 1U);
                  return armed.Met();
              });
    }
}

TEST_F(SelectionFaultsTest, ASettingIsTakenOrRefused) {
    for (const bool forGood : {false, true}) {
        Sweep("record setting", {.call = Call::Memory, .forGood = forGood},
              [&](const Fault& fault) {
                  const VrRecordSetting setting{.rec_type = 0, .freq = kOtherHz, .bits = 24};
                  ArmedFault armed(fault);
                  const VrError result =
                      AsHost([&] { return rig.take.manager.SetRecordSetting(&setting); });
                  armed.Disarm();
                  EXPECT_EQ(result, armed.Met() == 0 ? VrSuccess : VrErrorFailed);
                  ExpectTheRecordersRate();
                  rig.take.SetBits(16);
                  rig.ExpectTheNextTakeWorks();
                  return armed.Met();
              });
    }
}

TEST_F(SelectionFaultsTest, AnEngineThatCannotBeInitialisedCanBeLater) {
    Sweep("init", {.call = Call::Memory}, [&](const Fault& fault) {
        SimulatedBackends backends({rig.take.config});
        VorrelManager manager([&] { return backends.Backends(); });
        ArmedFault armed(fault);
        const VrError result = AsHost([&] { return manager.Init(rig.take.delegate); });
        armed.Disarm();
        EXPECT_EQ(result, armed.Met() == 0 ? VrSuccess : VrErrorFailed);
        EXPECT_EQ(manager.Init(rig.take.delegate),
                  result == VrSuccess ? VrErrorAlreadyInitialized : VrSuccess);
        EXPECT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);
        return armed.Met();
    });
}

}  // namespace
}  // namespace vorrel::test
