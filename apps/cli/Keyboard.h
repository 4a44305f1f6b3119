#pragma once

#include <termios.h>

#include <chrono>
#include <string>

#include "EscapeSequences.h"

namespace vorrel::cli {

/// Single keys from a terminal, without Enter and without echo; the terminal is as it was before
/// when the object goes. Not a terminal, or a background job: there are no keys.
class Keyboard {
public:
    explicit Keyboard(int descriptor);
    ~Keyboard() { Suspend(); }
    Keyboard(const Keyboard&) = delete;
    Keyboard& operator=(const Keyboard&) = delete;

    /// What to poll for keys, -1 when there are none.
    int Descriptor() const { return active ? descriptor : -1; }
    /// The keys pressed since the last call, without those that a terminal sends as an escape
    /// sequence; waits a twentieth of a second at most for the rest of one. A terminal that has
    /// gone turns the keyboard off.
    std::string Read();

    void Suspend();  ///< Puts the terminal back, as before the process stops or ends.
    void Resume();   ///< Takes it again.

private:
    using Clock = std::chrono::steady_clock;

    bool InForeground() const;
    std::string ReadSome();
    bool AwaitRest(Clock::time_point until);

    int descriptor;
    bool active = false;
    EscapeSequences sequences;
    termios original{};
};

}  // namespace vorrel::cli
