#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <set>
#include <vector>

#include "AlsaRig.h"
#include "support/TraceCapture.h"

namespace vorrel::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

/// How the list of devices follows the cards.
class AlsaAudioBackendTest : public AlsaCardTest {
protected:
    AlsaAudioBackendTest() { whole.formats = {{2, 24, 3, {}, 44'100, 96'000}}; }

    /// The card at the first look of a plugging, when only the card itself is there.
    SoundCard WithoutNodes() const {
        SoundCard early = whole;
        early.captureDevice.reset();
        early.formats.clear();
        early.usb->streamingInterface.reset();
        return early;
    }
    SoundCard WithoutDescriptors() const {
        SoundCard early = whole;
        early.formats.clear();
        early.usb->streamingInterface.reset();
        return early;
    }
    void Look(const std::vector<SoundCard>& found) {
        cards->Set(found);
        EXPECT_TRUE(audio->LookAgain());
        audio->FlushNotifications();
    }

    SoundCard whole = card.Found();
    TraceCapture trace;
};

TEST_F(AlsaAudioBackendTest, ACardSeenBeforeItIsCompleteIsADeviceOfItsOwnWhenItIs) {
    for (const SoundCard& early : {WithoutNodes(), WithoutDescriptors()}) {
        Look({early});
        const AudioDeviceID before = Device();
        CountingListener changes;
        Listen(kAudioObjectSystemObject, kAudioHardwarePropertyDevices, changes);

        Look({whole});

        EXPECT_EQ(changes.calls, 1);
        const AudioDeviceID after = Device();
        EXPECT_NE(after, before);
        EXPECT_EQ(audio->Find(before), nullptr);
        EXPECT_EQ(audio->Find(after)->Card(), whole);
        EXPECT_EQ(Hog(), 0);
        EXPECT_EQ(Unhog(after), 0);
        audio->RemovePropertyListener(kAudioObjectSystemObject,
                                      Address(kAudioHardwarePropertyDevices),
                                      &CountingListener::Proc, &changes);
    }
}

TEST_F(AlsaAudioBackendTest, AnUnchangedCardStaysTheSameDevice) {
    Look({whole});
    const AudioDeviceID before = Device();
    CountingListener changes;
    Listen(kAudioObjectSystemObject, kAudioHardwarePropertyDevices, changes);

    Look({whole});

    EXPECT_EQ(Device(), before);
    EXPECT_EQ(changes.calls, 0);
}

TEST_F(AlsaAudioBackendTest, ADeviceInUseIsReplacedWhenNobodyUsesItAnyMore) {
    Look({WithoutDescriptors()});
    const AudioDeviceID before = Device();
    CountingListener alive;
    AudioDeviceIOProcID proc = nullptr;
    const auto address = Address(kAudioDevicePropertyDeviceIsAlive);

    ASSERT_EQ(Hog(), 0);
    Look({whole});
    EXPECT_EQ(Device(), before);
    Listen(before, kAudioDevicePropertyDeviceIsAlive, alive);
    ASSERT_EQ(Unhog(before), 0);
    EXPECT_EQ(Device(), before);
    ASSERT_EQ(audio->CreateIOProcID(before, &Collector::Proc, nullptr, &proc), 0);
    ASSERT_EQ(audio->RemovePropertyListener(before, address, &CountingListener::Proc, &alive), 0);
    EXPECT_EQ(Device(), before);
    ASSERT_EQ(audio->DestroyIOProcID(before, proc), 0);

    EXPECT_NE(Device(), before);
    EXPECT_EQ(alive.calls, 0);
}

TEST_F(AlsaAudioBackendTest, ALookThatFailsChangesNothing) {
    const AudioDeviceID device = Device();
    CountingListener alive;
    Listen(device, kAudioDevicePropertyDeviceIsAlive, alive);

    cards->SetFailing(true);
    EXPECT_TRUE(audio->LookAgain());
    EXPECT_FALSE(audio->IsUpToDate());
    EXPECT_THAT(Devices(), ElementsAre(device));
    audio->FlushNotifications();
    EXPECT_EQ(alive.calls, 0);

    cards->SetFailing(false);
    Look({});
    EXPECT_TRUE(audio->IsUpToDate());
    EXPECT_EQ(alive.calls, 1);
}

TEST_F(AlsaAudioBackendTest, BeforeALookHasSucceededThereIsNoList) {
    cards->SetFailing(true);
    std::array<AudioDeviceID, 8> ids{};

    EXPECT_FALSE(audio->LookAgain());
    EXPECT_EQ(Get(kAudioObjectSystemObject, kAudioHardwarePropertyDevices, ids),
              kAudioHardwareUnspecifiedError);

    cards->SetFailing(false);
    EXPECT_EQ(Devices().size(), 1U);
}

TEST_F(AlsaAudioBackendTest, ATakeGoesOnWhileLooksFail) {
    AlsaTake take(card);
    take.Select();
    take.SetUp(AlsaTake::Pcm, 48'000);
    take.Start();
    take.cards->SetFailing(true);
    std::vector<std::string> names;

    EXPECT_EQ(take.manager.GetAudioDevices(&names), VrSuccess);
    EXPECT_THAT(names, ElementsAre(kSupportedDeviceName));
    take.RecordFrames(4'800);

    EXPECT_EQ(take.manager.Stop(true), VrSuccess);
    EXPECT_TRUE(take.delegate->messages.empty());
}

TEST_F(AlsaAudioBackendTest, AGoneDeviceIsKeptWhileSomebodyRefersToItAndNoLonger) {
    const auto address = Address(kAudioDevicePropertyDeviceIsAlive);
    const auto stays = [this](AudioDeviceID device) {
        Look({});
        return audio->Find(device) != nullptr;
    };
    const auto plugIn = [this] {
        card.PlugIn();
        Look({card.Found()});
        return Device();
    };

    AudioDeviceID device = plugIn();
    EXPECT_FALSE(stays(device));
    UInt32 alive = 0;
    EXPECT_EQ(Get(device, kAudioDevicePropertyDeviceIsAlive, alive), kAudioHardwareBadObjectError);

    device = plugIn();
    CountingListener listener;
    Listen(device, kAudioDevicePropertyDeviceIsAlive, listener);
    EXPECT_TRUE(stays(device));
    EXPECT_EQ(listener.calls, 1);
    EXPECT_EQ(Value<UInt32>(device, kAudioDevicePropertyDeviceIsAlive), 0U);
    std::ignore =
        audio->RemovePropertyListener(device, address, &CountingListener::Proc, &listener);
    EXPECT_FALSE(stays(device));

    device = plugIn();
    const AudioStreamID stream = Stream();
    Listen(stream, kAudioStreamPropertyPhysicalFormat, listener);
    EXPECT_TRUE(stays(device));
    std::ignore = audio->RemovePropertyListener(stream, Address(kAudioStreamPropertyPhysicalFormat),
                                                &CountingListener::Proc, &listener);
    EXPECT_FALSE(stays(device));

    device = plugIn();
    AudioDeviceIOProcID proc = nullptr;
    ASSERT_EQ(audio->CreateIOProcID(device, &Collector::Proc, nullptr, &proc), 0);
    EXPECT_TRUE(stays(device));
    std::ignore = audio->DestroyIOProcID(device, proc);
    EXPECT_FALSE(stays(device));

    device = plugIn();
    ASSERT_EQ(Hog(), 0);
    EXPECT_TRUE(stays(device));
    EXPECT_EQ(Unhog(device), kAudioHardwareBadDeviceError);
    EXPECT_FALSE(stays(device));
    EXPECT_EQ(card.State().opens, card.State().closes);
}

TEST_F(AlsaAudioBackendTest, ACardThatALookHasMissedIsANewDeviceThoughTheOldOneIsHeld) {
    Look({whole});
    const AudioDeviceID before = Device();
    ASSERT_EQ(Hog(), 0);

    Look({});
    EXPECT_TRUE(Devices().empty());
    Look({whole});

    ASSERT_EQ(Devices().size(), 1U);
    const AudioDeviceID after = Device();
    EXPECT_NE(after, before);
    EXPECT_EQ(Value<UInt32>(before, kAudioDevicePropertyDeviceIsAlive), 0U);
    EXPECT_EQ(Unhog(before), kAudioHardwareBadDeviceError);
    EXPECT_THAT(Devices(), ElementsAre(after));
    EXPECT_EQ(audio->Find(before), nullptr);
    EXPECT_EQ(Hog(), 0);
}

TEST_F(AlsaAudioBackendTest, ADeviceThatFoundItselfGoneBeforeALookMissedItsCardGivesWayToo) {
    Look({whole});
    const AudioDeviceID before = Device();
    ASSERT_EQ(Hog(), 0);
    card.State().disconnected = 1;
    EXPECT_NE(Set(Stream(), kAudioStreamPropertyPhysicalFormat, Format(48'000, 24)), 0);

    Look({});
    card.State().disconnected = 0;
    Look({whole});

    ASSERT_EQ(Devices().size(), 1U);
    EXPECT_NE(Device(), before);
}

TEST_F(AlsaAudioBackendTest, ADeadDeviceOfAListedCardGivesWayWhenNobodyUsesItAnyMore) {
    Look({whole});
    const AudioDeviceID before = Device();
    ASSERT_EQ(Hog(), 0);
    card.State().disconnected = 1;
    EXPECT_NE(Set(Stream(), kAudioStreamPropertyPhysicalFormat, Format(48'000, 24)), 0);

    Look({whole});
    EXPECT_TRUE(Devices().empty());  // the card may be on its way out
    EXPECT_EQ(Unhog(before), kAudioHardwareBadDeviceError);
    card.State().disconnected = 0;
    Look({whole});

    ASSERT_EQ(Devices().size(), 1U);
    EXPECT_NE(Device(), before);
    EXPECT_EQ(audio->Find(before), nullptr);
    EXPECT_THAT(trace.Lines(), testing::Contains(HasSubstr("is still listed")));
    EXPECT_EQ(Hog(), 0);
}

TEST_F(AlsaAudioBackendTest, WhatIsGoneIsToldBeforeWhatHasCome) {
    // The listeners are called one after another.
    struct Told {
        static OSStatus Proc(AudioObjectID, UInt32, const AudioObjectPropertyAddress* address,
                             void* self) {
            static_cast<Told*>(self)->selectors.push_back(address->mSelector);
            return kAudioHardwareNoError;
        }
        std::vector<AudioObjectPropertySelector> selectors;
    } told;
    Look({whole});
    const AudioDeviceID before = Device();
    ASSERT_EQ(audio->AddPropertyListener(before, Address(kAudioDevicePropertyDeviceIsAlive),
                                         &Told::Proc, &told),
              0);
    ASSERT_EQ(
        audio->AddPropertyListener(kAudioObjectSystemObject, Address(kAudioHardwarePropertyDevices),
                                   &Told::Proc, &told),
        0);
    const TestCard another;

    Look({another.Found()});

    EXPECT_THAT(told.selectors, ElementsAre(kAudioDevicePropertyDeviceIsAlive,
                                            kAudioHardwarePropertyDevices,    // without the one
                                            kAudioHardwarePropertyDevices));  // and with the other
    EXPECT_NE(Device(), before);
}

TEST_F(AlsaAudioBackendTest, NoIdIsUsedTwice) {
    std::set<AudioObjectID> ids;
    for (int count = 1; count <= 50; ++count) {
        card.PlugIn();
        Look({card.Found()});
        ids.insert(Device());
        ids.insert(Stream());
        EXPECT_EQ(ids.size(), 2U * static_cast<unsigned>(count));
        Look({});
    }
}

TEST_F(AlsaAudioBackendTest, AReplacedDeviceIsTraced) {
    Look({WithoutNodes()});

    Look({whole});

    EXPECT_THAT(trace.Lines(), ElementsAre(HasSubstr("it is a new device")));
}

}  // namespace
}  // namespace vorrel::test
