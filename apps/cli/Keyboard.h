#pragma once

#include <termios.h>

#include <string>

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
    /// The keys pressed since the last call; a terminal that has gone turns the keyboard off.
    std::string Read();

    void Suspend();  ///< Puts the terminal back, as before the process stops or ends.
    void Resume();   ///< Takes it again.

private:
    bool InForeground() const;

    int descriptor;
    bool active = false;
    termios original{};
};

}  // namespace vorrel::cli
