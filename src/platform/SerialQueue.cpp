#include "platform/SerialQueue.h"

#include <tuple>
#include <utility>

#include "platform/GuardedTask.h"
#include "platform/ThreadPriority.h"

namespace vorrel {
namespace {

// Whatever the class of the thread that submitted the first task: nobody waits for sound here.
constexpr double kNormalPriority = 0.5;

}  // namespace

SerialQueue::SerialQueue(std::string queueLabel) : label(std::move(queueLabel)) {}

SerialQueue::~SerialQueue() {
    Close();
}

void SerialQueue::Close() {
    std::thread ending;
    {
        const MutexLock lock(mutex);
        closing = true;
        ending = std::move(thread);
        condition.NotifyAll();
    }
    if (ending.joinable()) {
        ending.join();
    }
}

SerialQueue::Prepared SerialQueue::Prepare(std::function<void()> task) {
    Prepared prepared;
    prepared.task.push_back({std::move(task)});
    const MutexLock lock(mutex);
    // A queue that is closing has its thread, moved into the destructor.
    if (!thread.joinable() && !closing) {
        thread = std::thread([this] { Run(); });
        running = true;
    }
    return prepared;
}

/// @return false when there is nobody to run it any more: it stays where it is.
bool SerialQueue::Queue(std::list<Task>& task) noexcept {
    const MutexLock lock(mutex);
    if (!running) {
        return false;
    }
    tasks.splice(tasks.end(), task);
    condition.NotifyAll();
    return true;
}

void SerialQueue::Async(Prepared prepared) noexcept {
    std::ignore = Queue(prepared.task);
}

void SerialQueue::Sync(Prepared prepared) noexcept {
    bool finished = false;  // under the mutex
    prepared.task.front().finished = &finished;
    if (!Queue(prepared.task)) {
        return;
    }
    const MutexLock lock(mutex);
    while (!finished) {
        condition.Wait(mutex);
    }
}

void SerialQueue::Async(std::function<void()> task) {
    Async(Prepare(std::move(task)));
}

void SerialQueue::Sync(std::function<void()> task) {
    Sync(Prepare(std::move(task)));
}

void SerialQueue::Run() {
    SetCurrentThreadName(label.c_str());
    SetCurrentThreadPriority(kNormalPriority);
    for (;;) {
        std::list<Task> task;
        {
            const MutexLock lock(mutex);
            while (tasks.empty() && !closing) {
                condition.Wait(mutex);
            }
            if (tasks.empty()) {
                running = false;
                return;
            }
            task.splice(task.end(), tasks, tasks.begin());
        }
        RunGuarded(task.front().run, label.c_str());
        bool* const finished = task.front().finished;
        // The task, and with it what it holds, goes before the next one runs or `Sync` returns.
        task.clear();
        if (finished != nullptr) {
            const MutexLock lock(mutex);
            *finished = true;
            condition.NotifyAll();
        }
    }
}

}  // namespace vorrel
