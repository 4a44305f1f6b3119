#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <string>

#include "support/faults/Faults.h"
#include "vorrel/VrError.h"

namespace vorrel::test {

/// A call of the host, in which what the engine does on the host's thread may fail too. What it
/// throws is a failure, as behind the exported functions.
template <class Operation>
VrError AsHost(const Operation& operation) {
    const HostCall host;
    try {
        return operation();
    } catch (const std::exception&) {
        return VrErrorFailed;
    }
}

/// Runs `scenario` with the fault at the first of its calls, at the second, and so on until it
/// meets none, and counts what was met. A call that is never met is a failure: the test would show
/// nothing. So is a scenario behind which more threads or descriptors are open than before it; it
/// runs once without a fault first, so that what is made once and kept is there by then.
/// @param operation  What is tried, as the table at the end of the program calls it.
/// @param scenario   Arms the fault, checks what comes of it, and returns how many calls it met.
void Sweep(const std::string& operation, Fault fault,
           const std::function<std::uint64_t(const Fault&)>& scenario);

/// The same with one fault that needs no sweep, and without a run before it.
void Once(const std::string& operation, const Fault& fault,
          const std::function<std::uint64_t(const Fault&)>& scenario);

}  // namespace vorrel::test
