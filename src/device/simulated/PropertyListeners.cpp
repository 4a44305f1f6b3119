#include "device/simulated/PropertyListeners.h"

#include <algorithm>
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

/// All that the notification thread touches; it outlives its owner when a listener destroys that.
struct PropertyListeners::State {
    std::vector<Listener>::iterator Find(const Listener& wanted) VORREL_REQUIRES(mutex) {
        return std::find_if(listeners.begin(), listeners.end(),
                            [&wanted](const Listener& listener) { return Same(listener, wanted); });
    }
    /// The notification thread.
    void Run() noexcept VORREL_EXCLUDES(mutex);

    Mutex mutex;
    ConditionVariable wake;       // something is due, or the end
    ConditionVariable callEnded;  // a call that was due has been made or dropped
    std::vector<Listener> listeners VORREL_GUARDED_BY(mutex);
    std::deque<Listener> due VORREL_GUARDED_BY(mutex);
    std::uint64_t notified VORREL_GUARDED_BY(mutex) = 0;  // calls that became due so far
    std::uint64_t settled VORREL_GUARDED_BY(mutex) = 0;   // of these, made or dropped
    bool calling VORREL_GUARDED_BY(mutex) = false;
    Listener called VORREL_GUARDED_BY(mutex) = {};
    bool closing VORREL_GUARDED_BY(mutex) = false;
    std::thread thread VORREL_GUARDED_BY(mutex);
    std::thread::id caller VORREL_GUARDED_BY(mutex);
};

void PropertyListeners::State::Run() noexcept {
    SetCurrentThreadName(kThreadName);
    for (;;) {
        Listener next{};
        bool registered = false;
        {
            const MutexLock lock(mutex);
            while (due.empty() && !closing) {
                wake.Wait(mutex);
            }
            if (due.empty()) {
                return;
            }
            next = due.front();
            due.pop_front();
            registered = Find(next) != listeners.end();
            calling = registered;
            called = next;
            caller = std::this_thread::get_id();
        }
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
        }
        state->wake.NotifyAll();
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
            for (const Listener& listener : state->listeners) {
                if (listener.object == object && listener.address.mSelector == selector) {
                    state->due.push_back(listener);
                    ++state->notified;
                }
            }
            if (!state->due.empty() && !state->thread.joinable()) {
                state->thread = std::thread([shared = state] { shared->Run(); });
            }
        } catch (const std::exception&) {
            if (!state->thread.joinable()) {
                // Nobody would make these calls.
                state->settled += state->due.size();
                state->due.clear();
            }
            state->wake.NotifyAll();
            throw;
        }
        state->wake.NotifyAll();
    } catch (const std::exception& error) {
        Trace(__FILE__, __LINE__, "a notification is lost: %s", error.what());
    }
}

std::size_t PropertyListeners::Count() {
    const MutexLock lock(state->mutex);
    return state->listeners.size();
}

void PropertyListeners::Flush() {
    const MutexLock lock(state->mutex);
    const std::uint64_t target = state->notified;
    while (state->settled < target) {
        state->callEnded.Wait(state->mutex);
    }
}

}  // namespace vorrel
