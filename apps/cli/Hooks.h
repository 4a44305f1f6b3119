#pragma once

#include <sys/types.h>

#include <chrono>
#include <deque>
#include <map>
#include <string>

namespace vorrel::cli {

/// Runs the user's shell command at events, one after the other and never awaited by the recording:
/// it gets what happened in its environment, /dev/null as stdin, stderr as stdout, a process group
/// of its own (Ctrl-C is not for it) and none of the recording's files. One thread.
class Hooks {
public:
    using Variables = std::map<std::string, std::string>;

    explicit Hooks(std::string shellCommand) : command(std::move(shellCommand)) {}
    ~Hooks();
    Hooks(const Hooks&) = delete;
    Hooks& operator=(const Hooks&) = delete;

    /// Queues a run with VORREL_EVENT=`event` and further variables.
    void Run(const std::string& event, Variables variables);
    /// Readable when `Reap` has something to do; -1 while nothing runs.
    int Descriptor() const { return childDescriptor; }
    /// Sees how the one that ran ended, and starts the next.
    /// @return What went wrong, "" = nothing.
    std::string Reap();
    /// Waits until all have run, at most `limit` in all. @return What went wrong, "" = nothing.
    std::string Finish(std::chrono::milliseconds limit);

private:
    struct Pending {
        std::string event;
        Variables variables;
    };
    std::string StartNext();

    std::string command;
    std::deque<Pending> pending;
    std::string running;  // its event
    std::string failure;  // why the last one did not start, until it is told
    pid_t child = -1;
    int childDescriptor = -1;
};

}  // namespace vorrel::cli
