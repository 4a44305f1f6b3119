#include "device/alsa/AlsaPcm.h"

#include <alsa/asoundlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <new>
#include <string>
#include <tuple>
#include <utility>

namespace vorrel {
namespace {

/// A late IO thread loses nothing for so long, where the card grants it.
constexpr unsigned kRingSeconds = 1;
constexpr std::size_t kBitsPerByte = 8;
/// Cards with more channels are not recorders.
constexpr unsigned kMostChannels = 32;

snd_pcm_format_t FormatOf(SampleLayout layout) {
    switch (layout) {
        case SampleLayout::Int16:
            return SND_PCM_FORMAT_S16_LE;
        case SampleLayout::Int24In4:
            return SND_PCM_FORMAT_S24_LE;
        case SampleLayout::Int24In3:
            return SND_PCM_FORMAT_S24_3LE;
        case SampleLayout::Int32:
            break;
    }
    return SND_PCM_FORMAT_S32_LE;
}

/// Hardware parameters; a value.
class HardwareParameters {
public:
    HardwareParameters() : bytes(snd_pcm_hw_params_sizeof()) {}
    snd_pcm_hw_params_t* Get() { return reinterpret_cast<snd_pcm_hw_params_t*>(bytes.data()); }

    /// All that the card can do: its own rates only, frames interleaved.
    int Any(snd_pcm_t* pcm, bool& mapped) {
        if (const int error = snd_pcm_hw_params_any(pcm, Get()); error < 0) {
            return error;
        }
        if (const int error = snd_pcm_hw_params_set_rate_resample(pcm, Get(), 0); error < 0) {
            return error;
        }
        mapped = snd_pcm_hw_params_set_access(pcm, Get(), SND_PCM_ACCESS_MMAP_INTERLEAVED) == 0;
        return mapped ? 0 : snd_pcm_hw_params_set_access(pcm, Get(), SND_PCM_ACCESS_RW_INTERLEAVED);
    }

    /// The format exactly.
    int Set(snd_pcm_t* pcm, const PcmFormat& format) {
        if (const int error = snd_pcm_hw_params_set_format(pcm, Get(), FormatOf(format.layout));
            error < 0) {
            return error;
        }
        if (const int error = snd_pcm_hw_params_set_channels(pcm, Get(), format.channels);
            error < 0) {
            return error;
        }
        return snd_pcm_hw_params_set_rate(pcm, Get(), format.rateHz, 0);
    }

private:
    std::vector<std::uint8_t> bytes;
};

/// The library says "no such card" of one whose nodes this user may not open.
int TrueReason(int error, int card, int device) {
    const std::string number = std::to_string(card);
    const std::string nodes[] = {"/dev/snd/controlC" + number,
                                 "/dev/snd/pcmC" + number + "D" + std::to_string(device) + "c"};
    const bool refused = std::any_of(std::begin(nodes), std::end(nodes), [](const auto& node) {
        return ::access(node.c_str(), R_OK | W_OK) != 0 && errno == EACCES;
    });
    return error == -ENOENT && refused ? -EACCES : error;
}

}  // namespace

int AlsaPcm::Open(int card, int device, std::unique_ptr<AlsaPcm>& pcm) {
    const std::string name = "hw:CARD=" + std::to_string(card) + ",DEV=" + std::to_string(device);
    snd_pcm_t* handle = nullptr;
    const int error = snd_pcm_open(&handle, name.c_str(), SND_PCM_STREAM_CAPTURE,
                                   SND_PCM_NONBLOCK | SND_PCM_NO_AUTO_RESAMPLE |
                                       SND_PCM_NO_AUTO_CHANNELS | SND_PCM_NO_AUTO_FORMAT);
    if (error < 0) {
        return TrueReason(error, card, device);
    }
    pcm.reset(new (std::nothrow) AlsaPcm(handle));
    if (pcm == nullptr) {
        snd_pcm_close(handle);
        return -ENOMEM;
    }
    return 0;
}

AlsaPcm::~AlsaPcm() {
    snd_pcm_close(pcm);
}

std::vector<PcmFormat> AlsaPcm::Formats() {
    std::vector<PcmFormat> formats;
    HardwareParameters any;
    bool ignored = false;
    if (any.Any(pcm, ignored) < 0) {
        return formats;
    }
    for (const SampleLayout layout : kSampleLayouts) {
        HardwareParameters ofLayout = any;
        unsigned fewest = 0;
        unsigned most = 0;
        if (snd_pcm_hw_params_set_format(pcm, ofLayout.Get(), FormatOf(layout)) < 0 ||
            snd_pcm_hw_params_get_channels_min(ofLayout.Get(), &fewest) < 0 ||
            snd_pcm_hw_params_get_channels_max(ofLayout.Get(), &most) < 0) {
            continue;
        }
        for (unsigned count = std::max(fewest, 1U); count <= std::min(most, kMostChannels);
             ++count) {
            HardwareParameters ofChannels = ofLayout;
            if (snd_pcm_hw_params_set_channels(pcm, ofChannels.Get(), count) < 0) {
                continue;
            }
            for (const std::uint32_t rateHz : kStandardRatesHz) {
                if (snd_pcm_hw_params_test_rate(pcm, ofChannels.Get(), rateHz, 0) == 0) {
                    formats.push_back({rateHz, layout, count});
                }
            }
        }
    }
    return formats;
}

int AlsaPcm::PeriodRange(const PcmFormat& format, FrameRange& range) {
    HardwareParameters parameters;
    bool ignored = false;
    if (const int error = parameters.Any(pcm, ignored); error < 0) {
        return error;
    }
    if (const int error = parameters.Set(pcm, format); error < 0) {
        return error;
    }
    snd_pcm_uframes_t least = 0;
    snd_pcm_uframes_t most = 0;
    snd_pcm_uframes_t ring = 0;
    int direction = 0;
    if (const int error =
            snd_pcm_hw_params_get_period_size_min(parameters.Get(), &least, &direction);
        error < 0) {
        return error;
    }
    if (direction > 0) {
        ++least;  // the bound itself is a little more than that many frames
    }
    if (const int error =
            snd_pcm_hw_params_get_period_size_max(parameters.Get(), &most, &direction);
        error < 0) {
        return error;
    }
    if (direction < 0 && most > 0) {
        --most;  // and here a little less
    }
    if (const int error = snd_pcm_hw_params_get_buffer_size_max(parameters.Get(), &ring);
        error < 0) {
        return error;
    }
    // While one buffer is read the card fills the next.
    most = std::min(most, ring / 2);
    constexpr snd_pcm_uframes_t kMost = 1U << 30;
    range.maximum = static_cast<std::uint32_t>(std::min(most, kMost));
    range.minimum = static_cast<std::uint32_t>(
        std::clamp(least, snd_pcm_uframes_t{1}, std::max(most, snd_pcm_uframes_t{1})));
    return 0;
}

int AlsaPcm::Configure(const PcmFormat& format, std::uint32_t frames) {
    Free();
    HardwareParameters parameters;
    bool useMap = false;
    if (const int error = parameters.Any(pcm, useMap); error < 0) {
        return error;
    }
    if (const int error = parameters.Set(pcm, format); error < 0) {
        return error;
    }
    if (snd_pcm_hw_params_set_period_size(pcm, parameters.Get(), frames, 0) < 0) {
        snd_pcm_uframes_t nearest = frames;
        std::ignore =
            snd_pcm_hw_params_set_period_size_near(pcm, parameters.Get(), &nearest, nullptr);
    }
    snd_pcm_uframes_t ring = 0;
    if (const int error = snd_pcm_hw_params_get_buffer_size_max(parameters.Get(), &ring);
        error < 0) {
        return error;
    }
    ring = std::min(ring, snd_pcm_uframes_t{format.rateHz} * kRingSeconds);
    ring -= ring % frames;
    ring = std::max(ring, snd_pcm_uframes_t{frames} * 2);
    if (const int error = snd_pcm_hw_params_set_buffer_size_near(pcm, parameters.Get(), &ring);
        error < 0) {
        return error;
    }
    if (ring < frames) {
        return -EINVAL;
    }
    // All memory is taken before the card is set up: a refusal leaves it idle.
    const std::uint32_t newFrameBytes = ContainerBytes(format.layout) * format.channels;
    std::unique_ptr<LockedBuffer> newRaw;
    if (!useMap) {
        try {
            newRaw = std::make_unique<LockedBuffer>(std::size_t{frames} * newFrameBytes);
        } catch (const std::bad_alloc&) {
            return -ENOMEM;
        }
    }
    std::vector<std::uint8_t> software(snd_pcm_sw_params_sizeof());
    if (const int error = snd_pcm_hw_params(pcm, parameters.Get()); error < 0) {
        return error;
    }
    if (const int error =
            SetSoftware(reinterpret_cast<snd_pcm_sw_params_t*>(software.data()), frames, ring);
        error < 0) {
        Free();
        return error;
    }
    mapped = useMap;
    ringFrames = static_cast<std::uint32_t>(ring);
    channels = format.channels;
    frameBytes = newFrameBytes;
    convert = ConverterOf(format.layout);
    raw = std::move(newRaw);
    return 0;
}

int AlsaPcm::SetSoftware(snd_pcm_sw_params_t* software, std::uint32_t frames, unsigned long ring) {
    snd_pcm_uframes_t boundary = 0;
    int error = snd_pcm_sw_params_current(pcm, software);
    if (error == 0) {
        error = snd_pcm_sw_params_get_boundary(software, &boundary);
    }
    if (error == 0) {
        error = snd_pcm_sw_params_set_avail_min(pcm, software, frames);
    }
    if (error == 0) {
        // It starts when it is told to, and no read does so by itself.
        error = snd_pcm_sw_params_set_start_threshold(pcm, software, boundary);
    }
    if (error == 0) {
        error = snd_pcm_sw_params_set_stop_threshold(pcm, software, ring);
    }
    if (error == 0) {
        error = snd_pcm_sw_params(pcm, software);
    }
    return error;
}

void AlsaPcm::Free() {
    ringFrames = 0;
    ringBytes = nullptr;
    std::ignore = snd_pcm_hw_free(pcm);  // refused where nothing is set
}

int AlsaPcm::Start() {
    inRest = false;
    if (const int error = snd_pcm_prepare(pcm); error < 0) {
        return error;
    }
    if (mapped) {
        if (const int error = FindRing(); error < 0) {
            return error;
        }
    }
    if (const int error = snd_pcm_start(pcm); error < 0) {
        return error;
    }
    // One that is prepared still would never wake anybody.
    return StateError() == -EBADFD ? -EIO : 0;
}

int AlsaPcm::FindRing() {
    const snd_pcm_channel_area_t* areas = nullptr;
    snd_pcm_uframes_t offset = 0;
    snd_pcm_uframes_t none = 0;
    if (const int error = snd_pcm_mmap_begin(pcm, &areas, &offset, &none); error < 0) {
        return error;
    }
    ringBytes = static_cast<const std::uint8_t*>(areas->addr) + areas->first / kBitsPerByte;
    stepBytes = areas->step / kBitsPerByte;
    nextFrame = static_cast<std::uint32_t>(offset);
    return 0;
}

void AlsaPcm::Drop() {
    std::ignore = snd_pcm_drop(pcm);  // refused by a card that is gone
}

int AlsaPcm::Resume() {
    const int error = snd_pcm_resume(pcm);
    return error >= 0 && StateError() == -ESTRPIPE ? -EAGAIN : error;
}

std::vector<pollfd> AlsaPcm::PollDescriptors() {
    const int count = snd_pcm_poll_descriptors_count(pcm);
    if (count <= 0) {
        return {};
    }
    std::vector<pollfd> descriptors(static_cast<std::size_t>(count));
    const int filled = snd_pcm_poll_descriptors(pcm, descriptors.data(),
                                                static_cast<unsigned>(descriptors.size()));
    descriptors.resize(filled > 0 ? static_cast<std::size_t>(filled) : 0);
    return descriptors;
}

VORREL_REALTIME unsigned short AlsaPcm::Events(pollfd* descriptors, unsigned count) {
    unsigned short events = 0;
    if (snd_pcm_poll_descriptors_revents(pcm, descriptors, count, &events) < 0) {
        return POLLERR;
    }
    return events;
}

VORREL_REALTIME int AlsaPcm::StateError() {
    switch (snd_pcm_state(pcm)) {
        case SND_PCM_STATE_RUNNING:
            return 0;
        case SND_PCM_STATE_XRUN:
            return -EPIPE;
        case SND_PCM_STATE_SUSPENDED:
            return -ESTRPIPE;
        case SND_PCM_STATE_DISCONNECTED:
            return -ENODEV;
        default:
            return -EBADFD;
    }
}

VORREL_REALTIME void AlsaPcm::KeepRest() {
    inRest = true;
    restFrames = 0;
    // What a read call would fetch lies in the driver, which gives it out no more.
    if (!mapped || ringBytes == nullptr) {
        return;
    }
    long left = snd_pcm_avail_update(pcm);
    if (left < 0) {
        // After an overrun it tells nothing but that; the driver still knows how far it got.
        snd_pcm_status_t* status = nullptr;
        snd_pcm_status_alloca(&status);
        if (snd_pcm_status(pcm, status) < 0) {
            return;
        }
        left = static_cast<long>(snd_pcm_status_get_avail(status));
    }
    const auto unread = static_cast<std::uint64_t>(std::max(left, 0L));
    const std::uint64_t overwritten = unread > ringFrames ? unread - ringFrames : 0;
    nextFrame = static_cast<std::uint32_t>((nextFrame + overwritten) % ringFrames);
    restFrames = static_cast<std::uint32_t>(unread - overwritten);
}

VORREL_REALTIME long AlsaPcm::Available() {
    return inRest ? static_cast<long>(restFrames) : snd_pcm_avail_update(pcm);
}

VORREL_REALTIME std::uint32_t AlsaPcm::ReadRest(std::uint8_t* floats, std::uint32_t frames) {
    const std::uint32_t count = std::min({frames, restFrames, ringFrames - nextFrame});
    convert(floats, ringBytes + nextFrame * stepBytes, std::size_t{count} * channels);
    nextFrame = (nextFrame + count) % ringFrames;
    restFrames -= count;
    return count;
}

VORREL_REALTIME long AlsaPcm::Read(float* out, std::uint32_t frames) {
    auto* floats = reinterpret_cast<std::uint8_t*>(out);
    if (inRest) {
        return ReadRest(floats, frames);
    }
    if (!mapped) {
        auto* const bytes = static_cast<std::uint8_t*>(raw->Data());
        const std::uint32_t room =
            std::min(frames, static_cast<std::uint32_t>(raw->SizeBytes() / frameBytes));
        const snd_pcm_sframes_t count = snd_pcm_readi(pcm, bytes, room);
        if (count > 0) {
            convert(floats, bytes, static_cast<std::size_t>(count) * channels);
        }
        return count;
    }
    const snd_pcm_channel_area_t* areas = nullptr;
    snd_pcm_uframes_t offset = 0;
    snd_pcm_uframes_t count = frames;
    if (const int error = snd_pcm_mmap_begin(pcm, &areas, &offset, &count); error < 0) {
        return error;
    }
    convert(floats, ringBytes + offset * stepBytes, count * channels);
    const snd_pcm_sframes_t taken = snd_pcm_mmap_commit(pcm, offset, count);
    if (taken > 0) {
        nextFrame = static_cast<std::uint32_t>((offset + static_cast<snd_pcm_uframes_t>(taken)) %
                                               ringFrames);
    }
    return taken;
}

}  // namespace vorrel
