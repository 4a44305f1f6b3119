#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "device/backend/CoreAudioTypes.h"
#include "device/backend/IoProcs.h"
#include "device/simulated/IoClock.h"
#include "device/simulated/SampleSource.h"
#include "platform/Mutex.h"

namespace vorrel {

/// How a run of the device delivers.
struct RunSetup {
    AudioObjectID device = kAudioObjectUnknown;  ///< As the procs are told.
    double rateHz = 0.0;
    UInt32 frames = 0;  ///< Per buffer.
    UInt32 channels = 0;
    std::vector<UInt32> bufferChannels;  ///< Empty: one buffer with all channels.
};

/// The IO procs of a recorder (`IoProcs`) and its capture thread. A run begins with the first proc
/// that is started and ends with the last that is stopped; buffer k of it is due when k + 1 buffer
/// times have passed since its beginning, and what is late is caught up buffer by buffer. Any
/// thread may call, an IO proc too. Always held by a shared pointer: the capture thread holds it as
/// well.
class IoEngine : public std::enable_shared_from_this<IoEngine> {
public:
    /// @param speed           Factor by which time runs fast.
    /// @param manual          No thread; only `Deliver` calls the procs.
    /// @param countdownEnded  Called after the last buffer of a countdown, on the thread that
    ///                        delivered it, no lock held.
    /// @param clock           Null for the system's.
    IoEngine(double speed, bool manual, std::function<void()> countdownEnded,
             std::shared_ptr<IoClock> clock = nullptr);
    /// Ends the capture thread and waits for it, unless it is the caller.
    void Close() VORREL_EXCLUDES(mutex);

    AudioDeviceIOProcID Create(AudioDeviceIOProc proc, void* clientData) VORREL_EXCLUDES(mutex);
    /// Afterwards the proc is not called any more, as after `Stop`; one that starts itself
    /// meanwhile is refused. @return false for an unknown id.
    bool Destroy(AudioDeviceIOProcID id) VORREL_EXCLUDES(mutex);
    /// Starts a proc; one that is started already goes on. A run that is under way goes on as well;
    /// for a new one `makeSource` is asked, and must not call the engine.
    /// @return 'nope' for an unknown id, 'what' when there is no source.
    OSStatus Start(AudioDeviceIOProcID id, const RunSetup& setup,
                   const std::function<std::unique_ptr<SampleSource>()>& makeSource)
        VORREL_EXCLUDES(mutex);
    /// Afterwards the proc is not called any more; waits for a call under way, unless that is the
    /// caller. @return false when it was not started.
    bool Stop(AudioDeviceIOProcID id) VORREL_EXCLUDES(mutex);
    /// Stops all procs, and waits as `Stop` does.
    void Halt() VORREL_EXCLUDES(mutex);
    /// Stops all procs without waiting for a call under way; `WaitForCall` does that.
    void EndRun() VORREL_EXCLUDES(mutex);
    void WaitForCall() { procs.WaitForCycle(); }
    /// Stops all procs and forgets them, without waiting.
    void DropProcs() VORREL_EXCLUDES(mutex);

    /// Delivers the next buffer of the run, now, on the calling thread.
    /// With a capture thread this goes on top of what that delivers, and moves its schedule.
    /// @return false when nobody got it: no run is under way, it is stalled, or another buffer is
    ///         being delivered.
    bool Deliver() VORREL_EXCLUDES(mutex);
    /// Delivers `list` in its place, with all that may be wrong with it. The source is not read;
    /// the frames of the first buffer count as delivered.
    bool Deliver(const AudioBufferList& list) VORREL_EXCLUDES(mutex);

    /// Buffers of at most `frames` frames from now on; 0 for whole ones.
    void SetShortBuffers(UInt32 frames) VORREL_EXCLUDES(mutex);
    /// Ends a countdown after `buffers` more, counted from the next that begins; 0 for never.
    void SetCountdown(std::uint64_t buffers) VORREL_EXCLUDES(mutex);
    /// Buffer lists without buffers from now on, each in the time of a whole buffer. They carry no
    /// frames, so the source is not read for them.
    void SetEmptyLists(bool empty) VORREL_EXCLUDES(mutex);
    /// Delivers nothing, and tells nobody, until it is released. The run then goes on where it was,
    /// later by the time that it was held.
    void SetStalled(bool stalled) VORREL_EXCLUDES(mutex);

    bool IsRunning() VORREL_EXCLUDES(mutex);
    std::size_t ProcCount() { return procs.Count(); }
    /// Of the run under way or, after it, of the last one.
    std::uint64_t DeliveredBuffers() VORREL_EXCLUDES(mutex);
    std::uint64_t DeliveredFrames() VORREL_EXCLUDES(mutex);
    /// Waits until so many buffers of a run have been delivered. @return false after the time-out.
    bool WaitForBuffers(std::uint64_t buffers, std::chrono::milliseconds timeout)
        VORREL_EXCLUDES(mutex);

private:
    struct Run;
    /// Ends the run when no proc is left in it.
    void EndIdleRun() VORREL_REQUIRES(mutex);
    /// @param list  Null for what the source has.
    /// @param due   The run that the buffer belongs to; null for whichever is under way.
    bool DeliverList(const AudioBufferList* list, const std::shared_ptr<Run>& due)
        VORREL_EXCLUDES(mutex);
    /// @return false when all procs have been stopped meanwhile and none was called.
    bool CallProcs(const Run& current, const AudioBufferList& list);
    UInt32 NextFrames() const VORREL_REQUIRES(mutex);
    /// Waits until a buffer can be delivered. @return its run; null when the engine closes.
    std::shared_ptr<Run> WaitUntilDue() VORREL_EXCLUDES(mutex);
    void ThreadBody() noexcept;

    const double speed;
    const bool manual;
    const std::shared_ptr<IoClock> clock;
    IoProcs procs;  // a lock of its own, taken under the mutex or without it
    Mutex mutex;
    ConditionVariable threadWake;  // a run begins, ends or is released, or the engine closes
    ConditionVariable cycleEnded;
    std::function<void()> countdownEnded VORREL_GUARDED_BY(mutex);
    std::uint64_t countdown VORREL_GUARDED_BY(mutex) = 0;
    std::shared_ptr<Run> run VORREL_GUARDED_BY(mutex);  // null while stopped
    UInt32 shortFrames VORREL_GUARDED_BY(mutex) = 0;
    bool emptyLists VORREL_GUARDED_BY(mutex) = false;
    bool stalled VORREL_GUARDED_BY(mutex) = false;
    IoClock::Time stalledSince VORREL_GUARDED_BY(mutex);
    std::uint64_t deliveredBuffers VORREL_GUARDED_BY(mutex) = 0;
    std::uint64_t deliveredFrames VORREL_GUARDED_BY(mutex) = 0;
    bool closing VORREL_GUARDED_BY(mutex) = false;
    std::thread thread VORREL_GUARDED_BY(mutex);
};

}  // namespace vorrel
