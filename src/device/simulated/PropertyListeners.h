#pragma once

#include <vector>

#include "device/backend/CoreAudioTypes.h"
#include "platform/Mutex.h"
#include "platform/SerialQueue.h"

namespace vorrel {

/// The property listeners of all objects and the thread that calls them. Any thread may call.
class PropertyListeners {
public:
    /// Registers a listener; the same one twice counts once.
    void Add(AudioObjectID object, const AudioObjectPropertyAddress& address,
             AudioObjectPropertyListenerProc listener, void* clientData) VORREL_EXCLUDES(mutex);
    /// Afterwards the listener is not called any more; waits for a call that is under way, unless
    /// it is that call which removes it.
    /// @return false when it was not registered.
    bool Remove(AudioObjectID object, const AudioObjectPropertyAddress& address,
                AudioObjectPropertyListenerProc listener, void* clientData) VORREL_EXCLUDES(mutex);
    /// Has every listener of the property called once, on the notification thread.
    void Notify(AudioObjectID object, AudioObjectPropertySelector selector) VORREL_EXCLUDES(mutex);

    std::size_t Count() VORREL_EXCLUDES(mutex);
    /// Returns after all that was notified before has been delivered. Not from a listener.
    void Flush();

private:
    struct Listener {
        AudioObjectID object;
        AudioObjectPropertyAddress address;
        AudioObjectPropertyListenerProc proc;
        void* clientData;
    };
    static bool Same(const Listener& a, const Listener& b);
    std::vector<Listener>::iterator Find(const Listener& wanted) VORREL_REQUIRES(mutex);
    /// On the notification thread: calls `listener` if it is still registered.
    void Call(const Listener& listener) VORREL_EXCLUDES(mutex);

    Mutex mutex;
    ConditionVariable callEnded;
    std::vector<Listener> listeners VORREL_GUARDED_BY(mutex);
    bool calling VORREL_GUARDED_BY(mutex) = false;
    Listener called VORREL_GUARDED_BY(mutex) = {};
    std::thread::id caller VORREL_GUARDED_BY(mutex);
    SerialQueue queue{"AudioNotify"};  // last: it ends before what its tasks use
};

}  // namespace vorrel
