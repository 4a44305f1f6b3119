#include "device/HogMode.h"

#include <unistd.h>

#include <exception>

#include "platform/Trace.h"

namespace vorrel {
namespace {

constexpr AudioObjectPropertyAddress kOwner = GlobalProperty(kAudioDevicePropertyHogMode);
constexpr SInt32 kNobody = -1;

/// @return False where the device may still be this process's.
bool LetGo(const AudioDevice& device) noexcept {
    OSStatus status = kAudioHardwareUnspecifiedError;
    try {
        status = device.SetProperty(kOwner, kNobody);
    } catch (const std::exception& failure) {
        Trace(__FILE__, __LINE__, "giving up exclusive use failed: %s", failure.what());
    }
    switch (status) {
        case kAudioHardwareNoError:
        case kAudioHardwareBadDeviceError:  // gone, and its exclusive use with it
        case kAudioHardwareBadObjectError:
        case kAudioDevicePermissionsError:  // another's
            return true;
        default:
            return false;
    }
}

}  // namespace

HogMode::~HogMode() {
    GiveUpTheStillHeld();
}

OSStatus HogMode::Take(const AudioDevice& device) {
    GiveUpTheStillHeld();  // what is held would be refused to us as to everybody else
    stillHeld.reserve(stillHeld.size() + 1);
    const SInt32 self = ::getpid();
    try {
        return device.SetProperty(kOwner, self);
    } catch (const std::exception& failure) {
        Trace(__FILE__, __LINE__, "exclusive use failed: %s", failure.what());
        GiveUp(device);  // the call may have had its effect before
        return kAudioHardwareUnspecifiedError;
    }
}

void HogMode::GiveUp(const AudioDevice& device) noexcept {
    if (!LetGo(device)) {
        stillHeld.push_back(device);  // there is room since it was taken
    }
}

void HogMode::GiveUpTheStillHeld() noexcept {
    std::erase_if(stillHeld, LetGo);
}

}  // namespace vorrel
