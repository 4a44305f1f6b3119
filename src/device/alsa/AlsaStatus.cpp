#include "device/alsa/AlsaStatus.h"

#include <cerrno>

namespace vorrel {

bool IsGone(int error) {
    return error == -ENODEV || error == -ESHUTDOWN;
}

bool MayBeGone(int error) {
    return IsGone(error) || error == -ENXIO || error == -ENOENT;
}

OSStatus StatusOf(int error) {
    if (error >= 0) {
        return kAudioHardwareNoError;
    }
    if (IsGone(error)) {
        return kAudioHardwareBadDeviceError;
    }
    switch (error) {
        case -EBUSY:
        case -EAGAIN:
        case -EACCES:
        case -EPERM:
            return kAudioDevicePermissionsError;
        case -EINVAL:
            return kAudioDeviceUnsupportedFormatError;
        default:
            return kAudioHardwareUnspecifiedError;
    }
}

}  // namespace vorrel
