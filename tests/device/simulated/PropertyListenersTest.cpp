#include "device/simulated/PropertyListeners.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "device/simulated/SimulatedFixture.h"

namespace vorrel {
namespace {

using test::CountingListener;
using test::Global;

constexpr AudioObjectID kObject = 7;
constexpr auto kAlive = Global(kAudioDevicePropertyDeviceIsAlive);
constexpr auto kOverload = Global(kAudioDeviceProcessorOverload);

class PropertyListenersTest : public testing::Test {
protected:
    void Add(CountingListener& listener, const AudioObjectPropertyAddress& address) {
        listeners.Add(kObject, address, &CountingListener::Proc, &listener);
    }
    bool Remove(CountingListener& listener, const AudioObjectPropertyAddress& address) {
        return listeners.Remove(kObject, address, &CountingListener::Proc, &listener);
    }

    CountingListener first;
    CountingListener second;
    PropertyListeners listeners;
};

TEST_F(PropertyListenersTest, CallsTheListenersOfThatObjectAndPropertyOnAnotherThread) {
    Add(first, kAlive);
    Add(second, kOverload);

    listeners.Notify(kObject, kAudioDevicePropertyDeviceIsAlive);
    listeners.Notify(kObject + 1, kAudioDeviceProcessorOverload);
    listeners.Flush();

    EXPECT_EQ(first.calls, 1);
    EXPECT_EQ(first.object, kObject);
    EXPECT_EQ(first.selector, kAudioDevicePropertyDeviceIsAlive);
    EXPECT_NE(first.thread.load(), std::this_thread::get_id());
    EXPECT_EQ(second.calls, 0);
}

TEST_F(PropertyListenersTest, TheSameListenerTwiceCountsOnce) {
    Add(first, kAlive);
    Add(first, kAlive);
    EXPECT_EQ(listeners.Count(), 1U);

    EXPECT_TRUE(Remove(first, kAlive));
    EXPECT_FALSE(Remove(first, kAlive));
}

TEST_F(PropertyListenersTest, OneThatIsRemovedIsNotCalledForWhatWasNotifiedBefore) {
    std::promise<void> go;
    first.onCall = [future = go.get_future().share()] { future.wait(); };
    Add(first, kAlive);
    Add(second, kAlive);
    listeners.Notify(kObject, kAudioDevicePropertyDeviceIsAlive);

    EXPECT_TRUE(Remove(second, kAlive));
    go.set_value();
    listeners.Flush();

    EXPECT_EQ(first.calls, 1);
    EXPECT_EQ(second.calls, 0);
}

TEST_F(PropertyListenersTest, RemovingWaitsForTheCallThatIsUnderWay) {
    std::promise<void> entered;
    std::promise<void> go;
    first.onCall = [&entered, future = go.get_future().share()] {
        entered.set_value();
        future.wait();
    };
    Add(first, kAlive);
    listeners.Notify(kObject, kAudioDevicePropertyDeviceIsAlive);
    entered.get_future().wait();
    std::atomic<int> callsWhenRemoved{-1};
    std::thread remover([&] {
        Remove(first, kAlive);
        callsWhenRemoved = first.calls.load();
    });

    go.set_value();
    remover.join();

    EXPECT_EQ(callsWhenRemoved, 1);
}

TEST_F(PropertyListenersTest, AListenerMayRemoveItself) {
    first.onCall = [this] { Remove(first, kAlive); };
    Add(first, kAlive);

    listeners.Notify(kObject, kAudioDevicePropertyDeviceIsAlive);
    listeners.Notify(kObject, kAudioDevicePropertyDeviceIsAlive);
    listeners.Flush();

    EXPECT_EQ(first.calls, 1);
    EXPECT_EQ(listeners.Count(), 0U);
}

}  // namespace
}  // namespace vorrel
