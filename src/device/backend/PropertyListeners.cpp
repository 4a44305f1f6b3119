#include "device/backend/PropertyListeners.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <exception>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/GuardedTask.h"
#include "platform/Mutex.h"
#include "platform/ThreadPriority.h"

namespace vorrel {
namespace {

constexpr char kThreadName[] = "AudioNotify";

struct Listener {
    AudioObjectID object;
    AudioObjectPropertyAddress address;
    AudioObjectPropertyListenerProc proc;
    void* clientData;
};

/// A listener and the calls of it that are due. They are counted where it stands: making them due
/// takes no memory.
struct Registration {
    Listener listener;
    std::uint64_t due = 0;
    std::uint64_t turn = 0;  // the oldest turn among those that are due is served next
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
    std::vector<Registration>::iterator Find(const Listener& wanted) VORREL_REQUIRES(mutex) {
        return std::find_if(listeners.begin(), listeners.end(),
                            [&wanted](const Registration& registration) {
                                return Same(registration.listener, wanted);
                            });
    }
    /// Makes the calls of a change due.
    void Due(AudioObjectID object, AudioObjectPropertySelector selector, std::uint64_t times = 1)
        VORREL_REQUIRES(mutex) {
        for (Registration& registration : listeners) {
            if (registration.listener.object == object &&
                registration.listener.address.mSelector == selector) {
                if (registration.due == 0) {
                    registration.turn = ++lastTurn;
                }
                registration.due += times;
                notified += times;
            }
        }
    }
    /// Makes due what signals were raised for.
    void CollectSignals() VORREL_REQUIRES(mutex) {
        for (const std::shared_ptr<Signal>& signal : signals) {
            if (const std::uint32_t times = signal->raised.exchange(0, std::memory_order_acquire);
                times > 0) {
                Due(signal->object, signal->selector, times);
            }
        }
        std::erase_if(signals, [](const std::shared_ptr<Signal>& signal) {
            // Only this list holds it: nobody can raise it any more.
            return signal.use_count() == 1 && signal->raised.load() == 0;
        });
    }
    /// Waits for a call that is due. @return false at the end.
    bool Next(Listener& next) VORREL_EXCLUDES(mutex);
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
    std::vector<Registration> listeners VORREL_GUARDED_BY(mutex);
    std::vector<std::shared_ptr<Signal>> signals VORREL_GUARDED_BY(mutex);
    std::uint64_t lastTurn VORREL_GUARDED_BY(mutex) = 0;
    std::uint64_t notified VORREL_GUARDED_BY(mutex) = 0;  // calls that became due so far
    std::uint64_t settled VORREL_GUARDED_BY(mutex) = 0;   // of these, made or dropped
    bool calling VORREL_GUARDED_BY(mutex) = false;
    Listener called VORREL_GUARDED_BY(mutex) = {};
    bool closing VORREL_GUARDED_BY(mutex) = false;
    std::thread thread VORREL_GUARDED_BY(mutex);
    std::thread::id caller VORREL_GUARDED_BY(mutex);
};

bool PropertyListeners::State::Next(Listener& next) {
    for (;;) {
        // Read before the look: what is raised or notified during it ends the wait at once.
        const std::uint32_t seen = wake->count.load(std::memory_order_acquire);
        {
            const MutexLock lock(mutex);
            CollectSignals();
            Registration* first = nullptr;
            for (Registration& registration : listeners) {
                if (registration.due > 0 && (first == nullptr || registration.turn < first->turn)) {
                    first = &registration;
                }
            }
            if (first != nullptr) {
                --first->due;
                first->turn = ++lastTurn;  // the others that wait come before its next call
                next = first->listener;
                calling = true;
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
    while (Next(next)) {
        RunGuarded([&next] { next.proc(next.object, 1, &next.address, next.clientData); },
                   kThreadName);
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
            for (Registration& registration : state->listeners) {
                registration.due = 0;
            }
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
    if (state->Find(added) != state->listeners.end()) {
        return;
    }
    state->listeners.push_back({added});
    try {
        state->StartThread(state);
    } catch (const std::exception&) {
        state->listeners.pop_back();
        throw;
    }
}

bool PropertyListeners::Remove(AudioObjectID object, const AudioObjectPropertyAddress& address,
                               AudioObjectPropertyListenerProc listener, void* clientData) {
    const Listener removed{object, address, listener, clientData};
    const MutexLock lock(state->mutex);
    const auto found = state->Find(removed);
    const bool registered = found != state->listeners.end();
    if (registered) {
        state->settled += found->due;
        state->listeners.erase(found);
        state->callEnded.NotifyAll();
    }
    while (state->calling && state->caller != std::this_thread::get_id() &&
           Same(state->called, removed)) {
        state->callEnded.Wait(state->mutex);
    }
    return registered;
}

void PropertyListeners::Notify(AudioObjectID object,
                               AudioObjectPropertySelector selector) noexcept {
    const MutexLock lock(state->mutex);
    state->Due(object, selector);
    state->wake->Notify();
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
                       [object](const Registration& registration) {
                           return registration.listener.object == object;
                       });
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
