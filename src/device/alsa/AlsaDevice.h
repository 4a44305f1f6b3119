#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "device/alsa/AlsaCapture.h"
#include "device/alsa/AlsaPcm.h"
#include "device/alsa/CardAccess.h"
#include "device/alsa/PcmFormat.h"
#include "device/alsa/SoundCard.h"
#include "device/backend/ObjectProperties.h"
#include "device/backend/PropertyListeners.h"
#include "platform/Mutex.h"

namespace vorrel {

/// One plugging of a sound card: the device and, where the card captures, its input stream, as the
/// audio layer sees them. A device that is gone answers its device id with '!dev' (its alive state
/// still with 0) and its stream id with '!obj'; calls that take something away still do so. Any
/// thread may call anything at any time.
///
/// Exclusive use is the card's open PCM: what is not held is opened for a question or a run and
/// closed again. A format lasts while the card stays plugged in; nobody else's use changes it.
class AlsaDevice {
public:
    /// The device layer's own limit of frames in a buffer.
    static constexpr UInt32 kMostBufferFrames = 4096;

    /// @param procDirectory  Where the process file system is.
    AlsaDevice(SoundCard soundCard, std::shared_ptr<ObjectIds> objectIds,
               std::shared_ptr<PropertyListeners> propertyListeners,
               const std::string& procDirectory);
    /// Ends the IO thread, lets the card go.
    ~AlsaDevice();
    AlsaDevice(const AlsaDevice&) = delete;
    AlsaDevice& operator=(const AlsaDevice&) = delete;

    const SoundCard& Card() const { return card; }
    AudioObjectID DeviceId() const { return deviceId; }
    AudioObjectID StreamId() const { return streamId; }
    bool Owns(AudioObjectID object) const {
        return object == deviceId || (object == streamId && streamId != kAudioObjectUnknown);
    }
    bool IsPlugged() VORREL_EXCLUDES(mutex);
    /// It is dead, and a card found in its place is a device of its own: the card was missing from
    /// a look, or captured no more though it was there.
    bool GivesWay() VORREL_EXCLUDES(mutex);
    /// No proc, no run, no listener, not held: nobody would miss it.
    bool IsUnused() VORREL_EXCLUDES(mutex);
    /// Where nobody uses it, makes it one that is gone and gives way, for a new device of the same
    /// card to take its place; there is nobody to be told. @return False while it is used.
    bool RetireIfUnused() VORREL_EXCLUDES(mutex);

    OSStatus ReadProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                          PropertyValue& value) VORREL_EXCLUDES(mutex, operation);
    OSStatus ReadText(AudioObjectID object, const AudioObjectPropertyAddress& address,
                      std::string& text) VORREL_EXCLUDES(mutex, operation);
    OSStatus WriteProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                           UInt32 size, const void* data) VORREL_EXCLUDES(mutex, operation);
    /// 0 for the device and the stream while it is plugged in.
    OSStatus CheckObject(AudioObjectID object) VORREL_EXCLUDES(mutex);
    OSStatus CreateIOProcID(AudioObjectID device, AudioDeviceIOProc proc, void* clientData,
                            AudioDeviceIOProcID* id) VORREL_EXCLUDES(mutex);
    OSStatus DestroyIOProcID(AudioObjectID device, AudioDeviceIOProcID id) VORREL_EXCLUDES(mutex);
    OSStatus Start(AudioObjectID device, AudioDeviceIOProcID id) VORREL_EXCLUDES(mutex, operation);
    OSStatus Stop(AudioObjectID device, AudioDeviceIOProcID id) VORREL_EXCLUDES(mutex);

    /// A look has missed the card: a run ends, the alive listeners and those of the device list are
    /// called once. One that is gone already gives way from now on, and nothing else happens to it.
    void Unplug() VORREL_EXCLUDES(mutex);

    const AlsaCapture& Capture() const { return *capture; }

private:
    void GoAway(bool failed) VORREL_EXCLUDES(mutex);
    OSStatus ObjectStatus(AudioObjectID object) const VORREL_REQUIRES(mutex);
    DeviceProperties::Object KindOf(AudioObjectID object) const;
    DeviceProperties Properties() const VORREL_REQUIRES(mutex);
    WritableValues Writable() const VORREL_REQUIRES(mutex);
    /// Whether the property is known only after a look at the card.
    static bool NeedsFormats(AudioObjectPropertySelector selector);
    std::int32_t HogOwner() VORREL_EXCLUDES(mutex);

    /// Looks once what the card grants; while somebody else has it, its description serves. Nothing
    /// while it captures: its PCM is the IO thread's then, and a start has looked before.
    void LearnFormats() VORREL_EXCLUDES(mutex, operation);
    /// Of a PCM that does not run; nothing when they are known.
    void TakeFormats(AlsaPcm& pcm) VORREL_REQUIRES(operation);
    void OfferDescribedFormats() VORREL_REQUIRES(operation);
    void SetOffered(std::vector<OfferedFormat> formats, const AlsaPcm::FrameRange& range,
                    bool byTheCard) VORREL_EXCLUDES(mutex);
    /// CardAccess::Open; a refusal is traced with its reason.
    OSStatus OpenPcm(std::shared_ptr<AlsaPcm>& pcm) VORREL_REQUIRES(operation);
    /// Sets the format in the card; a refusal is traced.
    OSStatus Configure(AlsaPcm& pcm, const PcmFormat& wanted, UInt32 frames)
        VORREL_REQUIRES(operation);
    /// What a refusal by the card means: where it says that there is no card, and there is none,
    /// the device goes; while the card stands a later try may succeed.
    OSStatus RefusalStatus(int error) VORREL_REQUIRES(operation);

    OSStatus WriteHogMode(pid_t processId) VORREL_REQUIRES(operation);
    UInt32 BufferFrames() VORREL_EXCLUDES(mutex);
    OSStatus WriteBufferFrames(UInt32 frames) VORREL_REQUIRES(operation);
    OSStatus WriteFormat(const AudioStreamBasicDescription& wanted) VORREL_REQUIRES(operation);
    OSStatus FrameRangeOf(AlsaPcm& pcm, const PcmFormat& format, AlsaPcm::FrameRange& range);

    const SoundCard card;
    const std::string proc;
    const AudioObjectID deviceId;
    const AudioObjectID streamId;  // unknown for a card that does not capture
    const std::shared_ptr<PropertyListeners> listeners;
    const std::shared_ptr<AlsaCapture> capture;

    /// One at a time opens, sets up and starts the card; held across calls of libasound and of the
    /// message bus, never while waiting for an IO proc. The IO thread never takes it by itself.
    Mutex operation;
    CardAccess access VORREL_GUARDED_BY(operation);
    bool formatsKnown VORREL_GUARDED_BY(operation) = false;  // by the card's own word
    bool refusalTraced VORREL_GUARDED_BY(operation) = false;

    Mutex mutex;  // taken after `operation`; held for a look at the state only
    bool plugged VORREL_GUARDED_BY(mutex) = true;
    bool givesWay VORREL_GUARDED_BY(mutex) = false;  // of a dead one only
    bool hogged VORREL_GUARDED_BY(mutex) = false;
    UInt32 bufferFrames VORREL_GUARDED_BY(mutex) = 512;
    AlsaPcm::FrameRange frameRange VORREL_GUARDED_BY(mutex) = {16, kMostBufferFrames};
    std::vector<OfferedFormat> offered VORREL_GUARDED_BY(mutex);
    OfferedFormat format VORREL_GUARDED_BY(mutex);
};

}  // namespace vorrel
