#pragma once

#include <chrono>
#include <cstddef>

#include "vorrel/Export.h"

namespace vorrel {

/// Where the library's notifications wait until the host's main thread takes them. A host that
/// never dispatches loses nothing and blocks nobody.
class VORREL_EXPORT MainQueue {
public:
    MainQueue() = delete;

    /// A descriptor that is readable while notifications wait; for poll, GLib, Qt, libuv or asio.
    /// Owned by the library, never closed, and not to be read or written by the host.
    /// @return -1 when the process cannot open one more descriptor; `Wait` works all the same.
    static int Descriptor() noexcept;

    /// Delivers, on the calling thread and in order of submission, the notifications that waited
    /// when it was called. To be called from one thread only, the host's main thread; a call from
    /// within a notification delivers what came after it.
    /// What a delegate throws is traced and goes no further.
    /// @return How many were delivered; 0 is possible although the descriptor was readable.
    static std::size_t Dispatch() noexcept;

    /// Waits until a notification is there to be dispatched.
    /// @param timeout  Longest wait; negative waits without limit.
    /// @return true when at least one waits, false after the time-out.
    static bool Wait(std::chrono::milliseconds timeout) noexcept;
};

}  // namespace vorrel
