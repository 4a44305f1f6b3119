#include "device/simulated/SimulatedRecorder.h"

#include <unistd.h>

#include <utility>

#include "device/simulated/RecorderFormats.h"
#include "device/simulated/SampleSource.h"

namespace vorrel {
namespace {

// The vendor request that switches the mode.
constexpr std::uint8_t kVendorRequestToInterface = 0x41;  // host to device, vendor, interface
constexpr std::uint8_t kSwitchModeRequest = 0;
constexpr std::uint16_t kPcmMode = 0;
constexpr std::uint16_t kDsdMode = 1;

constexpr std::int32_t kNoOwner = -1;

}  // namespace

bool SimulatedRecorder::CallFault::Hit() {
    if (count == 0) {
        return false;
    }
    if (skip > 0) {
        --skip;
        return false;
    }
    --count;
    return true;
}

SimulatedRecorder::SimulatedRecorder(const SimulatedRecorderConfig& completed, std::uint32_t number,
                                     std::shared_ptr<ObjectIds> objectIds,
                                     std::shared_ptr<PropertyListeners> propertyListeners)
    : config(completed),
      uid(std::string("Simulated:") + kSupportedDeviceName + ":" + std::to_string(number)),
      modelUid(std::string(kSupportedDeviceName) + ":" + std::to_string(completed.vendorId) + ":" +
               std::to_string(completed.productId)),
      ids(std::move(objectIds)),
      listeners(std::move(propertyListeners)),
      name(completed.name),
      engine(std::make_shared<IoEngine>(
          completed.speed, completed.manual, [this] { Unplug(); }, completed.clock)) {
    engine->SetCountdown(config.unplugAfterBuffers);
    const MutexLock lock(mutex);
    ResetDevice();
}

SimulatedRecorder::~SimulatedRecorder() {
    engine->Close();
}

void SimulatedRecorder::ResetDevice() {
    // Nobody can give them back any more: they belong to a device that never comes again.
    engine->DropProcs();
    deviceId = ids->Next();
    streamId = ids->Next();
    plugged = true;
    ++pluggings;
    alive = true;
    dsdMode = false;
    hogOwner = kNoOwner;
    bufferFrames = config.bufferFrames;
    formats = MakeFormats(config);
    format = formats.empty() ? AudioStreamBasicDescription{} : formats.front().mFormat;
}

bool SimulatedRecorder::Owns(AudioObjectID object) {
    const MutexLock lock(mutex);
    return object == deviceId || object == streamId;
}

OSStatus SimulatedRecorder::ObjectStatus(AudioObjectID object) const {
    return ObjectStatusOf(object, deviceId, hasStream ? streamId : kAudioObjectUnknown, plugged);
}

OSStatus SimulatedRecorder::DeviceStatus(AudioObjectID device) const {
    return ObjectStatusOf(device, deviceId, kAudioObjectUnknown, plugged);
}

OSStatus SimulatedRecorder::CheckObject(AudioObjectID object) {
    const MutexLock lock(mutex);
    return ObjectStatus(object);
}

OSStatus SimulatedRecorder::CheckDevice(AudioObjectID device) {
    const MutexLock lock(mutex);
    return DeviceStatus(device);
}

OSStatus SimulatedRecorder::ReadProperty(AudioObjectID object,
                                         const AudioObjectPropertyAddress& address,
                                         PropertyValue& value) {
    const MutexLock lock(mutex);
    const OSStatus status = ObjectStatus(object);
    if (status == kAudioHardwareBadDeviceError &&
        address.mSelector == kAudioDevicePropertyDeviceIsAlive) {
        value = NotAliveValue();
        return kAudioHardwareNoError;
    }
    if (status != kAudioHardwareNoError) {
        return status;
    }
    return Properties().Read(KindOf(object), address, value);
}

DeviceProperties::Object SimulatedRecorder::KindOf(AudioObjectID object) const {
    return object == deviceId ? DeviceProperties::Object::Device : DeviceProperties::Object::Stream;
}

DeviceProperties SimulatedRecorder::Properties() const {
    return {name,
            uid,
            modelUid,
            alive,
            hogOwner,
            bufferFrames,
            config.bufferFramesMinimum,
            config.bufferFramesMaximum,
            hasStream ? streamId : kAudioObjectUnknown,
            config.bufferChannels.empty() ? std::vector<UInt32>{config.channels}
                                          : config.bufferChannels,
            format,
            formats};
}

WritableValues SimulatedRecorder::Writable() const {
    return {hogOwner, bufferFrames, format};
}

OSStatus SimulatedRecorder::ReadText(AudioObjectID object,
                                     const AudioObjectPropertyAddress& address, std::string& text) {
    const MutexLock lock(mutex);
    if (const OSStatus status = ObjectStatus(object); status != kAudioHardwareNoError) {
        return status;
    }
    return Properties().ReadText(KindOf(object), address, text);
}

OSStatus SimulatedRecorder::WriteProperty(AudioObjectID object,
                                          const AudioObjectPropertyAddress& address, UInt32 size,
                                          const void* data) {
    if (address.mSelector == kAudioStreamPropertyPhysicalFormat &&
        size == sizeof(AudioStreamBasicDescription) && data != nullptr) {
        if (const OSStatus status =
                AskAboutFormat(object, address, WrittenValue<AudioStreamBasicDescription>(data));
            status != kAudioHardwareNoError) {
            return status;
        }
    }
    bool changed = false;
    {
        const MutexLock lock(mutex);
        if (const OSStatus status = ObjectStatus(object); status != kAudioHardwareNoError) {
            return status;
        }
        const DeviceProperties::Object kind = KindOf(object);
        OSStatus status = kAudioHardwareNoError;
        if (!IsRelease(kind, address, size, data)) {
            status = Properties().CheckWrite(kind, address, size, data);
        }
        if (status != kAudioHardwareNoError) {
            return status;
        }
        const WritableValues before = Writable();
        if (address.mSelector == kAudioDevicePropertyHogMode) {
            status = WriteHogMode(WrittenValue<std::int32_t>(data));
        } else if (address.mSelector == kAudioDevicePropertyBufferFrameSize) {
            status = WriteBufferFrames(WrittenValue<UInt32>(data));
        } else {
            status = WriteFormat(WrittenValue<AudioStreamBasicDescription>(data));
        }
        if (status != kAudioHardwareNoError) {
            return status;
        }
        // From the change on nothing may fail: who is told of a failure takes it for undone.
        changed = Writable() != before;
    }
    if (changed) {
        listeners->Notify(object, address.mSelector);
    }
    return kAudioHardwareNoError;
}

OSStatus SimulatedRecorder::AskAboutFormat(AudioObjectID object,
                                           const AudioObjectPropertyAddress& address,
                                           const AudioStreamBasicDescription& wanted) {
    std::function<bool(const AudioStreamBasicDescription&)> refused;
    OSStatus status = kAudioHardwareNoError;
    {
        const MutexLock lock(mutex);
        if (object != streamId || ObjectStatus(object) != kAudioHardwareNoError ||
            !IsKnownAddress(address) || UseStatus() != kAudioHardwareNoError ||
            engine->IsRunning()) {
            return kAudioHardwareNoError;  // the write itself finds it out
        }
        refused = refusedFormats;
        status = refusedFormatStatus;
    }
    return refused && refused(wanted) ? status : kAudioHardwareNoError;
}

OSStatus SimulatedRecorder::WriteHogMode(std::int32_t processId) {
    if (processId == kNoOwner) {
        // Only its owner lets it go; a device that nobody holds stays free.
        if (hogOwner != kNoOwner && hogOwner != ::getpid()) {
            return kAudioDevicePermissionsError;
        }
        hogOwner = kNoOwner;
        return kAudioHardwareNoError;
    }
    // Refused to the owner as well: two users in one process would not know of each other.
    if (hogOwner != kNoOwner || processId != ::getpid()) {
        return kAudioHardwareIllegalOperationError;
    }
    hogOwner = processId;
    return kAudioHardwareNoError;
}

OSStatus SimulatedRecorder::UseStatus() const {
    return hogOwner != kNoOwner && hogOwner != ::getpid() ? kAudioDevicePermissionsError
                                                          : kAudioHardwareNoError;
}

OSStatus SimulatedRecorder::WriteBufferFrames(UInt32 frames) {
    if (const OSStatus status = UseStatus(); status != kAudioHardwareNoError) {
        return status;
    }
    if (engine->IsRunning() || frames < config.bufferFramesMinimum ||
        frames > config.bufferFramesMaximum) {
        return kAudioHardwareIllegalOperationError;
    }
    const UInt32 rounded = frames - frames % config.bufferFramesStep;
    bufferFrames = rounded < config.bufferFramesMinimum ? config.bufferFramesMinimum : rounded;
    return kAudioHardwareNoError;
}

OSStatus SimulatedRecorder::WriteFormat(const AudioStreamBasicDescription& wanted) {
    if (const OSStatus status = UseStatus(); status != kAudioHardwareNoError) {
        return status;
    }
    if (engine->IsRunning()) {
        return kAudioHardwareIllegalOperationError;
    }
    if (!IsFormatOfMode(config, formats, wanted, dsdMode)) {
        return kAudioDeviceUnsupportedFormatError;
    }
    format = wanted;
    return kAudioHardwareNoError;
}

OSStatus SimulatedRecorder::CreateIOProcID(AudioObjectID device, AudioDeviceIOProc proc,
                                           void* clientData, AudioDeviceIOProcID* id) {
    const MutexLock lock(mutex);
    if (const OSStatus status = DeviceStatus(device); status != kAudioHardwareNoError) {
        return status;
    }
    if (proc == nullptr || id == nullptr) {
        return kAudioHardwareIllegalOperationError;
    }
    if (createFault.Hit()) {
        return createFault.status;
    }
    *id = engine->Create(proc, clientData);
    return kAudioHardwareNoError;
}

OSStatus SimulatedRecorder::DestroyIOProcID(AudioObjectID device, AudioDeviceIOProcID id) {
    // Not under the mutex: it waits for the proc, which may be asking for a property.
    const OSStatus status = CheckDevice(device);
    if (status == kAudioHardwareBadObjectError) {
        return status;
    }
    const bool known = engine->Destroy(id);
    if (status != kAudioHardwareNoError) {
        return status;
    }
    return known ? kAudioHardwareNoError : kAudioHardwareIllegalOperationError;
}

OSStatus SimulatedRecorder::Start(AudioObjectID device, AudioDeviceIOProcID id) {
    std::unique_ptr<SampleSource> source;
    SourceFormat sourceFormat;
    for (bool first = true;; first = false) {
        SourceFormat wanted;
        {
            const MutexLock lock(mutex);
            OSStatus status = DeviceStatus(device);
            if (status == kAudioHardwareNoError) {
                status = UseStatus();
            }
            if (status != kAudioHardwareNoError) {
                return status;
            }
            if (first && startFault.Hit()) {
                return startFault.status;
            }
            if (!alive) {
                return kAudioHardwareBadDeviceError;
            }
            // A switch of the mode leaves the format in force; it may not be one of the new mode.
            if (!IsFormatOfMode(config, formats, format, dsdMode)) {
                return kAudioDeviceUnsupportedFormatError;
            }
            wanted = {format.mSampleRate, format.mBitsPerChannel, config.channels, dsdMode};
            if (wanted != sourceFormat) {
                source.reset();
            }
            bool missing = false;
            status = engine->Start(id,
                                   {deviceId, format.mSampleRate, bufferFrames, config.channels,
                                    config.bufferChannels},
                                   [&] {
                                       missing = source == nullptr;
                                       return std::move(source);
                                   });
            if (!missing) {
                return status;
            }
        }
        // No lock held: a slow file must not keep others from a property or from an unplugging.
        source = MakeSampleSource(config, wanted);
        if (source == nullptr) {
            return kAudioHardwareUnspecifiedError;
        }
        sourceFormat = wanted;
    }
}

OSStatus SimulatedRecorder::Stop(AudioObjectID device, AudioDeviceIOProcID id) {
    // Not under the mutex: it waits for the proc, which may be asking for a property.
    const OSStatus status = CheckDevice(device);
    if (status == kAudioHardwareBadObjectError) {
        return status;
    }
    const bool started = engine->Stop(id);
    if (status != kAudioHardwareNoError) {
        return status;
    }
    return started ? kAudioHardwareNoError : kAudioHardwareNotRunningError;
}

IOReturn SimulatedRecorder::GetInterfaceNumber(std::uint32_t plugging, std::uint8_t interfaceNumber,
                                               std::uint8_t* number) {
    const MutexLock lock(mutex);
    if (!plugged || plugging != pluggings) {
        return kIOReturnNoDevice;
    }
    if (interfaceFault.Hit()) {
        return interfaceFault.status;
    }
    if (number == nullptr) {
        return kIOReturnError;
    }
    *number = interfaceNumber;
    return kIOReturnSuccess;
}

IOReturn SimulatedRecorder::ControlRequest(std::uint32_t plugging, std::uint8_t interfaceNumber,
                                           const UsbControlRequest& request) {
    const MutexLock lock(mutex);
    if (!plugged || plugging != pluggings) {
        return kIOReturnNoDevice;
    }
    requests.push_back(request);
    if (requestFault.Hit()) {
        return requestFault.status;
    }
    const bool understood =
        interfaceNumber == kStreamingInterface &&
        request.requestType == kVendorRequestToInterface && request.request == kSwitchModeRequest &&
        (request.value == kPcmMode || (request.value == kDsdMode && config.dsd)) &&
        request.index == kStreamingInterface && request.length == 0;
    if (!understood || engine->IsRunning()) {
        return kIOUSBPipeStalled;
    }
    dsdMode = request.value == kDsdMode;
    return kIOReturnSuccess;
}

void SimulatedRecorder::Unplug() {
    AudioObjectID device = kAudioObjectUnknown;
    {
        const MutexLock lock(mutex);
        if (!plugged) {
            return;
        }
        plugged = false;
        alive = false;
        hogOwner = kNoOwner;
        device = deviceId;
        // Under the mutex: the run of a plugging that follows at once is not ended by this one.
        engine->EndRun();
    }
    engine->WaitForCall();
    listeners->Notify(device, kAudioDevicePropertyDeviceIsAlive);
    listeners->Notify(kAudioObjectSystemObject, kAudioHardwarePropertyDevices);
}

void SimulatedRecorder::Plug() {
    if (IsPlugged()) {
        return;
    }
    // While it is unplugged nothing starts. Afterwards nobody can wait for a proc of the former
    // plugging, which is forgotten.
    engine->WaitForCall();
    {
        const MutexLock lock(mutex);
        if (plugged) {
            return;
        }
        ResetDevice();
    }
    listeners->Notify(kAudioObjectSystemObject, kAudioHardwarePropertyDevices);
}

void SimulatedRecorder::SetAlive(bool nowAlive) {
    AudioObjectID device = kAudioObjectUnknown;
    {
        const MutexLock lock(mutex);
        if (alive == nowAlive || !plugged) {
            return;
        }
        alive = nowAlive;
        device = deviceId;
    }
    listeners->Notify(device, kAudioDevicePropertyDeviceIsAlive);
}

void SimulatedRecorder::RaiseOverload() {
    listeners->Notify(DeviceId(), kAudioDeviceProcessorOverload);
}

void SimulatedRecorder::SetHogOwner(std::int32_t processId) {
    const MutexLock lock(mutex);
    hogOwner = processId;
}

void SimulatedRecorder::SetName(const std::string& newName) {
    const MutexLock lock(mutex);
    name = newName;
}

void SimulatedRecorder::SetFormats(const std::vector<AudioStreamRangedDescription>& offered) {
    const MutexLock lock(mutex);
    formats = offered;
}

void SimulatedRecorder::SetHasStream(bool present) {
    const MutexLock lock(mutex);
    hasStream = present;
}

void SimulatedRecorder::RefuseFormats(
    std::function<bool(const AudioStreamBasicDescription&)> refused, OSStatus status) {
    const MutexLock lock(mutex);
    refusedFormats = std::move(refused);
    refusedFormatStatus = status;
}

void SimulatedRecorder::FailStart(OSStatus status, std::uint32_t count) {
    const MutexLock lock(mutex);
    startFault = {status, 0, count};
}

void SimulatedRecorder::FailCreateIOProc(OSStatus status, std::uint32_t count) {
    const MutexLock lock(mutex);
    createFault = {status, 0, count};
}

void SimulatedRecorder::FailControlRequest(IOReturn result, std::uint32_t skip,
                                           std::uint32_t count) {
    const MutexLock lock(mutex);
    requestFault = {result, skip, count};
}

void SimulatedRecorder::FailInterfaceNumber(IOReturn result, std::uint32_t count) {
    const MutexLock lock(mutex);
    interfaceFault = {result, 0, count};
}

std::uint64_t SimulatedRecorder::DeliverBuffers(std::uint64_t count) {
    std::uint64_t delivered = 0;
    while (delivered < count && engine->Deliver()) {
        ++delivered;
    }
    return delivered;
}

AudioObjectID SimulatedRecorder::DeviceId() {
    const MutexLock lock(mutex);
    return deviceId;
}

AudioObjectID SimulatedRecorder::StreamId() {
    const MutexLock lock(mutex);
    return streamId;
}

bool SimulatedRecorder::IsPlugged() {
    const MutexLock lock(mutex);
    return plugged;
}

std::uint32_t SimulatedRecorder::Plugging() {
    const MutexLock lock(mutex);
    return pluggings;
}

bool SimulatedRecorder::IsDsdMode() {
    const MutexLock lock(mutex);
    return dsdMode;
}

std::int32_t SimulatedRecorder::HogOwner() {
    const MutexLock lock(mutex);
    return hogOwner;
}

UInt32 SimulatedRecorder::BufferFrames() {
    const MutexLock lock(mutex);
    return bufferFrames;
}

AudioStreamBasicDescription SimulatedRecorder::Format() {
    const MutexLock lock(mutex);
    return format;
}

std::vector<UsbControlRequest> SimulatedRecorder::ControlRequests() {
    const MutexLock lock(mutex);
    return requests;
}

}  // namespace vorrel
