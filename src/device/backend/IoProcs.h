#pragma once

#include <cstddef>
#include <cstdint>
#include <thread>
#include <vector>

#include "device/backend/CoreAudioTypes.h"
#include "platform/Mutex.h"
#include "platform/Realtime.h"

namespace vorrel {

/// The IO procs of a device: who is registered, who is started in which run of the device, and the
/// cycle in which they are called. Any thread may call, an IO proc too.
class IoProcs {
public:
    /// Names a run of the device; compared, never followed.
    using RunToken = const void*;

    AudioDeviceIOProcID Create(AudioDeviceIOProc proc, void* clientData) VORREL_EXCLUDES(mutex);
    /// Forgets a proc. A call of it may still be under way: `WaitForCycle`.
    /// @return false for an unknown id.
    bool Destroy(AudioDeviceIOProcID id) VORREL_EXCLUDES(mutex);
    /// Marks a proc as started in that run. @return false for an unknown id.
    bool Start(AudioDeviceIOProcID id, RunToken run) VORREL_EXCLUDES(mutex);
    /// Marks it as stopped. A call of it may still be under way: `WaitForCycle`.
    /// @return false when it was not started.
    bool Stop(AudioDeviceIOProcID id) VORREL_EXCLUDES(mutex);
    void StopAll() VORREL_EXCLUDES(mutex);
    /// Forgets all.
    void Drop() VORREL_EXCLUDES(mutex);

    bool Has(AudioDeviceIOProcID id) VORREL_EXCLUDES(mutex);
    bool AnyStarted() VORREL_EXCLUDES(mutex);
    std::size_t Count() VORREL_EXCLUDES(mutex);

    /// Begins a cycle on the calling thread. @return false while another one is under way.
    VORREL_REALTIME bool BeginCycle() VORREL_EXCLUDES(mutex);
    /// Calls every proc that is started in `run`, no lock held. Inside a cycle.
    /// @return false when none was.
    VORREL_REALTIME bool Call(RunToken run, AudioObjectID device, const AudioBufferList& list)
        VORREL_EXCLUDES(mutex);
    VORREL_REALTIME void EndCycle() VORREL_EXCLUDES(mutex);
    /// Waits until no cycle that began before is under way, unless the caller is in it.
    void WaitForCycle() VORREL_EXCLUDES(mutex);
    bool IsInCycle() VORREL_EXCLUDES(mutex);

private:
    struct Client {
        AudioDeviceIOProcID id;
        AudioDeviceIOProc proc;
        void* clientData;
        RunToken run;  // the run it was started in, null while stopped
    };

    std::vector<Client>::iterator Find(AudioDeviceIOProcID id) VORREL_REQUIRES(mutex);

    Mutex mutex{kPriorityInheritance};  // held for a look at the list, never across a call
    ConditionVariable cycleEnded;
    std::vector<Client> clients VORREL_GUARDED_BY(mutex);  // ids ascend
    std::uintptr_t lastId VORREL_GUARDED_BY(mutex) = 0;
    bool inCycle VORREL_GUARDED_BY(mutex) = false;
    std::thread::id cycleThread VORREL_GUARDED_BY(mutex);
    std::uint64_t cycle VORREL_GUARDED_BY(mutex) = 0;
};

}  // namespace vorrel
