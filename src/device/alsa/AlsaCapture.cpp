#include "device/alsa/AlsaCapture.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <tuple>
#include <utility>
#include <vector>

#include "device/alsa/AlsaStatus.h"
#include "device/alsa/CaptureScheduling.h"
#include "device/alsa/LockedBuffer.h"
#include "platform/GuardedTask.h"
#include "platform/ThreadPriority.h"
#include "platform/Trace.h"

namespace vorrel {
namespace {

constexpr char kThreadName[] = "AlsaCapture";

/// So often in succession, without a buffer in between, a card is started again before it is given
/// up: a broken one must not keep the IO thread going round.
constexpr unsigned kMostRestarts = 16;
constexpr std::chrono::milliseconds kResumePause{20};

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
    unsigned restarts = 0;            // since the last buffer
    std::uint64_t overrunsBefore = 0;
};

AlsaCapture::AlsaCapture(std::shared_ptr<PropertyListeners> propertyListeners,
                         std::function<void(Ending)> onEnded)
    : listeners(std::move(propertyListeners)), ended(std::move(onEnded)) {}

void AlsaCapture::Close() {
    EndRun();
    std::thread ending;
    {
        const MutexLock lock(mutex);
        closing = true;
        ended = nullptr;
        ending = std::move(thread);
        threadWake.NotifyAll();
    }
    if (ending.get_id() == std::this_thread::get_id()) {
        ending.detach();  // it ends after this callback, and holds the capture until then
    } else if (ending.joinable()) {
        ending.join();
    }
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
        while (!next->startStatus.has_value()) {
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
        if (const std::uint64_t lost = Overruns() - current->overrunsBefore; lost > 0) {
            Trace(__FILE__, __LINE__,
                  "%llu overruns of the capture ring: the stream has so many gaps",
                  static_cast<unsigned long long>(lost));
        }
        std::function<void(Ending)> notify;
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
        if (notify) {
            RunGuarded([&] { notify(outcome == Outcome::Gone ? Ending::Gone : Ending::Failed); },
                       kThreadName);
        }
    }
}

AlsaCapture::Outcome AlsaCapture::Capture(Run& current) {
    current.overrunsBefore = Overruns();
    current.descriptors = current.setup.pcm->PollDescriptors();
    current.descriptors.insert(current.descriptors.begin(), {current.stopEvent, POLLIN, 0});
    const int error = current.setup.pcm->Start();
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
        const int ready = ::poll(current.descriptors.data(), current.descriptors.size(), -1);
        if (current.stopRequested.load(std::memory_order_acquire)) {
            return Outcome::Stopped;
        }
        if (ready <= 0) {
            continue;  // a signal
        }
        if (current.descriptors[0].revents != 0) {
            // A stop that was taken back, or one that came after the look above.
            std::uint64_t count = 0;
            std::ignore = ::read(current.stopEvent, &count, sizeof count);
            if (current.stopRequested.load(std::memory_order_acquire)) {
                return Outcome::Stopped;
            }
        }
        const auto wakeUp = std::chrono::steady_clock::now();
        const RealtimeScope realtime;
        const unsigned short events = current.setup.pcm->Events(
            current.descriptors.data() + 1, static_cast<unsigned>(current.descriptors.size() - 1));
        int error = 0;
        if ((events & (POLLERR | POLLNVAL | POLLHUP)) != 0) {
            error = current.setup.pcm->StateError();
        }
        if (error == 0 && events != 0) {
            error = Deliver(current);
        }
        if (error < 0) {
            if (IsGone(error)) {
                return Outcome::Gone;
            }
            if (const std::optional<Outcome> outcome = Recover(current, error);
                outcome.has_value()) {
                return *outcome;
            }
            continue;
        }
        times->Add(std::chrono::steady_clock::now() - wakeUp);
    }
}

VORREL_REALTIME int AlsaCapture::Deliver(Run& current) {
    AlsaPcm& pcm = *current.setup.pcm;
    auto* const samples = static_cast<float*>(current.samples.Data());
    const UInt32 frames = current.setup.frames;
    while (!current.stopRequested.load(std::memory_order_acquire)) {
        for (UInt32 filled = 0; filled < frames;) {
            // Asked before each piece: some cards hand over what lies before the ring's end only.
            const long available = pcm.Available();
            if (available < 0) {
                return static_cast<int>(available);
            }
            if (available < static_cast<long>(frames - filled)) {
                return 0;  // between two pieces nothing goes away, so this is between two buffers
            }
            const long read =
                pcm.Read(samples + std::size_t{filled} * current.setup.channels, frames - filled);
            if (read == -EAGAIN || read == 0) {
                return 0;
            }
            if (read < 0) {
                return static_cast<int>(read);
            }
            filled += static_cast<UInt32>(read);
        }
        const AudioBufferList list{
            1,
            {{current.setup.channels, static_cast<UInt32>(current.samples.SizeBytes()), samples}}};
        current.restarts = 0;
        std::ignore = procs.BeginCycle();  // this thread alone begins cycles
        procs.Call(&current, current.setup.device, list);
        procs.EndCycle();
        deliveredBuffers.fetch_add(1, std::memory_order_relaxed);
    }
    return 0;
}

/// @return How the run ends; nothing where it goes on.
VORREL_REALTIME std::optional<AlsaCapture::Outcome> AlsaCapture::Recover(Run& current, int error) {
    if (error == -EINTR || error == -EAGAIN) {
        return std::nullopt;
    }
    if (++current.restarts > kMostRestarts) {
        return Outcome::Failed;
    }
    if (error == -EPIPE || error == -ESTRPIPE) {
        overruns.fetch_add(1, std::memory_order_relaxed);
        current.overload->Raise();
    }
    int resumed = -ENOSYS;
    if (error == -ESTRPIPE) {
        while ((resumed = current.setup.pcm->Resume()) == -EAGAIN) {
            pollfd stop{current.stopEvent, POLLIN, 0};
            if (::poll(&stop, 1, static_cast<int>(kResumePause.count())) > 0) {
                return std::nullopt;  // the loop sees it
            }
        }
    }
    if (resumed >= 0 && current.setup.pcm->StateError() == 0) {
        return std::nullopt;
    }
    // Tried again here: a card that is prepared and does not start never wakes the loop.
    for (int started = current.setup.pcm->Start(); started < 0;
         started = current.setup.pcm->Start()) {
        if (IsGone(started)) {
            return Outcome::Gone;
        }
        if (++current.restarts > kMostRestarts) {
            return Outcome::Failed;
        }
        pollfd stop{current.stopEvent, POLLIN, 0};
        if (::poll(&stop, 1, static_cast<int>(kResumePause.count())) > 0 &&
            current.stopRequested.load(std::memory_order_acquire)) {
            return Outcome::Stopped;
        }
    }
    return std::nullopt;
}

}  // namespace vorrel
