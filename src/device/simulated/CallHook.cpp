#include "device/simulated/CallHook.h"

#include <utility>

namespace vorrel {

void CallHook::Before(std::uint64_t nth, std::function<void()> action) {
    const MutexLock lock(mutex);
    target = count + nth;
    pending = std::move(action);
}

std::uint64_t CallHook::Count() {
    const MutexLock lock(mutex);
    return count;
}

void CallHook::Pass() {
    std::function<void()> action;
    {
        const MutexLock lock(mutex);
        if (++count == target) {
            action = std::exchange(pending, nullptr);
        }
    }
    if (action) {
        action();
    }
}

}  // namespace vorrel
