#include "Screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>

#include "TimeRange.h"

namespace vorrel::cli {
namespace {

constexpr std::size_t kUsualColumns = 80;
constexpr std::size_t kWidestBar = 24;
constexpr std::size_t kNarrowestBar = 4;

std::string Compose(const StatusLine& status, std::size_t barWidth) {
    std::string text = ClockText(status.position) + " " + status.state;
    if (status.savePercent) {
        char percent[32];
        std::snprintf(percent, sizeof percent, " %3.0f %%", std::floor(*status.savePercent));
        text += percent;
    }
    if (!status.levels.empty()) {
        text += "  " + MeterText(status.levels, barWidth);
    }
    if (status.diskSecondsLeft) {
        text += "  disk " + DiskTimeText(*status.diskSecondsLeft);
    }
    if (status.lostBuffers) {
        text += "  BUFFERS LOST";
    }
    return text;
}

}  // namespace

std::string DiskTimeText(double seconds) {
    if (!(seconds < 99.0 * 3600.0)) {
        return "over 99 h";
    }
    const auto whole = static_cast<unsigned>(seconds);
    char text[48];
    if (whole < 60) {
        std::snprintf(text, sizeof text, "%u s", whole);
    } else if (whole < 3600) {
        std::snprintf(text, sizeof text, "%u min", whole / 60);
    } else {
        std::snprintf(text, sizeof text, "%u h %02u min", whole / 3600, whole / 60 % 60);
    }
    return text;
}

std::string StatusText(const StatusLine& status, std::size_t columns) {
    std::string text;
    for (std::size_t bar = kWidestBar; bar >= kNarrowestBar; --bar) {
        text = Compose(status, bar);
        if (text.size() <= columns) {
            return text;
        }
    }
    text.resize(columns);
    return text;
}

Screen::Screen(int output) : descriptor(output), terminal(::isatty(output) != 0) {}

void Screen::Write(const std::string& text) const {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = ::write(descriptor, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR) {
            return;  // nobody reads any more: no reason to end a recording
        }
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
}

void Screen::Draw(const StatusLine& status) {
    if (!terminal) {
        return;
    }
    winsize size{};
    const bool known = ::ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
    // One column stays free: a full line would wrap on some terminals.
    const std::size_t columns = (known ? size.ws_col : kUsualColumns) - 1;
    Write("\r" + StatusText(status, columns) + "\x1b[K");
    drawn = true;
}

void Screen::Clear() {
    if (drawn) {
        Write("\r\x1b[K");
        drawn = false;
    }
}

void Screen::Print(const std::string& text) {
    Clear();
    Write(text + "\n");
}

}  // namespace vorrel::cli
