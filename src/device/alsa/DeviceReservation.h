#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>

#include "platform/Mutex.h"

namespace vorrel {

class SdBus;

/// A sound card's reservation on the desktop's session bus (org.freedesktop.ReserveDevice1): who
/// has it may open the card, and a sound server that had it lets the card go when it is asked to.
/// Without a session bus, or without libsystemd to reach it by, there is nobody to ask. Any thread.
class DeviceReservation {
public:
    enum class Outcome {
        Granted,
        Refused,   ///< whoever has it says that it keeps it; traced with its name if it tells one
        NoAnswer,  ///< whoever has it says nothing, or does not do what it said
        NoBus,     ///< nobody to ask
    };
    static constexpr std::chrono::milliseconds kPatience{1'000};

    /// @param longestWait  For all of one `Acquire`.
    explicit DeviceReservation(int card, std::chrono::milliseconds longestWait = kPatience);
    /// Gives it back, whoever else still has it.
    ~DeviceReservation();
    DeviceReservation(const DeviceReservation&) = delete;
    DeviceReservation& operator=(const DeviceReservation&) = delete;

    /// Takes the reservation, if need be from whoever has it; each grant wants a `Release`. While
    /// it is held a thread of its own ("DeviceReserved") answers who asks for it: no. When the bus
    /// goes the reservation goes with it, which is traced; the next call takes it anew.
    Outcome Acquire() VORREL_EXCLUDES(mutex);
    /// Gives one grant back; after the last a sound server takes the card again. Nothing without
    /// one.
    void Release() VORREL_EXCLUDES(mutex);

    bool IsHeld() VORREL_EXCLUDES(mutex);

private:
    Outcome Request(SdBus& connection, std::chrono::steady_clock::time_point deadline);
    bool Answer(SdBus& connection);
    void Serve() noexcept;
    void End() VORREL_REQUIRES(mutex);

    const std::string name;  // on the bus
    const std::string path;  // of the object that answers
    const std::chrono::milliseconds patience;
    Mutex mutex;
    std::unique_ptr<SdBus> bus;  // while held the thread's; before and after it under the mutex
    int wake = -1;               // ends the thread
    std::thread thread VORREL_GUARDED_BY(mutex);
    std::size_t grants VORREL_GUARDED_BY(mutex) = 0;
    std::atomic<bool> lost{false};  // the bus has gone
};

}  // namespace vorrel
