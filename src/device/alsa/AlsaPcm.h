#pragma once

#include <poll.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "device/alsa/LockedBuffer.h"
#include "device/alsa/PcmFormat.h"
#include "platform/Realtime.h"

// The library's own names; its header stays in the .cpp.
// NOLINTBEGIN(bugprone-reserved-identifier)
using snd_pcm_t = struct _snd_pcm;
using snd_pcm_sw_params_t = struct _snd_pcm_sw_params;
// NOLINTEND(bugprone-reserved-identifier)

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
    /// @return -EINVAL for what the card does not grant, -ENOMEM; then nothing is set, nor is it
    ///         behind an exception.
    /// @throws std::bad_alloc.
    int Configure(const PcmFormat& format, std::uint32_t frames);
    /// Gives the hardware parameters back: the card's interface is idle then.
    void Free();

    /// Empties the ring and starts; after an overrun too.
    /// @return -EIO when all calls succeed and it does not run.
    int Start();
    void Drop();
    /// Resumes after the machine was suspended. -EAGAIN: not yet; other: `Start` instead.
    int Resume();

    /// What to wait on; empty when the card has nothing to wait on.
    std::vector<pollfd> PollDescriptors();
    /// What the events of the descriptors mean for the PCM.
    VORREL_REALTIME unsigned short Events(pollfd* descriptors, unsigned count);
    /// 0 while it runs; else the error that its state stands for: -EPIPE after an overrun,
    /// -ESTRPIPE while suspended, -ENODEV when the card is gone, -EBADFD.
    VORREL_REALTIME int StateError();
    /// For a stream that has stopped by itself: from here until `Start`, `Available` and `Read`
    /// give what its ring still holds. What the card has written over meanwhile is left out.
    /// Nothing is there without a mapped ring. See docs/decisions/0015.
    VORREL_REALTIME void KeepRest();
    bool IsInRest() const { return inRest; }
    /// Frames that can be read now.
    VORREL_REALTIME long Available();
    /// Reads at most `frames` frames, as floats.
    /// @return How many: fewer at the ring's end.
    VORREL_REALTIME long Read(float* out, std::uint32_t frames);

    std::uint32_t RingFrames() const { return ringFrames; }
    bool IsMapped() const { return mapped; }

private:
    explicit AlsaPcm(snd_pcm_t* handle) : pcm(handle) {}

    int SetSoftware(snd_pcm_sw_params_t* software, std::uint32_t frames, unsigned long ring);
    int FindRing();
    VORREL_REALTIME std::uint32_t ReadRest(std::uint8_t* floats, std::uint32_t frames);

    snd_pcm_t* const pcm;
    bool mapped = false;  // else frames are copied out of the driver by a call
    std::uint32_t ringFrames = 0;
    std::uint32_t channels = 0;
    std::uint32_t frameBytes = 0;
    SampleConverter convert = nullptr;
    std::unique_ptr<LockedBuffer> raw;  // what a read call fills; null while mapped
    // Of the mapped ring, since the start: where it is, and the next frame to read.
    const std::uint8_t* ringBytes = nullptr;
    std::size_t stepBytes = 0;  // from one frame to the next
    std::uint32_t nextFrame = 0;
    bool inRest = false;
    std::uint32_t restFrames = 0;
};

}  // namespace vorrel
