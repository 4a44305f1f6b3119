#pragma once

#include <cstdint>
#include <vector>

#include "device/AudioObject.h"
#include "device/AudioStream.h"

namespace vorrel {

/// One device: its streams and channels, and its IO.
class AudioDevice : public AudioObject {
public:
    using AudioObject::AudioObject;

    /// The streams of the input or of the output scope, in the device's order.
    OSStatus GetStreams(AudioObjectPropertyScope scope, std::vector<AudioStream>& streams) const;
    /// The sum of the channel counts of all buffers of a scope;
    /// `kAudioHardwareBadPropertySizeError` when the list of buffers is cut short.
    OSStatus GetChannels(AudioObjectPropertyScope scope, std::uint32_t& channels) const;

    /// Registers `proc`, which from `Start` to `Stop` is called once per buffer on the device's
    /// real-time thread.
    OSStatus CreateIOProcID(AudioDeviceIOProc proc, void* clientData,
                            AudioDeviceIOProcID& ioProcId) const;
    OSStatus DestroyIOProcID(AudioDeviceIOProcID ioProcId) const;
    OSStatus Start(AudioDeviceIOProcID ioProcId) const;
    /// After it has returned the proc is not called any more.
    OSStatus Stop(AudioDeviceIOProcID ioProcId) const;
};

}  // namespace vorrel
