#include "device/alsa/AlsaAudioBackend.h"

#include <algorithm>
#include <utility>

#include "device/backend/DeviceCalls.h"

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

bool AlsaAudioBackend::LookAgain() {
    std::vector<std::shared_ptr<AlsaDevice>> dropped;  // ended without a lock held
    bool added = false;
    {
        const MutexLock look(looking);
        upToDate = false;
        const std::optional<std::vector<SoundCard>> found = cards->Find();
        if (!found.has_value()) {
            return looked;  // nothing is known of what came and went: all stays as it was
        }
        looked = true;
        std::vector<std::shared_ptr<AlsaDevice>> gone;
        {
            const MutexLock lock(mutex);
            dropped.reserve(devices.size());  // nothing may fail behind the exchange
            gone = Exchange(*found, added);
        }
        for (const std::shared_ptr<AlsaDevice>& device : gone) {
            device->Unplug();
        }
        // Answered for as long as somebody refers to it; its ids are never another's.
        const MutexLock lock(mutex);
        for (const std::shared_ptr<AlsaDevice>& device : gone) {
            if (device->IsUnused()) {
                std::erase(devices, device);
                dropped.push_back(device);
            }
        }
        upToDate = true;
    }
    if (added) {
        listeners->Notify(kAudioObjectSystemObject, kAudioHardwarePropertyDevices);
    }
    return true;
}

bool AlsaAudioBackend::IsUpToDate() {
    const MutexLock look(looking);
    return upToDate;
}

std::vector<std::shared_ptr<AlsaDevice>> AlsaAudioBackend::Exchange(
    const std::vector<SoundCard>& found, bool& added) {
    // All that may fail comes before the change: a device in no list would not be told that it is
    // gone, and one that is retired is answered for by its successor.
    struct Choice {
        std::shared_ptr<AlsaDevice> known;  // null: there is none
        std::shared_ptr<AlsaDevice> made;   // null: the known one stays
    };
    std::vector<Choice> choices;
    for (const SoundCard& card : found) {
        const auto known =
            std::find_if(devices.begin(), devices.end(), [&card](const auto& device) {
                // One that has found itself dead while its card is listed all along stays so for
                // as long as it is used. One that a look has missed, or that failed though its card
                // is there, does not keep the card from being tried again.
                return IsSamePlugging(card, device->Card()) && !device->GivesWay();
            });
        Choice choice;
        if (known != devices.end()) {
            choice.known = *known;
        }
        if (choice.known == nullptr || !choice.known->IsPlugged() || choice.known->Card() != card) {
            choice.made = std::make_shared<AlsaDevice>(card, ids, listeners, proc);
        }
        choices.push_back(std::move(choice));
    }
    std::vector<std::shared_ptr<AlsaDevice>> next;
    std::vector<std::shared_ptr<AlsaDevice>> gone;
    next.reserve(choices.size() + devices.size());
    gone.reserve(devices.size());

    for (Choice& choice : choices) {
        // A card may have been seen before it was complete. What nobody uses yet is described anew,
        // as a device of its own: formats and streams of one that is in use do not change.
        if (choice.made != nullptr && (choice.known == nullptr || choice.known->RetireIfUnused())) {
            next.push_back(std::move(choice.made));
            added = true;
        } else {
            next.push_back(std::move(choice.known));
        }
    }
    for (const std::shared_ptr<AlsaDevice>& device : devices) {
        if (std::find(next.begin(), next.end(), device) == next.end()) {
            gone.push_back(device);
        }
    }
    next.insert(next.end(), gone.begin(), gone.end());
    devices = std::move(next);
    return gone;
}

OSStatus AlsaAudioBackend::ReadValue(AudioObjectID object,
                                     const AudioObjectPropertyAddress& address,
                                     PropertyValue& value) {
    if (object != kAudioObjectSystemObject) {
        return CallDevice(Find(object), [&](AlsaDevice& device) {
            return device.ReadProperty(object, address, value);
        });
    }
    if (address.mSelector != kAudioHardwarePropertyDevices) {
        return kAudioHardwareUnknownPropertyError;
    }
    if (!LookAgain()) {
        return kAudioHardwareUnspecifiedError;
    }
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
    return device == nullptr ? RefuseText(object) : device->ReadText(object, address, *text);
}

OSStatus AlsaAudioBackend::SetPropertyData(AudioObjectID object,
                                           const AudioObjectPropertyAddress& address, UInt32 size,
                                           const void* data) {
    const std::shared_ptr<AlsaDevice> device = Find(object);
    return device == nullptr ? RefuseWrite(object, address)
                             : device->WriteProperty(object, address, size, data);
}

OSStatus AlsaAudioBackend::AddPropertyListener(AudioObjectID object,
                                               const AudioObjectPropertyAddress& address,
                                               AudioObjectPropertyListenerProc listener,
                                               void* clientData) {
    if (const OSStatus status = CheckObject(Find(object), object);
        status != kAudioHardwareNoError) {
        return status;
    }
    return AddListener(*listeners, object, address, listener, clientData);
}

OSStatus AlsaAudioBackend::RemovePropertyListener(AudioObjectID object,
                                                  const AudioObjectPropertyAddress& address,
                                                  AudioObjectPropertyListenerProc listener,
                                                  void* clientData) {
    return RemoveListener(
        *listeners, [this](AudioObjectID id) { return Find(id); }, object, address, listener,
        clientData);
}

OSStatus AlsaAudioBackend::CreateIOProcID(AudioObjectID device, AudioDeviceIOProc ioProc,
                                          void* clientData, AudioDeviceIOProcID* id) {
    return CallDevice(Find(device), [&](AlsaDevice& found) {
        return found.CreateIOProcID(device, ioProc, clientData, id);
    });
}

OSStatus AlsaAudioBackend::DestroyIOProcID(AudioObjectID device, AudioDeviceIOProcID id) {
    return CallDevice(Find(device),
                      [&](AlsaDevice& found) { return found.DestroyIOProcID(device, id); });
}

OSStatus AlsaAudioBackend::Start(AudioObjectID device, AudioDeviceIOProcID id) {
    return CallDevice(Find(device), [&](AlsaDevice& found) { return found.Start(device, id); });
}

OSStatus AlsaAudioBackend::Stop(AudioObjectID device, AudioDeviceIOProcID id) {
    return CallDevice(Find(device), [&](AlsaDevice& found) { return found.Stop(device, id); });
}

}  // namespace vorrel
