#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "device/backend/AudioBackend.h"
#include "platform/Mutex.h"

namespace vorrel::test {

/// A selector as its four characters.
inline std::string SelectorText(AudioObjectPropertySelector selector) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        text.push_back(static_cast<char>((selector >> shift) & 0xFF));
    }
    return text;
}

/// A small working audio layer in memory. Objects have the properties that a test gives them;
/// every read, write and registration can be made to fail; listeners and IO procs are called when
/// the test says so. Keeps a log of what changed it. Thread-safe; no lock is held during a
/// callback but the one that lets `Stop` and `RemovePropertyListener` wait for it.
class FakeAudioBackend final : public AudioBackend {
public:
    struct IoProc {
        AudioObjectID device;
        AudioDeviceIOProc proc;
        void* clientData;
        AudioDeviceIOProcID id;
        bool started;
    };
    struct Listener {
        AudioObjectID object;
        AudioObjectPropertySelector selector;
        AudioObjectPropertyListenerProc proc;
        void* clientData;
        bool operator==(const Listener&) const = default;
    };

    static constexpr AudioObjectPropertyScope kGlobal = kAudioObjectPropertyScopeGlobal;

    // Arrangement.

    template <class T>
    void SetValue(AudioObjectID object, AudioObjectPropertySelector selector, const T& value,
                  AudioObjectPropertyScope scope = kGlobal) {
        SetValues<T>(object, selector, {value}, scope);
    }
    template <class T>
    void SetValues(AudioObjectID object, AudioObjectPropertySelector selector,
                   const std::vector<T>& values, AudioObjectPropertyScope scope = kGlobal) {
        std::vector<std::byte> bytes(values.size() * sizeof(T));
        if (!bytes.empty()) {
            std::memcpy(bytes.data(), values.data(), bytes.size());
        }
        const MutexLock lock(mutex);
        properties[{object, selector, scope}] = Property{std::move(bytes), std::nullopt};
    }
    void SetText(AudioObjectID object, AudioObjectPropertySelector selector, std::string text) {
        const MutexLock lock(mutex);
        properties[{object, selector, kGlobal}] = Property{{}, std::move(text)};
    }
    /// The stream configuration of a device's side: one buffer per element, with its channels.
    void SetBuffers(AudioObjectID device, AudioObjectPropertyScope scope,
                    const std::vector<UInt32>& channelsOfBuffers) {
        std::vector<std::byte> bytes(offsetof(AudioBufferList, mBuffers) +
                                     channelsOfBuffers.size() * sizeof(AudioBuffer));
        const auto count = static_cast<UInt32>(channelsOfBuffers.size());
        std::memcpy(bytes.data(), &count, sizeof(count));
        for (std::size_t index = 0; index < channelsOfBuffers.size(); ++index) {
            const AudioBuffer buffer{channelsOfBuffers[index], 0, nullptr};
            std::memcpy(bytes.data() + offsetof(AudioBufferList, mBuffers) + index * sizeof(buffer),
                        &buffer, sizeof(buffer));
        }
        SetValues(device, kAudioDevicePropertyStreamConfiguration, bytes, scope);
    }

    // Faults: the status that the call gives from now on; 0 ends the fault. A selector that may
    // stand in several scopes fails in all of them, unless one is named.

    void FailGet(AudioObjectPropertySelector selector, OSStatus status,
                 AudioObjectPropertyScope scope = kEveryScope) {
        const MutexLock lock(mutex);
        failGet[{selector, scope}] = status;
    }
    void FailSet(AudioObjectPropertySelector selector, OSStatus status) {
        const MutexLock lock(mutex);
        failSet[selector] = status;
    }
    void FailAddListener(AudioObjectPropertySelector selector, OSStatus status) {
        const MutexLock lock(mutex);
        failAddListener[selector] = status;
    }
    void FailCreateIOProc(OSStatus status) {
        const MutexLock lock(mutex);
        createStatus = status;
    }
    void FailStart(OSStatus status) {
        const MutexLock lock(mutex);
        startStatus = status;
    }
    void FailStop(OSStatus status) {
        const MutexLock lock(mutex);
        stopStatus = status;
    }
    /// All calls about every object give `status`, as after an unplug.
    void FailAll(OSStatus status) {
        const MutexLock lock(mutex);
        allStatus = status;
    }
    /// `GetPropertyDataSize` reports that much, whatever the value.
    void ReportSize(AudioObjectPropertySelector selector, UInt32 size) {
        const MutexLock lock(mutex);
        reportedSizes[selector] = size;
    }

    /// Asked before a value is stored; may change it (a device that rounds) or refuse it. Set
    /// before threads start.
    std::function<OSStatus(AudioObjectID, AudioObjectPropertySelector, std::vector<std::byte>&)>
        onSet;
    /// Called before a property is read; may throw. Set before threads start.
    std::function<void(AudioObjectID, AudioObjectPropertySelector)> onGet;
    /// Called after a listener was added. Set before threads start.
    std::function<void(AudioObjectID, AudioObjectPropertySelector)> onListenerAdded;
    /// Called at the end of a `Start` that succeeded: the IO proc can be delivered to. Set before
    /// threads start.
    std::function<void()> onStart;
    /// Called at the begin of `Stop`. Set before threads start.
    std::function<void()> onStop;

    // Events.

    /// Calls the listeners of a property on this thread; returns how many there were.
    std::size_t Fire(AudioObjectID object, AudioObjectPropertySelector selector) {
        const std::lock_guard<std::recursive_mutex> calling(listenerCalls);
        std::size_t called = 0;
        for (const Listener& listener : Listeners()) {
            if (listener.object == object && listener.selector == selector) {
                const AudioObjectPropertyAddress address{selector, kGlobal,
                                                         kAudioObjectPropertyElementMain};
                std::ignore = listener.proc(object, 1, &address, listener.clientData);
                ++called;
            }
        }
        return called;
    }
    /// Calls the started IO procs of a device on this thread, as the device's thread would;
    /// returns how many there were.
    std::size_t Deliver(AudioObjectID device, const AudioBufferList* input,
                        AudioBufferList* output = nullptr) {
        const std::lock_guard<std::recursive_mutex> calling(ioCalls);
        std::size_t called = 0;
        for (const IoProc& io : IoProcs()) {
            if (io.device == device && io.started) {
                std::ignore =
                    io.proc(device, nullptr, input, nullptr, output, nullptr, io.clientData);
                ++called;
            }
        }
        return called;
    }

    // What there is and what happened; copies, taken under the lock.

    template <class T>
    T Value(AudioObjectID object, AudioObjectPropertySelector selector,
            AudioObjectPropertyScope scope = kGlobal) const {
        const MutexLock lock(mutex);
        T value{};
        std::memcpy(&value, properties.at({object, selector, scope}).bytes.data(), sizeof(T));
        return value;
    }
    std::vector<Listener> Listeners() const {
        const MutexLock lock(mutex);
        return listeners;
    }
    std::vector<IoProc> IoProcs() const {
        const MutexLock lock(mutex);
        return ioProcs;
    }
    /// "set oink", "listen over", "unlisten over", "create", "destroy", "start", "stop": what
    /// succeeded, in its order.
    std::vector<std::string> Log() const {
        const MutexLock lock(mutex);
        return log;
    }
    void ClearLog() {
        const MutexLock lock(mutex);
        log.clear();
    }

    // The audio layer.

    OSStatus GetPropertyDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                 UInt32* size) override {
        const MutexLock lock(mutex);
        const Property* property = nullptr;
        if (const OSStatus status = Find(object, address, property); status != 0) {
            return status;
        }
        const auto reported = reportedSizes.find(address.mSelector);
        *size = reported != reportedSizes.end() ? reported->second
                                                : static_cast<UInt32>(property->bytes.size());
        return kAudioHardwareNoError;
    }
    OSStatus GetPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                             UInt32* size, void* data) override {
        if (onGet) {
            onGet(object, address.mSelector);
        }
        const MutexLock lock(mutex);
        const Property* property = nullptr;
        if (const OSStatus status = Find(object, address, property); status != 0) {
            return status;
        }
        if (property->text.has_value()) {
            return kAudioHardwareBadPropertySizeError;
        }
        const std::size_t copied = std::min<std::size_t>(*size, property->bytes.size());
        if (copied > 0) {
            std::memcpy(data, property->bytes.data(), copied);
        }
        *size = static_cast<UInt32>(copied);
        return kAudioHardwareNoError;
    }
    OSStatus GetPropertyString(AudioObjectID object, const AudioObjectPropertyAddress& address,
                               std::string* text) override {
        const MutexLock lock(mutex);
        const Property* property = nullptr;
        if (const OSStatus status = Find(object, address, property); status != 0) {
            return status;
        }
        if (!property->text.has_value()) {
            return kAudioHardwareBadPropertySizeError;
        }
        *text = *property->text;
        return kAudioHardwareNoError;
    }
    OSStatus SetPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                             UInt32 size, const void* data) override {
        std::vector<std::byte> bytes(size);
        std::memcpy(bytes.data(), data, size);
        {
            const MutexLock lock(mutex);
            if (const OSStatus status =
                    allStatus != 0 ? allStatus : StatusOf(failSet, address.mSelector);
                status != 0) {
                return status;
            }
            if (!properties.contains({object, address.mSelector, address.mScope})) {
                return kAudioHardwareUnknownPropertyError;
            }
        }
        if (onSet) {
            if (const OSStatus status = onSet(object, address.mSelector, bytes); status != 0) {
                return status;
            }
        }
        const MutexLock lock(mutex);
        Property& property = properties.at({object, address.mSelector, address.mScope});
        if (property.text.has_value() || property.bytes.size() != bytes.size()) {
            return kAudioHardwareBadPropertySizeError;
        }
        property.bytes = std::move(bytes);
        log.push_back("set " + SelectorText(address.mSelector));
        return kAudioHardwareNoError;
    }

    OSStatus AddPropertyListener(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                 AudioObjectPropertyListenerProc listener,
                                 void* clientData) override {
        {
            const MutexLock lock(mutex);
            if (const OSStatus status =
                    allStatus != 0 ? allStatus : StatusOf(failAddListener, address.mSelector);
                status != 0) {
                return status;
            }
            listeners.push_back({object, address.mSelector, listener, clientData});
            log.push_back("listen " + SelectorText(address.mSelector));
        }
        if (onListenerAdded) {
            onListenerAdded(object, address.mSelector);
        }
        return kAudioHardwareNoError;
    }
    OSStatus RemovePropertyListener(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                    AudioObjectPropertyListenerProc listener,
                                    void* clientData) override {
        const std::lock_guard<std::recursive_mutex> afterCalls(listenerCalls);
        const MutexLock lock(mutex);
        // Works on a device that is gone, too: the registration is this side's.
        const auto found = std::find(listeners.begin(), listeners.end(),
                                     Listener{object, address.mSelector, listener, clientData});
        if (found == listeners.end()) {
            return kAudioHardwareIllegalOperationError;
        }
        listeners.erase(found);
        log.push_back("unlisten " + SelectorText(address.mSelector));
        return kAudioHardwareNoError;
    }

    OSStatus CreateIOProcID(AudioObjectID device, AudioDeviceIOProc proc, void* clientData,
                            AudioDeviceIOProcID* id) override {
        const MutexLock lock(mutex);
        if (const OSStatus status = allStatus != 0 ? allStatus : createStatus; status != 0) {
            return status;
        }
        // An id of its own per registration, never called: 1, 2, 3...
        // NOLINTNEXTLINE(performance-no-int-to-ptr)
        *id = reinterpret_cast<AudioDeviceIOProcID>(++lastIoProcId);
        ioProcs.push_back({device, proc, clientData, *id, false});
        log.emplace_back("create");
        return kAudioHardwareNoError;
    }
    OSStatus DestroyIOProcID(AudioObjectID device, AudioDeviceIOProcID id) override {
        const std::lock_guard<std::recursive_mutex> afterCalls(ioCalls);
        const MutexLock lock(mutex);
        if (std::erase_if(ioProcs, [&](const IoProc& io) {
                return io.device == device && io.id == id;
            }) == 0) {
            return kAudioHardwareIllegalOperationError;
        }
        log.emplace_back("destroy");
        return kAudioHardwareNoError;
    }
    OSStatus Start(AudioObjectID device, AudioDeviceIOProcID id) override {
        {
            const MutexLock lock(mutex);
            if (const OSStatus status = allStatus != 0 ? allStatus : startStatus; status != 0) {
                return status;
            }
            if (const OSStatus status = SetStarted(device, id, true, "start"); status != 0) {
                return status;
            }
        }
        if (onStart) {
            onStart();
        }
        return kAudioHardwareNoError;
    }
    OSStatus Stop(AudioObjectID device, AudioDeviceIOProcID id) override {
        if (onStop) {
            onStop();
        }
        const std::lock_guard<std::recursive_mutex> afterCalls(ioCalls);
        const MutexLock lock(mutex);
        // Even where it reports a failure, a device that is told to stop delivers no more.
        const OSStatus found = SetStarted(device, id, false, "stop");
        return allStatus != 0 ? allStatus : stopStatus != 0 ? stopStatus : found;
    }

private:
    static constexpr AudioObjectPropertyScope kEveryScope = 0;
    struct Property {
        std::vector<std::byte> bytes;
        std::optional<std::string> text;
    };
    using Key = std::tuple<AudioObjectID, AudioObjectPropertySelector, AudioObjectPropertyScope>;

    template <class Faults, class FaultKey>
    static OSStatus StatusOf(const Faults& faults, const FaultKey& key) {
        const auto found = faults.find(key);
        return found == faults.end() ? kAudioHardwareNoError : found->second;
    }
    OSStatus Find(AudioObjectID object, const AudioObjectPropertyAddress& address,
                  const Property*& property) const VORREL_REQUIRES(mutex) {
        if (allStatus != 0) {
            return allStatus;
        }
        for (const AudioObjectPropertyScope scope : {address.mScope, kEveryScope}) {
            if (const OSStatus status = StatusOf(failGet, std::pair{address.mSelector, scope});
                status != 0) {
                return status;
            }
        }
        const auto found = properties.find({object, address.mSelector, address.mScope});
        if (found == properties.end()) {
            return kAudioHardwareUnknownPropertyError;
        }
        property = &found->second;
        return kAudioHardwareNoError;
    }
    OSStatus SetStarted(AudioObjectID device, AudioDeviceIOProcID id, bool started,
                        const char* logged) VORREL_REQUIRES(mutex) {
        for (IoProc& io : ioProcs) {
            if (io.device == device && io.id == id) {
                io.started = started;
                log.emplace_back(logged);
                return kAudioHardwareNoError;
            }
        }
        return kAudioHardwareIllegalOperationError;
    }

    mutable Mutex mutex;
    // Held during the calls themselves, so that who stops or removes waits for them; recursive,
    // because a callback may do that itself.
    std::recursive_mutex listenerCalls;
    std::recursive_mutex ioCalls;
    std::map<Key, Property> properties VORREL_GUARDED_BY(mutex);
    std::map<std::pair<AudioObjectPropertySelector, AudioObjectPropertyScope>, OSStatus> failGet
        VORREL_GUARDED_BY(mutex);
    std::map<AudioObjectPropertySelector, OSStatus> failSet VORREL_GUARDED_BY(mutex);
    std::map<AudioObjectPropertySelector, OSStatus> failAddListener VORREL_GUARDED_BY(mutex);
    std::map<AudioObjectPropertySelector, UInt32> reportedSizes VORREL_GUARDED_BY(mutex);
    OSStatus createStatus VORREL_GUARDED_BY(mutex) = 0;
    OSStatus startStatus VORREL_GUARDED_BY(mutex) = 0;
    OSStatus stopStatus VORREL_GUARDED_BY(mutex) = 0;
    OSStatus allStatus VORREL_GUARDED_BY(mutex) = 0;
    std::vector<Listener> listeners VORREL_GUARDED_BY(mutex);
    std::vector<IoProc> ioProcs VORREL_GUARDED_BY(mutex);
    std::vector<std::string> log VORREL_GUARDED_BY(mutex);
    std::uintptr_t lastIoProcId VORREL_GUARDED_BY(mutex) = 0;
};

}  // namespace vorrel::test
