#include "Signals.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>

#include "ExitCode.h"
#include "SignalRequests.h"

namespace vorrel::cli {
namespace {

using Clock = std::chrono::steady_clock;

/// What a handler writes: less than the system may write in two.
struct Record {
    std::int64_t number, when;
};

constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGCONT, SIGUSR1};

/// The program's only globals: a handler is given nothing else to hold on to.
std::atomic<int> writeEnd{-1};
std::atomic<int> decidedExit{-1};         // -1 = a recording still runs
std::atomic<std::int64_t> lateSince{-1};  // a signal has come since then, -1 = none
static_assert(std::atomic<std::int64_t>::is_always_lock_free);

extern "C" void VorrelCliOnSignal(int number) {
    const int saved = errno;
    const std::int64_t now = Clock::now().time_since_epoch().count();
    if (const int exitCode = decidedExit.load(); exitCode >= 0) {
        const bool asksForTheEnd =
            number != SIGCONT && number != SIGTSTP && number != SIGUSR1 && number != SIGHUP;
        std::int64_t first = -1;
        if (asksForTheEnd && !lateSince.compare_exchange_strong(first, now) &&
            SignalRequests::IsFurther(Clock::duration(now - first))) {
            ::_exit(exitCode);
        }
        return;
    }
    const Record record{number, now};
    // A full pipe holds enough signals already.
    std::ignore = ::write(writeEnd.load(), &record, sizeof record);
    errno = saved;
}

}  // namespace

Signals::Signals() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        throw Failure(ExitCode::Storage,
                      "no pipe can be opened for signals: " + std::string(std::strerror(errno)));
    }
    readEnd = ends[0];
    writeEnd = ends[1];
    struct sigaction action {};
    action.sa_handler = &VorrelCliOnSignal;
    action.sa_flags = SA_RESTART;
    for (const int number : kSignals) {
        struct sigaction old {};
        // What the parent lets be ignored stays so: nohup, background jobs of a script.
        if (number != SIGTERM && ::sigaction(number, nullptr, &old) == 0 &&
            old.sa_handler == SIG_IGN) {
            continue;
        }
        ::sigaction(number, &action, nullptr);
    }
}

Signals::~Signals() {
    for (const int number : kSignals) {
        if (decidedExit.load() >= 0) {
            break;
        }
        struct sigaction old {};
        if (::sigaction(number, nullptr, &old) == 0 && old.sa_handler == &VorrelCliOnSignal) {
            ::signal(number, SIG_DFL);
        }
    }
    ::close(writeEnd.exchange(-1));
    ::close(readEnd);
}

bool Signals::Heeds(int number) {
    struct sigaction action {};
    return ::sigaction(number, nullptr, &action) == 0 && action.sa_handler == &VorrelCliOnSignal;
}

void Signals::EndWith(int exitCode) {
    decidedExit = exitCode;
}

std::vector<SignalCame> Signals::Take() {
    std::vector<SignalCame> came;
    std::array<Record, 16> records{};
    for (;;) {
        // The pipe holds whole records, and so does what is read from it.
        const ssize_t count = ::read(readEnd, records.data(), sizeof records);
        if (count <= 0) {
            return came;
        }
        for (std::size_t index = 0; index < static_cast<std::size_t>(count) / sizeof(Record);
             ++index) {
            came.push_back({static_cast<int>(records[index].number),
                            Clock::time_point(Clock::duration(records[index].when))});
        }
    }
}

}  // namespace vorrel::cli
