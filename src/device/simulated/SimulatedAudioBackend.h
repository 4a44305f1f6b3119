#pragma once

#include <memory>
#include <vector>

#include "device/backend/AudioBackend.h"
#include "device/backend/PropertyListeners.h"
#include "device/simulated/CallHook.h"
#include "device/simulated/PropertyFaults.h"
#include "device/simulated/SimulatedRecorder.h"

namespace vorrel {

/// The audio layer over the simulated recorders: finds the object, applies the faults set on its
/// properties, and keeps the rules about sizes. An object that never was answers '!obj', a property
/// that the object has not 'who?', a size that does not fit '!siz', a property that cannot be set
/// 'unop'. Of an array, a reader gets as many whole elements as it has room for.
class SimulatedAudioBackend final : public AudioBackend {
public:
    SimulatedAudioBackend(std::vector<std::shared_ptr<SimulatedRecorder>> allRecorders,
                          std::shared_ptr<PropertyListeners> propertyListeners,
                          std::shared_ptr<CallHook> callHook);

    OSStatus GetPropertyDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                 UInt32* size) override;
    OSStatus GetPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                             UInt32* size, void* data) override;
    OSStatus GetPropertyString(AudioObjectID object, const AudioObjectPropertyAddress& address,
                               std::string* text) override;
    OSStatus SetPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                             UInt32 size, const void* data) override;
    OSStatus AddPropertyListener(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                 AudioObjectPropertyListenerProc listener,
                                 void* clientData) override;
    OSStatus RemovePropertyListener(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                    AudioObjectPropertyListenerProc listener,
                                    void* clientData) override;
    OSStatus CreateIOProcID(AudioObjectID device, AudioDeviceIOProc proc, void* clientData,
                            AudioDeviceIOProcID* id) override;
    OSStatus DestroyIOProcID(AudioObjectID device, AudioDeviceIOProcID id) override;
    OSStatus Start(AudioObjectID device, AudioDeviceIOProcID id) override;
    OSStatus Stop(AudioObjectID device, AudioDeviceIOProcID id) override;

    /// The faults of the system object, which lists the devices.
    PropertyFaults& SystemFaults() { return systemFaults; }
    /// The next `count` listeners added to recorders are refused with `status`.
    void FailAddListener(OSStatus status, std::uint32_t skip = 0, std::uint32_t count = 1);

private:
    /// The recorder that owns the object, or null.
    SimulatedRecorder* Find(AudioObjectID object) const;
    /// The faults of the system object, or of the recorder that `object` was found in. The object
    /// is looked for once in a call: plugging in again takes its id from the recorder.
    PropertyFaults* FaultsOf(AudioObjectID object, SimulatedRecorder* recorder);
    /// @param recorder  That `object` was found in; null for the system object and unknown ones.
    /// @param faults    As `FaultsOf` has them.
    OSStatus ReadValue(AudioObjectID object, SimulatedRecorder* recorder, PropertyFaults* faults,
                       const AudioObjectPropertyAddress& address, PropertyValue& value);

    const std::vector<std::shared_ptr<SimulatedRecorder>> recorders;
    const std::shared_ptr<PropertyListeners> listeners;
    const std::shared_ptr<CallHook> hook;
    PropertyFaults systemFaults;
    PropertyFaults listenerFaults;  // of AddPropertyListener; under one selector, 0
};

}  // namespace vorrel
