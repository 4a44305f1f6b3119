#include "device/simulated/PropertyListeners.h"

#include <algorithm>
#include <tuple>

namespace vorrel {

bool PropertyListeners::Same(const Listener& a, const Listener& b) {
    const auto key = [](const Listener& listener) {
        return std::tuple(listener.object, listener.address.mSelector, listener.address.mScope,
                          listener.address.mElement, listener.proc, listener.clientData);
    };
    return key(a) == key(b);
}

std::vector<PropertyListeners::Listener>::iterator PropertyListeners::Find(const Listener& wanted) {
    return std::find_if(listeners.begin(), listeners.end(),
                        [&wanted](const Listener& listener) { return Same(listener, wanted); });
}

void PropertyListeners::Add(AudioObjectID object, const AudioObjectPropertyAddress& address,
                            AudioObjectPropertyListenerProc listener, void* clientData) {
    const Listener added{object, address, listener, clientData};
    const MutexLock lock(mutex);
    if (Find(added) == listeners.end()) {
        listeners.push_back(added);
    }
}

bool PropertyListeners::Remove(AudioObjectID object, const AudioObjectPropertyAddress& address,
                               AudioObjectPropertyListenerProc listener, void* clientData) {
    const Listener removed{object, address, listener, clientData};
    const MutexLock lock(mutex);
    const auto found = Find(removed);
    const bool registered = found != listeners.end();
    if (registered) {
        listeners.erase(found);
    }
    while (calling && caller != std::this_thread::get_id() && Same(called, removed)) {
        callEnded.Wait(mutex);
    }
    return registered;
}

void PropertyListeners::Notify(AudioObjectID object, AudioObjectPropertySelector selector) {
    const MutexLock lock(mutex);
    for (const Listener& listener : listeners) {
        if (listener.object == object && listener.address.mSelector == selector) {
            queue.Async([this, listener] { Call(listener); });
        }
    }
}

void PropertyListeners::Call(const Listener& listener) {
    {
        const MutexLock lock(mutex);
        if (Find(listener) == listeners.end()) {
            return;
        }
        calling = true;
        called = listener;
        caller = std::this_thread::get_id();
    }
    listener.proc(listener.object, 1, &listener.address, listener.clientData);
    const MutexLock lock(mutex);
    calling = false;
    callEnded.NotifyAll();
}

std::size_t PropertyListeners::Count() {
    const MutexLock lock(mutex);
    return listeners.size();
}

void PropertyListeners::Flush() {
    queue.Sync([] {});
}

}  // namespace vorrel
