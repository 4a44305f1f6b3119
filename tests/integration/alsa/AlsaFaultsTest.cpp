#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

#include "AlsaRig.h"
#include "device/AudioDeviceList.h"
#include "device/CoreAudioManager.h"
#include "device/alsa/DeviceHolder.h"
#include "device/alsa/LockedBuffer.h"
#include "faults/Tally.h"
#include "support/FakeDeviceNotify.h"
#include "support/WithoutLocking.h"

namespace vorrel::test {
namespace {

/// The device layer over a test card.
class AlsaFaultsTest : public testing::Test {
protected:
    AlsaFaultsTest() {
        card.State().speed = 8.0;
        MakeAnew();
    }
    ~AlsaFaultsTest() override {
        manager.reset();
        audio.reset();
        EXPECT_EQ(card.State().opens, card.State().closes);
    }
    /// As in a process that has just begun: without a thread of the back end.
    void MakeAnew() {
        manager.reset();
        cards->Set({card.Found()});
        audio = std::make_shared<AlsaAudioBackend>(cards, directory.Path());
        registry = std::make_shared<TestRegistry>(cards);
        manager = std::make_unique<CoreAudioManager>(
            [backends = DeviceBackends{audio, registry}] { return backends; });
        std::vector<FoundDeviceInfo> list;
        ASSERT_EQ(manager->GetAudioDevices(list), VrSuccess);
        AudioDeviceList().FilterDevices(list);
        ASSERT_EQ(list.size(), 1U);
        found = list[0];
    }
    VrError Select() { return manager->SetAudioDevice(found, &notify); }
    void SelectAndSetUp() {
        ASSERT_EQ(Select(), VrSuccess);
        ASSERT_EQ(manager->SetSampleRate(48'000), VrSuccess);
        std::uint32_t frames = 480;
        ASSERT_EQ(manager->SetBufferSize(frames), VrSuccess);
    }
    void ExpectNothingHeld() {
        EXPECT_TRUE(audio->Find(found.deviceId)->IsUnused());
        EXPECT_EQ(card.State().opens, card.State().closes);
        EXPECT_EQ(registry->References(), 0U);
    }
    /// Open, but free for a switch of the recorder's mode.
    void ExpectTheCardIdle() {
        EXPECT_EQ(card.State().opens, card.State().closes + 1);
        EXPECT_EQ(card.State().frees, card.State().parameterCalls);
    }
    void ExpectARun() {
        const int before = notify.cycles;
        ASSERT_EQ(manager->Start(), VrSuccess);
        Await([&] { return notify.cycles > before; });
        ASSERT_EQ(manager->Stop(), VrSuccess);
        ExpectTheCardIdle();
    }
    std::uint64_t StartWith(const Fault& fault) {
        ArmedFault armed(fault);
        const VrError result = AsHost([&] { return manager->Start(); });
        armed.Disarm();
        if (result == VrSuccess) {
            EXPECT_EQ(manager->Stop(), VrSuccess);
        }
        ExpectTheCardIdle();
        ExpectARun();
        return armed.Met();
    }

    TempDirectory directory;  // nobody else's processes
    TestCard card;
    const std::shared_ptr<TestCards> cards = std::make_shared<TestCards>();
    std::shared_ptr<AlsaAudioBackend> audio;
    std::shared_ptr<TestRegistry> registry;
    FakeDeviceNotify notify;
    std::unique_ptr<CoreAudioManager> manager;
    FoundDeviceInfo found;
};

TEST_F(AlsaFaultsTest, ASelectionWithoutMemoryOrThreadsIsWholeOrLeavesNothing) {
    for (const Call call : {Call::Memory, Call::Thread}) {
        for (const bool forGood : {false, true}) {
            Sweep("selection of a card", {.call = call, .forGood = forGood},
                  [&](const Fault& fault) {
                      MakeAnew();
                      ArmedFault armed(fault);
                      const VrError result = AsHost([&] { return Select(); });
                      armed.Disarm();
                      if (result != VrSuccess) {
                          ExpectNothingHeld();
                          EXPECT_EQ(Select(), VrSuccess);
                      }
                      EXPECT_EQ(manager->ReleaseDevice(), VrSuccess);
                      ExpectNothingHeld();
                      return armed.Met();
                  });
        }
    }
}

TEST_F(AlsaFaultsTest, TheRateInForceIsTheCardsWhateverBecameOfASetting) {
    SelectAndSetUp();
    for (const bool forGood : {false, true}) {
        Sweep("rate of a card", {.call = Call::Memory, .forGood = forGood},
              [&](const Fault& fault) {
                  EXPECT_EQ(manager->SetSampleRate(48'000), VrSuccess);
                  ArmedFault armed(fault);
                  const VrError result = AsHost([&] { return manager->SetSampleRate(96'000); });
                  armed.Disarm();
                  double rate = 0;
                  EXPECT_EQ(manager->GetSampleRate(rate), VrSuccess);
                  EXPECT_EQ(rate, result == VrSuccess ? 96'000 : 48'000);
                  ExpectTheCardIdle();
                  ExpectARun();
                  EXPECT_EQ(card.State().rateHz, rate);
                  return armed.Met();
              });
    }
}

TEST_F(AlsaFaultsTest, AStartWithoutMemoryRunsOrLeavesTheCardIdle) {
    for (const std::uint32_t mapped : {1U, 0U}) {
        card.State().mapped = mapped;
        MakeAnew();
        SelectAndSetUp();
        for (const bool forGood : {false, true}) {
            Sweep(mapped != 0 ? "start of a card" : "start of a card that is read by calls",
                  {.call = Call::Memory, .forGood = forGood},
                  [&](const Fault& fault) { return StartWith(fault); });
        }
    }
}

TEST_F(AlsaFaultsTest, AFirstStartWithoutMemoryOrThreadsRunsOrLeavesTheCardIdle) {
    for (const Call call : {Call::Memory, Call::Thread}) {
        Sweep("first start of a card", {.call = call}, [&](const Fault& fault) {
            MakeAnew();
            SelectAndSetUp();
            return StartWith(fault);
        });
    }
}

TEST_F(AlsaFaultsTest, AStartWithoutADescriptorLeavesTheCardIdle) {
    SelectAndSetUp();
    ExpectARun();
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);

    const VrError result = manager->Start();

    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(result, VrErrorFailed);
    ExpectTheCardIdle();
    ExpectARun();
}

TEST_F(AlsaFaultsTest, AStopAndAReleaseWithoutMemoryAreWhole) {
    for (const bool forGood : {false, true}) {
        Sweep("stop and release of a card", {.call = Call::Memory, .forGood = forGood},
              [&](const Fault& fault) {
                  SelectAndSetUp();
                  EXPECT_EQ(manager->Start(), VrSuccess);
                  ArmedFault armed(fault);
                  EXPECT_EQ(AsHost([&] { return manager->Stop(); }), VrSuccess);
                  EXPECT_EQ(AsHost([&] { return manager->ReleaseDevice(); }), VrSuccess);
                  armed.Disarm();
                  ExpectNothingHeld();
                  return armed.Met();
              });
    }
}

TEST_F(AlsaFaultsTest, ACardThatGoesIsToldOfWithoutMemory) {
    SelectAndSetUp();
    ExpectARun();  // the back end's threads are there before anything is counted
    for (const bool forGood : {false, true}) {
        Once("removal of a card", {.call = Call::Memory, .nth = 1, .forGood = forGood},
             [&](const Fault& fault) {
                 card.PlugIn();
                 MakeAnew();
                 SelectAndSetUp();
                 EXPECT_EQ(manager->Start(), VrSuccess);
                 const int told = notify.aliveChanges;
                 ArmedFault armed(fault);
                 card.State().disconnected = 1;
                 Await([&] { return notify.aliveChanges > told; });
                 armed.Disarm();
                 EXPECT_EQ(manager->Stop(), VrErrorDeviceNotFound);
                 EXPECT_EQ(manager->ReleaseDevice(), VrSuccess);
                 return armed.Met();
             });
    }
}

TEST_F(AlsaFaultsTest, TheSearchForAHolderWithoutMemoryEndsNoProcess) {
    std::filesystem::create_directories(directory.File("4711/fd"));
    std::filesystem::create_symlink("/dev/snd/pcmC2D0c", directory.File("4711/fd/5"));
    std::filesystem::create_symlink("/dev/snd/pcmC2D0c.old", directory.File("4711/fd/4"));
    for (int process = 4'712; process < 4'720; ++process) {
        std::filesystem::create_directories(directory.File(std::to_string(process) + "/fd"));
    }
    Sweep("search for a card's holder", {.call = Call::Memory}, [&](const Fault& fault) {
        ArmedFault armed(fault);
        DeviceHolder holder;
        const VrError result = AsHost([&] {
            holder = FindDeviceHolder(2, 0, directory.Path());
            return VrSuccess;
        });
        armed.Disarm();
        EXPECT_EQ(holder.processId, result == VrSuccess ? 4'711 : -1);
        return armed.Met();
    });
}

TEST(LockedBufferFaultsTest, ABufferThatIsNotLockedNeedsNoMemoryToSaySo) {
    bool locked = false;
    std::uint64_t met = 0;
    WithoutLocking([&] {
        ArmedFault armed({.call = Call::Memory, .forGood = true});
        const VrError made = AsHost([&] {
            locked = LockedBuffer(4'096).IsLocked();
            return VrSuccess;
        });
        armed.Disarm();
        EXPECT_EQ(made, VrSuccess);
        met = armed.Met();
    });
    if (locked) {
        GTEST_SKIP() << "the address sanitizer locks nothing and refuses nothing";
    }
    EXPECT_GT(met, 0U);  // the trace line, which is once in a process
}

}  // namespace
}  // namespace vorrel::test
