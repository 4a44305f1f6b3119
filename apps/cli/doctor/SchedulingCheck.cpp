#include "doctor/SchedulingCheck.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <thread>

#include "Volumes.h"

namespace vorrel::cli {
namespace {

// The buffers of a capture thread: 4,096 frames of eight channels as floats, and room.
constexpr std::uint64_t kWantedLockedBytes = 1U << 20;

constexpr int kWantedPriority = 6;  // the capture thread's

constexpr const char* kLimitsAdvice =
    "put '@audio - rtprio 20' and '@audio - memlock unlimited' into a file in "
    "/etc/security/limits.d, join the group audio, and log in again";

}  // namespace

ProcessLimits TryProcessLimits() {
    ProcessLimits limits;
    std::thread([&limits] {
        sched_param parameter{};
        parameter.sched_priority = kWantedPriority;
        limits.realTime = ::pthread_setschedparam(::pthread_self(), SCHED_RR, &parameter) == 0;
    }).join();
    rlimit locked{};
    // No limit holds root.
    if (::geteuid() != 0 && ::getrlimit(RLIMIT_MEMLOCK, &locked) == 0 &&
        locked.rlim_cur != RLIM_INFINITY) {
        limits.lockedBytes = locked.rlim_cur;
    }
    return limits;
}

Findings CheckScheduling(const SystemTexts& system, const ProcessLimits& limits) {
    Findings findings;
    const bool realtimeKit =
        system.Exists("/run/dbus/system_bus_socket") &&
        system.Exists("/usr/share/dbus-1/system-services/org.freedesktop.RealtimeKit1.service");
    if (limits.realTime) {
        findings.push_back({"scheduling", Verdict::Good, "real-time scheduling is allowed", ""});
    } else if (realtimeKit) {
        findings.push_back(
            {"scheduling", Verdict::Good, "real-time scheduling goes through RealtimeKit", ""});
    } else {
        findings.push_back(
            {"scheduling", Verdict::Note,
             "real-time scheduling is refused: on a busy machine buffers may be lost",
             kLimitsAdvice});
    }
    if (limits.lockedBytes && *limits.lockedBytes < kWantedLockedBytes) {
        findings.push_back({"memory", Verdict::Note,
                            "only " + SizeText(*limits.lockedBytes) +
                                " of memory can be locked: buffers may be swapped out",
                            kLimitsAdvice});
    } else {
        findings.push_back({"memory", Verdict::Good, "the capture buffers can be locked", ""});
    }
    return findings;
}

}  // namespace vorrel::cli
