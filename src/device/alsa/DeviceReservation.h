#pragma once

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
        Refused,  ///< whoever has it wants to keep it, or does not answer
        NoBus,    ///< nobody to ask
    };

    explicit DeviceReservation(int card);
    /// Releases.
    ~DeviceReservation();
    DeviceReservation(const DeviceReservation&) = delete;
    DeviceReservation& operator=(const DeviceReservation&) = delete;

    /// Takes the reservation, if need be from whoever has it. Waits for at most a second. While it
    /// is held a thread of its own ("DeviceReserved") answers who asks for it: no.
    Outcome Acquire() VORREL_EXCLUDES(mutex);
    /// Gives it back; a sound server then takes the card again. Nothing without it.
    void Release() VORREL_EXCLUDES(mutex);

    bool IsHeld() VORREL_EXCLUDES(mutex);

private:
    Outcome Request(SdBus& connection);
    bool Answer(SdBus& connection);
    void Serve() noexcept;

    const std::string name;  // on the bus
    const std::string path;  // of the object that answers
    Mutex mutex;
    std::unique_ptr<SdBus> bus;  // while held the thread's; before and after it under the mutex
    int wake = -1;               // ends the thread
    std::thread thread VORREL_GUARDED_BY(mutex);
};

}  // namespace vorrel
