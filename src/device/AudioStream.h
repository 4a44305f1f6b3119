#pragma once

#include <vector>

#include "device/AudioObject.h"

namespace vorrel {

/// One stream of a device.
class AudioStream : public AudioObject {
public:
    using AudioObject::AudioObject;

    OSStatus GetPhysicalFormat(AudioStreamBasicDescription& format) const;
    OSStatus SetPhysicalFormat(const AudioStreamBasicDescription& format) const;
    OSStatus GetAvailablePhysicalFormats(std::vector<AudioStreamRangedDescription>& formats) const;
};

}  // namespace vorrel
