#include "Signals.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>

#include "ExitCode.h"

namespace vorrel::cli {
namespace {

constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGCONT, SIGUSR1};

/// The program's only globals: a handler is given nothing else to hold on to.
std::atomic<int> writeEnd{-1};
std::atomic<int> decidedExit{-1};  // -1 = a recording still runs
std::atomic<int> lateSignals{0};

extern "C" void VorrelCliOnSignal(int number) {
    if (const int exitCode = decidedExit.load(); exitCode >= 0) {
        const bool asksForTheEnd =
            number != SIGCONT && number != SIGTSTP && number != SIGUSR1 && number != SIGHUP;
        if (asksForTheEnd && ++lateSignals > 1) {
            ::_exit(exitCode);
        }
        return;
    }
    const int saved = errno;
    const auto byte = static_cast<unsigned char>(number);
    // A full pipe holds enough signals already.
    std::ignore = ::write(writeEnd.load(), &byte, 1);
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

std::vector<int> Signals::Take() {
    std::vector<int> numbers;
    std::array<unsigned char, 64> bytes{};
    for (;;) {
        const ssize_t count = ::read(readEnd, bytes.data(), bytes.size());
        if (count <= 0) {
            return numbers;
        }
        numbers.insert(numbers.end(), bytes.begin(), bytes.begin() + count);
    }
}

}  // namespace vorrel::cli
