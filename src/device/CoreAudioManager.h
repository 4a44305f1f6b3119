#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "device/AudioDevice.h"
#include "device/FoundDeviceInfo.h"
#include "device/HogMode.h"
#include "device/IAudioDeviceNotify.h"
#include "device/backend/DeviceBackends.h"
#include "platform/Realtime.h"
#include "vorrel/VrError.h"

namespace vorrel {

/// Owns the one selected device: discovery, exclusive use, format, rate, buffer size, PCM/DSD
/// transfer and streaming.
///
/// Threads: a selected device is configured, started and stopped by one thread at a time (the
/// host's or the helper queue's; the manager's states keep them apart). `GetAudioDevices`,
/// `GetVidPid` and the readers of a setting may overlap with a start or a stop.
///
/// A status of the audio layer comes back as `ConvertErrorCode` has it. Unless a method says
/// otherwise, it checks in the order that it names, and a refused call changes nothing, its outputs
/// included. "Selected" means: between a `SetAudioDevice` that succeeded and `ReleaseDevice`.
class CoreAudioManager {
public:
    /// @param provider  Asked once, at the first device call. Without an audio back end there are
    ///                  no devices, without a registry no USB ids and interfaces.
    explicit CoreAudioManager(BackendProvider provider);
    /// Stops a running device, then releases a selected one and what an earlier release could not.
    ~CoreAudioManager();
    CoreAudioManager(const CoreAudioManager&) = delete;
    CoreAudioManager& operator=(const CoreAudioManager&) = delete;

    /// Lists the devices that are alive, in the system's order. One whose properties cannot be
    /// read is left out; one that the registry does not know has USB ids of -1.
    /// @return The failure of the device list itself; `list` is empty then.
    VrError GetAudioDevices(std::vector<FoundDeviceInfo>& list);
    /// Looks a device's USB ids up by its unique id.
    /// @return false when the registry does not know it; both ids are -1 then.
    bool GetVidPid(const std::string& uid, std::int32_t& vendorId, std::int32_t& productId);
    /// The USB interface that belongs to the input stream of the device with that unique id, or
    /// null. Owned by the caller; not to outlive this object.
    std::unique_ptr<UsbInterface> SearchInterface(const std::string& uid);

    /// Takes exclusive use of a device, in PCM mode, and begins to pass its events on.
    /// @param found   As discovered and filtered; copied.
    /// @param notify  Not owned; outlives the selection. It is called from the return of this
    ///                method on, not before.
    /// @return `VrErrorInvalidParameter` (null `notify`); `VrErrorInvalidState` (a device is
    ///         selected); `VrErrorNotSupported` (no input stream); `VrErrorFailed` (the USB
    ///         interface that the record promises is missing or refuses); `VrErrorDeviceNotFound`
    ///         (the device is gone); else the converted status. A failure leaves no device
    ///         selected, exclusive use given up and nothing registered.
    VrError SetAudioDevice(const FoundDeviceInfo& found, IAudioDeviceNotify* notify);
    /// Puts the device back as it was found: PCM mode, format, buffer size, exclusive use. What
    /// fails on the way is ignored, for the device may be gone.
    /// @return `VrErrorInvalidState` (none selected, or running).
    VrError ReleaseDevice() noexcept;

    /// The record given to `SetAudioDevice`; empty while no device is selected.
    const FoundDeviceInfo& SelectedDevice() const { return selectedDevice; }

    /// Channels of the input and of the output side. Both are 0 first; that of a side that cannot
    /// be read stays 0.
    /// @return `VrErrorInvalidState` (none selected); the last failure of a read.
    VrError GetChannels(std::uint16_t& inputs, std::uint16_t& outputs);
    /// The best resolution that the device has at any rate: the nearest to 32 bits.
    /// @param bits           Significant bits of a sample.
    /// @param containerBits  Bits that it occupies in a frame.
    /// @return `VrErrorInvalidState` (none selected); `VrErrorNotSupported` (no usable format).
    VrError GetBits(std::uint16_t& bits, std::uint16_t& containerBits);

    // Rates are those of the sample type in force: PCM frames a second, or 1-bit samples a second
    // and channel, of which the device carries 16 in a word of a physical format.

    /// @return Success when the device has a format for `rate` (Hz); `VrErrorNotSupported` when it
    ///         has none; `VrErrorInvalidState` (none selected).
    VrError CanSampleRate(double rate);
    /// @param rate  Hz.
    /// @return `VrErrorInvalidState` (none selected); where a setting has failed without an answer,
    ///         the converted status of the device that is asked.
    VrError GetSampleRate(double& rate);
    /// Sets the best physical format for `rate` (Hz).
    /// @return `VrErrorInvalidState` (none selected, or running); `VrErrorNotSupported` (no format
    ///         for it); `VrErrorFailed` (no input stream left); else the converted status.
    VrError SetSampleRate(double rate);

    /// The sample type in force: 0 PCM, 1 DSD. Any thread, without a lock.
    /// @return `VrErrorInvalidState` (none selected).
    VORREL_REALTIME VrError GetSampleType(std::int64_t& type) const;
    /// Switches a device that has the USB control interface between PCM (0) and DSD (1).
    /// @return `VrErrorInvalidState` (none selected, or running); `VrErrorNotSupported` (another
    ///         type, or DSD without the interface); the failure of `SetDSDMethod`.
    VrError SetSampleType(std::int64_t type);

    /// The buffer size in force, in frames.
    /// @return `VrErrorInvalidState` (none selected).
    VrError GetBufferSize(std::uint32_t& frames);
    /// Sets the buffer size.
    /// @param frames  In: as wanted. Out: as the device then reports it; after a failure possibly
    ///                only brought into the device's range.
    /// @return `VrErrorInvalidState` (none selected, or running); else the converted status.
    VrError SetBufferSize(std::uint32_t& frames);

    /// Sends the USB request that switches between DSD (true) and PCM (false).
    /// @return `VrErrorNotSupported` (no USB interface); `VrErrorDeviceNotFound` (the device is
    ///         gone); `VrErrorFailed` (it refuses). Waits for the device.
    VrError SetDSDMethod(bool dsd);

    /// @return `VrErrorInvalidState` (none selected, or running); else the converted status.
    VrError Start();
    /// After it has returned the notify object's IO proc is not called any more.
    /// @return `VrErrorInvalidState` (none selected, or not running); else the converted status,
    ///         and the device counts as stopped all the same.
    VrError Stop();

    /// What a status of the audio layer is called outside the device layer.
    static VrError ConvertErrorCode(OSStatus status);

private:
    bool IsSelected() const { return device.Id() != kAudioObjectUnknown; }
    const DeviceBackends& Backends();

    VrError SaveDeviceState(const AudioDevice& candidate, const AudioStream& inputStream);
    VrError AttachDevice(const AudioDevice& candidate, const FoundDeviceInfo& found);
    void Unregister(const AudioDevice& candidate) noexcept;
    void RestoreDeviceState() noexcept;
    /// The physical format in force; the device is asked where a failed call left it in doubt.
    VrError ReadFormat(AudioStreamBasicDescription& format);
    /// The physical format that carries `rate` of the sample type in force, its rate filled in.
    VrError ChooseFormat(double rate, AudioStreamBasicDescription& format) const;

    VORREL_REALTIME static OSStatus IOProc(AudioObjectID device, const AudioTimeStamp* now,
                                           const AudioBufferList* input,
                                           const AudioTimeStamp* inputTime, AudioBufferList* output,
                                           const AudioTimeStamp* outputTime, void* clientData);
    static OSStatus ProcessorOverloadListener(AudioObjectID object, UInt32 addressCount,
                                              const AudioObjectPropertyAddress* addresses,
                                              void* clientData);
    static OSStatus DeviceIsAliveListener(AudioObjectID object, UInt32 addressCount,
                                          const AudioObjectPropertyAddress* addresses,
                                          void* clientData);

    const BackendProvider provider;
    std::optional<DeviceBackends> backends;  // empty until the first device call

    AudioDevice device;  // the selected one, else without an id
    HogMode exclusiveUse;
    FoundDeviceInfo selectedDevice;
    // Null while no device is selected; the device's thread and the notification thread read it.
    std::atomic<IAudioDeviceNotify*> notify{nullptr};
    std::unique_ptr<UsbInterface> usbInterface;
    AudioDeviceIOProcID ioProcId = nullptr;
    std::atomic<bool> running{false};
    std::uint32_t savedBufferSize = 0;
    std::atomic<std::uint32_t> bufferSize{0};
    AudioStreamBasicDescription savedFormat{};
    AudioStreamBasicDescription currentFormat{};
    std::atomic<bool> formatInDoubt{false};  // a call that should set it ended in an exception
    std::vector<AudioStreamRangedDescription> availableFormats;
    std::atomic<std::int64_t> sampleType{0};
};

}  // namespace vorrel
