#pragma once

#include "device/backend/CoreAudioTypes.h"
#include "device/backend/PropertyListeners.h"

namespace vorrel {

// What every audio layer answers alike for an object, given the device in which it was found: a
// (smart) pointer, null where it is in none.

/// What the device answers to a call; '!obj' where there is none.
template <class Device, class Function>
OSStatus CallDevice(const Device& found, const Function& call) {
    return found == nullptr ? kAudioHardwareBadObjectError : call(*found);
}

/// Whether the object is there: the system's is always.
template <class Device>
OSStatus CheckObject(const Device& found, AudioObjectID object) {
    if (object == kAudioObjectSystemObject) {
        return kAudioHardwareNoError;
    }
    return CallDevice(found, [object](auto& device) { return device.CheckObject(object); });
}

/// The answer to a write of an object that is in no device: of the system's, nothing can be set.
inline OSStatus RefuseWrite(AudioObjectID object, const AudioObjectPropertyAddress& address) {
    if (object != kAudioObjectSystemObject) {
        return kAudioHardwareBadObjectError;
    }
    return address.mSelector == kAudioHardwarePropertyDevices
               ? kAudioHardwareUnsupportedOperationError
               : kAudioHardwareUnknownPropertyError;
}

/// The answer to the question for a text of an object that is in no device.
inline OSStatus RefuseText(AudioObjectID object) {
    return object == kAudioObjectSystemObject ? kAudioHardwareUnknownPropertyError
                                              : kAudioHardwareBadObjectError;
}

/// Adds a listener of an object that is there.
inline OSStatus AddListener(PropertyListeners& listeners, AudioObjectID object,
                            const AudioObjectPropertyAddress& address,
                            AudioObjectPropertyListenerProc listener, void* clientData) {
    if (listener == nullptr) {
        return kAudioHardwareIllegalOperationError;
    }
    listeners.Add(object, address, listener, clientData);
    return kAudioHardwareNoError;
}

/// Removes a listener, whatever the object answers then: also one of a device that is gone goes.
/// @param find  Finds the object's device.
template <class Function>
OSStatus RemoveListener(PropertyListeners& listeners, const Function& find, AudioObjectID object,
                        const AudioObjectPropertyAddress& address,
                        AudioObjectPropertyListenerProc listener, void* clientData) {
    const bool registered = listeners.Remove(object, address, listener, clientData);
    const OSStatus status = CheckObject(find(object), object);
    if (status != kAudioHardwareNoError) {
        return status;
    }
    return registered ? kAudioHardwareNoError : kAudioHardwareIllegalOperationError;
}

}  // namespace vorrel
