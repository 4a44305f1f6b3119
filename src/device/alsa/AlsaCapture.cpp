#include "device/alsa/AlsaCapture.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <string>
#include <system_error>
#include <tuple>
#include <utility>
#include <vector>

#include "device/alsa/AlsaStatus.h"
#include "device/alsa/CaptureScheduling.h"
#include "device/alsa/LockedBuffer.h"
#include "device/backend/EndThread.h"
#include "platform/GuardedTask.h"
#include "platform/ThreadPriority.h"
#include "platform/Trace.h"

namespace vorrel {
namespace {

constexpr char kThreadName[] = "AlsaCapture";

/// So often in succession, without a buffer in between, a card is started again before it is given
/// up: a broken one must not keep the IO thread going round.
constexpr unsigned kMostRestarts = 16;
/// For so long a card that refuses to start is tried again: a hub that has been reset needs
/// seconds.
constexpr std::chrono::seconds kMostRefusals{8};
/// A machine that wakes up answers "not yet" for a while.
constexpr unsigned kMostResumes = 250;
constexpr std::chrono::milliseconds kRestartPause{20};
/// A card that runs and gives no buffer for so long does not run. The longest buffer takes 93 ms.
constexpr std::chrono::milliseconds kMostSilence{2'000};
/// After so many looks in succession that found no buffer there is a pause before each. A card
/// whose periods are shorter than a buffer wakes without one now and then.
constexpr unsigned kMostVainLooks = 16;
/// Leaves the processor to others, and is shorter than most buffers.
constexpr std::chrono::milliseconds kVainPause{5};

using Clock = std::chrono::steady_clock;

}  // namespace

/// One run of the card. All memory that its IO thread needs is taken when it is made.
struct AlsaCapture::Run {
    Run(const CaptureSetup& runSetup, std::shared_ptr<PropertySignal> overloadSignal)
        : setup(runSetup),
          overload(std::move(overloadSignal)),
          samples(std::size_t{setup.frames} * setup.channels * sizeof(float)),
          stopEvent(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~Run() { ::close(stopEvent); }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    CaptureSetup setup;  // its PCM until the end
    const std::shared_ptr<PropertySignal> overload;
    LockedBuffer samples;  // of one buffer, interleaved
    const int stopEvent;   // readable: look at `stopRequested`
    std::atomic<bool> stopRequested{false};
    std::optional<OSStatus> startStatus;  // under the capture's mutex
    // The IO thread's.
    std::vector<pollfd> descriptors;  // the event's first
    UInt32 filled = 0;                // frames in `samples` that wait for the rest of their buffer
    bool running = false;             // by the card's word; false while a gap is counted already
    unsigned restarts = 0;            // since the last buffer
    unsigned vainLooks = 0;           // the same
    Clock::time_point lastBuffer;     // or the last start
    // For the trace at the end.
    std::uint64_t overrunsBefore = 0;
    std::uint64_t pauses = 0;
    int lastPollError = 0;
    int lastError = 0;
};

AlsaCapture::AlsaCapture(std::shared_ptr<PropertyListeners> propertyListeners,
                         std::function<void(Ending)> onEnded)
    : listeners(std::move(propertyListeners)),
      ended(std::make_shared<const std::function<void(Ending)>>(std::move(onEnded))) {}

void AlsaCapture::Close() {
    std::thread ending;
    {
        const MutexLock lock(mutex);
        // All at once: a proc that joined in between would hold up the end.
        closing = true;
        procs.StopAll();
        RequestEnd();
        ended = nullptr;
        ending = std::move(thread);
        threadWake.NotifyAll();
        runChanged.NotifyAll();
    }
    EndThread(std::move(ending));  // which holds the capture
}

bool AlsaCapture::Destroy(AudioDeviceIOProcID id) {
    // Before the wait, so that it cannot start itself again meanwhile.
    const bool known = procs.Destroy(id);
    std::ignore = Stop(id);
    return known;
}

std::optional<OSStatus> AlsaCapture::Join(AudioDeviceIOProcID id) {
    const MutexLock lock(mutex);
    while (run != nullptr) {
        if (closing || !procs.Has(id)) {
            return kAudioHardwareIllegalOperationError;
        }
        const bool own = threadId == std::this_thread::get_id();
        // The card goes on when its own last proc stops and starts within one buffer.
        if (!run->stopRequested.load() || own) {
            run->stopRequested.store(false);
            runChanged.NotifyAll();
            std::ignore = procs.Start(id, run.get());
            return kAudioHardwareNoError;
        }
        runChanged.Wait(mutex);
    }
    return closing || !procs.Has(id) ? std::optional(kAudioHardwareIllegalOperationError)
                                     : std::nullopt;
}

std::optional<OSStatus> AlsaCapture::Begin(AudioDeviceIOProcID id, const CaptureSetup& setup) {
    std::shared_ptr<Run> next;
    try {
        next = std::make_shared<Run>(
            setup, listeners->MakeSignal(setup.device, kAudioDeviceProcessorOverload));
        const MutexLock lock(mutex);
        if (run != nullptr) {
            return std::nullopt;
        }
        if (closing) {
            return kAudioHardwareIllegalOperationError;
        }
        if (next->stopEvent < 0) {
            return kAudioHardwareUnspecifiedError;
        }
        if (!thread.joinable()) {
            thread = std::thread([self = shared_from_this()] { self->ThreadBody(); });
            threadId = thread.get_id();
        }
        // Before the card starts: the first buffer is the proc's.
        if (!procs.Start(id, next.get())) {
            return kAudioHardwareIllegalOperationError;
        }
        run = next;
        threadWake.NotifyAll();
        // A start that failed is told when the card has been given back, so that whoever hears of
        // it can set the card up anew at once.
        while (!next->startStatus.has_value() ||
               (*next->startStatus != kAudioHardwareNoError && run == next)) {
            runChanged.Wait(mutex);
        }
        return next->startStatus;
    } catch (const std::exception& error) {
        Trace(__FILE__, __LINE__, "no capture thread: %s", error.what());
        return kAudioHardwareUnspecifiedError;
    }
}

bool AlsaCapture::Stop(AudioDeviceIOProcID id) {
    std::shared_ptr<Run> ending;
    bool started = false;
    {
        const MutexLock lock(mutex);
        started = procs.Stop(id);
        if (!procs.AnyStarted()) {
            ending = run;
            RequestEnd();
        }
    }
    // Also when another thread has just stopped it: its last call may still be under way.
    procs.WaitForCycle();
    WaitForEnd(ending);
    return started;
}

void AlsaCapture::RequestEnd() {
    if (run != nullptr) {
        run->stopRequested.store(true);
        const std::uint64_t one = 1;
        std::ignore = ::write(run->stopEvent, &one, sizeof one);
    }
}

void AlsaCapture::WaitForEnd(const std::shared_ptr<Run>& ending) {
    const MutexLock lock(mutex);
    while (ending != nullptr && run == ending && threadId != std::this_thread::get_id() &&
           ending->stopRequested.load()) {
        runChanged.Wait(mutex);
    }
}

void AlsaCapture::EndRun() {
    const MutexLock lock(mutex);
    procs.StopAll();
    RequestEnd();
}

bool AlsaCapture::IsRunning() {
    const MutexLock lock(mutex);
    return run != nullptr;
}

std::shared_ptr<AlsaCapture::Run> AlsaCapture::WaitForRun() {
    const MutexLock lock(mutex);
    while (run == nullptr && !closing) {
        threadWake.Wait(mutex);
    }
    return run;
}

void AlsaCapture::ThreadBody() noexcept {
    SetCurrentThreadName(kThreadName);
    RunGuarded([] { ScheduleCaptureThread(); }, kThreadName);
    while (std::shared_ptr<Run> current = WaitForRun()) {
        Outcome outcome = Outcome::Failed;
        RunGuarded([&] { outcome = Capture(*current); }, kThreadName);
        if (outcome != Outcome::Gone) {
            // Its interface is idle from here on, and can be switched to the other mode.
            current->setup.pcm->Drop();
            current->setup.pcm->Free();
        }
        // Before the end is told: whoever waits for it may want the card closed, or open it anew.
        current->setup.pcm.reset();
        RunGuarded([&] { TraceRun(*current, outcome); }, kThreadName);
        std::shared_ptr<const std::function<void(Ending)>> notify;
        {
            const MutexLock lock(mutex);
            if (outcome != Outcome::Stopped) {
                procs.StopAll();
            }
            // A start that failed is told to whoever waits for it, and to nobody else.
            const bool captured = current->startStatus == kAudioHardwareNoError;
            if (!current->startStatus.has_value()) {
                procs.StopAll();
                current->startStatus = kAudioHardwareUnspecifiedError;
            }
            if (outcome == Outcome::Gone || (outcome == Outcome::Failed && captured)) {
                notify = ended;
            }
            run.reset();
            runChanged.NotifyAll();
        }
        current.reset();
        if (notify != nullptr) {
            const Ending ending = outcome == Outcome::Gone ? Ending::Gone : Ending::Failed;
            RunGuarded([&] { (*notify)(ending); }, kThreadName);
        }
    }
}

void AlsaCapture::TraceRun(const Run& current, Outcome outcome) {
    if (const std::uint64_t lost = Overruns() - current.overrunsBefore; lost > 0) {
        Trace(__FILE__, __LINE__, "%llu overruns of the capture ring: the stream has so many gaps",
              static_cast<unsigned long long>(lost));
    }
    if (current.pauses > 0) {
        const std::string reason = current.lastPollError == 0
                                       ? std::string("they brought no buffer")
                                       : std::generic_category().message(current.lastPollError);
        Trace(__FILE__, __LINE__, "%llu wake-ups of the capture were slowed down: %s",
              static_cast<unsigned long long>(current.pauses), reason.c_str());
    }
    if (outcome == Outcome::Failed && current.lastError < 0) {
        const std::string reason = std::generic_category().message(-current.lastError);
        Trace(__FILE__, __LINE__, "the capture ends: %s", reason.c_str());
    }
}

AlsaCapture::Outcome AlsaCapture::Capture(Run& current) {
    current.overrunsBefore = Overruns();
    current.descriptors = current.setup.pcm->PollDescriptors();
    const bool wakes = !current.descriptors.empty();
    current.descriptors.insert(current.descriptors.begin(), {current.stopEvent, POLLIN, 0});
    const int error = wakes ? current.setup.pcm->Start() : -EIO;
    current.lastError = error;
    current.running = error >= 0;
    current.lastBuffer = Clock::now();
    ReportStart(current, error);
    if (error < 0) {
        return IsGone(error) ? Outcome::Gone : Outcome::Failed;
    }
    return Loop(current);
}

void AlsaCapture::ReportStart(Run& current, int error) {
    const MutexLock lock(mutex);
    current.startStatus = StatusOf(error);
    if (error < 0) {
        procs.StopAll();
        current.stopRequested.store(true);  // it is ending: nobody joins it any more
    }
    runChanged.NotifyAll();
}

VORREL_REALTIME AlsaCapture::Outcome AlsaCapture::Loop(Run& current) {
    for (;;) {
        const int ready = ::poll(current.descriptors.data(), current.descriptors.size(),
                                 static_cast<int>(kMostSilence.count()));
        const int pollError = ready < 0 ? errno : 0;
        if (current.stopRequested.load(std::memory_order_acquire)) {
            return Outcome::Stopped;
        }
        if (pollError == EINTR) {
            continue;
        }
        if (ready > 0 && current.descriptors[0].revents != 0) {
            // A stop that was taken back, or one that came after the look above.
            std::uint64_t count = 0;
            std::ignore = ::read(current.stopEvent, &count, sizeof count);
            if (current.stopRequested.load(std::memory_order_acquire)) {
                return Outcome::Stopped;
            }
            if (ready == 1) {
                continue;
            }
        }
        if (const std::optional<Outcome> outcome = Look(current, pollError); outcome.has_value()) {
            return *outcome;
        }
    }
}

VORREL_REALTIME std::optional<AlsaCapture::Outcome> AlsaCapture::Look(Run& current, int pollError) {
    const auto wakeUp = Clock::now();
    const RealtimeScope realtime;
    AlsaPcm& pcm = *current.setup.pcm;
    // The descriptors say nothing of themselves after a wait that failed; the card is asked anyway.
    const unsigned short events =
        pollError != 0 ? POLLERR
                       : pcm.Events(current.descriptors.data() + 1,
                                    static_cast<unsigned>(current.descriptors.size() - 1));
    const std::uint64_t before = DeliveredBuffers();
    // What can be read is read before an error is looked at: it is not there any more afterwards.
    int error = events != 0 ? Deliver(current) : 0;
    if (error == 0 && (events & (POLLERR | POLLNVAL | POLLHUP)) != 0) {
        error = pcm.StateError();
    }
    const auto now = Clock::now();
    const bool delivered = DeliveredBuffers() != before;
    if (delivered) {
        times->Add(now - wakeUp);
    } else if (error == 0 && now - current.lastBuffer > kMostSilence) {
        error = IsGone(pcm.StateError()) ? -ENODEV : -ETIMEDOUT;
    }
    if (error < 0) {
        return Recover(current, error);
    }
    if (pollError != 0 || (!delivered && ++current.vainLooks > kMostVainLooks)) {
        current.lastPollError = pollError != 0 ? pollError : current.lastPollError;
        ++current.pauses;
        return Pause(current, kVainPause) ? std::optional(Outcome::Stopped) : std::nullopt;
    }
    return std::nullopt;
}

VORREL_REALTIME int AlsaCapture::Deliver(Run& current) {
    AlsaPcm& pcm = *current.setup.pcm;
    auto* const samples = static_cast<float*>(current.samples.Data());
    const UInt32 frames = current.setup.frames;
    while (!current.stopRequested.load(std::memory_order_acquire)) {
        while (current.filled < frames) {
            // Asked before each piece: some cards hand over what lies before the ring's end only.
            const long available = pcm.Available();
            const UInt32 missing = frames - current.filled;
            if (available < 0 && available != -EAGAIN) {
                return static_cast<int>(available);
            }
            // Of a stream that has stopped every frame is taken: nothing joins it there any more.
            if (available <= 0 || (available < static_cast<long>(missing) && !pcm.IsInRest())) {
                return 0;
            }
            const long read =
                pcm.Read(samples + std::size_t{current.filled} * current.setup.channels, missing);
            if (read == -EAGAIN || read == -EINTR || read == 0) {
                return 0;
            }
            if (read < 0) {
                return static_cast<int>(read);
            }
            current.filled += static_cast<UInt32>(read);
            current.running = current.running || !pcm.IsInRest();
        }
        const AudioBufferList list{
            1,
            {{current.setup.channels, static_cast<UInt32>(current.samples.SizeBytes()), samples}}};
        current.filled = 0;
        std::ignore = procs.BeginCycle();  // this thread alone begins cycles
        procs.Call(&current, current.setup.device, list);
        procs.EndCycle();
        deliveredBuffers.fetch_add(1, std::memory_order_relaxed);
        current.restarts = 0;
        current.vainLooks = 0;
        current.lastBuffer = Clock::now();
    }
    return 0;
}

VORREL_REALTIME void AlsaCapture::CountGap(Run& current) {
    if (current.running) {
        current.running = false;
        overruns.fetch_add(1, std::memory_order_relaxed);
        current.overload->Raise();
    }
}

VORREL_REALTIME bool AlsaCapture::Pause(Run& current, std::chrono::milliseconds time) {
    pollfd stop{current.stopEvent, POLLIN, 0};
    if (::poll(&stop, 1, static_cast<int>(time.count())) != 0) {
        // Readable although nobody wants the end, or not to be waited on: the time itself, then.
        if (!current.stopRequested.load(std::memory_order_acquire)) {
            std::this_thread::sleep_for(time);
        }
    }
    return current.stopRequested.load(std::memory_order_acquire);
}

VORREL_REALTIME bool AlsaCapture::Resume(Run& current) {
    int resumed = current.setup.pcm->Resume();
    for (unsigned tries = 0; resumed == -EAGAIN && tries < kMostResumes; ++tries) {
        if (Pause(current, kRestartPause)) {
            return true;  // the loop sees it
        }
        resumed = current.setup.pcm->Resume();
    }
    return resumed >= 0 && current.setup.pcm->StateError() == 0;
}

VORREL_REALTIME std::optional<AlsaCapture::Outcome> AlsaCapture::Recover(Run& current, int error) {
    AlsaPcm& pcm = *current.setup.pcm;
    current.lastError = error;
    if (error == -ESTRPIPE) {
        CountGap(current);
        if (++current.restarts <= kMostRestarts && Resume(current)) {
            current.lastBuffer = Clock::now();  // what it took was no silence
            return std::nullopt;
        }
    }
    if (pcm.StateError() == 0) {
        pcm.Drop();  // it runs: only what stands still can be read to its end, and prepared
    }
    const bool silentAgain = error == -ETIMEDOUT && current.restarts > 0;
    pcm.KeepRest();
    std::ignore = Deliver(current);
    if (IsGone(error)) {
        return Outcome::Gone;
    }
    if (current.stopRequested.load(std::memory_order_acquire)) {
        return Outcome::Stopped;
    }
    if (!silentAgain) {
        CountGap(current);  // a card that has given nothing since has no further gap
    }
    if (++current.restarts > kMostRestarts) {
        return Outcome::Failed;
    }
    // Tried again here: a card that is prepared and does not start never wakes the loop.
    for (const auto begin = Clock::now();;) {
        const int started = pcm.Start();
        if (started >= 0) {
            current.running = true;
            current.lastBuffer = Clock::now();
            return std::nullopt;
        }
        current.lastError = started;
        if (IsGone(started)) {
            return Outcome::Gone;
        }
        if (Clock::now() - begin > kMostRefusals) {
            return Outcome::Failed;
        }
        if (Pause(current, kRestartPause)) {
            return Outcome::Stopped;
        }
    }
}

}  // namespace vorrel
