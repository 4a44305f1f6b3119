#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "device/alsa/CaptureScheduling.h"
#include "device/alsa/DeviceReservation.h"
#include "device/alsa/SdBus.h"
#include "support/TempDirectory.h"
#include "support/TraceCapture.h"

namespace vorrel::test {
namespace {

using Clock = SdBus::Clock;
constexpr char kName[] = "org.freedesktop.ReserveDevice1.Audio7";
constexpr char kPath[] = "/org/freedesktop/ReserveDevice1/Audio7";
constexpr char kInterface[] = "org.freedesktop.ReserveDevice1";
constexpr SdBus::Address kDaemon = {"org.freedesktop.DBus", "/org/freedesktop/DBus",
                                    "org.freedesktop.DBus"};

Clock::time_point Soon() {
    return Clock::now() + std::chrono::seconds(10);
}

/// A message bus of the test's own, which both environment variables name.
class PrivateBus {
public:
    PrivateBus() {
        std::array<int, 2> pipe{};
        if (::pipe2(pipe.data(), O_CLOEXEC) != 0) {
            return;
        }
        const std::string address = "--address=unix:path=" + directory.File("bus");
        const std::string print = "--print-address=" + std::to_string(pipe[1]);
        daemon = ::fork();
        if (daemon == 0) {
            ::fcntl(pipe[1], F_SETFD, 0);
            ::execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", address.c_str(),
                     print.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(pipe[1]);
        std::array<char, 256> text{};
        running = ::read(pipe[0], text.data(), text.size()) > 0;
        ::close(pipe[0]);
        const std::string path = "unix:path=" + directory.File("bus");
        ::setenv("DBUS_SESSION_BUS_ADDRESS", path.c_str(), 1);
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", path.c_str(), 1);
    }
    ~PrivateBus() {
        Send(SIGTERM);
        if (daemon > 0) {
            ::waitpid(daemon, nullptr, 0);
        }
        ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
        ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    /// The daemon, and the library to reach it by, are here.
    bool IsThere() const {
        return running && SdBus::Connect(SdBus::Which::Session, Soon()) != nullptr;
    }
    void Stop() const { Send(SIGSTOP); }
    void Continue() const { Send(SIGCONT); }

private:
    /// A number of -1 would mean every process.
    void Send(int signal) const {
        if (daemon > 0) {
            ::kill(daemon, signal);
        }
    }

    TempDirectory directory;
    pid_t daemon = -1;
    bool running = false;
};

/// A program on the bus that owns a name and answers calls, on a thread of its own.
class FakeService {
public:
    FakeService(const char* name, const char* path, std::function<bool(sd_bus_message*)> answer)
        : bus(SdBus::Connect(SdBus::Which::Session, Soon())),
          wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        EXPECT_TRUE(bus->Serve(path, std::move(answer)));
        EXPECT_EQ(bus->Call(kDaemon, "RequestName", {.types = "su", .text = name, .first = 1}, 'u',
                            Soon()),
                  1U);  // may be replaced
        thread = std::thread([this] {
            while (!ended && bus->Process(Soon(), wake)) {
            }
        });
    }
    ~FakeService() {
        ended = true;
        const std::uint64_t one = 1;
        std::ignore = ::write(wake, &one, sizeof one);
        thread.join();
        ::close(wake);
    }
    FakeService(const FakeService&) = delete;
    FakeService& operator=(const FakeService&) = delete;

private:
    std::unique_ptr<SdBus> bus;
    int wake;
    std::atomic<bool> ended{false};
    std::thread thread;
};

class DeviceReservationTest : public testing::Test {
protected:
    void SetUp() override {
        if (!bus.IsThere()) {
            GTEST_SKIP() << "no dbus-daemon or no libsystemd";
        }
    }
    bool IsOwned() {
        const auto client = SdBus::Connect(SdBus::Which::Session, Soon());
        return client->Call(kDaemon, "NameHasOwner", {.types = "s", .text = kName}, 'b', Soon()) ==
               1U;
    }

    PrivateBus bus;
    DeviceReservation reservation{7};
};

TEST_F(DeviceReservationTest, WithoutAHolderItIsGrantedAndGivenBack) {
    EXPECT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Granted);
    EXPECT_TRUE(IsOwned());
    EXPECT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Granted);

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

TEST_F(DeviceReservationTest, AHolderThatDoesNotAnswerIsWaitedForASecondAtMost) {
    const FakeService holder(kName, kPath, [](sd_bus_message*) { return true; });
    const auto begin = Clock::now();

    EXPECT_EQ(reservation.Acquire(), DeviceReservation::Outcome::Refused);

    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(5));  // 25 s would be the bus's own
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
