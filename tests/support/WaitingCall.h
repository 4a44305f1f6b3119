#pragma once

#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <utility>

namespace vorrel::test {

/// A call on a thread of its own. That it waits is what the system says of the thread: no time has
/// to pass in which the call could have returned.
class WaitingCall {
public:
    explicit WaitingCall(std::function<void()> call)
        : thread([this, made = std::move(call)] {
              id = ::gettid();
              made();
              returned = true;
          }) {}
    ~WaitingCall() { Join(); }
    WaitingCall(const WaitingCall&) = delete;
    WaitingCall& operator=(const WaitingCall&) = delete;

    /// Comes back as soon as the call sleeps or has returned. @return Whether it sleeps.
    bool Waits() const {
        while (!returned) {
            if (id != 0 && IsAsleep(id) && !returned) {
                return true;
            }
            std::this_thread::yield();
        }
        return false;
    }
    /// Returns when the call has.
    void Join() {
        if (thread.joinable()) {
            thread.join();
        }
    }

private:
    static bool IsAsleep(int thread) {
        std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        const std::size_t name = text.rfind(") ");  // which may itself hold anything
        return name != std::string::npos && text[name + 2] == 'S';
    }

    std::atomic<int> id{0};
    std::atomic<bool> returned{false};
    std::thread thread;  // uses the others
};

}  // namespace vorrel::test
