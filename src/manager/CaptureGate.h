#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "platform/Realtime.h"

namespace vorrel {

/// Lets the device's callbacks in while a take captures. A device that was told to stop and goes on
/// all the same finds it closed, and what the callbacks use can be made anew.
class CaptureGate {
public:
    /// One callback's stay. Never waits, whether it is let in or not.
    class Entry {
    public:
        VORREL_REALTIME explicit Entry(CaptureGate& captureGate) noexcept
            : gate(captureGate), admitted((gate.state.fetch_add(kOneInside) & kOpen) != 0) {}
        VORREL_REALTIME ~Entry() { gate.state.fetch_sub(kOneInside); }
        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;

        VORREL_REALTIME bool Admitted() const { return admitted; }

    private:
        CaptureGate& gate;
        const bool admitted;
    };

    void Open() { state.fetch_or(kOpen); }
    /// Refuses callbacks from now on, and returns when none is inside. Not to be called from one.
    void Close() {
        state.fetch_and(~kOpen);
        // Nothing wakes this thread, for the callback would have to: it is inside for the time of
        // one device buffer at most, and waits for nobody.
        while (state.load() != 0) {
            std::this_thread::yield();
        }
    }

private:
    static constexpr std::uint32_t kOpen = 1;
    static constexpr std::uint32_t kOneInside = 2;

    std::atomic<std::uint32_t> state{0};  // closed, and nobody inside
};

}  // namespace vorrel
