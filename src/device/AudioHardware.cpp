#include "device/AudioHardware.h"

#include <utility>

namespace vorrel {

AudioHardware::AudioHardware(std::shared_ptr<AudioBackend> audioBackend)
    : AudioObject(std::move(audioBackend), kAudioObjectSystemObject) {}

OSStatus AudioHardware::GetDevices(std::vector<AudioDevice>& devices) const {
    std::vector<AudioDeviceID> ids;
    if (const OSStatus status = GetProperties(GlobalProperty(kAudioHardwarePropertyDevices), ids);
        status != kAudioHardwareNoError) {
        return status;
    }
    std::vector<AudioDevice> read;
    read.reserve(ids.size());
    for (const AudioDeviceID deviceId : ids) {
        read.emplace_back(Backend(), deviceId);
    }
    devices = std::move(read);
    return kAudioHardwareNoError;
}

}  // namespace vorrel
