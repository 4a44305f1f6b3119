#pragma once

#include <chrono>
#include <vector>

namespace vorrel::cli {

/// A signal that has come.
struct SignalCame {
    int number = 0;
    std::chrono::steady_clock::time_point when{};
};

/// Turns signals into records in a pipe, so that the event loop meets them between two events.
/// SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGCONT and SIGUSR1; a hang-up or stop key that the
/// parent ignores (nohup) stays ignored. One at a time.
///
/// A handler and not a blocked mask: the engine's threads exist before `main`, and a mask set
/// there would not reach them.
class Signals {
public:
    /// @throws Failure when the process cannot open a pipe.
    Signals();
    ~Signals();
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    /// Readable while signals wait.
    int Descriptor() const { return readEnd; }
    /// The signals that came since the last call, in order.
    std::vector<SignalCame> Take();

    /// Whether a signal comes through: its parent has not had it ignored.
    static bool Heeds(int number);

    /// Everything is decided: to the end of the process a signal changes neither what is left
    /// behind nor the exit code, which is `exitCode`. The second request (`SignalRequests`) ends a
    /// process that hangs.
    static void EndWith(int exitCode);

private:
    int readEnd = -1;
};

}  // namespace vorrel::cli
