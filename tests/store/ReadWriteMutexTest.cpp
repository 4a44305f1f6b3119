#include "store/ReadWriteMutex.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace vorrel::test {
namespace {

using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""min;

/// Readers of whom each hands on to another that has begun: somebody reads at any time.
class Relay {
public:
    /// Reads until the next one does, or for as long as it takes to see that none can.
    void Read(ReadWriteMutex& mutex) {
        bool goOn = true;
        while (goOn) {
            const SharedLock reading(mutex);
            std::unique_lock lock(state);
            const std::size_t turn = ++turns;
            changed.notify_all();
            changed.wait_for(lock, 20ms, [&] { return ended || turns > turn; });
            goOn = !ended;
        }
    }
    void AwaitTurns(std::size_t count) {
        std::unique_lock lock(state);
        changed.wait(lock, [&] { return turns >= count; });
    }
    /// @return false when nobody ended it for a minute.
    bool AwaitEnd() {
        std::unique_lock lock(state);
        return changed.wait_for(lock, 1min, [&] { return ended; });
    }
    void End() {
        const std::lock_guard lock(state);
        ended = true;
        changed.notify_all();
    }

private:
    std::mutex state;
    std::condition_variable changed;
    std::size_t turns = 0;
    bool ended = false;
};

TEST(ReadWriteMutexTest, ReadersReadBesideEachOther) {
    ReadWriteMutex mutex;
    const SharedLock first(mutex);

    std::thread([&] { const SharedLock second(mutex); }).join();
}

TEST(ReadWriteMutexTest, AWriterIsServedAmongReadersWhoNeverRest) {
    ReadWriteMutex mutex;
    Relay relay;
    std::array<std::thread, 3> readers;
    for (std::thread& reader : readers) {
        reader = std::thread([&] { relay.Read(mutex); });
    }
    relay.AwaitTurns(10);

    std::thread writer([&] {
        const ExclusiveLock writing(mutex);
        relay.End();
    });

    EXPECT_TRUE(relay.AwaitEnd());
    relay.End();
    writer.join();
    for (std::thread& reader : readers) {
        reader.join();
    }
}

TEST(ReadWriteMutexTest, AWriterThatComesBackAtOnceLetsTheOneWhoWaitsGoFirst) {
    ReadWriteMutex mutex;
    std::mutex state;
    std::condition_variable changed;
    bool asking = false;
    bool served = false;
    int turnsMeanwhile = 0;
    std::thread worker([&] {
        std::unique_lock lock(state, std::defer_lock);
        for (bool goOn = true; goOn;) {
            const ExclusiveLock turn(mutex);
            lock.lock();
            changed.wait(lock, [&] { return asking; });
            changed.wait_for(lock, 10ms, [&] { return served; });
            goOn = !served && ++turnsMeanwhile < 1000;
            lock.unlock();
        }
    });
    {
        const std::lock_guard lock(state);
        asking = true;
        changed.notify_all();
    }
    {
        const ExclusiveLock turn(mutex);
        const std::lock_guard lock(state);
        served = true;
        changed.notify_all();
    }
    worker.join();

    // The one under way, and some for a processor that has other work.
    EXPECT_LT(turnsMeanwhile, 50);
}

}  // namespace
}  // namespace vorrel::test
