#pragma once

#include <poll.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "device/alsa/PcmFormat.h"
#include "platform/Realtime.h"

// The library's own name for it; its header stays in the .cpp.
using snd_pcm_t = struct _snd_pcm;

namespace vorrel {

/// A capture PCM of a sound card, open and thereby this process's alone: always `hw:`, never a
/// converting or mixing one. Calls answer 0 or the library's negative error number. No lock of its
/// own: one thread at a time; while it captures, the IO thread.
class AlsaPcm {
public:
    /// @param pcm  Set on success.
    /// @return -EBUSY when somebody else has it; never waits for them.
    static int Open(int card, int device, std::unique_ptr<AlsaPcm>& pcm);
    ~AlsaPcm();
    AlsaPcm(const AlsaPcm&) = delete;
    AlsaPcm& operator=(const AlsaPcm&) = delete;

    /// What the card grants out of the standard rates, the four layouts and its channel counts.
    std::vector<PcmFormat> Formats();
    struct FrameRange {
        std::uint32_t minimum = 0;
        std::uint32_t maximum = 0;
    };
    /// How many frames may come at a time with that format.
    int PeriodRange(const PcmFormat& format, FrameRange& range);

    /// Frees what was set before, then sets the format exactly as it is, a period of `frames` where
    /// the card grants that, a ring as large as granted, up to a second, and readiness at `frames`
    /// frames.
    /// @return -EINVAL for what the card does not grant; then nothing is set.
    int Configure(const PcmFormat& format, std::uint32_t frames);
    /// Gives the hardware parameters back: the card's interface is idle then.
    void Free();

    /// Empties the ring and starts; after an overrun too.
    int Start();
    void Drop();
    /// Resumes after the machine was suspended. -EAGAIN: not yet; other: `Start` instead.
    int Resume();

    std::vector<pollfd> PollDescriptors();
    /// What the events of the descriptors mean for the PCM.
    VORREL_REALTIME unsigned short Events(pollfd* descriptors, unsigned count);
    /// 0 while it runs; else the error that its state stands for: -EPIPE after an overrun,
    /// -ESTRPIPE while suspended, -ENODEV when the card is gone, -EBADFD.
    VORREL_REALTIME int StateError();
    /// Frames that can be read now.
    VORREL_REALTIME long Available();
    /// Reads at most `frames` frames, as floats.
    /// @return How many: fewer at the ring's end.
    VORREL_REALTIME long Read(float* out, std::uint32_t frames);

    std::uint32_t RingFrames() const { return ringFrames; }
    bool IsMapped() const { return mapped; }

private:
    explicit AlsaPcm(snd_pcm_t* handle) : pcm(handle) {}

    snd_pcm_t* const pcm;
    bool mapped = false;  // else frames are copied out of the driver by a call
    std::uint32_t ringFrames = 0;
    std::uint32_t channels = 0;
    std::uint32_t frameBytes = 0;
    SampleConverter convert = nullptr;
    std::vector<std::uint8_t> raw;  // what a read call fills; empty while mapped
};

}  // namespace vorrel
