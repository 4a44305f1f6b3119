#include "device/alsa/CaptureScheduling.h"

#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <system_error>

#include "device/alsa/SdBus.h"
#include "platform/Trace.h"

namespace vorrel {
namespace {

// One step above the workers that store what this thread captures.
constexpr int kRoundRobinPriority = 6;
constexpr int kRaisedNice = -11;

constexpr SdBus::Address kRealtimeKit = {"org.freedesktop.RealtimeKit1",
                                         "/org/freedesktop/RealtimeKit1",
                                         "org.freedesktop.RealtimeKit1"};
constexpr std::chrono::milliseconds kPatience{1'000};

int SetNice() {
    const auto thread = static_cast<id_t>(::syscall(SYS_gettid));
    return ::setpriority(PRIO_PROCESS, thread, kRaisedNice) == 0 ? 0 : errno;
}

}  // namespace

RoundRobinCalls SystemRoundRobin() {
    return {[](int priority) {
                sched_param parameters{};
                parameters.sched_priority = priority;
                // Reset-on-fork: what this thread starts has not asked for it.
                return ::sched_setscheduler(0, SCHED_RR | SCHED_RESET_ON_FORK, &parameters) == 0
                           ? 0
                           : errno;
            },
            [](rlimit& limit) { return ::getrlimit(RLIMIT_RTPRIO, &limit) == 0 ? 0 : errno; }};
}

int AskRoundRobin(const RoundRobinCalls& calls) {
    const int refused = calls.set(kRoundRobinPriority);
    if (refused != EPERM) {
        return refused;
    }
    // What the limits allow goes before RealtimeKit, which would put a limit of time on the workers
    // that these limits have made real-time.
    rlimit allowed{};
    if (calls.limit(allowed) != 0 || allowed.rlim_cur < 1 ||
        allowed.rlim_cur >= static_cast<rlim_t>(kRoundRobinPriority)) {
        return refused;
    }
    return calls.set(static_cast<int>(allowed.rlim_cur));
}

RealtimeLimitCalls SystemRealtimeLimit() {
    return {
        [](rlimit& limit) { return ::getrlimit(RLIMIT_RTTIME, &limit) == 0 ? 0 : errno; },
        [](const rlimit& limit) { return ::setrlimit(RLIMIT_RTTIME, &limit) == 0 ? 0 : errno; }};
}

int AskRealtimeKit(const RealtimeLimitCalls& realtimeLimit) {
    const auto deadline = SdBus::Clock::now() + kPatience;
    const std::unique_ptr<SdBus> bus = SdBus::Connect(SdBus::Which::System, deadline);
    if (bus == nullptr) {
        return ENOENT;
    }
    const std::optional<std::int64_t> mostMicroseconds =
        bus->Property(kRealtimeKit, "RTTimeUSecMax", 'x', deadline);
    const std::optional<std::int64_t> mostPriority =
        bus->Property(kRealtimeKit, "MaxRealtimePriority", 'i', deadline);
    if (!mostMicroseconds.has_value() || !mostPriority.has_value() || *mostMicroseconds <= 0) {
        return ENOENT;
    }
    if (*mostPriority < 1) {
        return EPERM;
    }
    // The thread counts as a process's own number on the bus.
    const SdBus::Arguments thread = {.types = "tu",
                                     .first = static_cast<std::uint64_t>(::syscall(SYS_gettid)),
                                     .second = static_cast<std::uint64_t>(std::min<std::int64_t>(
                                         *mostPriority, kRoundRobinPriority))};
    const auto ask = [&] {
        return bus->Call(kRealtimeKit, "MakeThreadRealtime", thread, '\0', deadline).has_value();
    };
    if (ask()) {
        return 0;
    }
    rlimit before{};
    if (const int error = realtimeLimit.get(before); error != 0) {
        return error;
    }
    const auto most = static_cast<rlim_t>(*mostMicroseconds);
    if (before.rlim_max <= most) {
        return EPERM;
    }
    if (const int error = realtimeLimit.set({std::min(before.rlim_cur, most), most}); error != 0) {
        return error;
    }
    if (ask()) {
        return 0;
    }
    if (realtimeLimit.set(before) != 0) {
        Trace(__FILE__, __LINE__, "RLIMIT_RTTIME stays lowered to %lld us: it may not be set back",
              static_cast<long long>(most));
    }
    return EPERM;
}

ThreadScheduling ApplyCaptureScheduling(const CaptureSchedulingCalls& calls,
                                        std::atomic<bool>& refusalTraced) {
    const int roundRobinError = calls.setRoundRobin();
    if (roundRobinError == 0) {
        return ThreadScheduling::RoundRobin;
    }
    const bool granted = calls.askRealtimeKit() == 0;
    const bool raised = !granted && calls.setNice() == 0;
    if (!refusalTraced.exchange(true)) {
        const std::string reason = std::generic_category().message(roundRobinError);
        Trace(__FILE__, __LINE__,
              "real-time scheduling of the capture thread refused (%s); it runs %s", reason.c_str(),
              granted  ? "real-time by RealtimeKit"
              : raised ? "with a raised nice value"
                       : "at normal priority: buffers may be lost under load");
    }
    if (granted) {
        return ThreadScheduling::RoundRobin;
    }
    return raised ? ThreadScheduling::RaisedNice : ThreadScheduling::Normal;
}

ThreadScheduling ScheduleCaptureThread() {
    static std::atomic<bool> refusalTraced{false};
    return ApplyCaptureScheduling(
        {[] { return AskRoundRobin(); }, [] { return AskRealtimeKit(); }, &SetNice}, refusalTraced);
}

}  // namespace vorrel
