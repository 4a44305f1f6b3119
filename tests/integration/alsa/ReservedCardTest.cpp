#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "AlsaRig.h"
#include "PrivateBus.h"
#include "support/TraceCapture.h"

namespace vorrel::test {
namespace {

using testing::Contains;
using testing::HasSubstr;

/// A card and the reservation of it on the session bus.
class ReservedCardTest : public AlsaCardTest {
protected:
    void SetUp() override {
        if (!bus.IsThere()) {
            GTEST_SKIP() << "no dbus-daemon or no libsystemd";
        }
    }
    std::string Number() const { return std::to_string(card.Number()); }
    std::string Name() const { return "org.freedesktop.ReserveDevice1.Audio" + Number(); }
    std::string Path() const { return "/org/freedesktop/ReserveDevice1/Audio" + Number(); }
    /// The name is free as soon as the bus has seen the end of the connection.
    bool BecomesFree() const {
        const auto end = Soon();
        while (IsNameOwned(Name())) {
            if (Clock::now() > end) {
                return false;
            }
            std::this_thread::yield();
        }
        return true;
    }

    PrivateBus bus;
    TraceCapture trace;
};

TEST_F(ReservedCardTest, HogModeTakesTheReservationAndGivesItBack) {
    ASSERT_EQ(Hog(), 0);
    EXPECT_TRUE(IsNameOwned(Name()));

    ASSERT_EQ(Unhog(Device()), 0);

    EXPECT_TRUE(BecomesFree());
}

TEST_F(ReservedCardTest, ARunThatOutlivesHogModeKeepsTheReservationUntilItsEnd) {
    const AudioDeviceID device = Device();
    AudioDeviceIOProcID proc = nullptr;
    Collector collector(4'096);
    ASSERT_EQ(Hog(), 0);
    ASSERT_EQ(audio->CreateIOProcID(device, &Collector::Proc, &collector, &proc), 0);
    ASSERT_EQ(audio->Start(device, proc), 0);

    ASSERT_EQ(Unhog(device), 0);
    EXPECT_TRUE(collector.WaitForAll());
    EXPECT_TRUE(IsNameOwned(Name()));
    // Taken again meanwhile it is one reservation still.
    ASSERT_EQ(Hog(), 0);
    ASSERT_EQ(Unhog(device), 0);
    EXPECT_TRUE(IsNameOwned(Name()));
    ASSERT_EQ(audio->Stop(device, proc), 0);

    EXPECT_TRUE(BecomesFree());
    EXPECT_EQ(card.State().opens, card.State().closes);
}

TEST_F(ReservedCardTest, ACardWhoseHolderKeepsItIsRefusedAndNotOpened) {
    const FakeService holder(Name().c_str(), Path().c_str(), [](sd_bus_message* call) {
        SdBus::AnswerBool(call, false);
        return true;
    });

    EXPECT_EQ(Hog(), kAudioDevicePermissionsError);

    EXPECT_EQ(card.State().opens, 0U);
    EXPECT_EQ(Value<SInt32>(Device(), kAudioDevicePropertyHogMode), -1);
    EXPECT_THAT(trace.Lines(), Contains(HasSubstr("whoever has its reservation keeps it")));
}

TEST_F(ReservedCardTest, ACardWhoseHolderDoesNotAnswerIsOpenedAllTheSame) {
    const FakeService holder(Name().c_str(), Path().c_str(), [](sd_bus_message*) { return true; });

    EXPECT_EQ(Hog(), 0);

    EXPECT_THAT(trace.Lines(), Contains(HasSubstr("does not answer")));
    EXPECT_EQ(Unhog(Device()), 0);
    EXPECT_TRUE(IsNameOwned(Name()));  // it is the holder's
}

TEST_F(ReservedCardTest, WhatCannotBeOpenedIsNotReserved) {
    const auto other = card.HeldByAnother();

    EXPECT_EQ(Hog(), kAudioDevicePermissionsError);

    EXPECT_TRUE(BecomesFree());
}

TEST_F(ReservedCardTest, ABusThatGoesLeavesTheRunAsItIs) {
    const AudioDeviceID device = Device();
    AudioDeviceIOProcID proc = nullptr;
    Collector collector(200'000);
    ASSERT_EQ(Hog(), 0);
    ASSERT_EQ(audio->CreateIOProcID(device, &Collector::Proc, &collector, &proc), 0);
    ASSERT_EQ(audio->Start(device, proc), 0);

    bus.End();

    EXPECT_TRUE(collector.WaitForAll());
    EXPECT_EQ(Value<SInt32>(device, kAudioDevicePropertyHogMode), ::getpid());
    EXPECT_EQ(audio->Stop(device, proc), 0);
    EXPECT_EQ(Unhog(device), 0);
    EXPECT_EQ(card.State().opens, card.State().closes);
}

}  // namespace
}  // namespace vorrel::test
