#pragma once

#include <string>

#include "device/backend/CoreAudioTypes.h"

namespace vorrel {

/// What a platform's audio layer has to offer: objects with ids (system, devices, streams), whose
/// properties are named by selector, scope and element; listeners; IO procs. Each call returns 0
/// or a status of `CoreAudioTypes.h`. Any thread may call.
class AudioBackend {
public:
    virtual ~AudioBackend() = default;

    /// Size in bytes of a property's value.
    virtual OSStatus GetPropertyDataSize(AudioObjectID object,
                                         const AudioObjectPropertyAddress& address,
                                         UInt32* size) = 0;
    /// Reads a property. `size` holds the bytes that `data` has room for and receives the bytes
    /// written.
    virtual OSStatus GetPropertyData(AudioObjectID object,
                                     const AudioObjectPropertyAddress& address, UInt32* size,
                                     void* data) = 0;
    /// Reads a property whose value is a text, as UTF-8.
    virtual OSStatus GetPropertyString(AudioObjectID object,
                                       const AudioObjectPropertyAddress& address,
                                       std::string* text) = 0;
    virtual OSStatus SetPropertyData(AudioObjectID object,
                                     const AudioObjectPropertyAddress& address, UInt32 size,
                                     const void* data) = 0;

    /// `listener` is called with `clientData` on a notification thread of the back end. After
    /// `RemovePropertyListener` has returned it is not called any more.
    virtual OSStatus AddPropertyListener(AudioObjectID object,
                                         const AudioObjectPropertyAddress& address,
                                         AudioObjectPropertyListenerProc listener,
                                         void* clientData) = 0;
    virtual OSStatus RemovePropertyListener(AudioObjectID object,
                                            const AudioObjectPropertyAddress& address,
                                            AudioObjectPropertyListenerProc listener,
                                            void* clientData) = 0;

    /// Registers `proc` for a device; while the device is started with the id it is called once
    /// per buffer on the device's real-time thread.
    virtual OSStatus CreateIOProcID(AudioObjectID device, AudioDeviceIOProc proc, void* clientData,
                                    AudioDeviceIOProcID* id) = 0;
    virtual OSStatus DestroyIOProcID(AudioObjectID device, AudioDeviceIOProcID id) = 0;
    virtual OSStatus Start(AudioObjectID device, AudioDeviceIOProcID id) = 0;
    /// After it has returned the proc is not called any more.
    virtual OSStatus Stop(AudioObjectID device, AudioDeviceIOProcID id) = 0;
};

}  // namespace vorrel
