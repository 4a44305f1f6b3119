#pragma once

#include <functional>
#include <string>

namespace vorrel {

/// Sends the trace log elsewhere: for tests.
/// @param sink  Gets each line without its line end, from whatever thread traces, one line at a
///              time; must not trace itself. Empty brings standard error back. When this returns,
///              the former sink is not called any more.
void SetTraceSink(std::function<void(const std::string& line)> sink);

}  // namespace vorrel
