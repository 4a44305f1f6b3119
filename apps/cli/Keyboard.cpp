#include "Keyboard.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>

namespace vorrel::cli {
namespace {

using namespace std::chrono_literals;

// A terminal sends a sequence at once, and nobody presses a key so soon after Esc.
constexpr auto kSequencePeriod = 50ms;

}  // namespace

Keyboard::Keyboard(int terminal) : descriptor(terminal) {
    Resume();
}

bool Keyboard::InForeground() const {
    // A background job that touched the terminal would be stopped, and its recording with it.
    return ::tcgetpgrp(descriptor) == ::getpgrp();
}

void Keyboard::Resume() {
    if (active || ::isatty(descriptor) == 0 || !InForeground() ||
        ::tcgetattr(descriptor, &original) != 0) {
        return;
    }
    termios single = original;
    single.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    single.c_cc[VMIN] = 1;
    single.c_cc[VTIME] = 0;
    active = ::tcsetattr(descriptor, TCSANOW, &single) == 0;
}

void Keyboard::Suspend() {
    if (active && InForeground()) {
        ::tcsetattr(descriptor, TCSANOW, &original);
    }
    active = false;
    sequences.GiveUp();
}

std::string Keyboard::Read() {
    const auto until = Clock::now() + kSequencePeriod;
    std::string keys;
    do {
        keys += sequences.Keys(ReadSome());
    } while (sequences.Inside() && AwaitRest(until));
    return keys;
}

/// The rest of a sequence is waited for here and not in the loop, where it would seem late whenever
/// something else takes long. @return Whether there is more to be read, in time.
bool Keyboard::AwaitRest(Clock::time_point until) {
    pollfd source{Descriptor(), POLLIN, 0};
    int ready = -1;
    do {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
        ready = ::poll(&source, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) {
        sequences.GiveUp();
        return false;
    }
    // Who keeps sending must not hold the loop up: the next call goes on.
    return Clock::now() < until;
}

std::string Keyboard::ReadSome() {
    if (!active) {
        return {};
    }
    if (!InForeground()) {
        active = false;  // the keys are somebody else's until `Resume`
        return {};
    }
    std::array<char, 64> keys{};
    const ssize_t count = ::read(descriptor, keys.data(), keys.size());
    if (count > 0) {
        return {keys.data(), static_cast<std::size_t>(count)};
    }
    if (count == 0 || errno != EINTR) {
        Suspend();  // hung up: it would be readable for ever
    }
    return {};
}

}  // namespace vorrel::cli
