#pragma once

#include <chrono>
#include <optional>

namespace vorrel::cli {

/// How often the end has been asked for by signals. One request may come as several of them: who
/// forwards a Ctrl-C, or signals a program and then its group (timeout), does both within a
/// moment. So a signal is a further request only where it comes a second or more after the last
/// request was handled. One thread.
class SignalRequests {
public:
    using Clock = std::chrono::steady_clock;

    /// A signal has come, at `came`. @return Whether it is a request of its own; `Handled` follows.
    bool Hear(Clock::time_point came);
    /// What the newest request asks for has been done, or begun, at `now`.
    void Handled(Clock::time_point now) { handled = now; }
    /// How many requests there were.
    int Count() const { return count; }

    /// Whether a signal that comes so long after a request was handled is another one.
    static constexpr bool IsFurther(Clock::duration since) { return since >= kSpan; }

private:
    static constexpr auto kSpan = std::chrono::seconds(1);

    int count = 0;
    std::optional<Clock::time_point> handled;  // none: the newest request is being handled
};

}  // namespace vorrel::cli
