#include "platform/NotificationQueue.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

namespace vorrel {
namespace {

using std::chrono::milliseconds;

class Task final : public NotificationQueue::Node {
public:
    explicit Task(std::function<void()> toRun) : task(std::move(toRun)) {}

private:
    void Deliver() noexcept override {
        const std::unique_ptr<Task> self(this);
        task();
    }
    std::function<void()> task;
};

void Post(NotificationQueue& queue, std::function<void()> task) {
    queue.Post(*std::make_unique<Task>(std::move(task)).release());
}

bool Readable(const NotificationQueue& queue) {
    pollfd polled{};
    polled.fd = queue.Descriptor();
    polled.events = POLLIN;
    return ::poll(&polled, 1, 0) == 1 && (polled.revents & POLLIN) != 0;
}

/// Each case with a descriptor and without one.
class NotificationQueueTest : public testing::TestWithParam<bool> {
protected:
    NotificationQueue queue{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(, NotificationQueueTest, testing::Bool(), [](const auto& tested) {
    return tested.param ? "Descriptor" : "NoDescriptor";
});

TEST_P(NotificationQueueTest, HasADescriptorOnlyWhereOneWasMade) {
    EXPECT_EQ(queue.Descriptor() >= 0, GetParam());
}

TEST_P(NotificationQueueTest, DeliversInOrderAndCounts) {
    std::vector<int> order;
    for (int number = 0; number < 5; ++number) {
        Post(queue, [&order, number] { order.push_back(number); });
    }

    EXPECT_EQ(queue.Dispatch(), 5U);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(queue.Dispatch(), 0U);
}

TEST_P(NotificationQueueTest, WaitAnswersWhetherSomethingWaits) {
    EXPECT_FALSE(queue.Wait(milliseconds(0)));
    EXPECT_FALSE(queue.Wait(milliseconds(1)));
    Post(queue, [] {});
    EXPECT_TRUE(queue.Wait(milliseconds(0)));
    EXPECT_TRUE(queue.Wait(milliseconds(-1)));
    EXPECT_TRUE(queue.Wait(milliseconds::max()));
    EXPECT_EQ(queue.Dispatch(), 1U);
    EXPECT_FALSE(queue.Wait(milliseconds(1)));
}

TEST_P(NotificationQueueTest, APostEndsAWaitOfAnotherThread) {
    for (const milliseconds timeout :
         {milliseconds(-1), milliseconds(60'000), milliseconds::max()}) {
        bool answer = false;
        std::thread waiting([&] { answer = queue.Wait(timeout); });
        Post(queue, [] {});
        waiting.join();
        EXPECT_TRUE(answer);
        EXPECT_EQ(queue.Dispatch(), 1U);
    }
}

TEST_P(NotificationQueueTest, SeveralThreadsMayWait) {
    std::atomic<int> answers{0};
    std::vector<std::thread> waiting;
    for (int thread = 0; thread < 3; ++thread) {
        waiting.emplace_back([&] { answers += queue.Wait(milliseconds(-1)) ? 1 : 0; });
    }

    Post(queue, [] {});
    for (std::thread& thread : waiting) {
        thread.join();
    }

    EXPECT_EQ(answers, 3);
    EXPECT_EQ(queue.Dispatch(), 1U);
}

TEST_P(NotificationQueueTest, WaitSeesWhatAnOuterDispatchHasYetToDeliver) {
    bool waits = false;
    bool waitsAtTheEnd = true;
    Post(queue, [&] { waits = queue.Wait(milliseconds(0)); });
    Post(queue, [&] { waitsAtTheEnd = queue.Wait(milliseconds(0)); });

    EXPECT_EQ(queue.Dispatch(), 2U);

    EXPECT_TRUE(waits);
    EXPECT_FALSE(waitsAtTheEnd);
}

TEST_P(NotificationQueueTest, NoWakeUpIsLostBetweenPostersAndTheDispatcher) {
    constexpr int kPosters = 3;
    constexpr int kPosts = 5'000;
    std::vector<std::vector<int>> orders(kPosters);
    std::vector<std::thread> posters;
    for (std::vector<int>& order : orders) {
        posters.emplace_back([this, &order] {
            for (int number = 0; number < kPosts; ++number) {
                Post(queue, [&order, number] { order.push_back(number); });
            }
        });
    }

    std::size_t delivered = 0;
    while (delivered < kPosters * kPosts) {
        // Only a wake-up leads to a dispatch: a lost one shows as a time-out.
        ASSERT_TRUE(queue.Wait(milliseconds(60'000)));
        delivered += queue.Dispatch();
    }
    for (std::thread& poster : posters) {
        poster.join();
    }

    EXPECT_EQ(delivered, std::size_t{kPosters * kPosts});
    for (const std::vector<int>& order : orders) {
        ASSERT_EQ(order.size(), std::size_t{kPosts});
        for (int number = 0; number < kPosts; ++number) {
            ASSERT_EQ(order[static_cast<std::size_t>(number)], number);
        }
    }
    EXPECT_EQ(queue.Dispatch(), 0U);
    EXPECT_FALSE(queue.Wait(milliseconds(0)));
}

TEST_P(NotificationQueueTest, TwoDispatchingThreadsShareTheWork) {
    constexpr int kPosts = 5'000;
    std::vector<std::atomic<int>> runs(kPosts);
    std::atomic<std::size_t> delivered{0};
    std::vector<std::thread> dispatchers;
    for (int thread = 0; thread < 2; ++thread) {
        dispatchers.emplace_back([&] {
            while (delivered < kPosts) {
                delivered += queue.Dispatch();
            }
        });
    }

    for (std::atomic<int>& run : runs) {
        Post(queue, [&run] { ++run; });
    }
    for (std::thread& dispatcher : dispatchers) {
        dispatcher.join();
    }

    EXPECT_EQ(delivered, std::size_t{kPosts});
    for (const std::atomic<int>& run : runs) {
        ASSERT_EQ(run, 1);
    }
}

/// A node that is posted again while it is delivered.
class Repeating final : public NotificationQueue::Node {
public:
    explicit Repeating(NotificationQueue& target) : queue(target) {}
    int runs = 0;

private:
    void Deliver() noexcept override {
        if (++runs < 3) {
            queue.Post(*this);
        }
    }
    NotificationQueue& queue;
};

TEST_P(NotificationQueueTest, ANodeMayBePostedAgainFromItsDelivery) {
    Repeating node(queue);
    queue.Post(node);

    EXPECT_EQ(queue.Dispatch(), 1U);
    EXPECT_EQ(queue.Dispatch(), 1U);
    EXPECT_EQ(queue.Dispatch(), 1U);
    EXPECT_EQ(queue.Dispatch(), 0U);
    EXPECT_EQ(node.runs, 3);
}

TEST(NotificationQueueDescriptorTest, IsReadableWhileSomethingWaits) {
    NotificationQueue queue;
    EXPECT_FALSE(Readable(queue));

    Post(queue, [] {});
    EXPECT_TRUE(Readable(queue));
    EXPECT_TRUE(Readable(queue));
    Post(queue, [] {});
    queue.Dispatch();

    EXPECT_FALSE(Readable(queue));
}

TEST(NotificationQueueDescriptorTest, IsReadableInsideADispatchWhileMoreWaits) {
    NotificationQueue queue;
    std::vector<bool> readable;
    for (int number = 0; number < 3; ++number) {
        Post(queue, [&] { readable.push_back(Readable(queue)); });
    }

    queue.Dispatch();

    EXPECT_EQ(readable, (std::vector<bool>{true, true, false}));
}

TEST(NotificationQueueDescriptorTest, StaysReadableForWhatCameDuringADispatch) {
    NotificationQueue queue;
    Post(queue, [&] { Post(queue, [] {}); });

    EXPECT_EQ(queue.Dispatch(), 1U);
    EXPECT_TRUE(Readable(queue));
    EXPECT_EQ(queue.Dispatch(), 1U);
    EXPECT_FALSE(Readable(queue));
}

TEST(NotificationQueueDescriptorTest, IsMinusOneWhenTheProcessCanOpenNoMore) {
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    rlimit none = limit;
    none.rlim_cur = 0;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);

    NotificationQueue queue;
    ::setrlimit(RLIMIT_NOFILE, &limit);

    EXPECT_EQ(queue.Descriptor(), -1);
    Post(queue, [] {});
    EXPECT_TRUE(queue.Wait(milliseconds(60'000)));
    EXPECT_EQ(queue.Dispatch(), 1U);
}

}  // namespace
}  // namespace vorrel
