#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

#include "device/alsa/SdBus.h"
#include "support/TempDirectory.h"

namespace vorrel::test {

using Clock = SdBus::Clock;
constexpr SdBus::Address kDaemon = {"org.freedesktop.DBus", "/org/freedesktop/DBus",
                                    "org.freedesktop.DBus"};

inline Clock::time_point Soon() {
    return Clock::now() + std::chrono::seconds(10);
}

/// A message bus of the test's own, which both environment variables name.
class PrivateBus {
public:
    PrivateBus() {
        std::array<int, 2> pipe{};
        if (::pipe2(pipe.data(), O_CLOEXEC) != 0) {
            return;
        }
        const std::string address = "--address=unix:path=" + directory.File("bus");
        const std::string print = "--print-address=" + std::to_string(pipe[1]);
        daemon = ::fork();
        if (daemon == 0) {
            ::fcntl(pipe[1], F_SETFD, 0);
            ::execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", address.c_str(),
                     print.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(pipe[1]);
        std::array<char, 256> text{};
        running = ::read(pipe[0], text.data(), text.size()) > 0;
        ::close(pipe[0]);
        const std::string path = "unix:path=" + directory.File("bus");
        ::setenv("DBUS_SESSION_BUS_ADDRESS", path.c_str(), 1);
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", path.c_str(), 1);
    }
    ~PrivateBus() {
        End();
        ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
        ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    /// The daemon, and the library to reach it by, are here.
    bool IsThere() const {
        return running && SdBus::Connect(SdBus::Which::Session, Soon()) != nullptr;
    }
    void End() {
        Send(SIGTERM);
        Send(SIGCONT);
        if (daemon > 0) {
            ::waitpid(daemon, nullptr, 0);
        }
        daemon = -1;
    }
    void Stop() const { Send(SIGSTOP); }
    void Continue() const { Send(SIGCONT); }

private:
    /// A number of -1 would mean every process.
    void Send(int signal) const {
        if (daemon > 0) {
            ::kill(daemon, signal);
        }
    }

    TempDirectory directory;
    pid_t daemon = -1;
    bool running = false;
};

/// A program on the bus that owns a name and answers calls, on a thread of its own.
class FakeService {
public:
    FakeService(const char* name, const char* path, std::function<bool(sd_bus_message*)> answer)
        : bus(SdBus::Connect(SdBus::Which::Session, Soon())),
          wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        EXPECT_TRUE(bus->Serve(path, std::move(answer)));
        EXPECT_EQ(bus->Call(kDaemon, "RequestName", {.types = "su", .text = name, .first = 1}, 'u',
                            Soon()),
                  1U);  // may be replaced
        thread = std::thread([this] {
            while (!ended && bus->Process(Soon(), wake)) {
            }
        });
    }
    ~FakeService() {
        ended = true;
        const std::uint64_t one = 1;
        std::ignore = ::write(wake, &one, sizeof one);
        thread.join();
        ::close(wake);
    }
    FakeService(const FakeService&) = delete;
    FakeService& operator=(const FakeService&) = delete;

private:
    std::unique_ptr<SdBus> bus;
    int wake;
    std::atomic<bool> ended{false};
    std::thread thread;
};

/// Whether somebody owns that name on the bus.
inline bool IsNameOwned(const std::string& name) {
    const auto client = SdBus::Connect(SdBus::Which::Session, Soon());
    return client->Call(kDaemon, "NameHasOwner", {.types = "s", .text = name.c_str()}, 'b',
                        Soon()) == 1U;
}

}  // namespace vorrel::test
