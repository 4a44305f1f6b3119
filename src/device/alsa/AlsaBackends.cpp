#include "device/alsa/AlsaBackends.h"

#include <memory>
#include <tuple>
#include <utility>

#include "device/alsa/AlsaAudioBackend.h"
#include "device/alsa/CardMonitor.h"
#include "device/alsa/SoundCards.h"
#include "device/alsa/UdevRegistry.h"

namespace vorrel {
namespace {

/// The audio side and what keeps it up to date.
struct FollowedBackend {
    explicit FollowedBackend(std::shared_ptr<const SoundCards> cards)
        : audio(std::move(cards)), monitor([this](const CardEvent&) {
              std::ignore = audio.LookAgain();
              return audio.IsUpToDate();  // else a card that went would stay for want of a look
          }) {}

    AlsaAudioBackend audio;
    CardMonitor monitor;  // ends first
};

}  // namespace

DeviceBackends MakeAlsaBackends() {
    const auto cards = std::make_shared<const SoundCards>();
    const auto followed = std::make_shared<FollowedBackend>(cards);
    return {std::shared_ptr<AudioBackend>(followed, &followed->audio),
            std::make_shared<UdevRegistry>(cards)};
}

}  // namespace vorrel
