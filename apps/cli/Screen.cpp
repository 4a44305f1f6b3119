#include "Screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "TimeRange.h"

namespace vorrel::cli {
namespace {

constexpr std::size_t kUsualColumns = 80;
constexpr std::size_t kWidestBar = 24;
constexpr std::size_t kNarrowestBar = 4;

/// All but the meters, the most important first.
std::string Head(const StatusLine& status) {
    std::string text = ClockText(status.position) + " " + status.state;
    if (status.savePercent) {
        char percent[32];
        std::snprintf(percent, sizeof percent, " %3.0f %%", std::floor(*status.savePercent));
        text += percent;
    }
    if (status.lostBuffers) {
        text += "  BUFFERS LOST";
    }
    if (status.diskSecondsLeft) {
        text += "  disk " + DiskTimeText(*status.diskSecondsLeft);
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
    const std::string head = Head(status);
    std::string text = head;
    if (!status.levels.empty()) {
        for (std::size_t bar = kWidestBar; bar >= kNarrowestBar; --bar) {
            text = head + "  " + MeterText(status.levels, bar);
            if (text.size() <= columns) {
                return text;
            }
        }
        text = head + "  " + CompactMeterText(status.levels);
    }
    text.resize(std::min(text.size(), columns));
    return text;
}

Screen::Screen(int target, Output& texts)
    : output(texts), descriptor(target), terminal(::isatty(target) != 0) {}

void Screen::Draw(const StatusLine& status) {
    if (!terminal || !output.Idle()) {
        return;
    }
    winsize size{};
    const bool known = ::ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
    // One column stays free: a full line would wrap on some terminals.
    const std::size_t columns = (known ? size.ws_col : kUsualColumns) - 1;
    output.Write("\r" + StatusText(status, columns) + "\x1b[K", Output::Kind::Passing);
    drawn = true;
}

void Screen::Clear() {
    if (drawn) {
        output.Write("\r\x1b[K", Output::Kind::Lasting);
        drawn = false;
    }
}

void Screen::Print(const std::string& text) {
    Clear();
    output.Write(text + "\n", Output::Kind::Lasting);
}

}  // namespace vorrel::cli
