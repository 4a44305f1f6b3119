#pragma once

#include "device/backend/CoreAudioTypes.h"
#include "platform/Realtime.h"

namespace vorrel {

/// What the device layer tells the manager.
class IAudioDeviceNotify {
public:
    /// The device reported a processor overload. A notification thread of the back end.
    virtual void AudioDevice_ProcessorOverload() = 0;
    /// The device's alive state changed, typically unplugged. A notification thread.
    virtual void AudioDevice_DeviceIsAliveChanged() = 0;
    /// One IO cycle's captured buffers. The device's real-time thread.
    VORREL_REALTIME virtual void AudioDevice_IOProc(const AudioBufferList* input,
                                                    AudioBufferList* output) = 0;

protected:
    ~IAudioDeviceNotify() = default;  // nobody deletes through it
};

}  // namespace vorrel
