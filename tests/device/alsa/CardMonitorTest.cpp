#include "device/alsa/CardMonitor.h"

#include <dlfcn.h>
#include <libudev.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "device/alsa/MockedCards.h"
#include "platform/Mutex.h"

namespace {

// What the functions below, which take the place of libudev's, are to do.
std::atomic<bool> eventsAreLost{false};      // the next look for an event
std::atomic<const char*> withoutSource{""};  // "kernel", "udev", "both"

template <class Function>
Function Original(Function, const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" udev_device* udev_monitor_receive_device(udev_monitor* monitor) {
    static const auto original =
        Original(&udev_monitor_receive_device, "udev_monitor_receive_device");
    udev_device* const device = original(monitor);
    if (!eventsAreLost.exchange(false)) {
        return device;
    }
    ::udev_device_unref(device);
    errno = ENOBUFS;
    return nullptr;
}

extern "C" udev_monitor* udev_monitor_new_from_netlink(udev* library, const char* name) {
    static const auto original =
        Original(&udev_monitor_new_from_netlink, "udev_monitor_new_from_netlink");
    const std::string_view without = withoutSource.load();
    return without == "both" || without == name ? nullptr : original(library, name);
}

namespace vorrel {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// Keeps events and lets a test wait for one.
class Events {
public:
    void Add(const CardEvent& event) {
        const MutexLock lock(mutex);
        events.push_back(event);
        changed.NotifyAll();
    }
    bool WaitFor(CardEvent::Kind kind, const std::string& systemPath) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        const MutexLock lock(mutex);
        while (std::none_of(events.begin(), events.end(), [&](const CardEvent& event) {
            return event.kind == kind && event.systemPath == systemPath;
        })) {
            if (std::chrono::steady_clock::now() >= end) {
                return false;
            }
            changed.WaitFor(mutex, std::chrono::milliseconds(200));
        }
        return true;
    }

private:
    Mutex mutex;
    ConditionVariable changed;
    std::vector<CardEvent> events VORREL_GUARDED_BY(mutex);
};

class CardMonitorTest : public test::MockedCards {
protected:
    void TearDown() override {
        eventsAreLost = false;
        withoutSource = "";
    }

    Events events;
    CardMonitor::Listener listener = [this](const CardEvent& event) {
        events.Add(event);
        return true;
    };
};

TEST_F(CardMonitorTest, TellsWhichCardWasRemoved) {
    system->Add(Recorder());
    system->Add(SecondRecorder());
    CardMonitor monitor(listener);
    ASSERT_TRUE(monitor.IsListening());

    system->Remove(SecondRecorder());

    EXPECT_TRUE(
        events.WaitFor(CardEvent::Kind::Removed, test::MockedSystem::CardPath(SecondRecorder())));
}

TEST_F(CardMonitorTest, TellsWhichCardWasAddedOrChanged) {
    CardMonitor monitor(listener);
    system->Add(Recorder());

    system->SendEvent(Recorder(), "change");

    EXPECT_TRUE(events.WaitFor(CardEvent::Kind::Added, test::MockedSystem::CardPath(Recorder())));
}

TEST_F(CardMonitorTest, AListenerThatThrowsIsCalledAgain) {
    bool first = true;
    system->Add(Recorder());
    CardMonitor monitor([&](const CardEvent& event) {
        if (std::exchange(first, false)) {
            throw std::runtime_error("first");
        }
        events.Add(event);
        return true;
    });

    system->SendEvent(Recorder(), "change");
    system->SendEvent(Recorder(), "change");

    EXPECT_TRUE(events.WaitFor(CardEvent::Kind::Added, test::MockedSystem::CardPath(Recorder())));
}

TEST_F(CardMonitorTest, WhatTheListenerCouldNotDoIsAskedForAgainThoughNothingElseHappens) {
    system->Add(Recorder());
    std::atomic<int> failures = 0;
    CardMonitor monitor([&](const CardEvent& event) {
        if (event.kind == CardEvent::Kind::Removed) {
            ++failures;
            return false;
        }
        events.Add(event);
        return true;
    });

    system->Remove(Recorder());

    EXPECT_TRUE(events.WaitFor(CardEvent::Kind::Lost, ""));
    EXPECT_GE(failures, 1);
}

TEST_F(CardMonitorTest, TellsWhenEventsWereLostAndGoesOn) {
    system->Add(Recorder());
    CardMonitor monitor(listener);
    eventsAreLost = true;

    system->SendEvent(Recorder(), "change");

    EXPECT_TRUE(events.WaitFor(CardEvent::Kind::Lost, ""));
    system->SendEvent(Recorder(), "change");
    EXPECT_TRUE(events.WaitFor(CardEvent::Kind::Added, test::MockedSystem::CardPath(Recorder())));
}

TEST_F(CardMonitorTest, OneOfBothSourcesIsEnough) {
    system->Add(Recorder());
    for (const char* source : {"kernel", "udev"}) {
        SCOPED_TRACE(source);
        withoutSource = source;
        Events heard;
        CardMonitor monitor([&heard](const CardEvent& event) {
            heard.Add(event);
            return true;
        });
        ASSERT_TRUE(monitor.IsListening());

        system->SendEvent(Recorder(), "change");

        EXPECT_TRUE(
            heard.WaitFor(CardEvent::Kind::Added, test::MockedSystem::CardPath(Recorder())));
    }
    EXPECT_THAT(trace.Lines(), IsEmpty());
}

TEST_F(CardMonitorTest, WithoutAnySourceItSaysSoAndTellsNothing) {
    withoutSource = "both";

    const CardMonitor monitor(listener);

    EXPECT_FALSE(monitor.IsListening());
    EXPECT_THAT(trace.Lines(), ElementsAre(HasSubstr("the system tells nothing of sound cards")));
}

TEST_F(CardMonitorTest, EndsAtOnceWithoutAnEvent) {
    for (int count = 0; count < 20; ++count) {
        const CardMonitor monitor(listener);
    }
    EXPECT_THAT(trace.Lines(), IsEmpty());
}

}  // namespace
}  // namespace vorrel
