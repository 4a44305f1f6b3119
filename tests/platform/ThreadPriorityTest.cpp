#include "platform/ThreadPriority.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/SerialQueue.h"
#include "support/TraceCapture.h"

namespace vorrel {
namespace {

/// A system that grants or refuses as the test says, and keeps what it was asked.
struct FakeScheduler {
    int roundRobinAnswer = 0;
    int niceAnswer = 0;
    std::vector<std::string> asked;

    SchedulingCalls Calls() {
        return {[this](int priority) {
                    asked.push_back("rr " + std::to_string(priority));
                    return roundRobinAnswer;
                },
                [this](int nice) {
                    asked.push_back("nice " + std::to_string(nice));
                    return niceAnswer;
                },
                [this] {
                    asked.emplace_back("leave");
                    return 0;
                }};
    }
};

class ThreadPriorityTest : public testing::Test {
protected:
    ThreadScheduling Apply(double priority) {
        return ApplyThreadPriority(priority, scheduler.Calls(), refusalTraced);
    }

    FakeScheduler scheduler;
    std::atomic<bool> refusalTraced{false};
    test::TraceCapture trace;
};

TEST_F(ThreadPriorityTest, HalfAndBelowLeaveARealtimeClassAndAskForNothing) {
    for (const double priority : {0.5, 0.25, 0.0, -1.0, std::numeric_limits<double>::quiet_NaN()}) {
        scheduler.asked.clear();

        EXPECT_EQ(Apply(priority), ThreadScheduling::Normal);

        EXPECT_EQ(scheduler.asked, std::vector<std::string>{"leave"}) << priority;
    }
    EXPECT_TRUE(trace.Lines().empty());
}

TEST_F(ThreadPriorityTest, ThreeQuartersAsksForLowRoundRobinAndOneForOneStepMore) {
    EXPECT_EQ(Apply(0.75), ThreadScheduling::RoundRobin);
    EXPECT_EQ(Apply(1.0), ThreadScheduling::RoundRobin);

    EXPECT_EQ(scheduler.asked, (std::vector<std::string>{"rr 5", "rr 6"}));
    EXPECT_TRUE(trace.Lines().empty());
}

TEST_F(ThreadPriorityTest, ARefusalFallsBackToARaisedNiceValue) {
    scheduler.roundRobinAnswer = EPERM;

    EXPECT_EQ(Apply(0.75), ThreadScheduling::RaisedNice);
    EXPECT_EQ(Apply(1.0), ThreadScheduling::RaisedNice);

    EXPECT_EQ(scheduler.asked,
              (std::vector<std::string>{"rr 5", "leave", "nice -10", "rr 6", "leave", "nice -11"}));
}

TEST_F(ThreadPriorityTest, TwoRefusalsLeaveTheThreadNormal) {
    scheduler.roundRobinAnswer = EPERM;
    scheduler.niceAnswer = EACCES;

    EXPECT_EQ(Apply(0.75), ThreadScheduling::Normal);
}

TEST_F(ThreadPriorityTest, RefusalsAreTracedOnce) {
    scheduler.roundRobinAnswer = EPERM;

    Apply(0.75);
    Apply(0.75);
    scheduler.niceAnswer = EACCES;
    Apply(1.0);

    ASSERT_EQ(trace.Lines().size(), 1U);
    EXPECT_NE(trace.Lines()[0].find("real-time scheduling refused (Operation not permitted)"),
              std::string::npos);
}

/// How a thread of its own is scheduled after `body`.
template <class Body>
std::pair<int, int> ScheduledAfter(Body body) {
    std::pair<int, int> result;
    std::thread([&] {
        body();
        sched_param parameters{};
        ::sched_getparam(0, &parameters);
        result = {::sched_getscheduler(0), parameters.sched_priority};
    }).join();
    return result;
}

TEST(SystemThreadPriorityTest, NormalStaysNormal) {
    EXPECT_EQ(ScheduledAfter([] { SetCurrentThreadPriority(0.5); }), std::pair(SCHED_OTHER, 0));
}

/// How a thread is scheduled that a real-time thread makes, after `body`; nothing where this
/// process may not have real-time threads.
template <class Body>
std::optional<std::pair<int, int>> ScheduledUnderRealtime(int policy, Body body) {
    std::optional<std::pair<int, int>> result;
    std::thread([&] {
        sched_param parameters{};
        parameters.sched_priority = 10;
        if (::sched_setscheduler(0, policy, &parameters) == 0) {
            result = ScheduledAfter(body);
        }
    }).join();
    return result;
}

TEST(SystemThreadPriorityTest, NormalLeavesTheRealtimeClassOfTheThreadThatMadeIt) {
    for (const int policy : {SCHED_RR, SCHED_FIFO}) {
        const auto inherited = ScheduledUnderRealtime(policy, [] {});
        if (!inherited) {
            GTEST_SKIP() << "real-time scheduling is not permitted here";
        }
        ASSERT_EQ(*inherited, std::pair(policy, 10));

        EXPECT_EQ(*ScheduledUnderRealtime(policy, [] { SetCurrentThreadPriority(0.5); }),
                  std::pair(SCHED_OTHER, 0));
    }
}

TEST(SystemThreadPriorityTest, ARealtimeThreadWithResetOnForkBecomesNormalToo) {
    const auto scheduled = ScheduledUnderRealtime(SCHED_RR, [] {
        SetCurrentThreadPriority(0.75);
        SetCurrentThreadPriority(0.5);
    });
    if (!scheduled) {
        GTEST_SKIP() << "real-time scheduling is not permitted here";
    }

    EXPECT_EQ(scheduled->first & ~SCHED_RESET_ON_FORK, SCHED_OTHER);
}

TEST(SystemThreadPriorityTest, ASerialQueueRunsNormallyUnderARealtimeThread) {
    SerialQueue queue("RecHelperQueue");
    std::pair<int, int> scheduled;
    const auto submitted = ScheduledUnderRealtime(SCHED_RR, [&] {
        queue.Sync([&] {
            sched_param parameters{};
            ::sched_getparam(0, &parameters);
            scheduled = {::sched_getscheduler(0), parameters.sched_priority};
        });
    });
    if (!submitted) {
        GTEST_SKIP() << "real-time scheduling is not permitted here";
    }

    EXPECT_EQ(*submitted, std::pair(SCHED_RR, 10));
    EXPECT_EQ(scheduled, std::pair(SCHED_OTHER, 0));
}

TEST(SystemThreadPriorityTest, ARaisedThreadGetsWhatTheSystemGrantsAndItsThreadsBeginNormal) {
    test::TraceCapture trace;
    int granted = -1;
    int niceGranted = -1;
    std::thread([&] {
        sched_param parameters{};
        parameters.sched_priority = 5;
        granted = ::sched_setscheduler(0, SCHED_RR, &parameters);
    }).join();
    std::thread([&] { niceGranted = ::setpriority(PRIO_PROCESS, 0, -10); }).join();
    std::pair<int, int> ofItsThread;
    int nice = 0;

    const std::pair<int, int> raised = ScheduledAfter([&] {
        SetCurrentThreadPriority(0.75);
        nice = ::getpriority(PRIO_PROCESS, 0);
        ofItsThread = ScheduledAfter([] {});
    });

    if (granted == 0) {
        EXPECT_EQ(raised, std::pair(SCHED_RR | SCHED_RESET_ON_FORK, 5));
    } else {
        EXPECT_EQ(raised, std::pair(SCHED_OTHER, 0));
        EXPECT_EQ(nice, niceGranted == 0 ? -10 : 0);
        EXPECT_EQ(trace.Lines().size(), 1U);
    }
    EXPECT_EQ(ofItsThread, std::pair(SCHED_OTHER, 0));
}

/// Ends the process, whose limit cannot be taken back: with 7 when a worker of the highest priority
/// has but the nice value that the system grants.
[[noreturn]] void RaiseAWorkerUnderALimitOfComputing() {
    rlimit second{};
    second.rlim_cur = 1'000'000;  // microseconds
    second.rlim_max = second.rlim_cur;
    const bool limited = ::setrlimit(RLIMIT_RTTIME, &second) == 0;
    bool mayBeRaised = false;
    std::thread([&] { mayBeRaised = ::setpriority(PRIO_PROCESS, 0, -11) == 0; }).join();

    int nice = 0;
    const std::pair<int, int> scheduled = ScheduledAfter([&] {
        SetCurrentThreadPriority(1.0);
        nice = ::getpriority(PRIO_PROCESS, 0);
    });

    const bool isNormal = scheduled == std::pair(SCHED_OTHER, 0);
    std::exit(limited && isNormal && nice == (mayBeRaised ? -11 : 0) ? 7 : 1);
}

TEST(SystemThreadPriorityDeathTest, ALimitOfRealTimeComputingLeavesWorkersToTheirNiceValue) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");

    EXPECT_EXIT(RaiseAWorkerUnderALimitOfComputing(), testing::ExitedWithCode(7),
                "real-time scheduling refused");
}

TEST(SystemThreadPriorityTest, ThreadNamesAreCutToFifteenBytes) {
    std::array<char, 32> name{};

    std::thread([&] {
        SetCurrentThreadName("a name of twenty one");
        ::pthread_getname_np(::pthread_self(), name.data(), name.size());
    }).join();

    EXPECT_STREQ(name.data(), "a name of twent");
}

}  // namespace
}  // namespace vorrel
