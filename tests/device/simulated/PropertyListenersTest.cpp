#include "device/backend/PropertyListeners.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>

#include "device/simulated/ManualClock.h"
#include "device/simulated/SimulatedFixture.h"
#include "support/NoNewThreads.h"
#include "support/TraceCapture.h"
#include "support/WaitingCall.h"

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

TEST_F(PropertyListenersTest, EachRaiseOfASignalCallsTheListenersOnce) {
    Add(first, kOverload);
    Add(second, kAlive);
    const std::shared_ptr<PropertySignal> signal =
        listeners.MakeSignal(kObject, kAudioDeviceProcessorOverload);

    signal->Raise();
    signal->Raise();
    signal->Raise();
    listeners.Flush();

    EXPECT_EQ(first.calls, 3);
    EXPECT_EQ(second.calls, 0);
}

TEST_F(PropertyListenersTest, WhatASignalRaisedBeforeItWasGivenUpIsStillTold) {
    Add(first, kOverload);
    listeners.MakeSignal(kObject, kAudioDeviceProcessorOverload)->Raise();

    listeners.Flush();

    EXPECT_EQ(first.calls, 1);
}

TEST(PropertySignalTest, MayOutliveItsListeners) {
    std::shared_ptr<PropertySignal> signal;
    {
        PropertyListeners listeners;
        signal = listeners.MakeSignal(kObject, kAudioDeviceProcessorOverload);
    }

    signal->Raise();
}

TEST_F(PropertyListenersTest, WithoutAThreadThereIsNoSignal) {
    const test::NoNewThreads none;

    EXPECT_THROW(listeners.MakeSignal(kObject, kAudioDeviceProcessorOverload), std::exception);
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
    int calls = 0;
    test::WaitingCall removal([&] {
        Remove(first, kAlive);
        calls = first.calls;
    });
    while (listeners.Count() > 0) {
        std::this_thread::yield();
    }

    EXPECT_TRUE(removal.Waits());
    go.set_value();

    removal.Join();
    EXPECT_EQ(calls, 1);
}

TEST_F(PropertyListenersTest, WhatIsStillDueIsDeliveredBeforeTheyGo) {
    {
        PropertyListeners going;
        going.Add(kObject, kAlive, &CountingListener::Proc, &first);
        for (int i = 0; i < 100; ++i) {
            going.Notify(kObject, kAudioDevicePropertyDeviceIsAlive);
        }
    }

    EXPECT_EQ(first.calls, 100);
}

TEST_F(PropertyListenersTest, AListenerMayDestroyThem) {
    auto going = std::make_unique<PropertyListeners>();
    std::promise<void> go;
    first.onCall = [&going, future = go.get_future().share()] {
        future.wait();
        going.reset();
    };
    going->Add(kObject, kAlive, &CountingListener::Proc, &first);
    going->Add(kObject, kAlive, &CountingListener::Proc, &second);
    going->Notify(kObject, kAudioDevicePropertyDeviceIsAlive);

    go.set_value();
    while (first.calls == 0) {
        std::this_thread::yield();
    }

    EXPECT_EQ(going, nullptr);
    EXPECT_EQ(second.calls, 0);
}

TEST_F(PropertyListenersTest, WithoutAThreadThereIsNoListener) {
    {
        const test::NoNewThreads none;

        EXPECT_THROW(Add(first, kAlive), std::exception);
    }

    EXPECT_EQ(listeners.Count(), 0U);
    Add(first, kAlive);
    listeners.Notify(kObject, kAudioDevicePropertyDeviceIsAlive);
    listeners.Flush();
    EXPECT_EQ(first.calls, 1);
}

TEST_F(PropertyListenersTest, TheFirstNotificationNeedsNoThreadOfItsOwn) {
    test::TraceCapture trace;
    Add(first, kAlive);
    const test::NoNewThreads none;

    listeners.Notify(kObject, kAudioDevicePropertyDeviceIsAlive);
    listeners.Flush();

    EXPECT_EQ(first.calls, 1);
    EXPECT_THAT(trace.Lines(), testing::IsEmpty());
}

TEST_F(PropertyListenersTest, ListenersTakeTurnsInTheOrderOfTheChanges) {
    std::string calls;
    std::promise<void> go;
    first.onCall = [&calls, future = go.get_future().share()] {
        future.wait();
        calls += 'a';
    };
    second.onCall = [&calls] { calls += 'o'; };
    Add(second, kOverload);
    Add(first, kAlive);

    listeners.Notify(kObject, kAudioDevicePropertyDeviceIsAlive);
    listeners.Notify(kObject, kAudioDeviceProcessorOverload);
    listeners.Notify(kObject, kAudioDevicePropertyDeviceIsAlive);
    listeners.Notify(kObject, kAudioDeviceProcessorOverload);
    go.set_value();
    listeners.Flush();

    EXPECT_EQ(calls, "aoao");
}

TEST_F(PropertyListenersTest, OneThatIsAddedAnewIsNotCalledForWhatWasNotifiedBefore) {
    std::promise<void> go;
    first.onCall = [future = go.get_future().share()] { future.wait(); };
    Add(first, kAlive);
    Add(second, kAlive);
    listeners.Notify(kObject, kAudioDevicePropertyDeviceIsAlive);

    EXPECT_TRUE(Remove(second, kAlive));
    Add(second, kAlive);
    go.set_value();
    listeners.Flush();

    EXPECT_EQ(second.calls, 0);
}

TEST_F(PropertyListenersTest, WhatAListenerThrowsIsTracedAndTheOthersAreCalled) {
    test::TraceCapture trace;
    first.onCall = [] { throw std::runtime_error("not today"); };
    Add(first, kAlive);
    Add(second, kAlive);

    listeners.Notify(kObject, kAudioDevicePropertyDeviceIsAlive);
    listeners.Flush();

    EXPECT_THAT(trace.Lines(), testing::ElementsAre(testing::HasSubstr("not today")));
    EXPECT_EQ(second.calls, 1);
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
