#pragma once

#include <string>

#include "Display.h"
#include "Output.h"

namespace vorrel::cli {

/// The people's side: messages and, on a terminal, lines below them that are redrawn in place. Text
/// that others write there is kept above the lines as messages are.
class Screen {
public:
    /// @param descriptor  Where `output` goes: asked whether and how large a terminal it is.
    Screen(int descriptor, Output& output);
    ~Screen() { Clear(); }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    bool IsTerminal() const { return isTerminal; }
    /// Redraws the lines; nothing where it is no terminal, or one that still has text to take.
    void Draw(const StatusLine& status);
    /// Takes the lines away until the next `Draw`.
    void Clear();
    /// A message of its own line, above the moving ones.
    void Print(const std::string& text);

private:
    Output& output;
    int descriptor;
    bool isTerminal;
    Terminal terminal;
    bool drawn = false;  // the cursor stands at the beginning of the drawing's first row
};

}  // namespace vorrel::cli
