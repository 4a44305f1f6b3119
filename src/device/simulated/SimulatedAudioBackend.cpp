#include "device/simulated/SimulatedAudioBackend.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "device/backend/DeviceCalls.h"

namespace vorrel {

SimulatedAudioBackend::SimulatedAudioBackend(
    std::vector<std::shared_ptr<SimulatedRecorder>> allRecorders,
    std::shared_ptr<PropertyListeners> propertyListeners, std::shared_ptr<CallHook> callHook)
    : recorders(std::move(allRecorders)),
      listeners(std::move(propertyListeners)),
      hook(std::move(callHook)) {}

SimulatedRecorder* SimulatedAudioBackend::Find(AudioObjectID object) const {
    const auto found =
        std::find_if(recorders.begin(), recorders.end(),
                     [object](const auto& recorder) { return recorder->Owns(object); });
    return found == recorders.end() ? nullptr : found->get();
}

PropertyFaults* SimulatedAudioBackend::FaultsOf(AudioObjectID object, SimulatedRecorder* recorder) {
    if (recorder != nullptr) {
        return &recorder->Faults();
    }
    return object == kAudioObjectSystemObject ? &systemFaults : nullptr;
}

OSStatus SimulatedAudioBackend::ReadValue(AudioObjectID object, SimulatedRecorder* recorder,
                                          PropertyFaults* faults,
                                          const AudioObjectPropertyAddress& address,
                                          PropertyValue& value) {
    if (faults == nullptr) {
        return kAudioHardwareBadObjectError;
    }
    const PropertyFaults::OtherValue other = faults->Value(address.mSelector);
    if (other.index() != 0) {
        // A device that is gone has no value of any type.
        if (recorder != nullptr) {
            if (const OSStatus status = recorder->CheckObject(object);
                status != kAudioHardwareNoError) {
                return status;
            }
        }
        const UInt32* number = std::get_if<UInt32>(&other);
        if (number == nullptr) {
            return kAudioHardwareBadPropertySizeError;
        }
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(number);
        value.bytes.assign(bytes, bytes + sizeof *number);
    } else if (recorder == nullptr) {
        if (address.mSelector != kAudioHardwarePropertyDevices) {
            return kAudioHardwareUnknownPropertyError;
        }
        std::vector<AudioDeviceID> ids;
        for (const auto& listed : recorders) {
            if (listed->IsPlugged()) {
                ids.push_back(listed->DeviceId());
            }
        }
        value = DeviceListValue(ids);
    } else if (const OSStatus status = recorder->ReadProperty(object, address, value);
               status != kAudioHardwareNoError) {
        return status;
    }
    if (UInt32 size = 0; faults->Size(address.mSelector, size)) {
        value.bytes.resize(size);
    }
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioBackend::GetPropertyDataSize(AudioObjectID object,
                                                    const AudioObjectPropertyAddress& address,
                                                    UInt32* size) {
    hook->Pass();
    SimulatedRecorder* recorder = Find(object);
    PropertyFaults* faults = FaultsOf(object, recorder);
    if (faults != nullptr) {
        if (const OSStatus status = faults->Check(PropertyOperation::Size, address.mSelector);
            status != kAudioHardwareNoError) {
            return status;
        }
    }
    PropertyValue value;
    const OSStatus status = ReadValue(object, recorder, faults, address, value);
    if (status == kAudioHardwareNoError) {
        *size = static_cast<UInt32>(value.bytes.size());
    }
    return status;
}

OSStatus SimulatedAudioBackend::GetPropertyData(AudioObjectID object,
                                                const AudioObjectPropertyAddress& address,
                                                UInt32* size, void* data) {
    hook->Pass();
    SimulatedRecorder* recorder = Find(object);
    PropertyFaults* faults = FaultsOf(object, recorder);
    if (faults != nullptr) {
        if (const OSStatus status = faults->Check(PropertyOperation::Read, address.mSelector);
            status != kAudioHardwareNoError) {
            return status;
        }
    }
    PropertyValue value;
    if (const OSStatus status = ReadValue(object, recorder, faults, address, value);
        status != kAudioHardwareNoError) {
        return status;
    }
    return value.CopyTo(size, data);
}

OSStatus SimulatedAudioBackend::GetPropertyString(AudioObjectID object,
                                                  const AudioObjectPropertyAddress& address,
                                                  std::string* text) {
    hook->Pass();
    SimulatedRecorder* recorder = Find(object);
    if (recorder == nullptr) {
        return RefuseText(object);
    }
    PropertyFaults& faults = recorder->Faults();
    if (const OSStatus status = faults.Check(PropertyOperation::Read, address.mSelector);
        status != kAudioHardwareNoError) {
        return status;
    }
    const PropertyFaults::OtherValue other = faults.Value(address.mSelector);
    std::string own;
    // A property of another type than it has by itself need only have an object.
    if (const OSStatus status = other.index() == 0 ? recorder->ReadText(object, address, own)
                                                   : recorder->CheckObject(object);
        status != kAudioHardwareNoError) {
        return status;
    }
    UInt32 size = 0;
    if (std::holds_alternative<UInt32>(other) || faults.Size(address.mSelector, size)) {
        return kAudioHardwareBadPropertySizeError;
    }
    const std::string* otherText = std::get_if<std::string>(&other);
    if (otherText != nullptr) {
        *text = *otherText;
    } else {
        *text = std::move(own);
    }
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioBackend::SetPropertyData(AudioObjectID object,
                                                const AudioObjectPropertyAddress& address,
                                                UInt32 size, const void* data) {
    hook->Pass();
    SimulatedRecorder* recorder = Find(object);
    if (recorder == nullptr) {
        return RefuseWrite(object, address);
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
    hook->Pass();
    if (const OSStatus status = CheckObject(Find(object), object);
        status != kAudioHardwareNoError) {
        return status;
    }
    if (object != kAudioObjectSystemObject) {
        if (const OSStatus fault = listenerFaults.Check(PropertyOperation::Write, 0);
            fault != kAudioHardwareNoError) {
            return fault;
        }
    }
    return AddListener(*listeners, object, address, listener, clientData);
}

OSStatus SimulatedAudioBackend::RemovePropertyListener(AudioObjectID object,
                                                       const AudioObjectPropertyAddress& address,
                                                       AudioObjectPropertyListenerProc listener,
                                                       void* clientData) {
    hook->Pass();
    return RemoveListener(
        *listeners, [this](AudioObjectID id) { return Find(id); }, object, address, listener,
        clientData);
}

OSStatus SimulatedAudioBackend::CreateIOProcID(AudioObjectID device, AudioDeviceIOProc proc,
                                               void* clientData, AudioDeviceIOProcID* id) {
    hook->Pass();
    return CallDevice(Find(device), [&](SimulatedRecorder& recorder) {
        return recorder.CreateIOProcID(device, proc, clientData, id);
    });
}

OSStatus SimulatedAudioBackend::DestroyIOProcID(AudioObjectID device, AudioDeviceIOProcID id) {
    hook->Pass();
    return CallDevice(Find(device), [&](SimulatedRecorder& recorder) {
        return recorder.DestroyIOProcID(device, id);
    });
}

OSStatus SimulatedAudioBackend::Start(AudioObjectID device, AudioDeviceIOProcID id) {
    hook->Pass();
    return CallDevice(Find(device),
                      [&](SimulatedRecorder& recorder) { return recorder.Start(device, id); });
}

OSStatus SimulatedAudioBackend::Stop(AudioObjectID device, AudioDeviceIOProcID id) {
    hook->Pass();
    return CallDevice(Find(device),
                      [&](SimulatedRecorder& recorder) { return recorder.Stop(device, id); });
}

void SimulatedAudioBackend::FailAddListener(OSStatus status, std::uint32_t skip,
                                            std::uint32_t count) {
    listenerFaults.Add({0, PropertyOperation::Write, status, skip, count});
}

}  // namespace vorrel
