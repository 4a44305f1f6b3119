#pragma once

#include <stdexcept>
#include <string>

#include "vorrel/VrError.h"

namespace vorrel::cli {

/// What the program tells the caller's shell. A recording abandoned by a second signal ends with
/// 128 + the signal's number, as shells have it.
enum class ExitCode : int {
    Done = 0,
    Usage = 1,     ///< Something on the command line cannot be done; nothing was recorded.
    Device = 2,    ///< No recorder, or it was refused or lost; what was recorded has been saved.
    Storage = 3,   ///< Storing or saving failed; what could be saved has been saved.
    Dropouts = 4,  ///< All saved, but device buffers were lost on the way.
    Skipped = 5,   ///< Some files of the request were not written.
};

/// Added to a signal's number.
inline constexpr int kSignalExit = 128;

/// A reason to give up, thrown before a recording runs. `what()` is one line for people.
class Failure : public std::runtime_error {
public:
    Failure(ExitCode exitCode, const std::string& text, VrError engineError = VrSuccess)
        : std::runtime_error(text), exit(exitCode), error(engineError) {}

    ExitCode exit;
    VrError error;  ///< The engine's result, `VrSuccess` when the engine was not involved.
};

}  // namespace vorrel::cli
