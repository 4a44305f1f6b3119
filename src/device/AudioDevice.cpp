#include "device/AudioDevice.h"

#include <cstddef>
#include <cstring>
#include <utility>

namespace vorrel {

OSStatus AudioDevice::GetStreams(AudioObjectPropertyScope scope,
                                 std::vector<AudioStream>& streams) const {
    std::vector<AudioStreamID> ids;
    if (const OSStatus status = GetProperties(
            {kAudioDevicePropertyStreams, scope, kAudioObjectPropertyElementMain}, ids);
        status != kAudioHardwareNoError) {
        return status;
    }
    std::vector<AudioStream> read;
    read.reserve(ids.size());
    for (const AudioStreamID streamId : ids) {
        read.emplace_back(Backend(), streamId);
    }
    streams = std::move(read);
    return kAudioHardwareNoError;
}

OSStatus AudioDevice::GetChannels(AudioObjectPropertyScope scope, std::uint32_t& channels) const {
    // As bytes: the list is as long as its first field says, which no fixed type can express.
    std::vector<std::byte> bytes;
    if (const OSStatus status = GetProperties(
            {kAudioDevicePropertyStreamConfiguration, scope, kAudioObjectPropertyElementMain},
            bytes);
        status != kAudioHardwareNoError) {
        return status;
    }
    UInt32 bufferCount = 0;
    if (bytes.size() < sizeof(bufferCount)) {
        return kAudioHardwareBadPropertySizeError;
    }
    std::memcpy(&bufferCount, bytes.data(), sizeof(bufferCount));
    constexpr std::size_t kFirstBuffer = offsetof(AudioBufferList, mBuffers);
    const std::size_t room =
        bytes.size() > kFirstBuffer ? (bytes.size() - kFirstBuffer) / sizeof(AudioBuffer) : 0;
    if (bufferCount > room) {
        return kAudioHardwareBadPropertySizeError;
    }
    std::uint32_t sum = 0;
    for (std::size_t index = 0; index < bufferCount; ++index) {
        AudioBuffer buffer{};
        std::memcpy(&buffer, bytes.data() + kFirstBuffer + index * sizeof(buffer), sizeof(buffer));
        sum += buffer.mNumberChannels;
    }
    channels = sum;
    return kAudioHardwareNoError;
}

OSStatus AudioDevice::CreateIOProcID(AudioDeviceIOProc proc, void* clientData,
                                     AudioDeviceIOProcID& ioProcId) const {
    if (Backend() == nullptr) {
        return kAudioHardwareBadObjectError;
    }
    AudioDeviceIOProcID created = nullptr;
    const OSStatus status = Backend()->CreateIOProcID(Id(), proc, clientData, &created);
    if (status == kAudioHardwareNoError) {
        ioProcId = created;
    }
    return status;
}

OSStatus AudioDevice::DestroyIOProcID(AudioDeviceIOProcID ioProcId) const {
    return Backend() == nullptr ? kAudioHardwareBadObjectError
                                : Backend()->DestroyIOProcID(Id(), ioProcId);
}

OSStatus AudioDevice::Start(AudioDeviceIOProcID ioProcId) const {
    return Backend() == nullptr ? kAudioHardwareBadObjectError : Backend()->Start(Id(), ioProcId);
}

OSStatus AudioDevice::Stop(AudioDeviceIOProcID ioProcId) const {
    return Backend() == nullptr ? kAudioHardwareBadObjectError : Backend()->Stop(Id(), ioProcId);
}

}  // namespace vorrel
