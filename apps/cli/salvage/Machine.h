#pragma once

#include <string>

namespace vorrel::cli {

/// Where a process runs, or has run: a machine, from one start of its system to the next.
struct Machine {
    std::string host;  ///< Its name, "" = unknown.
    std::string boot;  ///< The start's id, "" = unknown.
};

Machine ThisMachine();

/// Whether `one` is surely not the machine `now`: a place for takes that several machines share (a
/// home on a server) does not tell one of them what the other locks. What is unknown is the same:
/// journals have not always told. So is another name in the same start: a container has one.
bool IsElsewhere(const Machine& one, const Machine& now);

/// Whether the same machine has been started anew: no process of then is alive, whatever number it
/// had.
bool HasRestarted(const Machine& one, const Machine& now);

}  // namespace vorrel::cli
