#include "device/alsa/AlsaAudioBackend.h"

#include <algorithm>
#include <utility>

namespace vorrel {

AlsaAudioBackend::AlsaAudioBackend(std::shared_ptr<const SoundCards> soundCards,
                                   std::string procDirectory)
    : cards(std::move(soundCards)), proc(std::move(procDirectory)) {}

AlsaAudioBackend::~AlsaAudioBackend() = default;

std::shared_ptr<AlsaDevice> AlsaAudioBackend::Find(AudioObjectID object) {
    const MutexLock lock(mutex);
    const auto found = std::find_if(devices.begin(), devices.end(),
                                    [object](const auto& device) { return device->Owns(object); });
    return found == devices.end() ? nullptr : *found;
}

void AlsaAudioBackend::LookAgain() {
    std::vector<std::shared_ptr<AlsaDevice>> dropped;  // ended without a lock held
    std::vector<std::shared_ptr<AlsaDevice>> gone;
    bool added = false;
    {
        const MutexLock look(looking);
        const std::vector<SoundCard> found = cards->Find();
        const MutexLock lock(mutex);
        for (const std::shared_ptr<AlsaDevice>& device : devices) {
            const bool present = std::any_of(
                found.begin(), found.end(),
                [&device](const SoundCard& card) { return IsSamePlugging(card, device->Card()); });
            if (!present) {
                gone.push_back(device);
            }
        }
        std::vector<std::shared_ptr<AlsaDevice>> next;
        for (const SoundCard& card : found) {
            const auto known =
                std::find_if(devices.begin(), devices.end(), [&card](const auto& device) {
                    // One that is dead while its card is still listed stays so; one that failed
                    // though its card is there may be tried again.
                    return IsSamePlugging(card, device->Card()) && !device->HasFailed();
                });
            if (known == devices.end()) {
                next.push_back(std::make_shared<AlsaDevice>(card, ids, listeners, proc));
                added = true;
            } else {
                next.push_back(*known);
            }
        }
        for (const std::shared_ptr<AlsaDevice>& device : devices) {
            if (std::find(next.begin(), next.end(), device) != next.end()) {
                continue;
            }
            // A device that is gone is answered for until the card is back or nobody uses it.
            const bool back = std::any_of(next.begin(), next.end(), [&device](const auto& other) {
                return other->Card().uid == device->Card().uid;
            });
            if (back && device->IsUnused()) {
                dropped.push_back(device);
            } else {
                next.push_back(device);
            }
        }
        devices = std::move(next);
    }
    for (const std::shared_ptr<AlsaDevice>& device : gone) {
        device->Unplug();
    }
    if (added) {
        listeners->Notify(kAudioObjectSystemObject, kAudioHardwarePropertyDevices);
    }
}

OSStatus AlsaAudioBackend::ReadValue(AudioObjectID object,
                                     const AudioObjectPropertyAddress& address,
                                     PropertyValue& value) {
    if (object != kAudioObjectSystemObject) {
        const std::shared_ptr<AlsaDevice> device = Find(object);
        return device == nullptr ? kAudioHardwareBadObjectError
                                 : device->ReadProperty(object, address, value);
    }
    if (address.mSelector != kAudioHardwarePropertyDevices) {
        return kAudioHardwareUnknownPropertyError;
    }
    LookAgain();
    std::vector<AudioDeviceID> listed;
    const MutexLock lock(mutex);
    for (const std::shared_ptr<AlsaDevice>& device : devices) {
        if (device->IsPlugged()) {
            listed.push_back(device->DeviceId());
        }
    }
    value = DeviceListValue(listed);
    return kAudioHardwareNoError;
}

OSStatus AlsaAudioBackend::GetPropertyDataSize(AudioObjectID object,
                                               const AudioObjectPropertyAddress& address,
                                               UInt32* size) {
    PropertyValue value;
    const OSStatus status = ReadValue(object, address, value);
    if (status == kAudioHardwareNoError) {
        *size = static_cast<UInt32>(value.bytes.size());
    }
    return status;
}

OSStatus AlsaAudioBackend::GetPropertyData(AudioObjectID object,
                                           const AudioObjectPropertyAddress& address, UInt32* size,
                                           void* data) {
    PropertyValue value;
    const OSStatus status = ReadValue(object, address, value);
    return status == kAudioHardwareNoError ? value.CopyTo(size, data) : status;
}

OSStatus AlsaAudioBackend::GetPropertyString(AudioObjectID object,
                                             const AudioObjectPropertyAddress& address,
                                             std::string* text) {
    const std::shared_ptr<AlsaDevice> device = Find(object);
    if (device == nullptr) {
        return object == kAudioObjectSystemObject ? kAudioHardwareUnknownPropertyError
                                                  : kAudioHardwareBadObjectError;
    }
    return device->ReadText(object, address, *text);
}

OSStatus AlsaAudioBackend::SetPropertyData(AudioObjectID object,
                                           const AudioObjectPropertyAddress& address, UInt32 size,
                                           const void* data) {
    const std::shared_ptr<AlsaDevice> device = Find(object);
    if (device != nullptr) {
        return device->WriteProperty(object, address, size, data);
    }
    if (object != kAudioObjectSystemObject) {
        return kAudioHardwareBadObjectError;
    }
    return address.mSelector == kAudioHardwarePropertyDevices
               ? kAudioHardwareUnsupportedOperationError
               : kAudioHardwareUnknownPropertyError;
}

OSStatus AlsaAudioBackend::AddPropertyListener(AudioObjectID object,
                                               const AudioObjectPropertyAddress& address,
                                               AudioObjectPropertyListenerProc listener,
                                               void* clientData) {
    if (object != kAudioObjectSystemObject) {
        const std::shared_ptr<AlsaDevice> device = Find(object);
        const OSStatus status =
            device == nullptr ? kAudioHardwareBadObjectError : device->CheckObject(object);
        if (status != kAudioHardwareNoError) {
            return status;
        }
    }
    if (listener == nullptr) {
        return kAudioHardwareIllegalOperationError;
    }
    listeners->Add(object, address, listener, clientData);
    return kAudioHardwareNoError;
}

OSStatus AlsaAudioBackend::RemovePropertyListener(AudioObjectID object,
                                                  const AudioObjectPropertyAddress& address,
                                                  AudioObjectPropertyListenerProc listener,
                                                  void* clientData) {
    // First, because also a listener of a device that is gone goes.
    const bool registered = listeners->Remove(object, address, listener, clientData);
    if (object != kAudioObjectSystemObject) {
        const std::shared_ptr<AlsaDevice> device = Find(object);
        const OSStatus status =
            device == nullptr ? kAudioHardwareBadObjectError : device->CheckObject(object);
        if (status != kAudioHardwareNoError) {
            return status;
        }
    }
    return registered ? kAudioHardwareNoError : kAudioHardwareIllegalOperationError;
}

OSStatus AlsaAudioBackend::CreateIOProcID(AudioObjectID device, AudioDeviceIOProc ioProc,
                                          void* clientData, AudioDeviceIOProcID* id) {
    const std::shared_ptr<AlsaDevice> found = Find(device);
    return found == nullptr ? kAudioHardwareBadObjectError
                            : found->CreateIOProcID(device, ioProc, clientData, id);
}

OSStatus AlsaAudioBackend::DestroyIOProcID(AudioObjectID device, AudioDeviceIOProcID id) {
    const std::shared_ptr<AlsaDevice> found = Find(device);
    return found == nullptr ? kAudioHardwareBadObjectError : found->DestroyIOProcID(device, id);
}

OSStatus AlsaAudioBackend::Start(AudioObjectID device, AudioDeviceIOProcID id) {
    const std::shared_ptr<AlsaDevice> found = Find(device);
    return found == nullptr ? kAudioHardwareBadObjectError : found->Start(device, id);
}

OSStatus AlsaAudioBackend::Stop(AudioObjectID device, AudioDeviceIOProcID id) {
    const std::shared_ptr<AlsaDevice> found = Find(device);
    return found == nullptr ? kAudioHardwareBadObjectError : found->Stop(device, id);
}

}  // namespace vorrel
