#pragma once

#include <atomic>
#include <functional>
#include <string>

#include "platform/ThreadPriority.h"

namespace vorrel {

/// Schedules the calling thread as the IO thread of a card: real-time round robin where the limits
/// allow it; else by RealtimeKit over the system bus where there is one, which sets the process's
/// limit on real-time computing (RLIMIT_RTTIME) first, as that service demands; else a raised nice
/// value. What was got in the end is traced once in a process when it is not the first. Waits for
/// at most a second.
ThreadScheduling ScheduleCaptureThread();

/// What the rule behind it asks of the system. Each answers 0, or the error number of a refusal.
struct CaptureSchedulingCalls {
    std::function<int()> setRoundRobin;
    std::function<int()> askRealtimeKit;
    std::function<int()> setNice;
};
ThreadScheduling ApplyCaptureScheduling(const CaptureSchedulingCalls& calls,
                                        std::atomic<bool>& refusalTraced);

/// Asks RealtimeKit for real-time scheduling of the calling thread. @return 0 or an error number.
int AskRealtimeKit();

}  // namespace vorrel
