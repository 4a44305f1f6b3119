#include "vorrel/MainQueue.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/MainQueueTasks.h"
#include "support/AllocationGuard.h"
#include "support/FileCallGuard.h"
#include "support/TraceCapture.h"

namespace vorrel {
namespace {

using std::chrono::milliseconds;
using Order = std::vector<std::string>;

bool Readable() {
    pollfd polled{};
    polled.fd = MainQueue::Descriptor();
    polled.events = POLLIN;
    return ::poll(&polled, 1, 0) == 1 && (polled.revents & POLLIN) != 0;
}

/// Begins and ends with an empty queue: it is the one of the process.
class MainQueueTest : public testing::Test {
protected:
    MainQueueTest() { Empty(); }
    ~MainQueueTest() override { Empty(); }

    void Post(const std::string& name) {
        PostToMainQueue([this, name] { order.push_back(name); });
    }
    RealtimeTask MakeRealtime(const std::string& name) {
        return RealtimeTask([this, name] { order.push_back(name); });
    }

    Order order;

private:
    static void Empty() {
        while (MainQueue::Dispatch() > 0) {
        }
    }
};

TEST_F(MainQueueTest, DeliversInOrderOnTheThreadThatDispatches) {
    std::thread::id deliveredOn;
    std::thread([&] {
        Post("a");
        PostToMainQueue([&] { deliveredOn = std::this_thread::get_id(); });
        Post("b");
    }).join();

    EXPECT_EQ(MainQueue::Dispatch(), 3U);
    EXPECT_EQ(order, (Order{"a", "b"}));
    EXPECT_EQ(deliveredOn, std::this_thread::get_id());
}

TEST_F(MainQueueTest, KeepsTheOrderOfBothKindsOfTask) {
    RealtimeTask realtime = MakeRealtime("realtime");

    Post("a");
    EXPECT_TRUE(realtime.Post());
    Post("b");
    EXPECT_TRUE(realtime.Post());
    Post("c");

    EXPECT_EQ(MainQueue::Dispatch(), 5U);
    EXPECT_EQ(order, (Order{"a", "realtime", "b", "realtime", "c"}));
}

TEST_F(MainQueueTest, KeepsTheOrderOfEachOfSeveralThreads) {
    constexpr int kThreads = 4;
    constexpr int kTasks = 1'000;
    std::vector<std::vector<int>> orders(kThreads);
    std::vector<std::thread> threads;
    for (std::vector<int>& numbers : orders) {
        threads.emplace_back([&numbers] {
            for (int number = 0; number < kTasks; ++number) {
                PostToMainQueue([&numbers, number] { numbers.push_back(number); });
            }
        });
    }

    std::size_t delivered = 0;
    while (delivered < kThreads * kTasks) {
        ASSERT_TRUE(MainQueue::Wait(milliseconds(60'000)));
        delivered += MainQueue::Dispatch();
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    for (const std::vector<int>& numbers : orders) {
        ASSERT_EQ(numbers.size(), std::size_t{kTasks});
        for (int number = 0; number < kTasks; ++number) {
            ASSERT_EQ(numbers[static_cast<std::size_t>(number)], number);
        }
    }
}

TEST_F(MainQueueTest, TheDescriptorIsAlwaysTheSameAndReadableWhileSomethingWaits) {
    const int descriptor = MainQueue::Descriptor();
    ASSERT_GE(descriptor, 0);
    EXPECT_FALSE(Readable());

    Post("a");
    EXPECT_TRUE(Readable());
    MainQueue::Dispatch();

    EXPECT_FALSE(Readable());
    EXPECT_EQ(MainQueue::Descriptor(), descriptor);
}

TEST_F(MainQueueTest, ADispatchRunsOnlyWhatWaitedWhenItWasCalled) {
    PostToMainQueue([this] {
        order.push_back("a");
        Post("c");
    });
    Post("b");

    EXPECT_EQ(MainQueue::Dispatch(), 2U);
    EXPECT_EQ(order, (Order{"a", "b"}));
    EXPECT_TRUE(Readable());
    EXPECT_EQ(MainQueue::Dispatch(), 1U);
    EXPECT_EQ(order, (Order{"a", "b", "c"}));
    EXPECT_FALSE(Readable());
}

TEST_F(MainQueueTest, ANestedDispatchDeliversWhatCameAfterItsNotification) {
    std::size_t nested = 0;
    PostToMainQueue([&] {
        order.push_back("a");
        Post("c");
        nested = MainQueue::Dispatch();
        order.push_back("a again");
    });
    Post("b");

    EXPECT_EQ(MainQueue::Dispatch(), 1U);
    EXPECT_EQ(nested, 2U);
    EXPECT_EQ(order, (Order{"a", "b", "c", "a again"}));
    EXPECT_FALSE(Readable());
}

TEST_F(MainQueueTest, AHostThatNeverDispatchesBlocksNobodyAndLosesNothing) {
    constexpr int kTasks = 10'000;
    int ran = 0;
    std::thread([&] {
        for (int task = 0; task < kTasks; ++task) {
            PostToMainQueue([&] { ++ran; });
        }
    }).join();

    EXPECT_EQ(ran, 0);
    EXPECT_EQ(MainQueue::Dispatch(), std::size_t{kTasks});
    EXPECT_EQ(ran, kTasks);
}

TEST_F(MainQueueTest, WaitEndsWithAPostAndWithTheTimeOut) {
    EXPECT_FALSE(MainQueue::Wait(milliseconds(1)));
    std::thread posting([this] { Post("a"); });

    EXPECT_TRUE(MainQueue::Wait(milliseconds(-1)));
    posting.join();
    EXPECT_EQ(MainQueue::Dispatch(), 1U);
}

TEST_F(MainQueueTest, AThrowingTaskIsTracedAndTheNextOneRuns) {
    test::TraceCapture trace;
    PostToMainQueue([] { throw std::runtime_error("no luck"); });
    RealtimeTask realtime([] { throw 5; });
    realtime.Post();
    Post("a");

    EXPECT_EQ(MainQueue::Dispatch(), 3U);

    EXPECT_EQ(order, Order{"a"});
    ASSERT_EQ(trace.Lines().size(), 2U);
    EXPECT_NE(trace.Lines()[0].find("a task on the main queue threw: no luck"), std::string::npos);
    EXPECT_NE(trace.Lines()[1].find("something unknown"), std::string::npos);
}

TEST_F(MainQueueTest, ADeliveredTaskLetsGoOfWhatItHolds) {
    const auto held = std::make_shared<int>(1);
    PostToMainQueue([copy = held] { std::ignore = copy; });
    EXPECT_EQ(held.use_count(), 2);

    MainQueue::Dispatch();

    EXPECT_EQ(held.use_count(), 1);
}

TEST_F(MainQueueTest, ARealtimePostAllocatesNothingAndTouchesNoFile) {
    RealtimeTask realtime = MakeRealtime("realtime");
    const test::AllocationGuard allocations;
    const test::FileCallGuard fileCalls;

    {
        const RealtimeScope scope;
        for (std::size_t copy = 0; copy <= RealtimeTask::kCopies; ++copy) {
            realtime.Post();  // the last one finds no copy
        }
    }

    EXPECT_EQ(allocations.Count(), 0U);
    EXPECT_EQ(allocations.Frees(), 0U);
    EXPECT_EQ(fileCalls.Count(), 0U) << test::FileCallGuard::Last();
    EXPECT_EQ(MainQueue::Dispatch(), RealtimeTask::kCopies);
}

TEST_F(MainQueueTest, ARealtimeTaskWaitsInAsManyCopiesAsItHas) {
    RealtimeTask realtime = MakeRealtime("realtime");
    for (std::size_t copy = 0; copy < RealtimeTask::kCopies; ++copy) {
        EXPECT_TRUE(realtime.Post());
    }

    EXPECT_FALSE(realtime.Post());

    EXPECT_EQ(MainQueue::Dispatch(), 16U);
    EXPECT_EQ(order.size(), 16U);
    EXPECT_TRUE(realtime.Post());
    EXPECT_EQ(MainQueue::Dispatch(), 1U);
}

TEST_F(MainQueueTest, ACopyIsFreeAgainWhileItsTaskRuns) {
    std::size_t posted = 0;
    std::optional<RealtimeTask> realtime;
    realtime.emplace([&] {
        while (posted < RealtimeTask::kCopies && realtime->Post()) {
            ++posted;
        }
    });
    realtime->Post();

    EXPECT_EQ(MainQueue::Dispatch(), 1U);
    EXPECT_EQ(posted, 16U);
    EXPECT_EQ(MainQueue::Dispatch(), 16U);
}

TEST_F(MainQueueTest, WhatARealtimeTaskPostedIsDeliveredAfterItsEnd) {
    const auto held = std::make_shared<int>(1);
    {
        RealtimeTask realtime([this, copy = held] { order.push_back("realtime"); });
        realtime.Post();
        realtime.Post();
    }
    EXPECT_EQ(held.use_count(), 2);

    EXPECT_EQ(MainQueue::Dispatch(), 2U);

    EXPECT_EQ(order, (Order{"realtime", "realtime"}));
    EXPECT_EQ(held.use_count(), 1) << "the task is still there";
}

TEST_F(MainQueueTest, ARealtimeTaskMayEndItselfFromItsDelivery) {
    std::unique_ptr<RealtimeTask> realtime;
    realtime = std::make_unique<RealtimeTask>([&] {
        order.push_back("realtime");
        realtime.reset();
    });
    realtime->Post();

    EXPECT_EQ(MainQueue::Dispatch(), 1U);
    EXPECT_EQ(order, Order{"realtime"});
}

TEST_F(MainQueueTest, RealtimePostsOfOneThreadAndADispatcherLoseNothing) {
    constexpr int kPosts = 20'000;
    int ran = 0;  // on this thread only
    RealtimeTask realtime([&] { ++ran; });
    std::thread posting([&] {
        for (int posted = 0; posted < kPosts;) {
            const RealtimeScope scope;
            if (realtime.Post()) {
                ++posted;
            } else {
                std::this_thread::yield();
            }
        }
    });

    while (ran < kPosts) {
        ASSERT_TRUE(MainQueue::Wait(milliseconds(60'000)));
        MainQueue::Dispatch();
    }
    posting.join();

    EXPECT_EQ(ran, kPosts);
    MainQueue::Dispatch();  // a post may have been overtaken before its signal
    EXPECT_FALSE(Readable());
}

}  // namespace
}  // namespace vorrel
