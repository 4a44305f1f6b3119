#include "device/alsa/DeviceReservation.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <exception>
#include <limits>
#include <optional>
#include <system_error>
#include <tuple>

#include "device/alsa/SdBus.h"
#include "platform/ThreadPriority.h"
#include "platform/Trace.h"

namespace vorrel {
namespace {

constexpr char kThreadName[] = "DeviceReserved";
constexpr char kInterface[] = "org.freedesktop.ReserveDevice1";
constexpr char kPropertiesInterface[] = "org.freedesktop.DBus.Properties";

/// A recording that runs is never given up for somebody's playback.
constexpr std::int32_t kPriority = std::numeric_limits<std::int32_t>::max();

/// Bytes of a program's name that are traced at most.
constexpr std::size_t kLongestName = 64;
constexpr unsigned char kDelete = 0x7F;  // the control character behind the printable ones

constexpr SdBus::Address kBusDaemon = {"org.freedesktop.DBus", "/org/freedesktop/DBus",
                                       "org.freedesktop.DBus"};
// Flags and answers of the bus's RequestName.
constexpr std::uint64_t kReplaceExisting = 2;
constexpr std::uint64_t kDoNotQueue = 4;
constexpr std::uint32_t kPrimaryOwner = 1;
constexpr std::uint32_t kAlreadyOwner = 4;

/// @return Whether the name is ours now; nothing when the bus does not answer.
std::optional<bool> RequestName(SdBus& bus, const std::string& name, std::uint64_t flags,
                                SdBus::Clock::time_point deadline) {
    const auto answer =
        bus.Call(kBusDaemon, "RequestName", {.types = "su", .text = name.c_str(), .first = flags},
                 'u', deadline);
    return answer.has_value() ? std::optional(*answer == kPrimaryOwner || *answer == kAlreadyOwner)
                              : std::nullopt;
}

/// A foreign program's word for itself, as it may stand in a line of the log.
std::string Readable(std::string text) {
    if (text.size() > kLongestName) {
        std::size_t end = kLongestName;
        while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) {
            --end;  // a character of several bytes stays whole or goes
        }
        text.resize(end);
    }
    std::replace_if(
        text.begin(), text.end(), [](unsigned char byte) { return byte < ' ' || byte == kDelete; },
        '?');
    return text;
}

/// Who has that name, in the words of the holder's object; empty when it does not say in time.
std::string HolderOf(SdBus& bus, const SdBus::Address& holder, SdBus::Clock::time_point deadline) {
    return Readable(bus.TextProperty(holder, "ApplicationName", deadline).value_or(""));
}

}  // namespace

DeviceReservation::DeviceReservation(int card, std::chrono::milliseconds longestWait)
    : name("org.freedesktop.ReserveDevice1.Audio" + std::to_string(card)),
      path("/org/freedesktop/ReserveDevice1/Audio" + std::to_string(card)),
      patience(longestWait) {}

DeviceReservation::~DeviceReservation() {
    const MutexLock lock(mutex);
    End();
}

DeviceReservation::Outcome DeviceReservation::Request(SdBus& connection,
                                                      SdBus::Clock::time_point deadline) {
    // Answered from the first moment on: who asks right after us must not wait in vain.
    if (!Answer(connection)) {
        return Outcome::NoBus;
    }
    const std::optional<bool> free = RequestName(connection, name, kDoNotQueue, deadline);
    if (!free.has_value()) {
        return Outcome::NoBus;
    }
    if (*free) {
        return Outcome::Granted;
    }
    const SdBus::Address holder = {name.c_str(), path.c_str(), kInterface};
    const std::optional<std::uint32_t> let = connection.Call(
        holder, "RequestRelease", {.types = "i", .first = static_cast<std::uint32_t>(kPriority)},
        'b', deadline);
    if (let.has_value() && *let == 0) {
        const std::string application = HolderOf(connection, holder, deadline);
        if (!application.empty()) {
            Trace(__FILE__, __LINE__, "%s is held by %s", name.c_str(), application.c_str());
        }
        return Outcome::Refused;
    }
    // Who gave no answer may have ended, and its name is free then; it is not taken from anybody.
    const std::uint64_t flags = let.has_value() ? kDoNotQueue | kReplaceExisting : kDoNotQueue;
    return RequestName(connection, name, flags, deadline).value_or(false) ? Outcome::Granted
                                                                          : Outcome::NoAnswer;
}

bool DeviceReservation::Answer(SdBus& connection) {
    return connection.Serve(path.c_str(), [](sd_bus_message* call) {
        if (SdBus::IsCall(call, kInterface, "RequestRelease")) {
            SdBus::AnswerBool(call, false);
            return true;
        }
        if (SdBus::IsCall(call, kPropertiesInterface, "Get")) {
            std::ignore = SdBus::ReadText(call);  // the interface
            const std::string property = SdBus::ReadText(call);
            if (property == "Priority") {
                SdBus::AnswerNumberVariant(call, kPriority);
                return true;
            }
            if (property == "ApplicationName") {
                SdBus::AnswerTextVariant(call, "vorrel");
                return true;
            }
            if (property == "ApplicationDeviceName") {
                SdBus::AnswerTextVariant(call, "");
                return true;
            }
        }
        return false;
    });
}

DeviceReservation::Outcome DeviceReservation::Acquire() {
    const MutexLock lock(mutex);
    if (thread.joinable() && !lost) {
        ++grants;
        return Outcome::Granted;
    }
    End();
    const SdBus::Clock::time_point deadline = SdBus::Clock::now() + patience;
    std::unique_ptr<SdBus> connection = SdBus::Connect(SdBus::Which::Session, deadline);
    if (connection == nullptr) {
        return Outcome::NoBus;
    }
    // Before anything is asked for: without it the reservation could not be given back.
    wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake < 0) {
        Trace(__FILE__, __LINE__, "no descriptor for the reservation: %s",
              std::generic_category().message(errno).c_str());
        return Outcome::NoBus;
    }
    const Outcome outcome = Request(*connection, deadline);
    if (outcome != Outcome::Granted) {
        End();
        return outcome;
    }
    bus = std::move(connection);
    lost = false;
    try {
        thread = std::thread([this] { Serve(); });
    } catch (const std::exception& error) {
        // Nobody would answer for it.
        Trace(__FILE__, __LINE__, "no thread for the reservation: %s", error.what());
        End();
        return Outcome::NoBus;
    }
    ++grants;
    return Outcome::Granted;
}

void DeviceReservation::Serve() noexcept {
    SetCurrentThreadName(kThreadName);
    try {
        for (;;) {
            const bool connected = bus->Process(SdBus::Clock::now() + std::chrono::hours(1), wake);
            std::uint64_t ended = 0;
            if (::read(wake, &ended, sizeof ended) > 0) {
                return;
            }
            if (!connected) {
                Trace(__FILE__, __LINE__,
                      "%s: the session bus is gone, and the reservation with it", name.c_str());
                break;
            }
        }
    } catch (const std::exception& error) {
        Trace(__FILE__, __LINE__, "the reservation is not answered for any more: %s", error.what());
    }
    lost = true;
}

void DeviceReservation::End() {
    if (thread.joinable()) {
        const std::uint64_t end = 1;
        std::ignore = ::write(wake, &end, sizeof end);
        thread.join();
    }
    // With the connection the bus takes the name back.
    bus.reset();
    if (wake >= 0) {
        ::close(wake);
        wake = -1;
    }
}

void DeviceReservation::Release() {
    const MutexLock lock(mutex);
    if (grants > 0 && --grants == 0) {
        End();
    }
}

bool DeviceReservation::IsHeld() {
    const MutexLock lock(mutex);
    return thread.joinable() && !lost;
}

}  // namespace vorrel
