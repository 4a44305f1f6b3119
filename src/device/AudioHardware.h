#pragma once

#include <memory>
#include <vector>

#include "device/AudioDevice.h"
#include "device/AudioObject.h"

namespace vorrel {

/// The system object of the audio layer.
class AudioHardware : public AudioObject {
public:
    explicit AudioHardware(std::shared_ptr<AudioBackend> audioBackend);

    /// All devices of the system, in its order.
    OSStatus GetDevices(std::vector<AudioDevice>& devices) const;
};

}  // namespace vorrel
