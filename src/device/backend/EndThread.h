#pragma once

#include <thread>
#include <utility>

namespace vorrel {

/// Waits for the end of a thread that was told to end, if there is one. Out of a callback on that
/// thread nobody can wait for it: it ends by itself after the callback, and has to hold what it
/// needs until then.
inline void EndThread(std::thread ending) {
    if (ending.get_id() == std::this_thread::get_id()) {
        ending.detach();
    } else if (ending.joinable()) {
        ending.join();
    }
}

}  // namespace vorrel
