#include "device/backend/ObjectProperties.h"

#include <cstring>

namespace vorrel {
namespace {

constexpr SInt32 kNobody = -1;

template <class T>
void Append(std::vector<std::uint8_t>& bytes, const T& value) {
    const auto* from = reinterpret_cast<const std::uint8_t*>(&value);
    bytes.insert(bytes.end(), from, from + sizeof value);
}

template <class T>
PropertyValue Scalar(const T& value) {
    PropertyValue property;
    Append(property.bytes, value);
    return property;
}

template <class T>
PropertyValue Array(const std::vector<T>& values) {
    PropertyValue property{{}, sizeof(T)};
    for (const T& value : values) {
        Append(property.bytes, value);
    }
    return property;
}

/// A buffer list of which only the channel counts say something.
PropertyValue StreamConfiguration(const std::vector<UInt32>& bufferChannels) {
    constexpr std::size_t kFirstBuffer = offsetof(AudioBufferList, mBuffers);
    PropertyValue property;
    property.bytes.resize(kFirstBuffer + bufferChannels.size() * sizeof(AudioBuffer));
    const auto count = static_cast<UInt32>(bufferChannels.size());
    std::memcpy(property.bytes.data(), &count, sizeof count);
    for (std::size_t i = 0; i < bufferChannels.size(); ++i) {
        const AudioBuffer buffer{bufferChannels[i], 0, nullptr};
        std::memcpy(property.bytes.data() + kFirstBuffer + i * sizeof buffer, &buffer,
                    sizeof buffer);
    }
    return property;
}

bool IsText(AudioObjectPropertySelector selector) {
    return selector == kAudioObjectPropertyName || selector == kAudioDevicePropertyDeviceUID ||
           selector == kAudioDevicePropertyModelUID;
}

}  // namespace

OSStatus PropertyValue::CopyTo(UInt32* size, void* data) const {
    std::size_t written = bytes.size();
    if (written > *size) {
        if (elementSize == 0) {
            return kAudioHardwareBadPropertySizeError;
        }
        written = *size - *size % elementSize;
    }
    if (written > 0) {
        std::memcpy(data, bytes.data(), written);
    }
    *size = static_cast<UInt32>(written);
    return kAudioHardwareNoError;
}

bool IsKnownAddress(const AudioObjectPropertyAddress& address) {
    return address.mElement == kAudioObjectPropertyElementMain &&
           (address.mScope == kAudioObjectPropertyScopeGlobal ||
            address.mScope == kAudioObjectPropertyScopeInput ||
            address.mScope == kAudioObjectPropertyScopeOutput);
}

PropertyValue DeviceListValue(const std::vector<AudioDeviceID>& devices) {
    return Array(devices);
}

PropertyValue NotAliveValue() {
    return Scalar(UInt32{0});
}

OSStatus ObjectStatusOf(AudioObjectID object, AudioDeviceID device, AudioStreamID stream,
                        bool plugged) {
    if (object == device) {
        return plugged ? kAudioHardwareNoError : kAudioHardwareBadDeviceError;
    }
    return object == stream && stream != kAudioObjectUnknown && plugged
               ? kAudioHardwareNoError
               : kAudioHardwareBadObjectError;
}

OSStatus DeviceProperties::Read(Object object, const AudioObjectPropertyAddress& address,
                                PropertyValue& value) const {
    if (!IsKnownAddress(address)) {
        return kAudioHardwareUnknownPropertyError;
    }
    if (object == Object::Stream) {
        switch (address.mSelector) {
            case kAudioStreamPropertyPhysicalFormat:
                value = Scalar(format);
                return kAudioHardwareNoError;
            case kAudioStreamPropertyAvailablePhysicalFormats:
                value = Array(formats);
                return kAudioHardwareNoError;
            default:
                return kAudioHardwareUnknownPropertyError;
        }
    }
    const bool input =
        address.mScope != kAudioObjectPropertyScopeOutput && inputStream != kAudioObjectUnknown;
    switch (address.mSelector) {
        case kAudioDevicePropertyDeviceIsAlive:
            value = Scalar(UInt32{alive ? 1U : 0U});
            break;
        case kAudioDevicePropertyHogMode:
            value = Scalar(SInt32{hogOwner});
            break;
        case kAudioDevicePropertyBufferFrameSize:
            value = Scalar(bufferFrames);
            break;
        case kAudioDevicePropertyBufferFrameSizeRange:
            value = Scalar(AudioValueRange{static_cast<Float64>(minimumBufferFrames),
                                           static_cast<Float64>(maximumBufferFrames)});
            break;
        case kAudioDevicePropertyStreams:
            value = Array(input ? std::vector<AudioStreamID>{inputStream}
                                : std::vector<AudioStreamID>{});
            break;
        case kAudioDevicePropertyStreamConfiguration:
            value = StreamConfiguration(input ? bufferChannels : std::vector<UInt32>{});
            break;
        default:
            return kAudioHardwareUnknownPropertyError;
    }
    return kAudioHardwareNoError;
}

OSStatus DeviceProperties::ReadText(Object object, const AudioObjectPropertyAddress& address,
                                    std::string& text) const {
    if (!IsKnownAddress(address)) {
        return kAudioHardwareUnknownPropertyError;
    }
    if (object == Object::Device) {
        switch (address.mSelector) {
            case kAudioObjectPropertyName:
                text = name;
                return kAudioHardwareNoError;
            case kAudioDevicePropertyDeviceUID:
                text = uid;
                return kAudioHardwareNoError;
            case kAudioDevicePropertyModelUID:
                text = modelUid;
                return kAudioHardwareNoError;
            default:
                break;
        }
    }
    // A property of another type has another size than a text.
    PropertyValue other;
    const OSStatus status = Read(object, address, other);
    return status == kAudioHardwareNoError ? kAudioHardwareBadPropertySizeError : status;
}

OSStatus DeviceProperties::CheckWrite(Object object, const AudioObjectPropertyAddress& address,
                                      UInt32 size, const void* data) const {
    if (!IsKnownAddress(address)) {
        return kAudioHardwareUnknownPropertyError;
    }
    if (object == Object::Device && IsText(address.mSelector)) {
        return kAudioHardwareUnsupportedOperationError;
    }
    PropertyValue now;
    if (const OSStatus status = Read(object, address, now); status != kAudioHardwareNoError) {
        return status;
    }
    const bool isSettable = address.mSelector == kAudioDevicePropertyHogMode ||
                            address.mSelector == kAudioDevicePropertyBufferFrameSize ||
                            address.mSelector == kAudioStreamPropertyPhysicalFormat;
    if (!isSettable) {
        return kAudioHardwareUnsupportedOperationError;
    }
    return size != now.bytes.size() || data == nullptr ? kAudioHardwareBadPropertySizeError
                                                       : kAudioHardwareNoError;
}

bool WritableValues::operator==(const WritableValues& other) const {
    // As bytes, of which all are members': a rate that is no number is the same as itself.
    return hogOwner == other.hogOwner && bufferFrames == other.bufferFrames &&
           // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison)
           std::memcmp(&format, &other.format, sizeof format) == 0;
}

bool IsRelease(DeviceProperties::Object object, const AudioObjectPropertyAddress& address,
               UInt32 size, const void* data) {
    return object == DeviceProperties::Object::Device &&
           address.mSelector == kAudioDevicePropertyHogMode && IsKnownAddress(address) &&
           size == sizeof(SInt32) && data != nullptr && WrittenValue<SInt32>(data) == kNobody;
}

}  // namespace vorrel
