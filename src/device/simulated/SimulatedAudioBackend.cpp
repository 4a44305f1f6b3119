#include "device/simulated/SimulatedAudioBackend.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace vorrel {

SimulatedAudioBackend::SimulatedAudioBackend(
    std::vector<std::shared_ptr<SimulatedRecorder>> allRecorders,
    std::shared_ptr<PropertyListeners> propertyListeners)
    : recorders(std::move(allRecorders)), listeners(std::move(propertyListeners)) {}

SimulatedRecorder* SimulatedAudioBackend::Find(AudioObjectID object) const {
    const auto found =
        std::find_if(recorders.begin(), recorders.end(),
                     [object](const auto& recorder) { return recorder->Owns(object); });
    return found == recorders.end() ? nullptr : found->get();
}

PropertyFaults* SimulatedAudioBackend::FaultsOf(AudioObjectID object) {
    if (object == kAudioObjectSystemObject) {
        return &systemFaults;
    }
    SimulatedRecorder* recorder = Find(object);
    return recorder == nullptr ? nullptr : &recorder->Faults();
}

OSStatus SimulatedAudioBackend::ReadValue(AudioObjectID object,
                                          const AudioObjectPropertyAddress& address,
                                          PropertyValue& value) {
    OSStatus status = kAudioHardwareNoError;
    if (object == kAudioObjectSystemObject) {
        if (address.mSelector != kAudioHardwarePropertyDevices) {
            return kAudioHardwareUnknownPropertyError;
        }
        value.elementSize = sizeof(AudioDeviceID);
        for (const auto& recorder : recorders) {
            if (recorder->IsPlugged()) {
                const AudioDeviceID id = recorder->DeviceId();
                const auto* bytes = reinterpret_cast<const std::uint8_t*>(&id);
                value.bytes.insert(value.bytes.end(), bytes, bytes + sizeof id);
            }
        }
    } else if (SimulatedRecorder* recorder = Find(object); recorder != nullptr) {
        status = recorder->ReadProperty(object, address, value);
    } else {
        status = kAudioHardwareBadObjectError;
    }
    if (status != kAudioHardwareNoError) {
        return status;
    }
    if (UInt32 size = 0; FaultsOf(object)->Size(address.mSelector, size)) {
        value.bytes.resize(size);
    }
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioBackend::GetPropertyDataSize(AudioObjectID object,
                                                    const AudioObjectPropertyAddress& address,
                                                    UInt32* size) {
    if (PropertyFaults* faults = FaultsOf(object); faults != nullptr) {
        if (const OSStatus status = faults->Check(PropertyOperation::Size, address.mSelector);
            status != kAudioHardwareNoError) {
            return status;
        }
    }
    PropertyValue value;
    const OSStatus status = ReadValue(object, address, value);
    if (status == kAudioHardwareNoError) {
        *size = static_cast<UInt32>(value.bytes.size());
    }
    return status;
}

OSStatus SimulatedAudioBackend::GetPropertyData(AudioObjectID object,
                                                const AudioObjectPropertyAddress& address,
                                                UInt32* size, void* data) {
    if (PropertyFaults* faults = FaultsOf(object); faults != nullptr) {
        if (const OSStatus status = faults->Check(PropertyOperation::Read, address.mSelector);
            status != kAudioHardwareNoError) {
            return status;
        }
    }
    PropertyValue value;
    if (const OSStatus status = ReadValue(object, address, value);
        status != kAudioHardwareNoError) {
        return status;
    }
    std::size_t written = value.bytes.size();
    if (written > *size) {
        if (value.elementSize == 0) {
            return kAudioHardwareBadPropertySizeError;
        }
        written = *size - *size % value.elementSize;
    }
    if (written > 0) {
        std::memcpy(data, value.bytes.data(), written);
    }
    *size = static_cast<UInt32>(written);
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioBackend::GetPropertyString(AudioObjectID object,
                                                  const AudioObjectPropertyAddress& address,
                                                  std::string* text) {
    SimulatedRecorder* recorder = Find(object);
    if (recorder == nullptr) {
        return object == kAudioObjectSystemObject ? kAudioHardwareUnknownPropertyError
                                                  : kAudioHardwareBadObjectError;
    }
    if (const OSStatus status =
            recorder->Faults().Check(PropertyOperation::Read, address.mSelector);
        status != kAudioHardwareNoError) {
        return status;
    }
    return recorder->ReadText(object, address, *text);
}

OSStatus SimulatedAudioBackend::SetPropertyData(AudioObjectID object,
                                                const AudioObjectPropertyAddress& address,
                                                UInt32 size, const void* data) {
    SimulatedRecorder* recorder = Find(object);
    if (recorder == nullptr) {
        if (object != kAudioObjectSystemObject) {
            return kAudioHardwareBadObjectError;
        }
        return address.mSelector == kAudioHardwarePropertyDevices
                   ? kAudioHardwareUnsupportedOperationError
                   : kAudioHardwareUnknownPropertyError;
    }
    if (const OSStatus status =
            recorder->Faults().Check(PropertyOperation::Write, address.mSelector);
        status != kAudioHardwareNoError) {
        return status;
    }
    return recorder->WriteProperty(object, address, size, data);
}

OSStatus SimulatedAudioBackend::AddPropertyListener(AudioObjectID object,
                                                    const AudioObjectPropertyAddress& address,
                                                    AudioObjectPropertyListenerProc listener,
                                                    void* clientData) {
    if (object != kAudioObjectSystemObject) {
        SimulatedRecorder* recorder = Find(object);
        const OSStatus status =
            recorder == nullptr ? kAudioHardwareBadObjectError : recorder->CheckObject(object);
        if (status != kAudioHardwareNoError) {
            return status;
        }
        if (const OSStatus fault = listenerFaults.Check(PropertyOperation::Write, 0);
            fault != kAudioHardwareNoError) {
            return fault;
        }
    }
    if (listener == nullptr) {
        return kAudioHardwareIllegalOperationError;
    }
    listeners->Add(object, address, listener, clientData);
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioBackend::RemovePropertyListener(AudioObjectID object,
                                                       const AudioObjectPropertyAddress& address,
                                                       AudioObjectPropertyListenerProc listener,
                                                       void* clientData) {
    // First, because also a listener of a device that is gone goes.
    const bool registered = listeners->Remove(object, address, listener, clientData);
    if (object != kAudioObjectSystemObject) {
        SimulatedRecorder* recorder = Find(object);
        const OSStatus status =
            recorder == nullptr ? kAudioHardwareBadObjectError : recorder->CheckObject(object);
        if (status != kAudioHardwareNoError) {
            return status;
        }
    }
    return registered ? kAudioHardwareNoError : kAudioHardwareIllegalOperationError;
}

OSStatus SimulatedAudioBackend::CreateIOProcID(AudioObjectID device, AudioDeviceIOProc proc,
                                               void* clientData, AudioDeviceIOProcID* id) {
    SimulatedRecorder* recorder = Find(device);
    return recorder == nullptr ? kAudioHardwareBadObjectError
                               : recorder->CreateIOProcID(device, proc, clientData, id);
}

OSStatus SimulatedAudioBackend::DestroyIOProcID(AudioObjectID device, AudioDeviceIOProcID id) {
    SimulatedRecorder* recorder = Find(device);
    return recorder == nullptr ? kAudioHardwareBadObjectError
                               : recorder->DestroyIOProcID(device, id);
}

OSStatus SimulatedAudioBackend::Start(AudioObjectID device, AudioDeviceIOProcID id) {
    SimulatedRecorder* recorder = Find(device);
    return recorder == nullptr ? kAudioHardwareBadObjectError : recorder->Start(device, id);
}

OSStatus SimulatedAudioBackend::Stop(AudioObjectID device, AudioDeviceIOProcID id) {
    SimulatedRecorder* recorder = Find(device);
    return recorder == nullptr ? kAudioHardwareBadObjectError : recorder->Stop(device, id);
}

void SimulatedAudioBackend::FailAddListener(OSStatus status, std::uint32_t skip,
                                            std::uint32_t count) {
    listenerFaults.Add({0, PropertyOperation::Write, status, skip, count});
}

}  // namespace vorrel
