#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

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
};

}  // namespace vorrel::test
