#pragma once

#include <sys/resource.h>

#include <atomic>
#include <functional>
#include <string>

#include "platform/ThreadPriority.h"

namespace vorrel {

/// Schedules the calling thread as the IO thread of a card: real-time round robin where the limits
/// allow it (`AskRoundRobin`); else by RealtimeKit over the system bus where there is one
/// (`AskRealtimeKit`); else a raised nice value. What was got in the end is traced once in a
/// process when it is not the first. Waits for at most a second.
ThreadScheduling ScheduleCaptureThread();

/// What the rule behind it asks of the system. Each answers 0, or the error number of a refusal.
struct CaptureSchedulingCalls {
    std::function<int()> setRoundRobin;
    std::function<int()> askRealtimeKit;
    std::function<int()> setNice;
};
ThreadScheduling ApplyCaptureScheduling(const CaptureSchedulingCalls& calls,
                                        std::atomic<bool>& refusalTraced);

/// Round robin for the calling thread at a priority, and the highest that the process may ask for
/// without privileges (RLIMIT_RTPRIO). Each answers 0, or an error number.
struct RoundRobinCalls {
    std::function<int(int priority)> set;
    std::function<int(rlimit& limit)> limit;
};
RoundRobinCalls SystemRoundRobin();

/// Asks for round robin one step above the workers that store what the thread captures; where the
/// limits allow less than that, at the most that they allow.
/// @return 0 or an error number.
int AskRoundRobin(const RoundRobinCalls& calls = SystemRoundRobin());

/// The process's limit on real-time computing without a wait (RLIMIT_RTTIME). Each answers 0, or an
/// error number.
struct RealtimeLimitCalls {
    std::function<int(rlimit& limit)> get;
    std::function<int(const rlimit& limit)> set;
};
RealtimeLimitCalls SystemRealtimeLimit();

/// Asks RealtimeKit for real-time scheduling of the calling thread, at no more than the priority
/// that it grants. It is asked as things are first. Only where it refuses that is the limit lowered
/// to what the service demands, and set back when it refuses all the same: a process without
/// privileges may not raise it again, which is traced.
/// @return 0 or an error number.
int AskRealtimeKit(const RealtimeLimitCalls& realtimeLimit = SystemRealtimeLimit());

}  // namespace vorrel
