#include "device/AudioStream.h"

namespace vorrel {

OSStatus AudioStream::GetPhysicalFormat(AudioStreamBasicDescription& format) const {
    return GetProperty(GlobalProperty(kAudioStreamPropertyPhysicalFormat), format);
}

OSStatus AudioStream::SetPhysicalFormat(const AudioStreamBasicDescription& format) const {
    return SetProperty(GlobalProperty(kAudioStreamPropertyPhysicalFormat), format);
}

OSStatus AudioStream::GetAvailablePhysicalFormats(
    std::vector<AudioStreamRangedDescription>& formats) const {
    return GetProperties(GlobalProperty(kAudioStreamPropertyAvailablePhysicalFormats), formats);
}

}  // namespace vorrel
