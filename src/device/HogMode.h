#pragma once

#include <vector>

#include "device/AudioDevice.h"

namespace vorrel {

/// Exclusive use of devices by this process. A device that would not be given up is not forgotten:
/// it is given up before another one is taken, and at the end. One thread at a time.
class HogMode {
public:
    HogMode() = default;
    ~HogMode();
    HogMode(const HogMode&) = delete;
    HogMode& operator=(const HogMode&) = delete;

    /// Takes a device for this process.
    /// @return The status of the audio layer; `kAudioHardwareUnspecifiedError` when the call ended
    ///         in an exception. This process does not hold the device after a failure.
    /// @throws std::bad_alloc before anything was taken.
    OSStatus Take(const AudioDevice& device);
    /// Lets go of a device that was taken.
    void GiveUp(const AudioDevice& device) noexcept;

private:
    void GiveUpTheStillHeld() noexcept;

    std::vector<AudioDevice> stillHeld;  // has room for a device that is taken
};

}  // namespace vorrel
