#include "platform/ThreadPriority.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "platform/Trace.h"

namespace vorrel {

namespace {

// Above every normal thread and low among the real-time ones: the kernel's own and the audio
// server's threads stay in front.
constexpr int kRoundRobinPriority = 5;
constexpr int kRaisedNice = -10;

constexpr double kNormalPriority = 0.5;
constexpr double kHighestPriority = 1.0;

int SetRoundRobin(int priority) {
    // With a limit on real-time computing, the system ends a process whose worker computes for
    // longer than that without waiting, and a long backlog makes one do so.
    rlimit computing{};
    if (::getrlimit(RLIMIT_RTTIME, &computing) == 0 && computing.rlim_cur != RLIM_INFINITY) {
        return EPERM;
    }
    sched_param parameters{};
    parameters.sched_priority = priority;
    // Reset-on-fork: a thread or a program that this thread starts has not asked for this.
    return ::sched_setscheduler(0, SCHED_RR | SCHED_RESET_ON_FORK, &parameters) == 0 ? 0 : errno;
}

int LeaveRealtime() {
    const int policy = ::sched_getscheduler(0);
    const int policyClass = policy & ~SCHED_RESET_ON_FORK;
    if (policy == -1 || (policyClass != SCHED_RR && policyClass != SCHED_FIFO)) {
        return 0;
    }
    const sched_param parameters{};
    // Who may not take reset-on-fork back is refused a call that leaves it out.
    const int reset = policy & SCHED_RESET_ON_FORK;
    return ::sched_setscheduler(0, SCHED_OTHER | reset, &parameters) == 0 ? 0 : errno;
}

int SetNice(int nice) {
    // The kernel keeps a nice value for each thread and takes a thread's id here.
    const auto thread = static_cast<id_t>(::syscall(SYS_gettid));
    return ::setpriority(PRIO_PROCESS, thread, nice) == 0 ? 0 : errno;
}

}  // namespace

ThreadScheduling ApplyThreadPriority(double priority, const SchedulingCalls& calls,
                                     std::atomic<bool>& refusalTraced) {
    if (!(priority > kNormalPriority)) {  // not-a-number included
        // Nobody is to be told of a refusal: the system grants everyone the way down.
        calls.leaveRealtime();
        return ThreadScheduling::Normal;
    }
    const int step = priority >= kHighestPriority ? 1 : 0;
    const int roundRobinError = calls.setRoundRobin(kRoundRobinPriority + step);
    if (roundRobinError == 0) {
        return ThreadScheduling::RoundRobin;
    }
    // Not the class of the thread that made this one either, where a nice value counts for nothing.
    calls.leaveRealtime();
    const int niceError = calls.setNice(kRaisedNice - step);
    if (!refusalTraced.exchange(true)) {
        const std::string reason = std::generic_category().message(roundRobinError);
        Trace(__FILE__, __LINE__, "real-time scheduling refused (%s); worker threads run %s",
              reason.c_str(), niceError == 0 ? "with a raised nice value" : "at normal priority");
    }
    return niceError == 0 ? ThreadScheduling::RaisedNice : ThreadScheduling::Normal;
}

void SetCurrentThreadPriority(double priority) {
    static std::atomic<bool> refusalTraced{false};
    ApplyThreadPriority(priority, {&SetRoundRobin, &SetNice, &LeaveRealtime}, refusalTraced);
}

void SetCurrentThreadName(const char* name) {
    std::array<char, 16> shortened{};  // the kernel's limit; a longer name is refused whole
    std::strncpy(shortened.data(), name, shortened.size() - 1);
    ::pthread_setname_np(::pthread_self(), shortened.data());
}

}  // namespace vorrel
