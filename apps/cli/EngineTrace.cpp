#include "EngineTrace.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <ctime>
#include <string_view>
#include <tuple>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#include <sanitizer/common_interface_defs.h>
#endif

namespace vorrel::cli {
namespace {

constexpr std::string_view kGap = "the recording has a gap";

/// What an abort still has to pass on; -1 = nothing.
std::atomic<int> caught{-1};

/// To people, if they take it at once. Only what a signal handler may call.
void Say(const char* text, std::size_t length) {
    pollfd target{PeoplesDescriptor(), POLLOUT, 0};
    if (length > 0 && ::poll(&target, 1, 0) == 1) {
        std::ignore = ::write(target.fd, text, length);
    }
}

void PassOn(int source) {
    std::array<char, 4096> bytes;  // NOLINT(cppcoreguidelines-pro-type-member-init): read into
    ssize_t count = 0;
    while ((count = ::read(source, bytes.data(), bytes.size())) > 0) {
        Say(bytes.data(), static_cast<std::size_t>(count));
    }
}

/// The C library says why it aborts on standard error; the process ends when this returns.
void HandleAbort(int) {
    if (const int source = caught.load(); source >= 0) {
        PassOn(source);
        // What the main thread has taken already is on its way to people in another thread.
        timespec rest{1, 0};
        std::ignore = ::nanosleep(&rest, nullptr);
        PassOn(source);
    }
}

}  // namespace

int PeoplesDescriptor() {
    static const int kept = [] {
        const int copy = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        if (copy >= 0) {
            __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<std::intptr_t>(copy)));
        }
#endif
        return copy >= 0 ? copy : STDERR_FILENO;
    }();
    return kept;
}

EngineTrace::EngineTrace() {
    std::array<int, 2> ends{};
    // Full, it loses lines; whoever writes to it must not wait for the main thread.
    if (PeoplesDescriptor() == STDERR_FILENO || ::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        return;
    }
    if (::dup2(ends[1], STDERR_FILENO) < 0) {
        ::close(ends[0]);
    } else {
        source = ends[0];
        caught = source;
        struct sigaction action {};
        action.sa_handler = HandleAbort;
        action.sa_flags = static_cast<int>(SA_RESETHAND);
        ::sigaction(SIGABRT, &action, nullptr);
    }
    ::close(ends[1]);
}

EngineTrace::~EngineTrace() {
    if (source < 0) {
        return;
    }
    ::dup2(PeoplesDescriptor(), STDERR_FILENO);
    caught = -1;
    ::signal(SIGABRT, SIG_DFL);
    Say(rest.data(), rest.size());
    PassOn(source);
    ::close(source);
}

std::vector<std::string> EngineTrace::Take() {
    std::vector<std::string> lines;
    std::array<char, 4096> bytes{};
    ssize_t count = 0;
    while (source >= 0 && (count = ::read(source, bytes.data(), bytes.size())) > 0) {
        rest.append(bytes.data(), static_cast<std::size_t>(count));
    }
    std::size_t begin = 0;
    for (std::size_t end = 0; (end = rest.find('\n', begin)) != std::string::npos;) {
        lines.push_back(rest.substr(begin, end - begin));
        begin = end + 1;
    }
    rest.erase(0, begin);
    return lines;
}

std::string EngineTrace::Sentence(const std::vector<std::string>& lines) {
    std::string said;
    for (const std::string& line : lines) {
        const std::size_t place = line.find("): ");
        said += said.empty() ? "" : "; ";
        said += place == std::string::npos ? line : line.substr(place + 3);
    }
    return said;
}

bool EngineTrace::TellsOfGap(const std::string& line) {
    return line.find(kGap) != std::string::npos;
}

}  // namespace vorrel::cli
