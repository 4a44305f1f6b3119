#include "device/simulated/IoEngine.h"

#include <algorithm>
#include <system_error>
#include <tuple>
#include <utility>

#include "device/backend/EndThread.h"
#include "device/simulated/BufferListBuilder.h"
#include "platform/ThreadPriority.h"
#include "platform/Trace.h"

namespace vorrel {
namespace {

/// Frames of a list's first buffer, without following its data.
UInt32 FrameCount(const AudioBufferList& list) {
    if (list.mNumberBuffers == 0 || list.mBuffers[0].mNumberChannels == 0) {
        return 0;
    }
    const AudioBuffer& first = list.mBuffers[0];
    return static_cast<UInt32>(first.mDataByteSize / sizeof(float) / first.mNumberChannels);
}

}  // namespace

/// One run of the device. Its source and buffers are touched by the delivering thread only.
struct IoEngine::Run {
    Run(const RunSetup& runSetup, std::unique_ptr<SampleSource> runSource, IoClock::Time now)
        : setup(runSetup),
          source(std::move(runSource)),
          buffers(setup.channels, setup.bufferChannels, setup.frames),
          begin(now) {}

    const RunSetup setup;
    const std::unique_ptr<SampleSource> source;
    BufferListBuilder buffers;
    // Under the engine's mutex.
    IoClock::Time begin;
    std::uint64_t pacedFrames = 0;  // whose time has passed
};

IoEngine::IoEngine(double speedFactor, bool manualDelivery, std::function<void()> onCountdownEnded,
                   std::shared_ptr<IoClock> givenClock)
    : speed(speedFactor),
      manual(manualDelivery),
      clock(givenClock != nullptr ? std::move(givenClock) : MakeSteadyClock()),
      countdownEnded(std::move(onCountdownEnded)) {}

void IoEngine::Close() {
    Halt();
    std::thread ending;
    {
        const MutexLock lock(mutex);
        closing = true;
        countdownEnded = nullptr;
        ending = std::move(thread);
        threadWake.NotifyAll();
        // It may be waiting for a delivery by hand out of which this is called.
        cycleEnded.NotifyAll();
    }
    EndThread(std::move(ending));  // which holds the engine
}

AudioDeviceIOProcID IoEngine::Create(AudioDeviceIOProc proc, void* clientData) {
    return procs.Create(proc, clientData);
}

bool IoEngine::Destroy(AudioDeviceIOProcID id) {
    bool known = false;
    {
        const MutexLock lock(mutex);
        // Before the wait, so that the proc cannot start itself again meanwhile.
        known = procs.Destroy(id);
        EndIdleRun();
    }
    procs.WaitForCycle();
    return known;
}

OSStatus IoEngine::Start(AudioDeviceIOProcID id, const RunSetup& setup,
                         const std::function<std::unique_ptr<SampleSource>()>& makeSource) {
    const MutexLock lock(mutex);
    if (!procs.Has(id) || closing) {
        return kAudioHardwareIllegalOperationError;
    }
    if (run == nullptr) {
        std::unique_ptr<SampleSource> source = makeSource();
        if (source == nullptr) {
            return kAudioHardwareUnspecifiedError;
        }
        auto next = std::make_shared<Run>(setup, std::move(source), clock->Now());
        if (!manual && !thread.joinable()) {
            // It waits for the run, which begins only where there is a thread for it.
            try {
                thread = std::thread([self = shared_from_this()] { self->ThreadBody(); });
            } catch (const std::system_error& error) {
                Trace(__FILE__, __LINE__, "no capture thread: %s", error.what());
                return kAudioHardwareUnspecifiedError;
            }
        }
        run = std::move(next);
        deliveredBuffers = 0;
        deliveredFrames = 0;
        threadWake.NotifyAll();
    }
    std::ignore = procs.Start(id, run.get());
    return kAudioHardwareNoError;
}

bool IoEngine::Stop(AudioDeviceIOProcID id) {
    bool started = false;
    {
        const MutexLock lock(mutex);
        started = procs.Stop(id);
        EndIdleRun();
    }
    // Also when another thread has just stopped it: its last call may still be under way.
    procs.WaitForCycle();
    return started;
}

void IoEngine::EndIdleRun() {
    if (run != nullptr && !procs.AnyStarted()) {
        run.reset();
        threadWake.NotifyAll();
    }
}

void IoEngine::Halt() {
    EndRun();
    procs.WaitForCycle();
}

void IoEngine::EndRun() {
    const MutexLock lock(mutex);
    procs.StopAll();
    EndIdleRun();
}

void IoEngine::DropProcs() {
    const MutexLock lock(mutex);
    procs.Drop();
    EndIdleRun();
}

bool IoEngine::Deliver() {
    return DeliverList(nullptr, nullptr);
}

bool IoEngine::Deliver(const AudioBufferList& list) {
    return DeliverList(&list, nullptr);
}

UInt32 IoEngine::NextFrames() const {
    return shortFrames > 0 ? std::min(shortFrames, run->setup.frames) : run->setup.frames;
}

bool IoEngine::DeliverList(const AudioBufferList* given, const std::shared_ptr<Run>& due) {
    std::shared_ptr<Run> current;
    UInt32 wholeFrames = 0;
    bool empty = false;
    bool last = false;
    {
        const MutexLock lock(mutex);
        // Since it was due, another run may have begun, whose first buffer has its own time.
        if (run == nullptr || stalled || (due != nullptr && run != due) || !procs.BeginCycle()) {
            return false;
        }
        current = run;
        wholeFrames = NextFrames();
        empty = given == nullptr && emptyLists;
        // Counted at its beginning: a buffer that is under way is not one of a new countdown.
        last = countdown == 1;
        countdown -= countdown > 0 ? 1 : 0;
    }
    bool delivered = false;
    UInt32 frames = 0;
    if (given != nullptr) {
        frames = FrameCount(*given);
        delivered = CallProcs(*current, *given);
    } else if (empty) {
        delivered = CallProcs(*current, BufferListBuilder::Empty());
    } else {
        frames = wholeFrames;
        current->source->Read(current->buffers.Interleaved(), frames);
        delivered = CallProcs(*current, current->buffers.Build(frames));
    }
    std::function<void()> ended;
    {
        const MutexLock lock(mutex);
        current->pacedFrames += empty ? wholeFrames : frames;
        if (delivered && (run == current || run == nullptr)) {
            ++deliveredBuffers;
            deliveredFrames += frames;
        }
        procs.EndCycle();
        if (last) {
            ended = countdownEnded;
        }
        cycleEnded.NotifyAll();
    }
    if (ended) {
        ended();
    }
    return delivered;
}

bool IoEngine::CallProcs(const Run& current, const AudioBufferList& list) {
    return procs.Call(&current, current.setup.device, list);
}

std::shared_ptr<IoEngine::Run> IoEngine::WaitUntilDue() {
    const MutexLock lock(mutex);
    while (!closing) {
        if (run == nullptr || stalled) {
            threadWake.Wait(mutex);
            continue;
        }
        // From the beginning of the run each time, so that no error adds up.
        const std::chrono::duration<double> offset(
            static_cast<double>(run->pacedFrames + NextFrames()) / (run->setup.rateHz * speed));
        const auto due = run->begin + std::chrono::duration_cast<IoClock::Time::duration>(offset);
        if (due > clock->Now()) {
            clock->WaitUntil(threadWake, mutex, due);
        } else if (procs.IsInCycle()) {
            cycleEnded.Wait(mutex);  // somebody delivers by hand
        } else {
            return run;
        }
    }
    return nullptr;
}

void IoEngine::ThreadBody() noexcept {
    // Faster than real time it may have no pause at all, and at a real-time priority would keep
    // everybody else from a processor.
    if (speed <= 1.0) {
        SetCurrentThreadPriority(1.0);
    }
    while (const std::shared_ptr<Run> due = WaitUntilDue()) {
        clock->BufferIsDue();
        DeliverList(nullptr, due);
    }
}

bool IoEngine::IsRunning() {
    const MutexLock lock(mutex);
    return run != nullptr;
}

void IoEngine::SetShortBuffers(UInt32 frames) {
    const MutexLock lock(mutex);
    shortFrames = frames;
}

void IoEngine::SetCountdown(std::uint64_t buffers) {
    const MutexLock lock(mutex);
    countdown = buffers;
}

void IoEngine::SetEmptyLists(bool empty) {
    const MutexLock lock(mutex);
    emptyLists = empty;
}

void IoEngine::SetStalled(bool nowStalled) {
    const MutexLock lock(mutex);
    if (stalled == nowStalled) {
        return;
    }
    stalled = nowStalled;
    if (stalled) {
        stalledSince = clock->Now();
    } else if (run != nullptr) {
        run->begin += clock->Now() - std::max(stalledSince, run->begin);
    }
    threadWake.NotifyAll();
}

std::uint64_t IoEngine::DeliveredBuffers() {
    const MutexLock lock(mutex);
    return deliveredBuffers;
}

std::uint64_t IoEngine::DeliveredFrames() {
    const MutexLock lock(mutex);
    return deliveredFrames;
}

bool IoEngine::WaitForBuffers(std::uint64_t buffers, std::chrono::milliseconds timeout) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + timeout;
    const MutexLock lock(mutex);
    while (deliveredBuffers < buffers) {
        const auto remaining = deadline - Clock::now();
        if (remaining <= Clock::duration::zero()) {
            return false;
        }
        cycleEnded.WaitFor(mutex, remaining);
    }
    return true;
}

}  // namespace vorrel
