#include "device/alsa/CardMonitor.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "device/alsa/MockedCards.h"
#include "platform/Mutex.h"

namespace vorrel {
namespace {

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
    Events events;
    CardMonitor::Listener listener = [this](const CardEvent& event) { events.Add(event); };
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
    });

    system->SendEvent(Recorder(), "change");
    system->SendEvent(Recorder(), "change");

    EXPECT_TRUE(events.WaitFor(CardEvent::Kind::Added, test::MockedSystem::CardPath(Recorder())));
}

TEST_F(CardMonitorTest, EndsAtOnceWithoutAnEvent) {
    for (int count = 0; count < 20; ++count) {
        const CardMonitor monitor(listener);
    }
    EXPECT_THAT(trace.Lines(), IsEmpty());
}

}  // namespace
}  // namespace vorrel
