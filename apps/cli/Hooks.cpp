#include "Hooks.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <tuple>
#include <utility>
#include <vector>

#include "EngineTrace.h"

namespace vorrel::cli {
namespace {

constexpr std::size_t kMostPending = 1000;  // a hook that hangs must not fill the memory
constexpr const char* kShell = "/bin/sh";

/// posix_spawn's two objects, released with their scope.
struct SpawnSetup {
    SpawnSetup() {
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawnattr_init(&attributes);
    }
    ~SpawnSetup() {
        ::posix_spawnattr_destroy(&attributes);
        ::posix_spawn_file_actions_destroy(&actions);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;

    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};
};

}  // namespace

Hooks::~Hooks() {
    if (childDescriptor >= 0) {
        ::close(childDescriptor);  // it runs on without us
    }
}

void Hooks::Run(const std::string& event, Variables variables) {
    if (pending.size() < kMostPending) {
        pending.push_back({event, std::move(variables)});
    }
    if (child < 0) {
        failure = StartNext();  // told by the next look
    }
}

std::string Hooks::StartNext() {
    if (pending.empty()) {
        return "";
    }
    Pending next = std::move(pending.front());
    pending.pop_front();
    next.variables["VORREL_EVENT"] = next.event;
    std::vector<std::string> texts;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string text = *variable;
        if (next.variables.count(text.substr(0, text.find('='))) == 0) {
            texts.push_back(text);
        }
    }
    for (const auto& [name, value] : next.variables) {
        texts.push_back(name + "=" + value);
    }
    std::vector<char*> environment;
    environment.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        environment.push_back(text.data());
    }
    environment.push_back(nullptr);

    SpawnSetup setup;
    ::posix_spawn_file_actions_addopen(&setup.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_adddup2(&setup.actions, PeoplesDescriptor(), STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&setup.actions, PeoplesDescriptor(), STDERR_FILENO);
    // The spill files among them would keep their room as long as the hook runs.
    ::posix_spawn_file_actions_addclosefrom_np(&setup.actions, STDERR_FILENO + 1);
    sigset_t usual;
    ::sigemptyset(&usual);
    for (const int number : {SIGPIPE, SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTTOU, SIGXFSZ}) {
        ::sigaddset(&usual, number);
    }
    ::posix_spawnattr_setsigdefault(&setup.attributes, &usual);
    ::posix_spawnattr_setflags(&setup.attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF);
    std::string shell = kShell;
    std::string flag = "-c";
    std::string text = command;
    const std::array<char*, 4> arguments = {shell.data(), flag.data(), text.data(), nullptr};
    if (const int error = ::posix_spawn(&child, kShell, &setup.actions, &setup.attributes,
                                        arguments.data(), environment.data());
        error != 0) {
        child = -1;
        return "the hook could not be started: " + std::string(std::strerror(error));
    }
    running = next.event;
    childDescriptor = static_cast<int>(::syscall(SYS_pidfd_open, child, 0));
    if (childDescriptor >= 0) {
        ::fcntl(childDescriptor, F_SETFD, FD_CLOEXEC);
    }
    return "";
}

std::string Hooks::Reap() {
    if (!failure.empty()) {
        return std::exchange(failure, "");
    }
    if (child >= 0) {
        int status = 0;
        const pid_t ended = ::waitpid(child, &status, WNOHANG);
        if (ended == 0 || (ended < 0 && errno == EINTR)) {
            return "";
        }
        child = -1;
        if (childDescriptor >= 0) {
            ::close(childDescriptor);
            childDescriptor = -1;
        }
        std::string wrong;
        if (ended > 0 && WIFSIGNALED(status)) {
            wrong = "was ended by signal " + std::to_string(WTERMSIG(status));
        } else if (ended > 0 && WEXITSTATUS(status) != 0) {
            wrong = "ended with " + std::to_string(WEXITSTATUS(status));
        }
        const std::string event = std::exchange(running, "");
        const std::string next = StartNext();
        return wrong.empty() ? next : "the hook " + wrong + " at the event " + event;
    }
    return StartNext();
}

std::string Hooks::Finish(std::chrono::milliseconds limit) {
    using Clock = std::chrono::steady_clock;
    const auto until = Clock::now() + limit;
    std::string wrong;
    while (child >= 0 || !pending.empty() || !failure.empty()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
        if (left.count() <= 0) {
            const std::size_t dropped = pending.size();
            pending.clear();
            return "the hook at the event " + running + " still runs" +
                   (dropped == 0 ? ""
                                 : "; it is not run for " + std::to_string(dropped) +
                                       (dropped == 1 ? " more event" : " more events"));
        }
        if (child >= 0) {
            pollfd source = {childDescriptor, POLLIN, 0};
            // Without a descriptor it is looked at now and then.
            const std::int64_t wait =
                childDescriptor >= 0 ? left.count() : std::min<std::int64_t>(left.count(), 20);
            std::ignore = ::poll(&source, 1, static_cast<int>(wait));
        }
        if (const std::string said = Reap(); !said.empty()) {
            wrong += (wrong.empty() ? "" : "; ") + said;
        }
    }
    return wrong;
}

}  // namespace vorrel::cli
