#include "device/AudioObject.h"

#include <cstring>
#include <utility>

namespace vorrel {

AudioObject::AudioObject(std::shared_ptr<AudioBackend> audioBackend, AudioObjectID objectId)
    : backend(std::move(audioBackend)), id(objectId) {}

OSStatus AudioObject::GetProperty(const AudioObjectPropertyAddress& address,
                                  std::string& text) const {
    if (backend == nullptr) {
        return kAudioHardwareBadObjectError;
    }
    std::string read;
    const OSStatus status = backend->GetPropertyString(id, address, &read);
    if (status == kAudioHardwareNoError) {
        text = std::move(read);
    }
    return status;
}

OSStatus AudioObject::AddPropertyListener(const AudioObjectPropertyAddress& address,
                                          AudioObjectPropertyListenerProc listener,
                                          void* clientData) const {
    return backend == nullptr ? kAudioHardwareBadObjectError
                              : backend->AddPropertyListener(id, address, listener, clientData);
}

OSStatus AudioObject::RemovePropertyListener(const AudioObjectPropertyAddress& address,
                                             AudioObjectPropertyListenerProc listener,
                                             void* clientData) const {
    return backend == nullptr ? kAudioHardwareBadObjectError
                              : backend->RemovePropertyListener(id, address, listener, clientData);
}

OSStatus AudioObject::GetBytes(const AudioObjectPropertyAddress& address, std::size_t sizeBytes,
                               void* data) const {
    if (backend == nullptr) {
        return kAudioHardwareBadObjectError;
    }
    UInt32 size = static_cast<UInt32>(sizeBytes);
    if (const OSStatus status = backend->GetPropertyData(id, address, &size, data);
        status != kAudioHardwareNoError) {
        return status;
    }
    return size == sizeBytes ? kAudioHardwareNoError : kAudioHardwareBadPropertySizeError;
}

OSStatus AudioObject::GetArrayBytes(const AudioObjectPropertyAddress& address,
                                    std::size_t elementBytes, std::vector<std::byte>& bytes) const {
    if (backend == nullptr) {
        return kAudioHardwareBadObjectError;
    }
    UInt32 size = 0;
    if (const OSStatus status = backend->GetPropertyDataSize(id, address, &size);
        status != kAudioHardwareNoError) {
        return status;
    }
    bytes.resize(size);
    if (size > 0) {
        if (const OSStatus status = backend->GetPropertyData(id, address, &size, bytes.data());
            status != kAudioHardwareNoError) {
            return status;
        }
    }
    // The array may have shrunk between the two calls; it cannot have outgrown its room.
    if (size > bytes.size() || size % elementBytes != 0) {
        return kAudioHardwareBadPropertySizeError;
    }
    bytes.resize(size);
    return kAudioHardwareNoError;
}

OSStatus AudioObject::SetBytes(const AudioObjectPropertyAddress& address, std::size_t sizeBytes,
                               const void* data) const {
    return backend == nullptr
               ? kAudioHardwareBadObjectError
               : backend->SetPropertyData(id, address, static_cast<UInt32>(sizeBytes), data);
}

void AudioObject::CopyBytes(const std::vector<std::byte>& bytes, void* out) {
    if (!bytes.empty()) {
        std::memcpy(out, bytes.data(), bytes.size());
    }
}

}  // namespace vorrel
