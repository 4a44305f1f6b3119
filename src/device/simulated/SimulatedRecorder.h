#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "device/backend/CoreAudioTypes.h"
#include "device/backend/ObjectProperties.h"
#include "device/backend/PropertyListeners.h"
#include "device/backend/RegistryBackend.h"
#include "device/simulated/IoEngine.h"
#include "device/simulated/PropertyFaults.h"
#include "device/simulated/SimulatedRecorderConfig.h"
#include "platform/Mutex.h"

namespace vorrel {

/// One recorder: the device as the audio layer and the USB side see it, and the hand of the test
/// on it. Any thread may call anything at any time.
class SimulatedRecorder {
public:
    /// Number of the interface that carries the capture endpoint and takes the vendor request.
    static constexpr std::uint8_t kStreamingInterface = 1;

    /// @param completed  As `CompleteConfig` leaves it.
    /// @param number     Counted from 1; makes the unique id.
    SimulatedRecorder(const SimulatedRecorderConfig& completed, std::uint32_t number,
                      std::shared_ptr<ObjectIds> objectIds,
                      std::shared_ptr<PropertyListeners> propertyListeners);
    /// Ends the capture thread.
    ~SimulatedRecorder();
    SimulatedRecorder(const SimulatedRecorder&) = delete;
    SimulatedRecorder& operator=(const SimulatedRecorder&) = delete;

    // The device as the audio layer sees it. A recorder that is unplugged answers its device id
    // with '!dev' (its alive state still with 0) and its stream id with '!obj'; calls that take
    // something away still do so.

    /// Whether `object` is, or was until it was unplugged, this recorder's device or stream.
    bool Owns(AudioObjectID object) VORREL_EXCLUDES(mutex);
    OSStatus ReadProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                          PropertyValue& value) VORREL_EXCLUDES(mutex);
    OSStatus ReadText(AudioObjectID object, const AudioObjectPropertyAddress& address,
                      std::string& text) VORREL_EXCLUDES(mutex);
    OSStatus WriteProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                           UInt32 size, const void* data) VORREL_EXCLUDES(mutex);
    /// 0 for the device and the stream as they are now.
    OSStatus CheckObject(AudioObjectID object) VORREL_EXCLUDES(mutex);
    OSStatus CreateIOProcID(AudioObjectID device, AudioDeviceIOProc proc, void* clientData,
                            AudioDeviceIOProcID* id) VORREL_EXCLUDES(mutex);
    OSStatus DestroyIOProcID(AudioObjectID device, AudioDeviceIOProcID id) VORREL_EXCLUDES(mutex);
    OSStatus Start(AudioObjectID device, AudioDeviceIOProcID id) VORREL_EXCLUDES(mutex);
    OSStatus Stop(AudioObjectID device, AudioDeviceIOProcID id) VORREL_EXCLUDES(mutex);

    // The device as the USB side sees it. `plugging` is the one an interface handle was made in.

    IOReturn GetInterfaceNumber(std::uint32_t plugging, std::uint8_t interfaceNumber,
                                std::uint8_t* number) VORREL_EXCLUDES(mutex);
    IOReturn ControlRequest(std::uint32_t plugging, std::uint8_t interfaceNumber,
                            const UsbControlRequest& request) VORREL_EXCLUDES(mutex);

    // What a test, or somebody at the device, does.

    /// Pulls the plug: capture stops, the alive listener and the system's device-list listener are
    /// called once. Nothing happens to a recorder that is unplugged.
    void Unplug() VORREL_EXCLUDES(mutex);
    /// Unplugs after that many further buffers; 0 takes the order back.
    void UnplugAfterBuffers(std::uint64_t buffers) { engine->SetCountdown(buffers); }
    /// Plugs it in again, as new: other object ids, PCM mode, default format and buffer size, no IO
    /// procs. Waits for a call of the former plugging that is under way, unless it is the caller.
    void Plug() VORREL_EXCLUDES(mutex);
    /// The alive flag alone; a change calls the alive listener. Not alive, it does not start.
    void SetAlive(bool alive) VORREL_EXCLUDES(mutex);
    /// Reports a processor overload.
    void RaiseOverload() VORREL_EXCLUDES(mutex);
    /// Exclusive use by that process, as if it had come first; -1 for none.
    void SetHogOwner(std::int32_t processId) VORREL_EXCLUDES(mutex);
    void SetName(const std::string& name) VORREL_EXCLUDES(mutex);
    /// Replaces the available physical formats, whatever they are.
    void SetFormats(const std::vector<AudioStreamRangedDescription>& offered)
        VORREL_EXCLUDES(mutex);
    /// Without it the device has no input stream.
    void SetHasStream(bool present) VORREL_EXCLUDES(mutex);

    /// Physical formats for which `refused` answers true are refused with `status`. Null: none. It
    /// is asked on the thread that sets the format, no lock held, and may do anything to the
    /// device.
    void RefuseFormats(std::function<bool(const AudioStreamBasicDescription&)> refused,
                       OSStatus status = kAudioDeviceUnsupportedFormatError) VORREL_EXCLUDES(mutex);
    /// The next `count` starts fail with `status`.
    void FailStart(OSStatus status, std::uint32_t count = 1) VORREL_EXCLUDES(mutex);
    /// The next `count` creations of an IO proc fail with `status`.
    void FailCreateIOProc(OSStatus status, std::uint32_t count = 1) VORREL_EXCLUDES(mutex);
    /// After `skip` more, the next `count` control requests answer `result` and do nothing.
    void FailControlRequest(IOReturn result, std::uint32_t skip = 0, std::uint32_t count = 1)
        VORREL_EXCLUDES(mutex);
    /// The next `count` questions for the interface number answer `result`.
    void FailInterfaceNumber(IOReturn result, std::uint32_t count = 1) VORREL_EXCLUDES(mutex);
    PropertyFaults& Faults() { return faults; }
    /// The stream falls silent without an event, until it is released (`IoEngine::SetStalled`).
    void SetStalled(bool stalled) { engine->SetStalled(stalled); }

    /// As `IoEngine`; for short buffers and lists without buffers, and for manual delivery.
    void SetShortBuffers(UInt32 frames) { engine->SetShortBuffers(frames); }
    void SetEmptyLists(bool empty) { engine->SetEmptyLists(empty); }
    bool DeliverBuffer() { return engine->Deliver(); }
    /// @return how many were delivered: fewer when the device stops meanwhile.
    std::uint64_t DeliverBuffers(std::uint64_t count);
    bool Deliver(const AudioBufferList& list) { return engine->Deliver(list); }

    // What a test looks at.

    AudioObjectID DeviceId() VORREL_EXCLUDES(mutex);
    AudioObjectID StreamId() VORREL_EXCLUDES(mutex);
    const std::string& Uid() const { return uid; }
    const SimulatedRecorderConfig& Config() const { return config; }
    bool IsPlugged() VORREL_EXCLUDES(mutex);
    /// Counts the times it was plugged in, from 1.
    std::uint32_t Plugging() VORREL_EXCLUDES(mutex);
    bool IsRunning() { return engine->IsRunning(); }
    bool IsDsdMode() VORREL_EXCLUDES(mutex);
    std::int32_t HogOwner() VORREL_EXCLUDES(mutex);
    UInt32 BufferFrames() VORREL_EXCLUDES(mutex);
    AudioStreamBasicDescription Format() VORREL_EXCLUDES(mutex);
    /// All control requests that reached the device, refused ones too.
    std::vector<UsbControlRequest> ControlRequests() VORREL_EXCLUDES(mutex);
    std::size_t IoProcCount() { return engine->ProcCount(); }
    std::uint64_t DeliveredBuffers() { return engine->DeliveredBuffers(); }
    std::uint64_t DeliveredFrames() { return engine->DeliveredFrames(); }
    bool WaitForBuffers(std::uint64_t buffers,
                        std::chrono::milliseconds timeout = std::chrono::minutes(1)) {
        return engine->WaitForBuffers(buffers, timeout);
    }

private:
    /// The next so many calls fail.
    struct CallFault {
        std::int32_t status = 0;
        std::uint32_t skip = 0;
        std::uint32_t count = 0;
        /// Counts one call. @return whether it fails.
        bool Hit();
    };

    void ResetDevice() VORREL_REQUIRES(mutex);
    OSStatus CheckDevice(AudioObjectID device) VORREL_EXCLUDES(mutex);
    OSStatus ObjectStatus(AudioObjectID object) const VORREL_REQUIRES(mutex);
    OSStatus DeviceStatus(AudioObjectID device) const VORREL_REQUIRES(mutex);
    DeviceProperties::Object KindOf(AudioObjectID object) const VORREL_REQUIRES(mutex);
    /// What the recorder tells of itself now.
    DeviceProperties Properties() const VORREL_REQUIRES(mutex);
    WritableValues Writable() const VORREL_REQUIRES(mutex);
    /// Asks the predicate of `RefuseFormats` about a write that gets so far.
    OSStatus AskAboutFormat(AudioObjectID object, const AudioObjectPropertyAddress& address,
                            const AudioStreamBasicDescription& wanted) VORREL_EXCLUDES(mutex);
    OSStatus WriteHogMode(std::int32_t processId) VORREL_REQUIRES(mutex);
    OSStatus WriteBufferFrames(UInt32 frames) VORREL_REQUIRES(mutex);
    OSStatus WriteFormat(const AudioStreamBasicDescription& wanted) VORREL_REQUIRES(mutex);
    /// What anybody who changes or starts the device is told first.
    OSStatus UseStatus() const VORREL_REQUIRES(mutex);

    const SimulatedRecorderConfig config;
    const std::string uid;
    const std::string modelUid;
    const std::shared_ptr<ObjectIds> ids;
    const std::shared_ptr<PropertyListeners> listeners;
    PropertyFaults faults;

    Mutex mutex;  // taken before the engine's; never held across a callback or a wait
    std::string name VORREL_GUARDED_BY(mutex);
    AudioObjectID deviceId VORREL_GUARDED_BY(mutex) = kAudioObjectUnknown;
    AudioObjectID streamId VORREL_GUARDED_BY(mutex) = kAudioObjectUnknown;
    bool plugged VORREL_GUARDED_BY(mutex) = false;
    std::uint32_t pluggings VORREL_GUARDED_BY(mutex) = 0;
    bool alive VORREL_GUARDED_BY(mutex) = true;
    bool hasStream VORREL_GUARDED_BY(mutex) = true;
    bool dsdMode VORREL_GUARDED_BY(mutex) = false;
    std::int32_t hogOwner VORREL_GUARDED_BY(mutex) = -1;
    UInt32 bufferFrames VORREL_GUARDED_BY(mutex) = 0;
    std::vector<AudioStreamRangedDescription> formats VORREL_GUARDED_BY(mutex);
    AudioStreamBasicDescription format VORREL_GUARDED_BY(mutex) = {};
    std::function<bool(const AudioStreamBasicDescription&)> refusedFormats VORREL_GUARDED_BY(mutex);
    OSStatus refusedFormatStatus VORREL_GUARDED_BY(mutex) = kAudioHardwareNoError;
    CallFault startFault VORREL_GUARDED_BY(mutex);
    CallFault createFault VORREL_GUARDED_BY(mutex);
    CallFault requestFault VORREL_GUARDED_BY(mutex);
    CallFault interfaceFault VORREL_GUARDED_BY(mutex);
    std::vector<UsbControlRequest> requests VORREL_GUARDED_BY(mutex);

    const std::shared_ptr<IoEngine> engine;  // last: it calls back into all of the above
};

}  // namespace vorrel
