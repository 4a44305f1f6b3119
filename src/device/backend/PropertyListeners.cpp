#include "device/backend/PropertyListeners.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <deque>
#include <exception>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/GuardedTask.h"
#include "platform/Mutex.h"
#include "platform/ThreadPriority.h"
#include "platform/Trace.h"

namespace vorrel {
namespace {

constexpr char kThreadName[] = "AudioNotify";

struct Listener {
    AudioObjectID object;
    AudioObjectPropertyAddress address;
    AudioObjectPropertyListenerProc proc;
    void* clientData;
};

bool Same(const Listener& a, const Listener& b) {
    const auto key = [](const Listener& listener) {
        return std::tuple(listener.object, listener.address.mSelector, listener.address.mScope,
                          listener.address.mElement, listener.proc, listener.clientData);
    };
    return key(a) == key(b);
}

}  // namespace

/// Wakes the notification thread without a lock, so that a real-time thread can do it.
struct PropertyListeners::WakeUp {
    void Notify() noexcept {
        count.fetch_add(1, std::memory_order_release);
        count.notify_one();
    }
    std::atomic<std::uint32_t> count{0};
};

class PropertyListeners::Signal final : public PropertySignal {
public:
    Signal(AudioObjectID signalObject, AudioObjectPropertySelector signalSelector,
           std::shared_ptr<WakeUp> wakeUp)
        : object(signalObject), selector(signalSelector), wake(std::move(wakeUp)) {}

    VORREL_REALTIME void Raise() noexcept override {
        raised.fetch_add(1, std::memory_order_release);
        wake->Notify();
    }

    const AudioObjectID object;
    const AudioObjectPropertySelector selector;
    std::atomic<std::uint32_t> raised{0};

private:
    const std::shared_ptr<WakeUp> wake;
};

/// All that the notification thread touches; it outlives its owner when a listener destroys that.
struct PropertyListeners::State {
    std::vector<Listener>::iterator Find(const Listener& wanted) VORREL_REQUIRES(mutex) {
        return std::find_if(listeners.begin(), listeners.end(),
                            [&wanted](const Listener& listener) { return Same(listener, wanted); });
    }
    /// Makes the calls of a change due.
    void Due(AudioObjectID object, AudioObjectPropertySelector selector) VORREL_REQUIRES(mutex) {
        for (const Listener& listener : listeners) {
            if (listener.object == object && listener.address.mSelector == selector) {
                due.push_back(listener);
                ++notified;
            }
        }
    }
    /// Makes due what signals were raised for.
    void CollectSignals() noexcept VORREL_REQUIRES(mutex) {
        try {
            for (const std::shared_ptr<Signal>& signal : signals) {
                std::uint32_t times = signal->raised.exchange(0, std::memory_order_acquire);
                for (; times > 0; --times) {
                    Due(signal->object, signal->selector);
                }
            }
        } catch (const std::exception& error) {
            Trace(__FILE__, __LINE__, "a notification is lost: %s", error.what());
        }
        std::erase_if(signals, [](const std::shared_ptr<Signal>& signal) {
            // Only this list holds it: nobody can raise it any more.
            return signal.use_count() == 1 && signal->raised.load() == 0;
        });
    }
    /// Waits for a call that is due. @return false at the end.
    bool Next(Listener& next, bool& registered) VORREL_EXCLUDES(mutex);
    /// The notification thread.
    void Run() noexcept VORREL_EXCLUDES(mutex);
    void StartThread(const std::shared_ptr<State>& shared) VORREL_REQUIRES(mutex) {
        if (!thread.joinable()) {
            thread = std::thread([shared] { shared->Run(); });
        }
    }

    const std::shared_ptr<WakeUp> wake =
        std::make_shared<WakeUp>();  // something is due, or the end
    Mutex mutex;
    ConditionVariable callEnded;  // a call that was due has been made or dropped
    std::vector<Listener> listeners VORREL_GUARDED_BY(mutex);
    std::vector<std::shared_ptr<Signal>> signals VORREL_GUARDED_BY(mutex);
    std::deque<Listener> due VORREL_GUARDED_BY(mutex);
    std::uint64_t notified VORREL_GUARDED_BY(mutex) = 0;  // calls that became due so far
    std::uint64_t settled VORREL_GUARDED_BY(mutex) = 0;   // of these, made or dropped
    bool calling VORREL_GUARDED_BY(mutex) = false;
    Listener called VORREL_GUARDED_BY(mutex) = {};
    bool closing VORREL_GUARDED_BY(mutex) = false;
    std::thread thread VORREL_GUARDED_BY(mutex);
    std::thread::id caller VORREL_GUARDED_BY(mutex);
};

bool PropertyListeners::State::Next(Listener& next, bool& registered) {
    for (;;) {
        // Read before the look: what is raised or notified during it ends the wait at once.
        const std::uint32_t seen = wake->count.load(std::memory_order_acquire);
        {
            const MutexLock lock(mutex);
            CollectSignals();
            if (!due.empty()) {
                next = due.front();
                due.pop_front();
                registered = Find(next) != listeners.end();
                calling = registered;
                called = next;
                caller = std::this_thread::get_id();
                return true;
            }
            if (closing) {
                return false;
            }
        }
        wake->count.wait(seen, std::memory_order_acquire);
    }
}

void PropertyListeners::State::Run() noexcept {
    SetCurrentThreadName(kThreadName);
    Listener next{};
    bool registered = false;
    while (Next(next, registered)) {
        if (registered) {
            RunGuarded([&next] { next.proc(next.object, 1, &next.address, next.clientData); },
                       kThreadName);
        }
        const MutexLock lock(mutex);
        calling = false;
        ++settled;
        callEnded.NotifyAll();
    }
}

PropertyListeners::PropertyListeners() : state(std::make_shared<State>()) {}

PropertyListeners::~PropertyListeners() {
    std::thread ending;
    {
        const MutexLock lock(state->mutex);
        state->closing = true;
        ending = std::move(state->thread);
        if (ending.get_id() == std::this_thread::get_id()) {
            state->due.clear();
            state->signals.clear();
        }
        state->wake->Notify();
    }
    if (ending.get_id() == std::this_thread::get_id()) {
        ending.detach();  // it ends after this call, and holds the state until then
    } else if (ending.joinable()) {
        ending.join();
    }
}

void PropertyListeners::Add(AudioObjectID object, const AudioObjectPropertyAddress& address,
                            AudioObjectPropertyListenerProc listener, void* clientData) {
    const Listener added{object, address, listener, clientData};
    const MutexLock lock(state->mutex);
    if (state->Find(added) == state->listeners.end()) {
        state->listeners.push_back(added);
    }
}

bool PropertyListeners::Remove(AudioObjectID object, const AudioObjectPropertyAddress& address,
                               AudioObjectPropertyListenerProc listener, void* clientData) {
    const Listener removed{object, address, listener, clientData};
    const MutexLock lock(state->mutex);
    const auto found = state->Find(removed);
    const bool registered = found != state->listeners.end();
    if (registered) {
        state->listeners.erase(found);
    }
    while (state->calling && state->caller != std::this_thread::get_id() &&
           Same(state->called, removed)) {
        state->callEnded.Wait(state->mutex);
    }
    return registered;
}

void PropertyListeners::Notify(AudioObjectID object,
                               AudioObjectPropertySelector selector) noexcept {
    try {
        const MutexLock lock(state->mutex);
        try {
            state->Due(object, selector);
            if (!state->due.empty()) {
                state->StartThread(state);
            }
        } catch (const std::exception&) {
            if (!state->thread.joinable()) {
                // Nobody would make these calls.
                state->settled += state->due.size();
                state->due.clear();
            }
            state->wake->Notify();
            throw;
        }
        state->wake->Notify();
    } catch (const std::exception& error) {
        Trace(__FILE__, __LINE__, "a notification is lost: %s", error.what());
    }
}

std::shared_ptr<PropertySignal> PropertyListeners::MakeSignal(
    AudioObjectID object, AudioObjectPropertySelector selector) {
    auto signal = std::make_shared<Signal>(object, selector, state->wake);
    const MutexLock lock(state->mutex);
    state->signals.push_back(signal);
    try {
        state->StartThread(state);
    } catch (const std::exception&) {
        state->signals.pop_back();
        throw;
    }
    return signal;
}

std::size_t PropertyListeners::Count() {
    const MutexLock lock(state->mutex);
    return state->listeners.size();
}

bool PropertyListeners::HasAny(AudioObjectID object) {
    const MutexLock lock(state->mutex);
    return (state->calling && state->called.object == object) ||
           std::any_of(state->listeners.begin(), state->listeners.end(),
                       [object](const Listener& listener) { return listener.object == object; });
}

void PropertyListeners::Flush() {
    const MutexLock lock(state->mutex);
    state->CollectSignals();
    state->wake->Notify();
    const std::uint64_t target = state->notified;
    while (state->settled < target) {
        state->callEnded.Wait(state->mutex);
    }
}

}  // namespace vorrel
