#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "device/alsa/AlsaPcm.h"
#include "device/alsa/CycleTimes.h"
#include "device/backend/CoreAudioTypes.h"
#include "device/backend/IoProcs.h"
#include "device/backend/PropertyListeners.h"
#include "platform/Mutex.h"
#include "platform/Realtime.h"

namespace vorrel {

/// How a run captures.
struct CaptureSetup {
    AudioObjectID device = kAudioObjectUnknown;  ///< As the procs are told.
    std::shared_ptr<AlsaPcm> pcm;                ///< Configured; the IO thread's while it runs.
    UInt32 channels = 0;
    UInt32 frames = 0;  ///< Of each buffer, no more and no fewer.
};

/// The IO procs of a card and its IO thread ("AlsaCapture"), which lives from the first start to
/// `Close`. A run begins with the first proc that is started and ends with the last that is
/// stopped, or with the card. A stream that stops by itself (the ring has run over, the machine was
/// suspended, the driver gave up) is started again; each such stop is counted and reported as one
/// processor overload, and what its ring still holds is delivered first where it is mapped. Buffers
/// are always whole: one that a gap falls into is filled up from behind it. Any thread may call, an
/// IO proc and a listener too. Always held by a shared pointer: the IO thread holds it as well.
class AlsaCapture : public std::enable_shared_from_this<AlsaCapture> {
public:
    enum class Ending {
        Gone,    ///< The card is unplugged.
        Failed,  ///< It is there and captures no more.
    };
    /// @param onEnded  A run ended by itself; called once for it on the IO thread, no lock held,
    /// after
    ///                 the last call of a proc.
    AlsaCapture(std::shared_ptr<PropertyListeners> propertyListeners,
                std::function<void(Ending)> onEnded);
    /// Ends the run and the IO thread and waits for both, unless the IO thread is the caller.
    void Close() VORREL_EXCLUDES(mutex);

    AudioDeviceIOProcID Create(AudioDeviceIOProc proc, void* clientData) {
        return procs.Create(proc, clientData);
    }
    /// As `Stop`. @return False for an unknown id.
    bool Destroy(AudioDeviceIOProcID id) VORREL_EXCLUDES(mutex);
    bool Has(AudioDeviceIOProcID id) { return procs.Has(id); }
    std::size_t ProcCount() { return procs.Count(); }

    /// Has the proc called in the run under way. Waits for the end of one that is ending, unless
    /// the caller is in it: then it goes on.
    /// @return Nothing when no run is under way; 'nope' for an unknown id.
    std::optional<OSStatus> Join(AudioDeviceIOProcID id) VORREL_EXCLUDES(mutex);
    /// Begins a run with the proc. Waits until the IO thread has started the card or failed to.
    /// @return Nothing when a run is under way; 'nope', 'what', '!dev' and so on.
    std::optional<OSStatus> Begin(AudioDeviceIOProcID id, const CaptureSetup& setup)
        VORREL_EXCLUDES(mutex);
    /// Afterwards the proc is not called any more, and a run that has no other proc is over. Waits
    /// for both, unless the IO thread is the caller. @return False when it was not started.
    bool Stop(AudioDeviceIOProcID id) VORREL_EXCLUDES(mutex);
    /// Ends the run without waiting.
    void EndRun() VORREL_EXCLUDES(mutex);

    /// Until the IO thread has given the card back.
    bool IsRunning() VORREL_EXCLUDES(mutex);
    /// Gaps in the captured stream since it was made: stops that nobody asked for.
    std::uint64_t Overruns() const { return overruns.load(std::memory_order_relaxed); }
    std::uint64_t DeliveredBuffers() const {
        return deliveredBuffers.load(std::memory_order_relaxed);
    }
    CycleTimes::Summary Times() const { return times->Summarise(); }

private:
    struct Run;
    enum class Outcome { Stopped, Gone, Failed };

    void ThreadBody() noexcept;
    std::shared_ptr<Run> WaitForRun() VORREL_EXCLUDES(mutex);
    /// Starts the card, tells whoever waits in `Begin`, captures.
    Outcome Capture(Run& current) VORREL_EXCLUDES(mutex);
    VORREL_REALTIME Outcome Loop(Run& current);
    /// One look at the card after it woke the thread, or should have.
    /// @param pollError  Of the wait, else 0. @return How the run ends; nothing where it goes on.
    VORREL_REALTIME std::optional<Outcome> Look(Run& current, int pollError);
    /// Delivers every whole buffer that is there. @return 0, or the error that came in between.
    VORREL_REALTIME int Deliver(Run& current);
    /// Starts a stream again that does not go on. @return How the run ends; nothing where it goes
    /// on.
    VORREL_REALTIME std::optional<Outcome> Recover(Run& current, int error);
    /// @return Whether the card goes on where it was suspended.
    VORREL_REALTIME bool Resume(Run& current);
    VORREL_REALTIME void CountGap(Run& current);
    /// Waits, so that nothing goes round without a pause. @return Whether the run shall end.
    VORREL_REALTIME bool Pause(Run& current, std::chrono::milliseconds time);
    /// After the run, when traces may be written.
    void TraceRun(const Run& current, Outcome outcome);
    void ReportStart(Run& current, int error) VORREL_EXCLUDES(mutex);
    void RequestEnd() VORREL_REQUIRES(mutex);
    void WaitForEnd(const std::shared_ptr<Run>& ending) VORREL_EXCLUDES(mutex);

    const std::shared_ptr<PropertyListeners> listeners;
    IoProcs procs;  // a lock of its own, taken under the mutex or without it
    std::atomic<std::uint64_t> overruns{0};
    std::atomic<std::uint64_t> deliveredBuffers{0};
    const std::unique_ptr<CycleTimes> times = std::make_unique<CycleTimes>();

    Mutex mutex;                   // never taken by the IO thread within a run
    ConditionVariable threadWake;  // a run begins, or the end
    ConditionVariable runChanged;  // a run has started, failed or ended
    // Shared, so that the IO thread takes its own without an allocation.
    std::shared_ptr<const std::function<void(Ending)>> ended VORREL_GUARDED_BY(mutex);
    std::shared_ptr<Run> run VORREL_GUARDED_BY(mutex);  // until its IO thread is through with it
    bool closing VORREL_GUARDED_BY(mutex) = false;
    std::thread thread VORREL_GUARDED_BY(mutex);
    std::thread::id threadId VORREL_GUARDED_BY(mutex);
};

}  // namespace vorrel
