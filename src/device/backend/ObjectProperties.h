#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "device/backend/CoreAudioTypes.h"

namespace vorrel {

/// Hands out object ids; an id is never used twice.
class ObjectIds {
public:
    AudioObjectID Next() { return next++; }

private:
    std::atomic<AudioObjectID> next{kAudioObjectSystemObject + 1};
};

/// A property's value as bytes.
struct PropertyValue {
    std::vector<std::uint8_t> bytes;
    /// Size of one element of an array, of which a reader may take the first few; 0 for a value
    /// that is read whole or not at all.
    std::size_t elementSize = 0;

    /// Hands the value to a reader. Of an array it gets as many whole elements as it has room for.
    /// @param size  Room in bytes; receives the bytes written.
    /// @return '!siz' when a value that is read whole has no room.
    OSStatus CopyTo(UInt32* size, void* data) const;
};

/// Main element, and one of the three scopes.
bool IsKnownAddress(const AudioObjectPropertyAddress& address);

/// The system object's property with that value: the list of devices.
PropertyValue DeviceListValue(const std::vector<AudioDeviceID>& devices);

/// The alive state of a device that is gone: the one property that it still has.
PropertyValue NotAliveValue();

/// Whether an object of a device with at most one stream answers: 0; '!dev' for the device and
/// '!obj' for the stream when it is not plugged in; '!obj' for any other.
/// @param stream  Unknown: the device has none.
OSStatus ObjectStatusOf(AudioObjectID object, AudioDeviceID device, AudioStreamID stream,
                        bool plugged);

/// What a device with at most one input stream tells of itself: the properties of the device and
/// of the stream, and what may be written. A value.
struct DeviceProperties {
    enum class Object { Device, Stream };

    std::string name;
    std::string uid;
    std::string modelUid;
    bool alive = true;
    std::int32_t hogOwner = -1;
    UInt32 bufferFrames = 0;
    UInt32 minimumBufferFrames = 0;
    UInt32 maximumBufferFrames = 0;
    AudioStreamID inputStream = kAudioObjectUnknown;  ///< Unknown: the device has none.
    std::vector<UInt32> bufferChannels;  ///< Channels of each buffer of the input side.
    AudioStreamBasicDescription format{};
    std::vector<AudioStreamRangedDescription> formats;

    /// @return 'who?' for a property that the object has not, a text included.
    OSStatus Read(Object object, const AudioObjectPropertyAddress& address,
                  PropertyValue& value) const;
    /// @return '!siz' for a property of another type, 'who?' for one that the object has not.
    OSStatus ReadText(Object object, const AudioObjectPropertyAddress& address,
                      std::string& text) const;
    /// Whether a value of `size` bytes may be written there at all: 'who?', 'unop' for what cannot
    /// be set, '!siz' for another size or no data.
    OSStatus CheckWrite(Object object, const AudioObjectPropertyAddress& address, UInt32 size,
                        const void* data) const;
};

/// The values of a device and its stream that may be written. To be compared: what is told of a
/// change is decided behind it, when nothing may fail any more, and takes no memory.
struct WritableValues {
    std::int32_t hogOwner = -1;
    UInt32 bufferFrames = 0;
    AudioStreamBasicDescription format{};

    bool operator==(const WritableValues& other) const;
};

/// Whether a write of a device's property gives its exclusive use up. That is always allowed to who
/// has it, and takes no memory: else it would stay taken.
bool IsRelease(DeviceProperties::Object object, const AudioObjectPropertyAddress& address,
               UInt32 size, const void* data);

/// The bytes of a written value, of whose size `CheckWrite` has made sure.
template <class T>
T WrittenValue(const void* data) {
    T value{};
    auto* to = reinterpret_cast<std::uint8_t*>(&value);
    const auto* from = static_cast<const std::uint8_t*>(data);
    for (std::size_t i = 0; i < sizeof value; ++i) {
        to[i] = from[i];
    }
    return value;
}

}  // namespace vorrel
