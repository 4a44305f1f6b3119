#pragma once

#include <memory>
#include <string>

#include "device/alsa/AlsaPcm.h"
#include "device/alsa/DeviceReservation.h"
#include "device/alsa/SoundCard.h"

namespace vorrel {

/// How a card is opened, held for its device's hog mode and reserved from the desktop's sound
/// server. One caller at a time: the device's operation guards it.
class CardAccess {
public:
    /// @param soundCard      One that captures, or not; it outlives this.
    /// @param procDirectory  Where the process file system is.
    CardAccess(const SoundCard& soundCard, const std::string& procDirectory);
    ~CardAccess() = default;
    CardAccess(const CardAccess&) = delete;
    CardAccess& operator=(const CardAccess&) = delete;

    /// The PCM of a card that captures: the one that is held, that of the run, or a new one for as
    /// long as somebody keeps it.
    /// @return 0, or what libasound refused it with, a negative errno; `pcm` is empty then.
    int Open(std::shared_ptr<AlsaPcm>& pcm);
    /// Tells why the card was not opened, and who has it.
    void TraceRefusal(int error) const;

    /// Asks whoever has the card to let it go. @param reserved  Gives the reservation back when it
    /// goes; empty where there is nobody to reserve it from. @return False where somebody keeps it.
    bool Reserve(std::shared_ptr<void>& reserved);
    /// Keeps the card open, and reserved, until LetGo and the end of a run that is under way then.
    /// @param pcm  From Open.
    void Hold(std::shared_ptr<AlsaPcm> pcm, std::shared_ptr<void> reserved);
    bool IsHeld() const { return held != nullptr; }
    void LetGo() { held.reset(); }

private:
    const SoundCard& card;
    const std::string proc;
    const std::shared_ptr<DeviceReservation> reservation;  // a run's as well
    std::shared_ptr<AlsaPcm> held;                         // in hog mode
    struct OpenCard;
    std::weak_ptr<OpenCard> latest;  // the one held, or a run's
};

}  // namespace vorrel
