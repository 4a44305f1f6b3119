#include "device/alsa/AlsaDevice.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <system_error>
#include <tuple>
#include <utility>

#include "device/alsa/AlsaStatus.h"
#include "device/alsa/DeviceHolder.h"
#include "platform/Trace.h"

namespace vorrel {
namespace {

constexpr pid_t kNoOwner = -1;

}  // namespace

AlsaDevice::AlsaDevice(SoundCard soundCard, std::shared_ptr<ObjectIds> objectIds,
                       std::shared_ptr<PropertyListeners> propertyListeners,
                       const std::string& procDirectory)
    : card(std::move(soundCard)),
      proc(procDirectory),
      deviceId(objectIds->Next()),
      streamId(card.captureDevice.has_value() ? objectIds->Next() : kAudioObjectUnknown),
      listeners(std::move(propertyListeners)),
      capture(std::make_shared<AlsaCapture>(
          listeners,
          [this](AlsaCapture::Ending ending) { GoAway(ending == AlsaCapture::Ending::Failed); })),
      access(card, procDirectory) {}

AlsaDevice::~AlsaDevice() {
    capture->Close();
}

bool AlsaDevice::IsPlugged() {
    const MutexLock lock(mutex);
    return plugged;
}

bool AlsaDevice::GivesWay() {
    const MutexLock lock(mutex);
    return givesWay;
}

bool AlsaDevice::IsUnused() {
    if (capture->ProcCount() > 0 || capture->IsRunning() || listeners->HasAny(deviceId) ||
        (streamId != kAudioObjectUnknown && listeners->HasAny(streamId))) {
        return false;
    }
    const MutexLock lock(mutex);
    return !hogged;
}

bool AlsaDevice::RetireIfUnused() {
    if (!IsUnused()) {
        return false;
    }
    const MutexLock lock(mutex);
    if (hogged) {
        return false;
    }
    if (plugged) {
        Trace(__FILE__, __LINE__, "card %d (%s) tells more of itself by now: it is a new device",
              card.number, card.name.c_str());
    } else {
        Trace(__FILE__, __LINE__, "card %d (%s) is still listed: it is a new device", card.number,
              card.name.c_str());
    }
    // Who begins to use it in this moment is told that it is gone.
    plugged = false;
    givesWay = true;
    return true;
}

OSStatus AlsaDevice::ObjectStatus(AudioObjectID object) const {
    return ObjectStatusOf(object, deviceId, streamId, plugged);
}

OSStatus AlsaDevice::CheckObject(AudioObjectID object) {
    const MutexLock lock(mutex);
    return ObjectStatus(object);
}

DeviceProperties::Object AlsaDevice::KindOf(AudioObjectID object) const {
    return object == deviceId ? DeviceProperties::Object::Device : DeviceProperties::Object::Stream;
}

DeviceProperties AlsaDevice::Properties() const {
    DeviceProperties properties;
    properties.name = card.name;
    properties.uid = card.uid;
    properties.modelUid = card.modelUid;
    properties.alive = plugged;
    properties.hogOwner = hogged ? ::getpid() : kNoOwner;
    properties.bufferFrames = bufferFrames;
    properties.minimumBufferFrames = frameRange.minimum;
    properties.maximumBufferFrames = frameRange.maximum;
    properties.inputStream = streamId;
    properties.bufferChannels = {format.pcm.channels};
    properties.format = format.description.mFormat;
    properties.formats.reserve(offered.size());
    for (const OfferedFormat& entry : offered) {
        properties.formats.push_back(entry.description);
    }
    return properties;
}

bool AlsaDevice::NeedsFormats(AudioObjectPropertySelector selector) {
    return selector == kAudioDevicePropertyBufferFrameSize ||
           selector == kAudioDevicePropertyBufferFrameSizeRange ||
           selector == kAudioDevicePropertyStreamConfiguration ||
           selector == kAudioStreamPropertyPhysicalFormat ||
           selector == kAudioStreamPropertyAvailablePhysicalFormats;
}

std::int32_t AlsaDevice::HogOwner() {
    {
        const MutexLock lock(mutex);
        if (hogged) {
            return ::getpid();
        }
    }
    return card.captureDevice.has_value()
               ? FindDeviceHolder(card.number, *card.captureDevice, proc).processId
               : kNoOwner;
}

OSStatus AlsaDevice::ReadProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                  PropertyValue& value) {
    if (NeedsFormats(address.mSelector)) {
        LearnFormats();
    }
    const std::int32_t owner =
        address.mSelector == kAudioDevicePropertyHogMode ? HogOwner() : kNoOwner;
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
    DeviceProperties properties = Properties();
    properties.hogOwner = owner;
    return properties.Read(KindOf(object), address, value);
}

OSStatus AlsaDevice::ReadText(AudioObjectID object, const AudioObjectPropertyAddress& address,
                              std::string& text) {
    const MutexLock lock(mutex);
    if (const OSStatus status = ObjectStatus(object); status != kAudioHardwareNoError) {
        return status;
    }
    return Properties().ReadText(KindOf(object), address, text);
}

WritableValues AlsaDevice::Writable() const {
    return {hogged ? ::getpid() : kNoOwner, bufferFrames, format.description.mFormat};
}

OSStatus AlsaDevice::WriteProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                   UInt32 size, const void* data) {
    const DeviceProperties::Object kind = KindOf(object);
    if (NeedsFormats(address.mSelector)) {
        LearnFormats();
    }
    bool changed = false;
    {
        const MutexLock working(operation);
        WritableValues before;
        {
            const MutexLock lock(mutex);
            before = Writable();
            if (!IsRelease(kind, address, size, data)) {
                OSStatus refusal = ObjectStatus(object);
                if (refusal == kAudioHardwareNoError) {
                    refusal = Properties().CheckWrite(kind, address, size, data);
                }
                if (refusal != kAudioHardwareNoError) {
                    return refusal;
                }
            }  // a card that is gone is let go all the same
        }
        OSStatus status = kAudioHardwareNoError;
        if (address.mSelector == kAudioDevicePropertyHogMode) {
            status = WriteHogMode(WrittenValue<pid_t>(data));
        } else if (address.mSelector == kAudioDevicePropertyBufferFrameSize) {
            status = WriteBufferFrames(WrittenValue<UInt32>(data));
        } else {
            status = WriteFormat(WrittenValue<AudioStreamBasicDescription>(data));
        }
        const MutexLock lock(mutex);
        if (const OSStatus now = ObjectStatus(object); now != kAudioHardwareNoError) {
            return now;
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

OSStatus AlsaDevice::OpenPcm(std::shared_ptr<AlsaPcm>& pcm) {
    if (!card.captureDevice.has_value()) {
        return kAudioHardwareUnsupportedOperationError;
    }
    const int error = access.Open(pcm);
    if (error < 0) {
        access.TraceRefusal(error);
        return RefusalStatus(error);
    }
    return kAudioHardwareNoError;
}

OSStatus AlsaDevice::RefusalStatus(int error) {
    if (!MayBeGone(error)) {
        return StatusOf(error);
    }
    if (!card.systemPath.empty() && ::access(card.systemPath.c_str(), F_OK) == 0) {
        return kAudioHardwareUnspecifiedError;
    }
    GoAway(false);
    return kAudioHardwareBadDeviceError;
}

void AlsaDevice::LearnFormats() {
    const MutexLock working(operation);
    if (formatsKnown || !card.captureDevice.has_value() || !IsPlugged() || capture->IsRunning()) {
        return;
    }
    std::shared_ptr<AlsaPcm> pcm;
    if (const int error = access.Open(pcm); error < 0) {
        // Asked again at each look until the card answers; said once.
        if (!refusalTraced) {
            refusalTraced = true;
            access.TraceRefusal(error);
            Trace(__FILE__, __LINE__, "card %d: its formats are those that it describes",
                  card.number);
        }
        OfferDescribedFormats();
        return;
    }
    TakeFormats(*pcm);
}

void AlsaDevice::TakeFormats(AlsaPcm& pcm) {
    // No run begins meanwhile: that takes the operation as well.
    if (formatsKnown || capture->IsRunning()) {
        return;
    }
    std::vector<OfferedFormat> granted = OfferFormats(pcm.Formats(), card.formats);
    PcmFormat inForce;
    bool stays = false;
    {
        const MutexLock lock(mutex);
        inForce = format.pcm;
        stays = std::any_of(granted.begin(), granted.end(),
                            [&](const OfferedFormat& entry) { return entry.pcm == inForce; });
    }
    if (!stays && !granted.empty()) {
        inForce = granted.front().pcm;
    }
    AlsaPcm::FrameRange range{1, kMostBufferFrames};
    if (!granted.empty()) {
        std::ignore = FrameRangeOf(pcm, inForce, range);
    }
    SetOffered(std::move(granted), range, true);
    formatsKnown = true;
    refusalTraced = false;
}

void AlsaDevice::OfferDescribedFormats() {
    SetOffered(OfferFormats(DescribedFormats(card.formats), card.formats), {16, kMostBufferFrames},
               false);
}

void AlsaDevice::SetOffered(std::vector<OfferedFormat> formats, const AlsaPcm::FrameRange& range,
                            bool byTheCard) {
    const MutexLock lock(mutex);
    if (!byTheCard && !offered.empty()) {
        return;
    }
    offered = std::move(formats);
    const PcmFormat before = format.pcm;
    const auto current =
        std::find_if(offered.begin(), offered.end(),
                     [&before](const OfferedFormat& entry) { return entry.pcm == before; });
    if (current != offered.end()) {
        format = *current;
    } else {
        format = offered.empty() ? OfferedFormat{} : offered.front();
    }
    frameRange = range;
    bufferFrames = std::clamp(bufferFrames, frameRange.minimum, frameRange.maximum);
}

OSStatus AlsaDevice::FrameRangeOf(AlsaPcm& pcm, const PcmFormat& wanted,
                                  AlsaPcm::FrameRange& range) {
    AlsaPcm::FrameRange granted;
    if (const int error = pcm.PeriodRange(wanted, granted); error < 0) {
        return StatusOf(error);
    }
    range.maximum = std::clamp(granted.maximum, 1U, kMostBufferFrames);
    range.minimum = std::min(granted.minimum, range.maximum);
    return kAudioHardwareNoError;
}

OSStatus AlsaDevice::WriteHogMode(pid_t processId) {
    if (processId == kNoOwner) {
        if (!access.IsHeld()) {
            // Only its owner lets it go; a device that nobody holds stays free.
            const pid_t owner = HogOwner();
            return owner == kNoOwner || owner == ::getpid() ? kAudioHardwareNoError
                                                            : kAudioDevicePermissionsError;
        }
        access.LetGo();  // a run that is under way keeps it open, and reserved, until its end
        const MutexLock lock(mutex);
        hogged = false;
        return kAudioHardwareNoError;
    }
    // Refused to the owner as well: two users in one process would not know of each other.
    if (access.IsHeld() || processId != ::getpid()) {
        return kAudioHardwareIllegalOperationError;
    }
    if (!card.captureDevice.has_value()) {
        return kAudioHardwareUnsupportedOperationError;
    }
    std::shared_ptr<void> reserved;
    if (!access.Reserve(reserved)) {
        return kAudioDevicePermissionsError;
    }
    std::shared_ptr<AlsaPcm> pcm;
    if (const OSStatus status = OpenPcm(pcm); status != kAudioHardwareNoError) {
        return status;
    }
    TakeFormats(*pcm);
    access.Hold(std::move(pcm), std::move(reserved));
    const MutexLock lock(mutex);
    hogged = true;
    return kAudioHardwareNoError;
}

OSStatus AlsaDevice::WriteBufferFrames(UInt32 frames) {
    const bool running = capture->IsRunning();
    const MutexLock lock(mutex);
    if (running || frames < frameRange.minimum || frames > frameRange.maximum) {
        return kAudioHardwareIllegalOperationError;
    }
    bufferFrames = frames;
    return kAudioHardwareNoError;
}

UInt32 AlsaDevice::BufferFrames() {
    const MutexLock lock(mutex);
    return bufferFrames;
}

OSStatus AlsaDevice::Configure(AlsaPcm& pcm, const PcmFormat& wanted, UInt32 frames) {
    const int error = pcm.Configure(wanted, frames);
    if (error >= 0) {
        return kAudioHardwareNoError;
    }
    const std::string reason = std::generic_category().message(-error);
    Trace(__FILE__, __LINE__, "card %d (%s): %u Hz in %u bytes are refused: %s", card.number,
          card.name.c_str(), wanted.rateHz, ContainerBytes(wanted.layout), reason.c_str());
    return RefusalStatus(error);
}

OSStatus AlsaDevice::WriteFormat(const AudioStreamBasicDescription& wanted) {
    if (capture->IsRunning()) {
        return kAudioHardwareIllegalOperationError;
    }
    const auto choose = [&] {
        const MutexLock lock(mutex);
        return FindFormat(offered, wanted);
    };
    std::optional<PcmFormat> chosen = choose();
    std::shared_ptr<AlsaPcm> pcm;
    if (chosen.has_value() || !formatsKnown) {
        if (const OSStatus status = OpenPcm(pcm); status != kAudioHardwareNoError) {
            return status;
        }
        TakeFormats(*pcm);
        chosen = choose();
    }
    if (!chosen.has_value()) {
        return kAudioDeviceUnsupportedFormatError;
    }
    AlsaPcm::FrameRange range{1, kMostBufferFrames};
    if (const OSStatus status = FrameRangeOf(*pcm, *chosen, range);
        status != kAudioHardwareNoError) {
        return status;
    }
    const UInt32 frames = std::clamp(BufferFrames(), range.minimum, range.maximum);
    if (const OSStatus status = Configure(*pcm, *chosen, frames); status != kAudioHardwareNoError) {
        return status;
    }
    // Tried out; a run sets it again. Until then the card's interface is idle, and the recorder can
    // be switched to its other mode.
    pcm->Free();
    const MutexLock lock(mutex);
    format = {*chosen, {wanted, {wanted.mSampleRate, wanted.mSampleRate}}};
    frameRange = range;
    bufferFrames = frames;
    return kAudioHardwareNoError;
}

OSStatus AlsaDevice::CreateIOProcID(AudioObjectID device, AudioDeviceIOProc ioProc,
                                    void* clientData, AudioDeviceIOProcID* id) {
    if (const OSStatus status =
            device == deviceId ? CheckObject(device) : kAudioHardwareBadObjectError;
        status != kAudioHardwareNoError) {
        return status;
    }
    if (ioProc == nullptr || id == nullptr) {
        return kAudioHardwareIllegalOperationError;
    }
    *id = capture->Create(ioProc, clientData);
    return kAudioHardwareNoError;
}

OSStatus AlsaDevice::DestroyIOProcID(AudioObjectID device, AudioDeviceIOProcID id) {
    if (device != deviceId) {
        return kAudioHardwareBadObjectError;
    }
    const OSStatus status = CheckObject(device);
    const bool known = capture->Destroy(id);
    if (status != kAudioHardwareNoError) {
        return status;
    }
    return known ? kAudioHardwareNoError : kAudioHardwareIllegalOperationError;
}

OSStatus AlsaDevice::Start(AudioObjectID device, AudioDeviceIOProcID id) {
    if (device != deviceId) {
        return kAudioHardwareBadObjectError;
    }
    for (;;) {
        if (const OSStatus status = CheckObject(device); status != kAudioHardwareNoError) {
            return status;
        }
        // Waits for a run that is ending, which is why no lock is held: its proc may want one.
        if (const std::optional<OSStatus> joined = capture->Join(id); joined.has_value()) {
            return *joined;
        }
        const MutexLock working(operation);
        if (capture->IsRunning()) {
            continue;
        }
        CaptureSetup setup;
        if (const OSStatus status = OpenPcm(setup.pcm); status != kAudioHardwareNoError) {
            return status;
        }
        // The last moment at which they can be learned: while it captures nobody else asks the PCM.
        TakeFormats(*setup.pcm);
        PcmFormat wanted;
        {
            const MutexLock lock(mutex);
            wanted = format.pcm;
            setup.device = deviceId;
            setup.channels = wanted.channels;
            setup.frames = bufferFrames;
        }
        if (wanted.channels == 0) {
            return kAudioDeviceUnsupportedFormatError;
        }
        if (const OSStatus status = Configure(*setup.pcm, wanted, setup.frames);
            status != kAudioHardwareNoError) {
            return status;
        }
        if (const std::optional<OSStatus> begun = capture->Begin(id, setup); begun.has_value()) {
            if (*begun != kAudioHardwareNoError) {
                // Hog mode keeps it open: its interface is to be idle, for a switch of the mode.
                setup.pcm->Free();
            }
            return *begun;
        }
    }
}

OSStatus AlsaDevice::Stop(AudioObjectID device, AudioDeviceIOProcID id) {
    if (device != deviceId) {
        return kAudioHardwareBadObjectError;
    }
    const OSStatus status = CheckObject(device);
    const bool started = capture->Stop(id);
    if (status != kAudioHardwareNoError) {
        return status;
    }
    return started ? kAudioHardwareNoError : kAudioHardwareNotRunningError;
}

void AlsaDevice::Unplug() {
    GoAway(false);
    // Also one that was dead before: the card that is listed next is another, or plugged in anew.
    const MutexLock lock(mutex);
    givesWay = true;
}

void AlsaDevice::GoAway(bool hasFailed) {
    {
        const MutexLock lock(mutex);
        if (!plugged) {
            return;
        }
        plugged = false;
        givesWay = hasFailed;
    }
    Trace(__FILE__, __LINE__, "card %d (%s) %s", card.number, card.name.c_str(),
          hasFailed ? "captures no more, though it is there" : "is gone");
    capture->EndRun();
    listeners->Notify(deviceId, kAudioDevicePropertyDeviceIsAlive);
    listeners->Notify(kAudioObjectSystemObject, kAudioHardwarePropertyDevices);
}

}  // namespace vorrel
