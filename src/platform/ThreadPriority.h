#pragma once

#include <atomic>
#include <functional>

namespace vorrel {

/// Gives the calling thread a scheduling class by a priority from 0.0 to 1.0: 0.5 is normal, also
/// where the thread that made this one has a real-time class, which is inherited; 0.75 asks for
/// real-time round robin at a low priority, 1.0 one step higher; where the limits forbid it, a
/// raised nice value; else it is normal. A refusal is traced once per process and never fails the
/// thread. Real-time scheduling is not asked for under a limit on real-time computing time, which
/// would end the process in a long backlog. Threads that the calling thread makes later do not
/// inherit the scheduling class, but a raised nice value they do.
void SetCurrentThreadPriority(double priority);

/// Names the calling thread as debuggers and `top -H` show it.
/// @param name  The first 15 bytes are taken.
void SetCurrentThreadName(const char* name);

/// How a thread is scheduled after it asked for a priority.
enum class ThreadScheduling { Normal, RaisedNice, RoundRobin };

/// What `ApplyThreadPriority` asks of the system. Each answers 0, or the error number of a refusal.
struct SchedulingCalls {
    std::function<int(int priority)> setRoundRobin;  // 1 (lowest) to 99
    std::function<int(int nice)> setNice;            // 19 (lowest) to -20
    std::function<int()> leaveRealtime;              // to the normal class, from a real-time one
};

/// The rule behind `SetCurrentThreadPriority`, apart from the system.
/// @param refusalTraced  Set with the first refusal that is traced; none is traced while it is set.
/// @return What was granted.
ThreadScheduling ApplyThreadPriority(double priority, const SchedulingCalls& calls,
                                     std::atomic<bool>& refusalTraced);

}  // namespace vorrel
