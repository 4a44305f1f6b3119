#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "PrivateBus.h"
#include "device/alsa/CaptureScheduling.h"
#include "device/alsa/DeviceReservation.h"
#include "device/alsa/SdBus.h"
#include "support/TraceCapture.h"

namespace vorrel::test {
namespace {

constexpr char kName[] = "org.freedesktop.ReserveDevice1.Audio7";
constexpr char kPath[] = "/org/freedesktop/ReserveDevice1/Audio7";
constexpr char kInterface[] = "org.freedesktop.ReserveDevice1";

class DeviceReservationTest : public testing::Test {
protected:
    void SetUp() override {
        if (!bus.IsThere()) {
            GTEST_SKIP() << "no dbus-daemon or no libsystemd";
        }
    }
    static bool IsOwned() { return IsNameOwned(kName); }

    PrivateBus bus;
    DeviceReservation reservation{7};
};

TEST_F(DeviceReservationTest, WithoutAHolderItIsGrantedAndGivenBack) {
    EXPECT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Granted);
    EXPECT_TRUE(IsOwned());
    EXPECT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Granted);

    reservation.Release();
    EXPECT_TRUE(reservation.IsHeld());  // it was granted twice
    reservation.Release();

    EXPECT_FALSE(reservation.IsHeld());
    EXPECT_FALSE(IsOwned());
    reservation.Release();
}

TEST_F(DeviceReservationTest, AHolderThatLetsGoIsReplaced) {
    std::atomic<int> priority{0};
    const FakeService holder(kName, kPath, [&](sd_bus_message* call) {
        if (!SdBus::IsCall(call, kInterface, "RequestRelease")) {
            return false;
        }
        priority = SdBus::ReadInt(call).value_or(-1);
        SdBus::AnswerBool(call, true);
        return true;
    });

    EXPECT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Granted);

    EXPECT_EQ(priority, 2'147'483'647);
}

TEST_F(DeviceReservationTest, AHolderThatKeepsItIsLeftAlone) {
    const FakeService holder(kName, kPath, [](sd_bus_message* call) {
        SdBus::AnswerBool(call, false);
        return true;
    });

    EXPECT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Refused);

    EXPECT_FALSE(reservation.IsHeld());
    EXPECT_TRUE(IsOwned());
}

TEST_F(DeviceReservationTest, AHolderThatDoesNotAnswerIsWaitedForAsLongAsAllOfItMayTake) {
    constexpr std::chrono::milliseconds kWait{300};
    DeviceReservation impatient(7, kWait);
    const FakeService holder(kName, kPath, [](sd_bus_message*) { return true; });
    const auto begin = Clock::now();

    EXPECT_EQ(impatient.Acquire(), DeviceReservation::Outcome::NoAnswer);

    const auto took = Clock::now() - begin;
    EXPECT_GE(took, kWait);
    EXPECT_LT(took, DeviceReservation::kPatience);  // what it waits for else
    EXPECT_FALSE(impatient.IsHeld());
}

TEST_F(DeviceReservationTest, AHolderThatEndsWhileItIsAskedHasLetGo) {
    auto other = SdBus::Connect(SdBus::Which::Session, Soon());
    bool asked = false;
    ASSERT_TRUE(other->Serve(kPath, [&](sd_bus_message*) { return asked = true; }));
    ASSERT_EQ(other->Call(kDaemon, "RequestName", {.types = "su", .text = kName}, 'u', Soon()), 1U);
    std::thread holder([&] {
        while (!asked && other->Process(Clock::now() + std::chrono::milliseconds(5))) {
        }
        other.reset();  // without an answer
    });

    EXPECT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Granted);

    holder.join();
    EXPECT_TRUE(IsOwned());
}

TEST_F(DeviceReservationTest, SignalsDoNotKeepItFromBeingGranted) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    struct sigaction before {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &before), 0);
    std::atomic<bool> ended{false};
    std::thread sender([&ended, to = ::pthread_self()] {
        while (!ended) {
            ::pthread_kill(to, SIGUSR1);
            std::this_thread::yield();
        }
    });

    for (int round = 0; round < 20; ++round) {
        EXPECT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Granted) << round;
        reservation.Release();
    }

    ended = true;
    sender.join();
    ASSERT_EQ(::sigaction(SIGUSR1, &before, nullptr), 0);
}

TEST_F(DeviceReservationTest, ABusThatGoesTakesItAlongAndTheNextOneGivesItAnew) {
    TraceCapture trace;
    ASSERT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Granted);

    bus.End();

    const auto end = Soon();
    while (reservation.IsHeld() && Clock::now() < end) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(reservation.IsHeld());
    EXPECT_EQ(reservation.Acquire(), DeviceReservation::Outcome::NoBus);
    ASSERT_EQ(trace.Lines().size(), 1U);
    EXPECT_NE(trace.Lines()[0].find("the session bus is gone"), std::string::npos);

    const PrivateBus next;
    ASSERT_TRUE(next.IsThere());
    EXPECT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Granted);
    EXPECT_TRUE(IsOwned());
    reservation.Release();  // the first grant
    EXPECT_TRUE(reservation.IsHeld());
    reservation.Release();
    EXPECT_FALSE(reservation.IsHeld());
}

TEST_F(DeviceReservationTest, WithoutADescriptorForItThereIsNone) {
    ASSERT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Granted);  // all is loaded now
    reservation.Release();
    const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(next, 0);
    ::close(next);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    for (int room = 0; room < 2; ++room) {  // it takes one for the bus and one for itself
        const rlimit few = {static_cast<rlim_t>(next + room), before.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);

        EXPECT_EQ(reservation.Acquire(), DeviceReservation::Outcome::NoBus) << room;

        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
        EXPECT_FALSE(reservation.IsHeld());
    }
    EXPECT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Granted);
}

TEST_F(DeviceReservationTest, ABusThatTakesNothingDoesNotHoldUpWhoWaitsForTraffic) {
    const auto client = SdBus::Connect(SdBus::Which::Session, Soon());
    const std::string much(std::size_t{24} << 20U, 'x');
    bus.Stop();
    // More than a socket holds: the rest waits in the connection.
    std::ignore = client->Call(kDaemon, "NameHasOwner", {.types = "s", .text = much.c_str()}, 'b',
                               Clock::now() + std::chrono::milliseconds(20));
    std::atomic<bool> returned{false};
    std::thread waiting([&] {
        std::ignore = client->Process(Clock::now() + std::chrono::milliseconds(50));
        returned = true;
    });

    const auto end = Soon();
    while (!returned && Clock::now() < end) {
        std::this_thread::yield();
    }
    EXPECT_TRUE(returned);
    bus.Continue();
    waiting.join();
}

TEST_F(DeviceReservationTest, WhoAsksForItMeanwhileIsToldNo) {
    ASSERT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Granted);
    const auto client = SdBus::Connect(SdBus::Which::Session, Soon());
    const SdBus::Address holder = {kName, kPath, kInterface};

    EXPECT_EQ(client->Call(holder, "RequestRelease", {.types = "i", .first = 1}, 'b', Soon()), 0U);
    EXPECT_EQ(client->Property(holder, "Priority", 'i', Soon()), 2'147'483'647);
}

TEST_F(DeviceReservationTest, ABusThatDoesNotAnswerIsNoBus) {
    bus.Stop();
    const auto begin = Clock::now();

    EXPECT_EQ(reservation.Acquire(), DeviceReservation::Outcome::NoBus);

    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(5));
    bus.Continue();
}

/// Reads a number of a call; the library is loaded at run time only.
template <class Number>
Number ReadNumber(sd_bus_message* call, char type) {
    static void* const library = ::dlopen("libsystemd.so.0", RTLD_NOW);
    using Read = int (*)(sd_bus_message*, char, void*);
    static const auto read = reinterpret_cast<Read>(::dlsym(library, "sd_bus_message_read_basic"));
    Number number{};
    EXPECT_GT(read(call, type, &number), 0);
    return number;
}

/// RealtimeKit as a program, beside a limit that is not the process's own.
class RealtimeKitTest : public DeviceReservationTest {
protected:
    /// Makes threads real-time as `grants` says, at the most at that priority.
    void Serve(std::int32_t mostPriority, std::function<bool()> grants) {
        kit = std::make_unique<FakeService>(
            "org.freedesktop.RealtimeKit1", "/org/freedesktop/RealtimeKit1",
            [=, this](sd_bus_message* call) {
                if (SdBus::IsCall(call, "org.freedesktop.RealtimeKit1", "MakeThreadRealtime")) {
                    ++asked;
                    thread = ReadNumber<std::uint64_t>(call, 't');
                    priority = ReadNumber<std::uint32_t>(call, 'u');
                    if (!grants()) {
                        return false;
                    }
                    SdBus::AnswerNothing(call);
                    return true;
                }
                if (SdBus::IsCall(call, "org.freedesktop.DBus.Properties", "Get")) {
                    std::ignore = SdBus::ReadText(call);
                    if (SdBus::ReadText(call) == "RTTimeUSecMax") {
                        SdBus::AnswerLongVariant(call, kMostMicroseconds);
                    } else {
                        SdBus::AnswerNumberVariant(call, mostPriority);
                    }
                    return true;
                }
                return false;
            });
    }
    int Ask() {
        return AskRealtimeKit({[this](rlimit& now) {
                                   now = {soft, hard};
                                   return 0;
                               },
                               [this](const rlimit& wanted) {
                                   if (wanted.rlim_max > hard && !mayRaise) {
                                       return EPERM;
                                   }
                                   ++settings;
                                   soft = wanted.rlim_cur;
                                   hard = wanted.rlim_max;
                                   return 0;
                               }});
    }
    bool IsLowered() const { return hard == kMostMicroseconds; }

    static constexpr std::int64_t kMostMicroseconds = 200'000;
    std::atomic<rlim_t> soft{RLIM_INFINITY};
    std::atomic<rlim_t> hard{RLIM_INFINITY};
    bool mayRaise = true;
    int settings = 0;
    std::atomic<int> asked{0};
    std::atomic<std::uint64_t> thread{0};
    std::atomic<std::uint32_t> priority{0};
    std::unique_ptr<FakeService> kit;
};

TEST_F(RealtimeKitTest, IsAskedForTheCallingThreadAtTheCapturePriority) {
    Serve(20, [] { return true; });

    EXPECT_EQ(Ask(), 0);

    EXPECT_EQ(thread, static_cast<std::uint64_t>(::gettid()));
    EXPECT_EQ(priority, 6U);
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(settings, 0);  // nothing was demanded
}

TEST_F(RealtimeKitTest, IsAskedForNoMoreThanItGrants) {
    Serve(3, [] { return true; });

    EXPECT_EQ(Ask(), 0);

    EXPECT_EQ(priority, 3U);
}

TEST_F(RealtimeKitTest, ThatGrantsNoPriorityIsNotAsked) {
    Serve(0, [] { return true; });

    EXPECT_EQ(Ask(), EPERM);

    EXPECT_EQ(asked, 0);
}

TEST_F(RealtimeKitTest, GetsTheLimitThatItDemands) {
    Serve(20, [this] { return IsLowered(); });

    EXPECT_EQ(Ask(), 0);

    EXPECT_EQ(asked, 2);
    EXPECT_EQ(soft, 200'000U);
    EXPECT_EQ(hard, 200'000U);
}

TEST_F(RealtimeKitTest, TheLimitIsAsBeforeWhenItRefusesAllTheSame) {
    Serve(20, [] { return false; });
    soft = 5'000'000;
    hard = 6'000'000;

    EXPECT_EQ(Ask(), EPERM);

    EXPECT_EQ(settings, 2);
    EXPECT_EQ(soft, 5'000'000U);
    EXPECT_EQ(hard, 6'000'000U);
}

TEST_F(RealtimeKitTest, ALimitThatMayNotBeSetBackIsSaid) {
    Serve(20, [] { return false; });
    mayRaise = false;
    TraceCapture trace;

    EXPECT_EQ(Ask(), EPERM);

    ASSERT_EQ(trace.Lines().size(), 1U);
    EXPECT_NE(trace.Lines()[0].find("RLIMIT_RTTIME stays lowered to 200000 us"), std::string::npos);
}

TEST_F(RealtimeKitTest, ALowLimitIsLeftAlone) {
    Serve(20, [] { return false; });
    soft = 1'000;
    hard = 2'000;

    EXPECT_EQ(Ask(), EPERM);

    EXPECT_EQ(settings, 0);
    EXPECT_EQ(asked, 1);
}

TEST_F(DeviceReservationTest, ItIsGivenBackInTimeAlsoToABusThatDoesNotAnswer) {
    ASSERT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Granted);
    bus.Stop();
    const auto begin = Clock::now();

    reservation.Release();

    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(5));
    EXPECT_FALSE(reservation.IsHeld());
    bus.Continue();
}

TEST(DeviceReservationWithoutABusTest, ThereIsNobodyToAsk) {
    ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    DeviceReservation reservation(7);

    EXPECT_EQ(reservation.Acquire(), DeviceReservation::Outcome::NoBus);
    EXPECT_NE(AskRealtimeKit(), 0);
}

class CaptureSchedulingTest : public testing::Test {
protected:
    ThreadScheduling Apply(int roundRobin, int realtimeKit, int nice) {
        return ApplyCaptureScheduling(
            {[=] { return roundRobin; }, [=] { return realtimeKit; }, [=] { return nice; }},
            traced);
    }
    std::atomic<bool> traced{false};
    TraceCapture trace;
};

TEST_F(CaptureSchedulingTest, WhatTheLimitsAllowIsTakenSilently) {
    EXPECT_EQ(Apply(0, EPERM, EPERM), ThreadScheduling::RoundRobin);
    EXPECT_TRUE(trace.Lines().empty());
}

TEST_F(CaptureSchedulingTest, EachStepDownIsTakenInTurnAndTracedOnce) {
    EXPECT_EQ(Apply(EPERM, 0, EPERM), ThreadScheduling::RoundRobin);
    EXPECT_EQ(Apply(EPERM, EPERM, 0), ThreadScheduling::RaisedNice);
    EXPECT_EQ(Apply(EPERM, EPERM, EPERM), ThreadScheduling::Normal);

    ASSERT_EQ(trace.Lines().size(), 1U);
    EXPECT_NE(trace.Lines()[0].find("real-time by RealtimeKit"), std::string::npos);
}

}  // namespace
}  // namespace vorrel::test
