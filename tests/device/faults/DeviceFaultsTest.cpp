#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <vector>

#include "device/AudioDeviceList.h"
#include "device/CoreAudioManager.h"
#include "device/simulated/SimulatedBackends.h"
#include "faults/Tally.h"
#include "support/FakeDeviceNotify.h"

namespace vorrel::test {
namespace {

/// One recorder, found, with the test's hand on it.
class DeviceFaultsTest : public testing::Test {
protected:
    void SetUp() override {
        std::vector<FoundDeviceInfo> list;
        ASSERT_EQ(manager.GetAudioDevices(list), VrSuccess);
        AudioDeviceList().FilterDevices(list);
        ASSERT_EQ(list.size(), 1U);
        found = list[0];
    }
    VrError Select() { return manager.SetAudioDevice(found, &notify); }
    void ExpectNothingHeld() {
        EXPECT_EQ(recorder.HogOwner(), -1);
        EXPECT_EQ(recorder.IoProcCount(), 0U);
        EXPECT_EQ(backends.ListenerCount(), 0U);
        EXPECT_EQ(backends.Registry().References(), 0U);
        EXPECT_EQ(backends.Registry().ExcessReleases(), 0U);
        EXPECT_EQ(backends.Registry().UsbInterfaces(), 0U);
    }

    SimulatedBackends backends;
    SimulatedRecorder& recorder = backends.Recorder();
    FakeDeviceNotify notify;
    CoreAudioManager manager{[this] { return backends.Backends(); }};
    FoundDeviceInfo found;
};

TEST_F(DeviceFaultsTest, ASelectionThatFailsLeavesNothingBehind) {
    for (const bool forGood : {false, true}) {
        Sweep("selection of a device", {.call = Call::Memory, .forGood = forGood},
              [&](const Fault& fault) {
                  ArmedFault armed(fault);
                  const VrError result = AsHost([&] { return Select(); });
                  armed.Disarm();
                  if (result != VrSuccess) {
                      ExpectNothingHeld();
                      EXPECT_EQ(Select(), VrSuccess);
                  }
                  EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);
                  ExpectNothingHeld();
                  return armed.Met();
              });
    }
}

TEST_F(DeviceFaultsTest, AReleaseLetsTheDeviceGoWithoutMemory) {
    for (const bool forGood : {false, true}) {
        Sweep("release of a device", {.call = Call::Memory, .forGood = forGood},
              [&](const Fault& fault) {
                  EXPECT_EQ(Select(), VrSuccess);
                  ArmedFault armed(fault);
                  const VrError result = AsHost([&] { return manager.ReleaseDevice(); });
                  armed.Disarm();
                  EXPECT_EQ(result, VrSuccess);
                  ExpectNothingHeld();
                  return armed.Met();
              });
    }
}

TEST_F(DeviceFaultsTest, TheRateInForceIsTheDevicesWhateverBecameOfASetting) {
    ASSERT_EQ(Select(), VrSuccess);
    for (const bool forGood : {false, true}) {
        Sweep("rate of a device", {.call = Call::Memory, .forGood = forGood},
              [&](const Fault& fault) {
                  EXPECT_EQ(manager.SetSampleRate(48'000), VrSuccess);
                  ArmedFault armed(fault);
                  const VrError result = AsHost([&] { return manager.SetSampleRate(96'000); });
                  armed.Disarm();
                  double rate = 0;
                  EXPECT_EQ(manager.GetSampleRate(rate), VrSuccess);
                  EXPECT_EQ(rate, result == VrSuccess ? 96'000 : 48'000);
                  EXPECT_EQ(recorder.Format().mSampleRate, rate);
                  return armed.Met();
              });
    }
}

TEST(RegistryFaultsTest, AnEntryThatCouldNotBeHandedOutIsTheNextOne) {
    SimulatedBackends backends(std::vector<SimulatedRecorderConfig>(3));
    SimulatedRegistry& registry = backends.Registry();
    Sweep("entries of the registry", {.call = Call::Memory}, [&](const Fault& fault) {
        io_iterator_t engines = IO_OBJECT_NULL;
        EXPECT_EQ(registry.GetMatchingServices("IOAudioEngine", &engines), kIOReturnSuccess);
        std::set<io_object_t> seen;
        ArmedFault armed(fault);
        for (bool ended = false; !ended;) {
            io_object_t entry = IO_OBJECT_NULL;
            if (AsHost([&] {
                    entry = registry.IteratorNext(engines);
                    return VrSuccess;
                }) == VrSuccess) {
                ended = entry == IO_OBJECT_NULL;
                seen.insert(entry);
            }
        }
        armed.Disarm();
        seen.erase(IO_OBJECT_NULL);
        EXPECT_EQ(seen.size(), 3U);
        for (const io_object_t entry : seen) {
            registry.Release(entry);
        }
        registry.Release(engines);
        EXPECT_EQ(registry.References(), 0U);
        return armed.Met();
    });
}

}  // namespace
}  // namespace vorrel::test
