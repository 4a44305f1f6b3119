// A card for tests: an external I/O plug-in of libasound that captures a known pattern at the pace
// of a timer, and fails when it is told to (TestCardState.h).
#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "TestCardState.h"

namespace {

using vorrel::test::kGapFrames;
using vorrel::test::kOverwrittenFrames;
using vorrel::test::TestCardState;
using vorrel::test::TestSample;

struct Card {
    snd_pcm_ioplug_t io{};
    TestCardState* state = nullptr;
    int file = -1;  // its lock is the card's: one opener at a time
    int timer = -1;
    std::uint64_t firstFrame = 0;      // of this start
    std::uint64_t nextFirstFrame = 0;  // of the next one, where that is known
    std::int64_t startTime = 0;        // nanoseconds
    bool running = false;
    bool unprepared = false;                       // of this start nothing comes
    const snd_pcm_channel_area_t* ring = nullptr;  // mapped, once the library has shown it
    std::uint64_t written = 0;                     // frames since this start that the ring has got
};

Card& CardOf(snd_pcm_ioplug_t* io) {
    return *static_cast<Card*>(io->private_data);
}

std::int64_t Now() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

/// Frames since this start.
std::uint64_t Position(const Card& card) {
    if (!card.running) {
        return 0;
    }
    const auto elapsed = static_cast<double>(Now() - card.startTime);
    return static_cast<std::uint64_t>(elapsed * card.io.rate * card.state->speed / 1e9);
}

bool IsGone(Card& card) {
    TestCardState& state = *card.state;
    const std::uint64_t unplugAt = state.unplugAtFrame.load();
    if (unplugAt > 0 && card.running && card.firstFrame + Position(card) >= unplugAt) {
        state.disconnected = 1;
    }
    return state.disconnected.load() != 0;
}

/// From here on the stream goes on where it got to.
void HoldTime(Card& card) {
    const double framesPerSecond = static_cast<double>(card.io.rate) * card.state->speed;
    card.startTime = Now() - static_cast<std::int64_t>(static_cast<double>(card.io.hw_ptr) /
                                                       framesPerSecond * 1e9);
}

bool IsVain(const Card& card) {
    return card.state->vainErrors != 0 || card.state->vainWakeUps != 0;
}

bool TakeOne(std::atomic<std::uint32_t>& count) {
    std::uint32_t now = count.load();
    while (now > 0) {
        if (count.compare_exchange_weak(now, now - 1)) {
            return true;
        }
    }
    return false;
}

void SetTimer(Card& card, bool on) {
    itimerspec interval{};
    if (on) {
        const double period = static_cast<double>(card.io.period_size) /
                              (static_cast<double>(card.io.rate) * card.state->speed);
        const auto nanoseconds = std::max<long long>(static_cast<long long>(period * 1e9), 20'000);
        interval.it_interval = {nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000};
        interval.it_value = interval.it_interval;
    }
    ::timerfd_settime(card.timer, 0, &interval, nullptr);
}

int Start(snd_pcm_ioplug_t* io) {
    Card& card = CardOf(io);
    if (IsGone(card)) {
        return -ENODEV;
    }
    if (const int error = card.state->startError.load(); error != 0) {
        return -error;
    }
    card.startTime = Now();
    card.written = 0;
    ++card.state->starts;
    card.unprepared = TakeOne(card.state->unpreparedStarts);
    if (TakeOne(card.state->silentStarts)) {
        return 0;
    }
    card.running = true;
    SetTimer(card, true);
    return 0;
}

int Stop(snd_pcm_ioplug_t* io) {
    Card& card = CardOf(io);
    card.running = false;
    ++card.state->stops;
    SetTimer(card, false);
    return 0;
}

void WriteFrame(const Card& card, const snd_pcm_channel_area_t* areas, std::uint64_t at,
                std::uint64_t frame) {
    const auto bytes = static_cast<std::size_t>(snd_pcm_format_physical_width(card.io.format)) / 8;
    const auto bits = static_cast<unsigned>(snd_pcm_format_width(card.io.format));
    for (unsigned channel = 0; channel < card.io.channels; ++channel) {
        const snd_pcm_channel_area_t& area = areas[channel];
        auto* out = static_cast<std::uint8_t*>(area.addr) + (area.first + at * area.step) / 8;
        const std::uint32_t sample =
            TestSample(card.firstFrame + frame, channel, card.io.channels) >> (32 - bits);
        for (std::size_t byte = 0; byte < bytes; ++byte) {
            // What lies above the bits of a sample is anything.
            out[byte] = byte * 8 < bits ? static_cast<std::uint8_t>(sample >> (8 * byte)) : 0xA5;
        }
    }
}

/// As a card does it: on and on, over what nobody has read.
void FillRing(Card& card, std::uint64_t to) {
    const std::uint64_t ringFrames = card.io.buffer_size;
    std::uint64_t frame = std::max(card.written, to > ringFrames ? to - ringFrames : 0);
    for (; card.ring != nullptr && frame < to; ++frame) {
        WriteFrame(card, card.ring, frame % ringFrames, frame);
    }
    card.written = std::max(card.written, to);
}

/// The stream breaks off at that frame of this start. @param next  With which it goes on.
snd_pcm_sframes_t BreakOff(Card& card, std::uint64_t position, std::uint64_t next,
                           snd_pcm_state_t state) {
    FillRing(card, position);
    card.nextFirstFrame = card.firstFrame + next;
    card.state->brokenOff = card.firstFrame + position;
    card.running = false;
    snd_pcm_ioplug_set_state(&card.io, state);
    return static_cast<snd_pcm_sframes_t>(position);
}

snd_pcm_sframes_t Pointer(snd_pcm_ioplug_t* io) {
    Card& card = CardOf(io);
    if (!card.running) {
        return static_cast<snd_pcm_sframes_t>(io->hw_ptr);
    }
    if (IsVain(card)) {
        HoldTime(card);
        return static_cast<snd_pcm_sframes_t>(io->hw_ptr);
    }
    const std::uint64_t position = Position(card);
    if (IsGone(card)) {
        return BreakOff(card, position, position, SND_PCM_STATE_DISCONNECTED);
    }
    if (card.state->stopError.exchange(0) != 0) {
        return BreakOff(card, position, position, SND_PCM_STATE_SETUP);
    }
    if (TakeOne(card.state->overruns)) {
        return BreakOff(card, position, position + kGapFrames, SND_PCM_STATE_XRUN);
    }
    if (position - io->appl_ptr > io->buffer_size) {
        ++card.state->lateReaders;
        return BreakOff(card, io->appl_ptr + io->buffer_size + kOverwrittenFrames, position,
                        SND_PCM_STATE_XRUN);
    }
    FillRing(card, position);
    return static_cast<snd_pcm_sframes_t>(position);
}

snd_pcm_sframes_t Transfer(snd_pcm_ioplug_t* io, const snd_pcm_channel_area_t* areas,
                           snd_pcm_uframes_t offset, snd_pcm_uframes_t size) {
    Card& card = CardOf(io);
    if (io->access == SND_PCM_ACCESS_MMAP_INTERLEAVED) {
        if (card.ring == nullptr) {
            card.ring = areas;
            card.written = 0;
            FillRing(card, io->hw_ptr);
        }
        return static_cast<snd_pcm_sframes_t>(size);
    }
    if (const int error = card.state->readError.exchange(0); error != 0) {
        return -error;
    }
    for (snd_pcm_uframes_t frame = 0; frame < size; ++frame) {
        WriteFrame(card, areas, offset + frame, io->appl_ptr + frame);
    }
    return static_cast<snd_pcm_sframes_t>(size);
}

int Close(snd_pcm_ioplug_t* io) {
    auto* card = static_cast<Card*>(io->private_data);
    ++card->state->closes;
    ::close(card->timer);
    ::munmap(card->state, sizeof *card->state);
    ::close(card->file);
    delete card;
    return 0;
}

int SetParameters(snd_pcm_ioplug_t* io, snd_pcm_hw_params_t*) {
    Card& card = CardOf(io);
    TestCardState& state = *card.state;
    if (IsGone(card)) {
        return -ENODEV;
    }
    if (const int error = state.parametersError.load(); error != 0) {
        return -error;
    }
    ++state.parameterCalls;
    state.rateHz = io->rate;
    state.format = static_cast<std::uint32_t>(io->format);
    state.channels = io->channels;
    state.periodFrames = static_cast<std::uint32_t>(io->period_size);
    state.ringFrames = static_cast<std::uint32_t>(io->buffer_size);
    card.nextFirstFrame = 0;
    card.ring = nullptr;
    return 0;
}

int FreeParameters(snd_pcm_ioplug_t* io) {
    TestCardState& state = *CardOf(io).state;
    ++state.frees;
    while (state.heldFrees != 0) {
        // Who waits here may be real-time, and would keep the processor from everybody else.
        constexpr timespec kMillisecond = {0, 1'000'000};
        ::nanosleep(&kMillisecond, nullptr);
    }
    return 0;
}

int Prepare(snd_pcm_ioplug_t* io) {
    Card& card = CardOf(io);
    if (IsGone(card)) {
        return -ENODEV;
    }
    ++card.state->prepares;
    if (TakeOne(card.state->preparesToRefuse)) {
        return -EIO;
    }
    card.firstFrame = card.nextFirstFrame;
    return 0;
}

int Resume(snd_pcm_ioplug_t* io) {
    Card& card = CardOf(io);
    ++card.state->resumes;
    // The library takes no answer of a plug-in here; the state tells what became of it.
    if (TakeOne(card.state->resumesToRefuse)) {
        return 0;
    }
    if (card.state->resumable == 0) {
        snd_pcm_ioplug_set_state(io, SND_PCM_STATE_SETUP);
        return 0;
    }
    if (TakeOne(card.state->overrunsAtResume)) {
        ++card.state->overruns;
    }
    HoldTime(card);
    card.running = true;
    snd_pcm_ioplug_set_state(io, SND_PCM_STATE_RUNNING);
    return 0;
}

int DescriptorCount(snd_pcm_ioplug_t* io) {
    return CardOf(io).state->unwaitable != 0 ? 0 : 1;
}

int Descriptors(snd_pcm_ioplug_t* io, pollfd* descriptors, unsigned space) {
    if (space < 1 || CardOf(io).state->unwaitable != 0) {
        return 0;
    }
    descriptors[0] = {CardOf(io).timer, POLLIN, 0};
    return 1;
}

int PollEvents(snd_pcm_ioplug_t* io, pollfd* descriptors, unsigned count, unsigned short* events) {
    Card& card = CardOf(io);
    ++card.state->looks;
    *events = 0;
    if (count < 1 || (descriptors[0].revents & POLLIN) == 0) {
        return 0;
    }
    if (IsVain(card)) {
        HoldTime(card);  // and the timer stays readable
        *events = card.state->vainErrors != 0 ? POLLERR : POLLIN;
        return 0;
    }
    if (IsGone(card)) {
        // The timer stays readable: who does not stop now goes round for ever.
        if (card.running) {
            BreakOff(card, io->hw_ptr, io->hw_ptr, SND_PCM_STATE_DISCONNECTED);
        }
        *events = POLLERR | POLLNVAL;
        return 0;
    }
    std::uint64_t ticks = 0;
    if (::read(card.timer, &ticks, sizeof ticks) < 0) {
        return 0;
    }
    if (card.unprepared) {
        card.running = false;
        snd_pcm_ioplug_set_state(io, SND_PCM_STATE_PREPARED);
        SetTimer(card, false);
        return 0;
    }
    if (TakeOne(card.state->suspensions)) {
        BreakOff(card, io->hw_ptr, io->hw_ptr + kGapFrames, SND_PCM_STATE_SUSPENDED);
        *events = POLLERR;
        return 0;
    }
    *events = POLLIN;
    return 0;
}

const snd_pcm_ioplug_callback_t kCallbacks = [] {
    snd_pcm_ioplug_callback_t callbacks{};
    callbacks.start = &Start;
    callbacks.stop = &Stop;
    callbacks.pointer = &Pointer;
    callbacks.transfer = &Transfer;
    callbacks.close = &Close;
    callbacks.hw_params = &SetParameters;
    callbacks.hw_free = &FreeParameters;
    callbacks.prepare = &Prepare;
    callbacks.resume = &Resume;
    callbacks.poll_descriptors_count = &DescriptorCount;
    callbacks.poll_descriptors = &Descriptors;
    callbacks.poll_revents = &PollEvents;
    return callbacks;
}();

int Constrain(Card& card) {
    snd_pcm_ioplug_t* io = &card.io;
    TestCardState& state = *card.state;
    const unsigned accesses[] = {SND_PCM_ACCESS_MMAP_INTERLEAVED, SND_PCM_ACCESS_RW_INTERLEAVED};
    int error = state.mapped != 0
                    ? snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_ACCESS, 2, accesses)
                    : snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_ACCESS, 1, accesses + 1);
    const auto set = [&](int result) { error = error < 0 ? error : result; };
    set(snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_FORMAT, state.formatCount,
                                      state.formats.data()));
    set(snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_RATE, state.rateCount,
                                      state.ratesHz.data()));
    set(snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_CHANNELS, state.fewestChannels,
                                        state.mostChannels));
    set(snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIOD_BYTES, state.leastPeriodBytes,
                                        state.mostPeriodBytes));
    set(snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_BUFFER_BYTES,
                                        2 * state.leastPeriodBytes, state.mostRingBytes));
    set(snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIODS, 2, 1U << 16));
    return error;
}

int OpenCard(snd_pcm_t** pcm, const char* name, const std::string& path, snd_pcm_stream_t stream,
             int mode) {
    if (stream != SND_PCM_STREAM_CAPTURE) {
        return -ENODEV;
    }
    auto* card = new Card;
    card->file = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (card->file < 0) {
        delete card;
        return -ENODEV;
    }
    int error = 0;
    void* mapping =
        ::mmap(nullptr, sizeof(TestCardState), PROT_READ | PROT_WRITE, MAP_SHARED, card->file, 0);
    if (mapping == MAP_FAILED) {
        ::close(card->file);
        delete card;
        return -EIO;
    }
    card->state = static_cast<TestCardState*>(mapping);
    if (card->state->disconnected.load() != 0) {
        error = -ENODEV;
    } else if (card->state->openError.load() != 0) {
        error = -card->state->openError.load();
        if (TakeOne(card->state->openErrors) && card->state->openErrors == 0) {
            card->state->openError = 0;
        }
    } else if (::flock(card->file, LOCK_EX | LOCK_NB) != 0) {
        error = -EBUSY;
    }
    if (error == 0) {
        ++card->state->opens;
        card->timer = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
        card->io.version = SND_PCM_IOPLUG_VERSION;
        card->io.name = "vorrel test card";
        card->io.flags = SND_PCM_IOPLUG_FLAG_MONOTONIC | SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
        card->io.poll_fd = card->timer;
        card->io.poll_events = POLLIN;
        card->io.mmap_rw = 0;  // else reads would give the empty ring
        card->io.callback = &kCallbacks;
        card->io.private_data = card;
        error = snd_pcm_ioplug_create(&card->io, name, stream, mode);
        if (error == 0) {
            error = Constrain(*card);
            if (error < 0) {
                snd_pcm_ioplug_delete(&card->io);  // closes the card
                return error;
            }
            *pcm = card->io.pcm;
            return 0;
        }
        ::close(card->timer);
    }
    ::munmap(mapping, sizeof(TestCardState));
    ::close(card->file);
    delete card;
    return error;
}

}  // namespace

extern "C" {

SND_PCM_PLUGIN_DEFINE_FUNC(vorreltest) {
    static_cast<void>(root);
    std::string directory;
    std::string number;
    snd_config_iterator_t i = nullptr;
    snd_config_iterator_t next = nullptr;
    snd_config_for_each(i, next, conf) {
        snd_config_t* entry = snd_config_iterator_entry(i);
        const char* id = nullptr;
        char* text = nullptr;
        if (snd_config_get_id(entry, &id) < 0) {
            continue;
        }
        const std::string key = id;
        if ((key == "directory" || key == "card") && snd_config_get_ascii(entry, &text) == 0) {
            (key == "card" ? number : directory) = text;
            ::free(text);
        }
    }
    return OpenCard(pcmp, name, directory + "/card" + number, stream, mode);
}

SND_PCM_PLUGIN_SYMBOL(vorreltest);
}
