#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "device/alsa/AlsaDevice.h"
#include "device/alsa/SoundCards.h"
#include "device/backend/AudioBackend.h"
#include "device/backend/ObjectProperties.h"
#include "device/backend/PropertyListeners.h"
#include "platform/Mutex.h"

namespace vorrel {

/// The audio layer over the system's sound cards. Each card is a device from the first look that
/// finds it until it is unplugged; plugged in again it is a new one, also where all that tells is
/// that a look has missed it, and so it is when a later look finds it more complete and nobody uses
/// it yet. A device that is gone is answered for as long as a proc, a listener or hog mode refers
/// to it; one that is gone by its own word while its card is listed gives way to a new one then. An
/// object that never was, or that is no more, answers '!obj', a property that the object has not
/// 'who?', a size that does not fit '!siz', a property that cannot be set 'unop'. Of an array, a
/// reader gets as many whole elements as it has room for. Any thread may call.
class AlsaAudioBackend final : public AudioBackend {
public:
    /// @param procDirectory  Where the process file system is.
    explicit AlsaAudioBackend(std::shared_ptr<const SoundCards> soundCards,
                              std::string procDirectory = "/proc");
    ~AlsaAudioBackend() override;
    AlsaAudioBackend(const AlsaAudioBackend&) = delete;
    AlsaAudioBackend& operator=(const AlsaAudioBackend&) = delete;

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

    /// Looks at the cards again: new ones become devices, missing ones are gone. The list's
    /// listeners are called when it has changed. A look that fails changes nothing. Not from a
    /// real-time thread.
    /// @return False while no look has succeeded: nothing is known then.
    bool LookAgain() VORREL_EXCLUDES(mutex, looking);
    /// Whether the last look has succeeded.
    bool IsUpToDate() VORREL_EXCLUDES(looking);

    /// The device with that id, gone ones too while somebody uses them; null for none.
    std::shared_ptr<AlsaDevice> Find(AudioObjectID object) VORREL_EXCLUDES(mutex);
    /// Returns after every listener call due has been made. Not from a listener.
    void FlushNotifications() { listeners->Flush(); }

private:
    /// Makes `devices` those of the found cards, in their order, and behind them those that are not
    /// among them any more, which it returns.
    std::vector<std::shared_ptr<AlsaDevice>> Exchange(const std::vector<SoundCard>& found,
                                                      bool& added) VORREL_REQUIRES(mutex);
    OSStatus ReadValue(AudioObjectID object, const AudioObjectPropertyAddress& address,
                       PropertyValue& value);

    const std::shared_ptr<const SoundCards> cards;
    const std::string proc;
    const std::shared_ptr<ObjectIds> ids = std::make_shared<ObjectIds>();
    const std::shared_ptr<PropertyListeners> listeners = std::make_shared<PropertyListeners>();
    Mutex looking;                                   // one look at a time, before `mutex`
    bool looked VORREL_GUARDED_BY(looking) = false;  // with success
    bool upToDate VORREL_GUARDED_BY(looking) = false;
    Mutex mutex;
    std::vector<std::shared_ptr<AlsaDevice>> devices VORREL_GUARDED_BY(mutex);
};

}  // namespace vorrel
