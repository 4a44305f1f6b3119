#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>

namespace vorrel::test {

/// What a process holds, as the system counts it.
struct Holdings {
    std::uint64_t threads = 0, descriptors = 0, residentBytes = 0;

    static Holdings Now() {
        Holdings holdings;
        std::ifstream status("/proc/self/status");
        for (std::string line; std::getline(status, line);) {
            std::istringstream fields(line.substr(std::min(line.find(':') + 1, line.size())));
            if (line.starts_with("VmRSS:")) {
                fields >> holdings.residentBytes;
                holdings.residentBytes *= 1024;
            } else if (line.starts_with("Threads:")) {
                fields >> holdings.threads;
            }
        }
        for ([[maybe_unused]] const auto& entry :
             std::filesystem::directory_iterator("/proc/self/fd")) {
            ++holdings.descriptors;
        }
        return holdings;
    }
    /// What is held when there are no more threads and descriptors than `before`, or in the end. A
    /// thread that has ended goes off the system's list a moment after those who waited for it go
    /// on, the last user of a card may be its thread, and no event tells of that.
    static Holdings BackTo(const Holdings& before) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        Holdings holdings = Now();
        while ((holdings.threads > before.threads || holdings.descriptors > before.descriptors) &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
            holdings = Now();
        }
        return holdings;
    }
};

/// What the open descriptors lead to, and the threads by name, for the message of a failure.
inline std::string HeldNow() {
    std::string text;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code closed;
        const auto target = std::filesystem::read_symlink(entry.path(), closed);
        text += "\n  descriptor " + entry.path().filename().string() + ": " + target.string();
    }
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(entry.path() / "comm"), name);
        text += "\n  thread " + name;
    }
    return text;
}

}  // namespace vorrel::test
