#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "device/backend/CoreAudioTypes.h"
#include "platform/Realtime.h"

namespace vorrel {

/// Reports a change of one property from a thread that may neither wait nor allocate. It may
/// outlive the listeners it was made by, and then reports to nobody.
class PropertySignal {
public:
    virtual ~PropertySignal() = default;
    /// Has every listener of the property called once on the notification thread, soon; `n` calls
    /// of this give `n` calls of each. Any thread, a real-time one too.
    VORREL_REALTIME virtual void Raise() noexcept = 0;
};

/// The property listeners of all objects and the thread that calls them. Any thread may call.
class PropertyListeners {
public:
    PropertyListeners();
    /// Delivers what is still due, then ends the notification thread. On that thread itself, out of
    /// a listener, it drops what is due, and the thread ends by itself after the call under way.
    ~PropertyListeners();
    PropertyListeners(const PropertyListeners&) = delete;
    PropertyListeners& operator=(const PropertyListeners&) = delete;

    /// Registers a listener, with the notification thread running from here on: what is notified
    /// later needs neither memory nor a thread. The same one twice counts once.
    /// @throws std::system_error, std::bad_alloc; it is not registered then.
    void Add(AudioObjectID object, const AudioObjectPropertyAddress& address,
             AudioObjectPropertyListenerProc listener, void* clientData);
    /// Afterwards the listener is not called any more; waits for a call that is under way, unless
    /// it is that call which removes it.
    /// @return false when it was not registered.
    bool Remove(AudioObjectID object, const AudioObjectPropertyAddress& address,
                AudioObjectPropertyListenerProc listener, void* clientData);
    /// Has every listener of the property called once, on the notification thread. It cannot fail:
    /// the callers are threads of the device, which have nobody to tell.
    void Notify(AudioObjectID object, AudioObjectPropertySelector selector) noexcept;

    /// A signal for the property, with the notification thread running from here on. It reports
    /// for as long as it is held.
    /// @throws std::system_error, std::bad_alloc.
    std::shared_ptr<PropertySignal> MakeSignal(AudioObjectID object,
                                               AudioObjectPropertySelector selector);

    std::size_t Count();
    /// Whether any property of the object has a listener, or one of them is being called.
    bool HasAny(AudioObjectID object);
    /// Returns after all that was notified before has been delivered. Not from a listener.
    void Flush();

private:
    struct WakeUp;
    class Signal;
    struct State;
    const std::shared_ptr<State> state;  // the notification thread's as well
};

}  // namespace vorrel
