#include "device/alsa/CaptureScheduling.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "PrivateBus.h"
#include "device/alsa/SdBus.h"
#include "support/TraceCapture.h"

namespace vorrel::test {
namespace {

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
class RealtimeKitTest : public testing::Test {
protected:
    void SetUp() override {
        if (!bus.IsThere()) {
            GTEST_SKIP() << "no dbus-daemon or no libsystemd";
        }
    }
    /// Makes threads real-time as `grants` says, at the most at that priority.
    void Serve(std::int32_t mostPriority, const std::function<bool()>& grants) {
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

    PrivateBus bus;
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

TEST(RealtimeKitWithoutABusTest, ThereIsNobodyToAsk) {
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);

    EXPECT_EQ(AskRealtimeKit(), ENOENT);

    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

/// A system that lets a process ask for real-time priorities up to a limit.
class RoundRobinTest : public testing::Test {
protected:
    int Ask() {
        return AskRoundRobin({[this](int priority) {
                                  asked.push_back(priority);
                                  return priority <= granted ? 0 : error;
                              },
                              [this](rlimit& now) {
                                  now = {limit, limit};
                                  return limitError;
                              }});
    }

    int granted = 0;     // the highest that is given
    int error = EPERM;   // what a higher one is refused with
    rlim_t limit = 0;    // what the process is told of it
    int limitError = 0;  // what it is told instead
    std::vector<int> asked;
};

TEST_F(RoundRobinTest, TheCapturePriorityIsAskedForFirst) {
    granted = 99;
    limit = 0;  // a process with privileges needs none

    EXPECT_EQ(Ask(), 0);

    EXPECT_EQ(asked, std::vector<int>{6});
}

TEST_F(RoundRobinTest, BelowItTheMostThatTheLimitsAllowIsTaken) {
    for (const int most : {5, 1}) {
        asked.clear();
        granted = most;
        limit = static_cast<rlim_t>(most);

        EXPECT_EQ(Ask(), 0);

        EXPECT_EQ(asked, (std::vector<int>{6, most}));
    }
}

TEST_F(RoundRobinTest, WithoutALimitThatHelpsTheRefusalStands) {
    for (const rlim_t useless : {rlim_t{0}, rlim_t{6}, rlim_t{99}, RLIM_INFINITY}) {
        asked.clear();
        limit = useless;

        EXPECT_EQ(Ask(), EPERM);

        EXPECT_EQ(asked, std::vector<int>{6}) << useless;
    }
}

TEST_F(RoundRobinTest, ALimitThatIsNotToldHelpsNobody) {
    granted = 3;
    limit = 3;
    limitError = EINVAL;

    EXPECT_EQ(Ask(), EPERM);

    EXPECT_EQ(asked, std::vector<int>{6});
}

TEST_F(RoundRobinTest, ARefusalThatIsNotOneOfPermissionIsTheEnd) {
    granted = 3;
    limit = 3;
    error = EINVAL;

    EXPECT_EQ(Ask(), EINVAL);

    EXPECT_EQ(asked, std::vector<int>{6});
}

TEST_F(RoundRobinTest, ALimitThatIsRefusedTooIsTheLastWord) {
    limit = 4;

    EXPECT_EQ(Ask(), EPERM);

    EXPECT_EQ(asked, (std::vector<int>{6, 4}));
}

class CaptureSchedulingTest : public testing::Test {
protected:
    ThreadScheduling Apply(int roundRobin, int realtimeKit, int nice) {
        asked.clear();
        return ApplyCaptureScheduling({Answer("round robin", roundRobin),
                                       Answer("RealtimeKit", realtimeKit), Answer("nice", nice)},
                                      traced);
    }
    std::function<int()> Answer(const char* name, int answer) {
        return [this, name, answer] {
            asked.emplace_back(name);
            return answer;
        };
    }
    using Names = std::vector<std::string>;
    Names asked;
    std::atomic<bool> traced{false};
    TraceCapture trace;
};

TEST_F(CaptureSchedulingTest, WhatTheLimitsAllowIsTakenSilently) {
    EXPECT_EQ(Apply(0, EPERM, EPERM), ThreadScheduling::RoundRobin);
    EXPECT_EQ(asked, Names{"round robin"});
    EXPECT_TRUE(trace.Lines().empty());
}

TEST_F(CaptureSchedulingTest, EachStepDownIsTakenInTurnAndTracedOnce) {
    EXPECT_EQ(Apply(EPERM, 0, EPERM), ThreadScheduling::RoundRobin);
    EXPECT_EQ(asked, (Names{"round robin", "RealtimeKit"}));
    EXPECT_EQ(Apply(EPERM, EPERM, 0), ThreadScheduling::RaisedNice);
    EXPECT_EQ(asked, (Names{"round robin", "RealtimeKit", "nice"}));
    EXPECT_EQ(Apply(EPERM, EPERM, EPERM), ThreadScheduling::Normal);
    EXPECT_EQ(asked, (Names{"round robin", "RealtimeKit", "nice"}));

    ASSERT_EQ(trace.Lines().size(), 1U);
    EXPECT_NE(trace.Lines()[0].find("real-time by RealtimeKit"), std::string::npos);
}

}  // namespace
}  // namespace vorrel::test
