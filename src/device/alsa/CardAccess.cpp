#include "device/alsa/CardAccess.h"

#include <cerrno>
#include <system_error>
#include <utility>

#include "device/alsa/DeviceHolder.h"
#include "platform/Trace.h"

namespace vorrel {

/// A card that is open, for hog mode, a run or both. It closes before its reservation is given
/// back.
struct CardAccess::OpenCard {
    std::shared_ptr<void> reserved;
    std::unique_ptr<AlsaPcm> pcm;
};

CardAccess::CardAccess(const SoundCard& soundCard, const std::string& procDirectory)
    : card(soundCard),
      proc(procDirectory),
      reservation(std::make_shared<DeviceReservation>(card.number)) {}

int CardAccess::Open(std::shared_ptr<AlsaPcm>& pcm) {
    std::shared_ptr<OpenCard> open = latest.lock();
    if (open == nullptr) {
        open = std::make_shared<OpenCard>();
        const int error = AlsaPcm::Open(card.number, card.captureDevice.value_or(0), open->pcm);
        if (error < 0) {
            pcm.reset();
            return error;
        }
        latest = open;
    }
    AlsaPcm* opened = open->pcm.get();
    pcm = std::shared_ptr<AlsaPcm>(std::move(open), opened);
    return 0;
}

void CardAccess::TraceRefusal(int error) const {
    if (error == -EBUSY || error == -EAGAIN) {
        const std::string holder =
            HolderText(FindDeviceHolder(card.number, card.captureDevice.value_or(0), proc));
        Trace(__FILE__, __LINE__, "card %d (%s) is in use by %s", card.number, card.name.c_str(),
              holder.c_str());
        return;
    }
    if (error == -EACCES || error == -EPERM) {
        Trace(__FILE__, __LINE__, "card %d (%s): this user may not open its nodes in /dev/snd",
              card.number, card.name.c_str());
        return;
    }
    const std::string reason = std::generic_category().message(-error);
    Trace(__FILE__, __LINE__, "card %d (%s) cannot be opened: %s", card.number, card.name.c_str(),
          reason.c_str());
}

bool CardAccess::Reserve(std::shared_ptr<void>& reserved) {
    reserved.reset();
    switch (reservation->Acquire()) {
        case DeviceReservation::Outcome::Granted:
            reserved = {nullptr, [kept = reservation](void*) { kept->Release(); }};
            return true;
        case DeviceReservation::Outcome::Refused:
            Trace(__FILE__, __LINE__, "card %d (%s): whoever has its reservation keeps it",
                  card.number, card.name.c_str());
            return false;
        case DeviceReservation::Outcome::NoAnswer:
            Trace(__FILE__, __LINE__,
                  "card %d (%s): whoever has its reservation does not answer; it is opened all the "
                  "same",
                  card.number, card.name.c_str());
            return true;
        case DeviceReservation::Outcome::NoBus:
            return true;
    }
    return true;
}

void CardAccess::Hold(std::shared_ptr<AlsaPcm> pcm, std::shared_ptr<void> reserved) {
    if (const std::shared_ptr<OpenCard> open = latest.lock(); open != nullptr) {
        open->reserved = std::move(reserved);
    }
    held = std::move(pcm);
}

}  // namespace vorrel
