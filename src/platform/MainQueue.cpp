#include "vorrel/MainQueue.h"

#include <array>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>

#include "platform/GuardedTask.h"
#include "platform/MainQueueTasks.h"
#include "platform/NotificationQueue.h"

namespace vorrel {

namespace {

constexpr const char* kQueueName = "the main queue";

VORREL_REALTIME NotificationQueue& TheQueue() {
    // Never destroyed: threads post, and what they posted may wait, until the process is gone. In
    // memory that is there, because the first use may be in a function that cannot fail.
    alignas(NotificationQueue) static std::array<std::byte, sizeof(NotificationQueue)> memory;
    static NotificationQueue& queue = *new (memory.data()) NotificationQueue;
    return queue;
}

class OrdinaryTask final : public NotificationQueue::Node {
public:
    explicit OrdinaryTask(std::function<void()> toRun) : task(std::move(toRun)) {}

private:
    void Deliver() noexcept override {
        const std::unique_ptr<OrdinaryTask> self(this);
        RunGuarded(task, kQueueName);
    }

    std::function<void()> task;
};

}  // namespace

int MainQueue::Descriptor() noexcept {
    return TheQueue().Descriptor();
}

std::size_t MainQueue::Dispatch() noexcept {
    return TheQueue().Dispatch();
}

bool MainQueue::Wait(std::chrono::milliseconds timeout) noexcept {
    return TheQueue().Wait(timeout);
}

void PostToMainQueue(std::function<void()> task) {
    auto node = std::make_unique<OrdinaryTask>(std::move(task));
    TheQueue().Post(*node.release());  // destroys itself when it is delivered
}

struct RealtimeTask::Copies {
    class Copy final : public NotificationQueue::Node {
    public:
        std::atomic<bool> waits{false};
        std::shared_ptr<Copies> owner;  // while it waits

    private:
        void Deliver() noexcept override {
            // Free before the task runs: all copies may wait while it does.
            const std::shared_ptr<Copies> kept = std::move(owner);
            waits.store(false, std::memory_order_release);
            RunGuarded(kept->task, kQueueName);
        }
    };

    std::function<void()> task;
    std::array<Copy, kCopies> all;
};

RealtimeTask::RealtimeTask(std::function<void()> task) : copies(std::make_shared<Copies>()) {
    copies->task = std::move(task);
    TheQueue();  // made here, so that no post makes it
}

RealtimeTask::~RealtimeTask() = default;

bool RealtimeTask::Post() noexcept {
    for (Copies::Copy& copy : copies->all) {
        if (!copy.waits.exchange(true, std::memory_order_acquire)) {
            copy.owner = copies;
            TheQueue().Post(copy);
            return true;
        }
    }
    return false;
}

}  // namespace vorrel
