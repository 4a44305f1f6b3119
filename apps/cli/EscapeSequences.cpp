#include "EscapeSequences.h"

namespace vorrel::cli {
namespace {

constexpr char kEscape = '\x1b';
constexpr int kMouseBytes = 3;  // button, column and row of the old form of a report

}  // namespace

std::string EscapeSequences::Keys(std::string_view bytes) {
    std::string keys;
    for (const char byte : bytes) {
        if (state == State::Keys && byte != kEscape) {
            keys += byte;
        } else {
            Follow(byte);
        }
    }
    return keys;
}

void EscapeSequences::Follow(char byte) {
    if (state == State::Last) {
        ExpectLast(lastBytes - 1);
        return;
    }
    if (byte == kEscape) {
        state = State::Escape;  // of a sequence that is broken off, or of a key with Alt
        return;
    }
    if (state == State::Control) {
        FollowControl(byte);
        return;
    }
    if (byte == '[') {
        state = State::Control;
        parameters = false;
    } else {
        ExpectLast(byte == 'O' ? 1 : 0);  // else a key with Alt
    }
}

void EscapeSequences::FollowControl(char byte) {
    const bool first = !parameters;
    parameters = true;
    if (first && byte == 'M') {
        ExpectLast(kMouseBytes);
    } else if (first && byte == '[') {
        ExpectLast(1);  // the console's way to say F1 to F5
    } else if (byte < ' ' || byte >= '@') {
        state = State::Keys;  // its end, or what is none (as is a byte of a character beyond ASCII)
    }
}

void EscapeSequences::ExpectLast(int bytes) {
    lastBytes = bytes;
    state = bytes == 0 ? State::Keys : State::Last;
}

}  // namespace vorrel::cli
