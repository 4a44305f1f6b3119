#include "pipeline/ThreadBase.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <utility>

#include "platform/ThreadPriority.h"
#include "support/ThreadBaseParts.h"

namespace vorrel {
namespace {

constexpr std::chrono::minutes kTooLong{1};

/// A worker whose body is what the test gives it.
class Worker final : public ThreadBase {
public:
    explicit Worker(std::function<void(Worker&)> text = {}) : body(std::move(text)) {}
    Worker(unsigned events, std::function<void(Worker&)> text)
        : ThreadBase(events), body(std::move(text)) {}
    ~Worker() override {
        Join();
        WaitFinished();
    }

private:
    void ThreadImpl() override {
        if (body) {
            body(*this);
        }
    }

    std::function<void(Worker&)> body;
};

/// Something that happens once and can be waited for from any thread.
class Gate {
public:
    void Open() { promise.set_value(); }
    bool Wait() { return opened.wait_for(kTooLong) == std::future_status::ready; }

private:
    std::promise<void> promise;
    std::shared_future<void> opened{promise.get_future().share()};
};

TEST(ThreadBaseTest, HasOneEventWhenMadeForNone) {
    Worker worker(0, {});

    worker.SetEvent();
    worker.WaitEvent();

    EXPECT_FALSE(worker.Joinable());
}

TEST(ThreadBaseTest, TwoSetsBeforeAWaitAreOneWakeUp) {
    Worker worker;
    worker.SetEvent();
    worker.SetEvent();
    ASSERT_TRUE(ThreadBaseParts::IsSet(worker, 0));

    worker.WaitEvent();

    EXPECT_FALSE(ThreadBaseParts::IsSet(worker, 0));
}

TEST(ThreadBaseTest, AWaitReturnsByASetThatComesLater) {
    Worker worker;
    std::atomic<bool> set{false};
    std::atomic<bool> setWhenWoken{false};
    Gate waits;
    std::thread waiter([&] {
        waits.Open();
        worker.WaitEvent();
        setWhenWoken = set.load();
    });
    ASSERT_TRUE(waits.Wait());

    set = true;
    worker.SetEvent();
    waiter.join();

    EXPECT_TRUE(setWhenWoken);
}

TEST(ThreadBaseTest, AWaitConsumesTheEvent) {
    Worker worker;
    for (int count = 0; count < 3; ++count) {
        worker.SetEvent();

        worker.WaitEvent();

        EXPECT_FALSE(ThreadBaseParts::IsSet(worker, 0)) << count;
    }
}

TEST(ThreadBaseTest, AnEventWakesOnlyAWaiterOfItsOwn) {
    Worker worker(2, {});
    std::atomic<bool> zeroSet{false};
    std::atomic<bool> zeroWokeEarly{false};
    std::thread waiterOfZero([&] {
        worker.WaitEvent(0);
        zeroWokeEarly = !zeroSet;
    });
    std::thread waiterOfOne([&] { worker.WaitEvent(1); });

    worker.SetEvent(1);
    waiterOfOne.join();
    zeroSet = true;
    worker.SetEvent(0);
    waiterOfZero.join();

    EXPECT_FALSE(zeroWokeEarly);
}

TEST(ThreadBaseTest, ResetEventTakesASetOfItsOwnEventBack) {
    Worker worker(3, {});
    for (unsigned n = 0; n < 3; ++n) {
        worker.SetEvent(n);
    }

    worker.ResetEvent(1);
    EXPECT_TRUE(ThreadBaseParts::IsSet(worker, 0));
    EXPECT_FALSE(ThreadBaseParts::IsSet(worker, 1));
    EXPECT_TRUE(ThreadBaseParts::IsSet(worker, 2));

    worker.ResetEvent();
    EXPECT_FALSE(ThreadBaseParts::IsSet(worker, 0));
    EXPECT_TRUE(ThreadBaseParts::IsSet(worker, 2));
}

TEST(ThreadBaseTest, ResetEventNumGivesThatManyEventsAndOneForNone) {
    Worker worker;

    EXPECT_EQ(worker.ResetEventNum(3), 3U);
    worker.SetEvent(2);
    worker.WaitEvent(2);
    EXPECT_EQ(worker.ResetEventNum(0), 1U);
}

TEST(ThreadBaseTest, ResetEventNumLeavesNoEventSet) {
    Worker worker(2, {});
    worker.SetEvent(0);
    worker.SetEvent(1);

    worker.ResetEventNum(3);

    for (unsigned n = 0; n < 3; ++n) {
        EXPECT_FALSE(ThreadBaseParts::IsSet(worker, n)) << n;
    }
}

TEST(ThreadBaseTest, RunsTheBodyOnAThreadOfItsOwn) {
    std::thread::id bodyThread;
    Worker worker([&](Worker&) { bodyThread = std::this_thread::get_id(); });

    ASSERT_TRUE(worker.Create(PriorityHigh));
    worker.Join();

    EXPECT_NE(bodyThread, std::thread::id());
    EXPECT_NE(bodyThread, std::this_thread::get_id());
}

TEST(ThreadBaseTest, CreateOnARunningWorkerIsRefusedAndKeepsItsThread) {
    std::atomic<int> bodies{0};
    Worker worker([&](Worker& self) {
        ++bodies;
        self.WaitEvent();
    });
    ASSERT_TRUE(worker.Create(PriorityNormal));

    EXPECT_FALSE(worker.Create(PriorityNormal));

    EXPECT_TRUE(worker.Joinable());
    worker.SetEvent();
    worker.Join();
    EXPECT_EQ(bodies, 1);
}

TEST(ThreadBaseTest, CreateIsRefusedUntilAnEndedBodyIsJoined) {
    Worker worker;
    ASSERT_TRUE(worker.Create(PriorityNormal));
    worker.WaitFinished();

    EXPECT_TRUE(worker.Joinable());
    EXPECT_FALSE(worker.Create(PriorityNormal));
    worker.Join();
    EXPECT_FALSE(worker.Joinable());
    EXPECT_TRUE(worker.Create(PriorityNormal));
}

TEST(ThreadBaseTest, JoinWithoutAThreadReturnsAtOnce) {
    Worker worker;

    worker.Join();

    EXPECT_FALSE(worker.Joinable());
}

TEST(ThreadBaseTest, JoinAfterDetachReturnsWhileTheBodyStillRuns) {
    std::atomic<bool> ended{false};
    Worker worker([&](Worker& self) {
        self.WaitEvent();
        ended = true;
    });
    ASSERT_TRUE(worker.Create(PriorityNormal));

    worker.Detach();
    worker.Join();

    EXPECT_FALSE(ended);
    EXPECT_FALSE(worker.Joinable());
    worker.SetEvent();
    worker.WaitFinished();
    EXPECT_TRUE(ended);
}

TEST(ThreadBaseTest, DetachWithoutAThreadDoesNothing) {
    Worker worker;

    worker.Detach();

    EXPECT_TRUE(worker.Create(PriorityNormal));
}

TEST(ThreadBaseTest, OfTwoJoinsAtOnceBothReturn) {
    Worker worker([](Worker& self) { self.WaitEvent(); });
    ASSERT_TRUE(worker.Create(PriorityNormal));

    std::thread first([&] { worker.Join(); });
    std::thread second([&] { worker.Join(); });
    worker.SetEvent();
    first.join();
    second.join();

    EXPECT_FALSE(worker.Joinable());
}

TEST(ThreadBaseTest, StartsAgainAfterJoin) {
    std::atomic<int> bodies{0};
    Worker worker([&](Worker&) { ++bodies; });

    for (int count = 0; count < 3; ++count) {
        ASSERT_TRUE(worker.Create(PriorityHigh));
        worker.Join();
    }

    EXPECT_EQ(bodies, 3);
}

TEST(ThreadBaseTest, StartsAgainWhileADetachedBodyIsInItsLastLines) {
    Gate detached;
    Gate letFirstEnd;
    std::atomic<int> started{0};
    std::atomic<int> ended{0};
    Worker worker([&](Worker& self) {
        if (++started == 1) {
            self.Detach();
            detached.Open();
            EXPECT_TRUE(letFirstEnd.Wait());
        }
        ++ended;
    });
    ASSERT_TRUE(worker.Create(PriorityNormal));
    ASSERT_TRUE(detached.Wait());

    EXPECT_FALSE(worker.Joinable());
    ASSERT_TRUE(worker.Create(PriorityHigh));
    worker.Join();
    EXPECT_EQ(ended, 1) << "the second body ended, the first still runs";

    letFirstEnd.Open();
    worker.WaitFinished();
    EXPECT_EQ(ended, 2);
}

TEST(ThreadBaseTest, ABodyThatDetachesItselfAtOnceFindsItsThread) {
    for (int round = 0; round < 100; ++round) {
        Worker worker([](Worker& self) { self.Detach(); });

        ASSERT_TRUE(worker.Create(PriorityNormal));
        worker.WaitFinished();

        ASSERT_FALSE(worker.Joinable());
    }
}

TEST(ThreadBaseTest, ADetachedBodyNeverOutlivesItsWorker) {
    for (int round = 0; round < 100; ++round) {
        Gate told;
        auto touched = std::make_shared<std::atomic<int>>(0);
        auto worker = std::make_unique<Worker>([&told, touched](Worker& self) {
            self.Detach();
            told.Open();  // the owner may delete the worker from here on
            self.SetEvent();
            *touched = 1;
        });
        ASSERT_TRUE(worker->Create(PriorityNormal));
        ASSERT_TRUE(told.Wait());

        worker.reset();

        ASSERT_EQ(*touched, 1);
    }
}

TEST(ThreadBaseTest, JoinableAndEventsMayRaceWithAWorkerThatDetachesItself) {
    Worker worker([](Worker& self) {
        self.WaitEvent();
        self.Detach();
    });
    std::atomic<bool> done{false};
    std::thread device([&] {
        while (!done) {
            if (worker.Joinable()) {
                worker.SetEvent();
            }
            std::this_thread::yield();
        }
    });

    for (int round = 0; round < 50; ++round) {
        ASSERT_TRUE(worker.Create(PriorityNormal));
        worker.WaitFinished();
    }
    done = true;
    device.join();

    EXPECT_FALSE(worker.Joinable());
}

TEST(ThreadBaseTest, AnExceptionEndsTheBodyOnly) {
    std::atomic<int> bodies{0};
    Worker worker([&](Worker&) {
        if (++bodies == 1) {
            throw std::runtime_error("out of luck");
        }
        throw 5;
    });

    ASSERT_TRUE(worker.Create(PriorityNormal));
    worker.Join();
    ASSERT_TRUE(worker.Create(PriorityNormal));
    worker.Join();

    EXPECT_EQ(bodies, 2);
}

TEST(ThreadBaseTest, WaitFinishedWithoutABodyReturnsAtOnce) {
    Worker worker;

    worker.WaitFinished();

    EXPECT_FALSE(worker.Joinable());
}

TEST(ThreadBaseTest, AnUnknownPriorityIsTheNormalOne) {
    int policy = -1;
    Worker worker([&](Worker&) {
        sched_param parameters{};
        EXPECT_EQ(pthread_getschedparam(pthread_self(), &policy, &parameters), 0);
    });

    ASSERT_TRUE(worker.Create(static_cast<Priority>(7)));
    worker.Join();

    EXPECT_EQ(policy, SCHED_OTHER);
}

TEST(ThreadBaseTest, ANormalWorkerOfARealtimeThreadIsNormal) {
    int policy = -1;
    bool permitted = false;
    Worker worker([&](Worker&) { policy = ::sched_getscheduler(0); });
    std::thread([&] {
        sched_param parameters{};
        parameters.sched_priority = 10;
        permitted = ::sched_setscheduler(0, SCHED_RR, &parameters) == 0;
        EXPECT_TRUE(worker.Create(PriorityNormal));
    }).join();

    worker.Join();

    EXPECT_EQ(policy, SCHED_OTHER);
    if (!permitted) {
        GTEST_SKIP() << "real-time scheduling is not permitted here";
    }
}

/// How the calling thread is scheduled: class, real-time priority, nice value.
using Scheduled = std::tuple<int, int, int>;

Scheduled OfThisThread() {
    sched_param parameters{};
    EXPECT_EQ(::sched_getparam(0, &parameters), 0);
    return {::sched_getscheduler(0), parameters.sched_priority, ::getpriority(PRIO_PROCESS, 0)};
}

TEST(ThreadBaseTest, RunsAtTheSystemsPriorityForItsOwn) {
    constexpr std::pair<Priority, double> kPriorities[] = {
        {PriorityNormal, 0.5}, {PriorityHigh, 0.75}, {PriorityHighest, 1.0}};
    std::set<Scheduled> different;
    for (const auto& [priority, ofTheSystem] : kPriorities) {
        Scheduled expected;
        std::thread([&expected, number = ofTheSystem] {
            SetCurrentThreadPriority(number);
            expected = OfThisThread();
        }).join();
        Scheduled scheduled;
        Worker worker([&](Worker&) { scheduled = OfThisThread(); });

        ASSERT_TRUE(worker.Create(priority));
        worker.Join();

        EXPECT_EQ(scheduled, expected) << ofTheSystem;
        different.insert(scheduled);
    }
    if (different.size() == 1) {
        GTEST_SKIP() << "the system grants no raised priority here";
    }
    EXPECT_EQ(different.size(), 3U);
}

}  // namespace
}  // namespace vorrel
