#include "platform/SerialQueue.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <latch>
#include <numeric>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/TraceCapture.h"

namespace vorrel {
namespace {

std::vector<int> OneTo(int last) {
    std::vector<int> numbers(static_cast<std::size_t>(last));
    std::iota(numbers.begin(), numbers.end(), 1);
    return numbers;
}

/// By name, because a sanitizer may start a thread of its own at any moment.
int ThreadsNamed(const std::string& name) {
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string line;
        std::getline(std::ifstream(task.path() / "comm"), line);
        count += line == name ? 1 : 0;
    }
    return count;
}

/// Tells that its thread has ended.
struct AtThreadEnd {
    bool* ended = nullptr;
    ~AtThreadEnd() {
        if (ended != nullptr) {
            *ended = true;
        }
    }
};
thread_local AtThreadEnd atThreadEnd;

TEST(SerialQueueTest, RunsTasksInOrderOfSubmission) {
    std::vector<int> order;
    {
        SerialQueue queue("test");
        for (int task = 1; task <= 100; ++task) {
            queue.Async([&order, task] { order.push_back(task); });
        }
    }

    EXPECT_EQ(order, OneTo(100));
}

TEST(SerialQueueTest, KeepsTheOrderOfEachOfSeveralThreads) {
    constexpr int kThreads = 3;
    constexpr int kTasks = 200;
    std::array<std::vector<int>, kThreads> orders;
    {
        SerialQueue queue("test");
        std::vector<std::thread> threads;
        for (std::vector<int>& order : orders) {
            threads.emplace_back([&queue, &order] {
                for (int task = 1; task <= kTasks; ++task) {
                    queue.Async([&order, task] { order.push_back(task); });
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    for (const std::vector<int>& order : orders) {
        EXPECT_EQ(order, OneTo(kTasks));
    }
}

TEST(SerialQueueTest, TheThreadBeginsWithTheFirstTask) {
    SerialQueue queue("begins");
    EXPECT_EQ(ThreadsNamed("begins"), 0);

    queue.Sync([] { EXPECT_EQ(ThreadsNamed("begins"), 1); });
}

TEST(SerialQueueTest, AllTasksRunOnOneThreadThatIsNotTheCallers) {
    SerialQueue queue("test");
    std::set<std::thread::id> threads;

    for (int task = 0; task < 10; ++task) {
        queue.Async([&] { threads.insert(std::this_thread::get_id()); });
        queue.Sync([&] { threads.insert(std::this_thread::get_id()); });
    }

    EXPECT_EQ(threads.size(), 1U);
    EXPECT_EQ(threads.count(std::this_thread::get_id()), 0U);
}

TEST(SerialQueueTest, TheThreadBearsTheLabel) {
    SerialQueue queue("RecHelperQueue");
    std::array<char, 32> name{};

    queue.Sync([&] { ::pthread_getname_np(::pthread_self(), name.data(), name.size()); });

    EXPECT_STREQ(name.data(), "RecHelperQueue");
}

TEST(SerialQueueTest, AsyncReturnsWhileTheTaskRuns) {
    SerialQueue queue("test");
    std::latch release(1);
    std::atomic<bool> done{false};

    queue.Async([&] {
        release.wait();  // forever, if Async waited for the task
        done = true;
    });
    release.count_down();
    queue.Sync([] {});

    EXPECT_TRUE(done);
}

TEST(SerialQueueTest, SyncReturnsAfterItsTaskAndAllBeforeIt) {
    SerialQueue queue("test");
    std::vector<int> order;
    for (int task = 1; task <= 50; ++task) {
        queue.Async([&order, task] { order.push_back(task); });
    }

    queue.Sync([&] { order.push_back(51); });

    EXPECT_EQ(order, OneTo(51));
}

TEST(SerialQueueTest, APreparedTaskTakesItsPlaceWhenItIsQueued) {
    SerialQueue queue("test");
    std::vector<int> order;
    SerialQueue::Prepared third = queue.Prepare([&] { order.push_back(3); });
    SerialQueue::Prepared second = queue.Prepare([&] { order.push_back(2); });
    queue.Sync([&] { order.push_back(1); });

    queue.Async(std::move(second));
    queue.Sync(std::move(third));

    EXPECT_EQ(order, OneTo(3));
}

TEST(SerialQueueTest, APreparedTaskThatIsNotQueuedNeverRuns) {
    bool ran = false;
    {
        SerialQueue queue("test");
        const SerialQueue::Prepared prepared = queue.Prepare([&] { ran = true; });
        queue.Sync([] {});
    }

    EXPECT_FALSE(ran);
}

TEST(SerialQueueTest, SeveralThreadsMayWaitInSync) {
    SerialQueue queue("test");
    std::atomic<int> ran{0};
    std::vector<std::thread> threads;
    std::atomic<bool> returnedEarly{false};

    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            for (int task = 0; task < 50; ++task) {
                bool done = false;
                queue.Sync([&] {
                    done = true;
                    ++ran;
                });
                if (!done) {
                    returnedEarly = true;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(ran, 200);
    EXPECT_FALSE(returnedEarly);
}

TEST(SerialQueueTest, TheDestructorRunsWhatIsQueued) {
    std::vector<int> order;
    std::latch release(1);
    {
        std::optional<SerialQueue> queue;
        queue.emplace("test");
        queue->Async([&] { release.wait(); });
        for (int task = 1; task <= 20; ++task) {
            queue->Async([&order, task] { order.push_back(task); });
        }
        release.count_down();
        queue.reset();
    }

    EXPECT_EQ(order, OneTo(20));
}

TEST(SerialQueueTest, TheDestructorRunsWhatTheLastTasksSubmit) {
    std::vector<int> order;
    {
        SerialQueue queue("test");
        queue.Async([&] {
            order.push_back(1);
            queue.Async([&] {
                order.push_back(2);
                queue.Async([&] { order.push_back(3); });
            });
        });
    }

    EXPECT_EQ(order, OneTo(3));
}

TEST(SerialQueueTest, CloseRunsWhatIsQueuedAndEndsTheThread) {
    std::vector<int> order;
    bool ended = false;
    SerialQueue queue("test");
    queue.Async([&ended] { atThreadEnd.ended = &ended; });
    for (int task = 1; task <= 20; ++task) {
        queue.Async([&order, task] { order.push_back(task); });
    }

    queue.Close();

    EXPECT_EQ(order, OneTo(20));
    EXPECT_TRUE(ended);
    queue.Async([&order] { order.push_back(21); });
    queue.Close();
    EXPECT_EQ(order, OneTo(20)) << "what comes after the close is not run";
}

TEST(SerialQueueTest, AfterTheCloseSyncReturnsAtOnceAndItsTaskIsDropped) {
    SerialQueue queue("test");
    SerialQueue::Prepared prepared = queue.Prepare([] { ADD_FAILURE() << "prepared"; });
    queue.Close();
    const auto held = std::make_shared<int>(1);

    queue.Sync([copy = held] { ADD_FAILURE() << *copy; });
    queue.Async([copy = held] { ADD_FAILURE() << *copy; });
    queue.Sync(std::move(prepared));

    EXPECT_EQ(held.use_count(), 1);
    queue.Close();
}

TEST(SerialQueueTest, AQueueThatIsClosedWithoutATaskTakesNone) {
    SerialQueue queue("test");
    queue.Close();

    queue.Sync([] { ADD_FAILURE(); });
}

TEST(SerialQueueTest, SyncReturnsWhetherItMeetsTheCloseOrNot) {
    for (int round = 0; round < 50; ++round) {
        SerialQueue queue("test");
        std::latch release(1);
        queue.Async([&] { release.wait(); });
        std::thread waiting([&] {
            for (int task = 0; task < 20; ++task) {
                queue.Sync([] {});
            }
        });
        std::thread ending([&] { queue.Close(); });

        release.count_down();

        waiting.join();
        ending.join();
    }
}

TEST(SerialQueueTest, WhatATaskSubmitsWhileTheQueueClosesStillRuns) {
    SerialQueue queue("test");
    std::latch release(1);
    bool ran = false;
    queue.Async([&] {
        release.wait();
        queue.Async([&] { ran = true; });
    });
    std::thread ending([&] { queue.Close(); });
    release.count_down();
    ending.join();

    EXPECT_TRUE(ran);
}

TEST(SerialQueueTest, AnUnusedQueueEndsAtOnce) {
    const SerialQueue queue("test");
}

TEST(SerialQueueTest, AThrowingTaskIsTracedAndTheNextOneRuns) {
    test::TraceCapture trace;
    bool ran = false;
    {
        SerialQueue queue("test");
        queue.Async([] { throw std::runtime_error("no luck"); });
        queue.Async([] { throw 5; });
        queue.Sync([] { throw std::runtime_error("no luck in Sync"); });
        queue.Async([&] { ran = true; });
    }

    EXPECT_TRUE(ran);
    ASSERT_EQ(trace.Lines().size(), 3U);
    EXPECT_NE(trace.Lines()[0].find("a task on test threw: no luck"), std::string::npos);
    EXPECT_NE(trace.Lines()[1].find("something unknown"), std::string::npos);
    EXPECT_NE(trace.Lines()[2].find("no luck in Sync"), std::string::npos);
}

TEST(SerialQueueTest, ATaskAndWhatItHoldsGoBeforeTheNextRuns) {
    SerialQueue queue("test");
    const auto held = std::make_shared<int>(1);
    long uses = 0;

    queue.Async([copy = held] { std::ignore = copy; });
    queue.Sync([&] { uses = held.use_count(); });

    EXPECT_EQ(uses, 1);
}

}  // namespace
}  // namespace vorrel
