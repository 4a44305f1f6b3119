#include "platform/SerialQueue.h"

#include <utility>

#include "platform/GuardedTask.h"
#include "platform/ThreadPriority.h"

namespace vorrel {

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

void SerialQueue::Async(std::function<void()> task) {
    const MutexLock lock(mutex);
    tasks.push_back(std::move(task));
    // A queue that is closing has its thread, moved into the destructor.
    if (!thread.joinable() && !closing) {
        try {
            thread = std::thread([this] { Run(); });
        } catch (...) {
            tasks.pop_back();
            throw;
        }
    }
    condition.NotifyAll();
}

void SerialQueue::Sync(const std::function<void()>& task) {
    bool finished = false;  // under the mutex
    Async([this, &task, &finished] {
        RunGuarded(task, label.c_str());
        const MutexLock lock(mutex);
        finished = true;
        condition.NotifyAll();
    });
    const MutexLock lock(mutex);
    while (!finished) {
        condition.Wait(mutex);
    }
}

void SerialQueue::Run() {
    SetCurrentThreadName(label.c_str());
    for (;;) {
        std::function<void()> task;
        {
            const MutexLock lock(mutex);
            while (tasks.empty() && !closing) {
                condition.Wait(mutex);
            }
            if (tasks.empty()) {
                return;
            }
            task = std::move(tasks.front());
            tasks.pop_front();
        }
        // The task, and with it what it holds, goes before the next one runs.
        RunGuarded(task, label.c_str());
    }
}

}  // namespace vorrel
