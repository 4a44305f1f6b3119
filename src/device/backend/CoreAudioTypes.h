#pragma once

// The vocabulary of the object-and-property audio layer and of the device registry that the
// device code speaks on every platform: the system's own on Apple, declared here elsewhere.
#if defined(__APPLE__)
#include <CoreAudio/CoreAudio.h>
#include <IOKit/IOKitLib.h>
#include <IOKit/usb/USB.h>
#else

#include <cstdint>

using OSStatus = std::int32_t;
using UInt8 = std::uint8_t;
using UInt16 = std::uint16_t;
using UInt32 = std::uint32_t;
using UInt64 = std::uint64_t;
using SInt32 = std::int32_t;
using Float64 = double;

namespace vorrel::detail {
constexpr std::uint32_t FourCharCode(const char (&text)[5]) {
    return (std::uint32_t{static_cast<unsigned char>(text[0])} << 24) |
           (std::uint32_t{static_cast<unsigned char>(text[1])} << 16) |
           (std::uint32_t{static_cast<unsigned char>(text[2])} << 8) |
           std::uint32_t{static_cast<unsigned char>(text[3])};
}
}  // namespace vorrel::detail

using AudioObjectID = UInt32;
using AudioDeviceID = AudioObjectID;
using AudioStreamID = AudioObjectID;
using AudioObjectPropertySelector = UInt32;
using AudioObjectPropertyScope = UInt32;
using AudioObjectPropertyElement = UInt32;

struct AudioObjectPropertyAddress {
    AudioObjectPropertySelector mSelector;
    AudioObjectPropertyScope mScope;
    AudioObjectPropertyElement mElement;
};

inline constexpr AudioObjectID kAudioObjectUnknown = 0;
inline constexpr AudioObjectID kAudioObjectSystemObject = 1;

inline constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeGlobal =
    vorrel::detail::FourCharCode("glob");
inline constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeInput =
    vorrel::detail::FourCharCode("inpt");
inline constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeOutput =
    vorrel::detail::FourCharCode("outp");
inline constexpr AudioObjectPropertyElement kAudioObjectPropertyElementMain = 0;

// Selectors, with the type of their value.
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyDevices =
    vorrel::detail::FourCharCode("dev#");  // AudioDeviceID[]
inline constexpr AudioObjectPropertySelector kAudioObjectPropertyName =
    vorrel::detail::FourCharCode("lnam");  // string
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceUID =
    vorrel::detail::FourCharCode("uid ");  // string
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyModelUID =
    vorrel::detail::FourCharCode("muid");  // string
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceIsAlive =
    vorrel::detail::FourCharCode("livn");  // UInt32
inline constexpr AudioObjectPropertySelector kAudioDeviceProcessorOverload =
    vorrel::detail::FourCharCode("over");  // event only
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyHogMode =
    vorrel::detail::FourCharCode("oink");  // SInt32: process id of the owner, -1 for none
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyBufferFrameSize =
    vorrel::detail::FourCharCode("fsiz");  // UInt32
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyBufferFrameSizeRange =
    vorrel::detail::FourCharCode("fsz#");  // AudioValueRange
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyStreams =
    vorrel::detail::FourCharCode("stm#");  // AudioStreamID[]
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyStreamConfiguration =
    vorrel::detail::FourCharCode("slay");  // AudioBufferList
inline constexpr AudioObjectPropertySelector kAudioStreamPropertyPhysicalFormat =
    vorrel::detail::FourCharCode("pft ");  // AudioStreamBasicDescription
inline constexpr AudioObjectPropertySelector kAudioStreamPropertyAvailablePhysicalFormats =
    vorrel::detail::FourCharCode("pfta");  // AudioStreamRangedDescription[]

inline constexpr UInt32 kAudioFormatLinearPCM = vorrel::detail::FourCharCode("lpcm");
inline constexpr UInt32 kAudioFormatFlagIsFloat = 1U << 0;
inline constexpr UInt32 kAudioFormatFlagIsBigEndian = 1U << 1;
inline constexpr UInt32 kAudioFormatFlagIsSignedInteger = 1U << 2;
inline constexpr UInt32 kAudioFormatFlagIsPacked = 1U << 3;
inline constexpr UInt32 kAudioFormatFlagIsAlignedHigh = 1U << 4;
inline constexpr UInt32 kAudioFormatFlagIsNonMixable = 1U << 6;

struct AudioValueRange {
    Float64 mMinimum;
    Float64 mMaximum;
};

struct AudioStreamBasicDescription {
    Float64 mSampleRate;
    UInt32 mFormatID;
    UInt32 mFormatFlags;
    UInt32 mBytesPerPacket;
    UInt32 mFramesPerPacket;
    UInt32 mBytesPerFrame;
    UInt32 mChannelsPerFrame;
    UInt32 mBitsPerChannel;
    UInt32 mReserved;
};

struct AudioStreamRangedDescription {
    AudioStreamBasicDescription mFormat;
    AudioValueRange mSampleRateRange;
};

/// Interleaved 32-bit float samples of `mNumberChannels` channels.
struct AudioBuffer {
    UInt32 mNumberChannels;
    UInt32 mDataByteSize;
    void* mData;
};

/// `mNumberBuffers` buffers lie behind each other from `mBuffers[0]` on.
struct AudioBufferList {
    UInt32 mNumberBuffers;
    AudioBuffer mBuffers[1];
};

struct AudioTimeStamp;  // not read by the engine

using AudioDeviceIOProc = OSStatus (*)(AudioObjectID device, const AudioTimeStamp* now,
                                       const AudioBufferList* input,
                                       const AudioTimeStamp* inputTime, AudioBufferList* output,
                                       const AudioTimeStamp* outputTime, void* clientData);
using AudioDeviceIOProcID = AudioDeviceIOProc;
using AudioObjectPropertyListenerProc = OSStatus (*)(AudioObjectID object, UInt32 addressCount,
                                                     const AudioObjectPropertyAddress* addresses,
                                                     void* clientData);

// Status codes of the audio layer.
inline constexpr OSStatus kAudioHardwareNoError = 0;
inline constexpr OSStatus kAudioHardwareUnspecifiedError = 0x77686174;           // 'what'
inline constexpr OSStatus kAudioHardwareUnknownPropertyError = 0x77686F3F;       // 'who?'
inline constexpr OSStatus kAudioHardwareBadPropertySizeError = 0x2173697A;       // '!siz'
inline constexpr OSStatus kAudioHardwareIllegalOperationError = 0x6E6F7065;      // 'nope'
inline constexpr OSStatus kAudioHardwareNotRunningError = 0x73746F70;            // 'stop'
inline constexpr OSStatus kAudioHardwareBadObjectError = 0x216F626A;             // '!obj'
inline constexpr OSStatus kAudioHardwareBadDeviceError = 0x21646576;             // '!dev'
inline constexpr OSStatus kAudioHardwareBadStreamError = 0x21737472;             // '!str'
inline constexpr OSStatus kAudioHardwareUnsupportedOperationError = 0x756E6F70;  // 'unop'
inline constexpr OSStatus kAudioDeviceUnsupportedFormatError = 0x21646174;       // '!dat'
inline constexpr OSStatus kAudioDevicePermissionsError = 0x21686F67;             // '!hog'

// The device registry.
using kern_return_t = std::int32_t;
using IOReturn = kern_return_t;
using io_object_t = std::uint32_t;
using io_iterator_t = io_object_t;
using io_registry_entry_t = io_object_t;
inline constexpr io_object_t IO_OBJECT_NULL = 0;
inline constexpr IOReturn kIOReturnSuccess = 0;
inline constexpr IOReturn kIOReturnError = static_cast<IOReturn>(0xE00002BC);
inline constexpr IOReturn kIOReturnNoDevice = static_cast<IOReturn>(0xE00002C0);
inline constexpr IOReturn kIOUSBPipeStalled = static_cast<IOReturn>(0xE000404F);

#endif
