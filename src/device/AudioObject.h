#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "device/backend/AudioBackend.h"

namespace vorrel {

/// The address of a property of a whole object, as opposed to one of its sides.
constexpr AudioObjectPropertyAddress GlobalProperty(AudioObjectPropertySelector selector) {
    return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}

/// An object of the audio layer by its id. A value: copies name the same object. Calls return 0 or
/// the audio layer's status; `kAudioHardwareBadObjectError` where there is no back end. What a
/// failed call was to fill stays as it was. Any thread.
class AudioObject {
public:
    AudioObject() = default;
    AudioObject(std::shared_ptr<AudioBackend> audioBackend, AudioObjectID objectId);
    virtual ~AudioObject() = default;
    AudioObject(const AudioObject&) = default;
    AudioObject(AudioObject&&) = default;
    AudioObject& operator=(const AudioObject&) = default;
    AudioObject& operator=(AudioObject&&) = default;

    /// `kAudioObjectUnknown` (0) for no object.
    AudioObjectID Id() const { return id; }

    /// Reads a text, as UTF-8.
    OSStatus GetProperty(const AudioObjectPropertyAddress& address, std::string& text) const;

    /// Reads a value of fixed size; `kAudioHardwareBadPropertySizeError` for any other size.
    template <class T>
    OSStatus GetProperty(const AudioObjectPropertyAddress& address, T& value) const {
        static_assert(std::is_trivially_copyable_v<T>);
        T read{};
        const OSStatus status = GetBytes(address, sizeof(T), &read);
        if (status == kAudioHardwareNoError) {
            value = read;
        }
        return status;
    }

    /// Reads an array whose size is asked first; `kAudioHardwareBadPropertySizeError` when it is
    /// not a whole number of elements.
    template <class T>
    OSStatus GetProperties(const AudioObjectPropertyAddress& address,
                           std::vector<T>& values) const {
        static_assert(std::is_trivially_copyable_v<T>);
        std::vector<std::byte> bytes;
        if (const OSStatus status = GetArrayBytes(address, sizeof(T), bytes);
            status != kAudioHardwareNoError) {
            return status;
        }
        std::vector<T> read(bytes.size() / sizeof(T));
        CopyBytes(bytes, read.data());
        values = std::move(read);
        return kAudioHardwareNoError;
    }

    template <class T>
    OSStatus SetProperty(const AudioObjectPropertyAddress& address, const T& value) const {
        static_assert(std::is_trivially_copyable_v<T>);
        return SetBytes(address, sizeof(T), &value);
    }

    /// `listener` is called on a notification thread of the back end.
    OSStatus AddPropertyListener(const AudioObjectPropertyAddress& address,
                                 AudioObjectPropertyListenerProc listener, void* clientData) const;
    /// After it has returned `listener` is not called any more.
    OSStatus RemovePropertyListener(const AudioObjectPropertyAddress& address,
                                    AudioObjectPropertyListenerProc listener,
                                    void* clientData) const;

protected:
    const std::shared_ptr<AudioBackend>& Backend() const { return backend; }

private:
    OSStatus GetBytes(const AudioObjectPropertyAddress& address, std::size_t sizeBytes,
                      void* data) const;
    OSStatus GetArrayBytes(const AudioObjectPropertyAddress& address, std::size_t elementBytes,
                           std::vector<std::byte>& bytes) const;
    OSStatus SetBytes(const AudioObjectPropertyAddress& address, std::size_t sizeBytes,
                      const void* data) const;
    static void CopyBytes(const std::vector<std::byte>& bytes, void* out);

    std::shared_ptr<AudioBackend> backend;
    AudioObjectID id = kAudioObjectUnknown;
};

}  // namespace vorrel
