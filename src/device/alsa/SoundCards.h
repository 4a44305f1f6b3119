#pragma once

#include <optional>
#include <string>
#include <vector>

#include "device/alsa/SoundCard.h"

namespace vorrel {

/// Finds the sound cards of the system. It keeps nothing: each call looks afresh, so any thread may
/// call, but no real-time thread (it reads files). A test may derive from it to offer other cards.
class SoundCards {
public:
    /// @param procDirectory  Where the sound drivers keep their texts.
    explicit SoundCards(std::string procDirectory = "/proc/asound");
    virtual ~SoundCards() = default;

    /// All cards, in the order of their numbers. A card that goes away while it is being read is
    /// left out; what cannot be read of one that stays is left empty.
    /// @return Nothing when the look failed (no descriptor or memory left, no answer from udev),
    ///         which is traced: then nothing is known, and no card is gone because of it.
    virtual std::optional<std::vector<SoundCard>> Find() const;

private:
    const std::string proc;
};

/// Names this plugging of this card: plugged in again it has another one.
std::string PluggingKey(const SoundCard& card);
/// True when both were read from one card that was not unplugged in between.
bool IsSamePlugging(const SoundCard& one, const SoundCard& other);

}  // namespace vorrel
