#include "Keyboard.h"

#include <unistd.h>

#include <array>
#include <cerrno>

namespace vorrel::cli {

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
}

std::string Keyboard::Read() {
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
