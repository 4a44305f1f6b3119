#include "Screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>
#include <vector>

namespace vorrel::cli {
namespace {

std::string Variable(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

/// Whether the environment asks for characters beyond ASCII, in the order in which a locale is
/// looked for.
bool WantsUtf8() {
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        if (const std::string locale = Variable(name); !locale.empty()) {
            return locale.find("UTF-8") != std::string::npos ||
                   locale.find("utf8") != std::string::npos;
        }
    }
    return false;
}

}  // namespace

Screen::Screen(int target, Output& texts)
    : output(texts),
      descriptor(target),
      isTerminal(::isatty(target) != 0 && Variable("TERM") != "dumb") {
    // The convention of https://no-color.org.
    terminal.colour = Variable("NO_COLOR").empty();
    terminal.utf8 = WantsUtf8();
}

void Screen::Draw(const StatusLine& status) {
    if (!isTerminal || !output.Idle()) {
        return;
    }
    // A background job must not draw over what the shell or another program shows.
    if (const pid_t foreground = ::tcgetpgrp(descriptor);
        foreground > 0 && foreground != ::getpgrp()) {
        return;
    }
    winsize size{};
    const bool known = ::ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
    const Terminal usual;
    // One column stays free: a full line would wrap on some terminals.
    terminal.columns = (known ? size.ws_col : usual.columns) - 1;
    terminal.rows = known && size.ws_row > 0 ? size.ws_row : usual.rows;
    // The cursor waits in an empty row above the drawing: what others write to the terminal, such
    // as the engine's trace, stands there whole, and the next drawing begins below it.
    const std::size_t spare = terminal.rows > 1 ? 1 : 0;
    terminal.rows -= spare;
    std::vector<std::string> lines = DisplayLines(status, terminal);
    lines.insert(lines.begin(), spare, std::string());
    std::string text = "\r";
    for (const std::string& line : lines) {
        text += line + "\x1b[K\r\n";
    }
    text.erase(text.size() - 2);
    text += "\x1b[J";  // what a larger drawing has left below
    if (lines.size() > 1) {
        text += "\x1b[" + std::to_string(lines.size() - 1) + "A";
    }
    output.Write(text + "\r", Output::Kind::Passing);
    drawn = true;
}

void Screen::Clear() {
    if (drawn) {
        output.Write("\r\x1b[J", Output::Kind::Lasting);
        drawn = false;
    }
}

void Screen::Print(const std::string& text) {
    Clear();
    output.Write(text + "\n", Output::Kind::Lasting);
}

}  // namespace vorrel::cli
