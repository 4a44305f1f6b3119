#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <tuple>

#include "PrivateBus.h"
#include "device/alsa/DeviceReservation.h"
#include "device/alsa/SdBus.h"
#include "support/TraceCapture.h"

namespace vorrel::test {
namespace {

constexpr char kName[] = "org.freedesktop.ReserveDevice1.Audio7";
constexpr char kPath[] = "/org/freedesktop/ReserveDevice1/Audio7";
constexpr char kInterface[] = "org.freedesktop.ReserveDevice1";
/// Less than the 25 seconds for which a call waits where nobody sets a limit; the reservation's own
/// is one.
constexpr std::chrono::seconds kBusPatience{20};

/// A program that keeps the reservation and calls itself so.
std::function<bool(sd_bus_message*)> Keeper(const std::string& application) {
    return [application](sd_bus_message* call) {
        if (SdBus::IsCall(call, kInterface, "RequestRelease")) {
            SdBus::AnswerBool(call, false);
            return true;
        }
        EXPECT_EQ(SdBus::ReadText(call), kInterface);
        EXPECT_EQ(SdBus::ReadText(call), "ApplicationName");
        SdBus::AnswerTextVariant(call, application.c_str());
        return true;
    };
}

std::string Times(int count, const std::string& text) {
    std::string all;
    for (int i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

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

TEST_F(DeviceReservationTest, AHolderThatKeepsItIsNamed) {
    TraceCapture trace;
    const FakeService holder(kName, kPath, Keeper("another recorder"));

    EXPECT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Refused);

    ASSERT_EQ(trace.Lines().size(), 1U);
    EXPECT_NE(trace.Lines()[0].find(std::string(kName) + " is held by another recorder"),
              std::string::npos);
}

TEST_F(DeviceReservationTest, AHolderThatKeepsItAndTellsNoNameIsNotNamed) {
    TraceCapture trace;
    for (const bool empty : {false, true}) {
        const FakeService holder(kName, kPath, [empty](sd_bus_message* call) {
            const bool asksForTheName = !SdBus::IsCall(call, kInterface, "RequestRelease");
            if (asksForTheName && empty) {
                SdBus::AnswerTextVariant(call, "");
            } else if (!asksForTheName) {
                SdBus::AnswerBool(call, false);
            }
            return empty || !asksForTheName;
        });

        EXPECT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Refused);
    }
    EXPECT_TRUE(trace.Lines().empty());
}

TEST_F(DeviceReservationTest, AHolderThatKeepsItAndDoesNotTellItsNameIsWaitedForInThatTimeToo) {
    constexpr std::chrono::milliseconds kWait{300};
    DeviceReservation impatient(7, kWait);
    const FakeService holder(kName, kPath, [](sd_bus_message* call) {
        if (SdBus::IsCall(call, kInterface, "RequestRelease")) {
            SdBus::AnswerBool(call, false);
        }
        return true;
    });
    const auto begin = Clock::now();

    EXPECT_EQ(impatient.Acquire(), DeviceReservation::Outcome::Refused);

    const auto took = Clock::now() - begin;
    EXPECT_GE(took, kWait);
    EXPECT_LT(took, DeviceReservation::kPatience);
}

TEST_F(DeviceReservationTest, TheNameOfAHolderIsOneShortLine) {
    const struct {
        std::string name;
        std::string traced;
    } cases[] = {{"two\nlines\x7F", "two?lines?"},
                 {std::string(100, 'x'), std::string(64, 'x')},
                 // Of two bytes each; the 32nd would end behind the 64th byte.
                 {"x" + Times(40, "\u00e9"), "x" + Times(31, "\u00e9")}};
    for (const auto& [name, traced] : cases) {
        TraceCapture trace;
        const FakeService holder(kName, kPath, Keeper(name));

        EXPECT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Refused);

        ASSERT_EQ(trace.Lines().size(), 1U);
        EXPECT_TRUE(trace.Lines()[0].ends_with(" is held by " + traced)) << trace.Lines()[0];
    }
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

    EXPECT_LT(Clock::now() - begin, kBusPatience);
    bus.Continue();
}

TEST_F(DeviceReservationTest, ItIsGivenBackInTimeAlsoToABusThatDoesNotAnswer) {
    ASSERT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Granted);
    bus.Stop();
    const auto begin = Clock::now();

    reservation.Release();

    EXPECT_LT(Clock::now() - begin, kBusPatience);
    EXPECT_FALSE(reservation.IsHeld());
    bus.Continue();
}

TEST(DeviceReservationWithoutABusTest, ThereIsNobodyToAsk) {
    ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    DeviceReservation reservation(7);

    EXPECT_EQ(reservation.Acquire(), DeviceReservation::Outcome::NoBus);
}

}  // namespace
}  // namespace vorrel::test
