#pragma once

#include <exception>

#include "platform/Trace.h"

namespace vorrel {

/// Runs a queued task. What it throws is traced and goes no further: there is no caller to tell. Of
/// any type, so that no function object is allocated for it: that could throw before it is guarded.
template <class Task>
void RunGuarded(Task&& task, const char* queueName) noexcept {
    try {
        task();
    } catch (const std::exception& error) {
        Trace(__FILE__, __LINE__, "a task on %s threw: %s", queueName, error.what());
    } catch (...) {
        Trace(__FILE__, __LINE__, "a task on %s threw something unknown", queueName);
    }
}

}  // namespace vorrel
