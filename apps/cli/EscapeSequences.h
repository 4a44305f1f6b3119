#pragma once

#include <string>
#include <string_view>

namespace vorrel::cli {

/// Takes out of what a terminal sends the sequences that begin with ESC, of which single bytes look
/// like keys: function and arrow keys, keys with Alt, reports of a mouse. A sequence may come in
/// several pieces. No clock of its own: the owner says when an ESC has stood alone for too long to
/// be the beginning of one.
class EscapeSequences {
public:
    /// The bytes of the next piece that belong to no sequence.
    std::string Keys(std::string_view bytes);
    /// Whether the pieces so far end within a sequence, or with an ESC.
    bool Inside() const { return state != State::Keys; }
    /// The rest does not come: what comes next is a key again.
    void GiveUp() { state = State::Keys; }

private:
    enum class State {
        Keys,
        Escape,   // ESC
        Control,  // ESC [ and parameters
        Last      // so many bytes are still to come, whatever they are
    };

    void Follow(char byte);
    void FollowControl(char byte);
    void ExpectLast(int bytes);

    State state = State::Keys;
    bool parameters = false;  // some have come
    int lastBytes = 0;
};

}  // namespace vorrel::cli
