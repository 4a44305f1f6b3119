#include "device/alsa/DeviceHolder.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace vorrel {
namespace {

namespace fs = std::filesystem;

constexpr char kOwnerKey[] = "owner_pid";

std::string CommandOf(pid_t processId, const std::string& proc) {
    std::ifstream file(proc + "/" + std::to_string(processId) + "/comm");
    std::string command;
    std::getline(file, command);
    return command;
}

/// The driver's own word; -1 where it says nothing of an owner.
pid_t OwnerInStatus(const std::string& path) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.compare(0, sizeof kOwnerKey - 1, kOwnerKey) == 0) {
            const std::size_t colon = line.find(':');
            const long owner =
                colon == std::string::npos ? 0 : std::strtol(line.c_str() + colon + 1, nullptr, 10);
            return owner > 0 ? static_cast<pid_t>(owner) : -1;
        }
    }
    return -1;
}

bool HasOpen(const fs::path& process, const std::string& node) {
    std::error_code error;
    for (fs::directory_iterator file(process / "fd", error), end; !error && file != end;
         file.increment(error)) {
        std::error_code unreadable;
        if (fs::read_symlink(file->path(), unreadable) == node) {
            return true;
        }
    }
    return false;
}

}  // namespace

DeviceHolder FindDeviceHolder(int card, int device, const std::string& proc) {
    const std::string cardText = std::to_string(card);
    const std::string deviceText = std::to_string(device);
    DeviceHolder holder;
    holder.processId =
        OwnerInStatus(proc + "/asound/card" + cardText + "/pcm" + deviceText + "c/sub0/status");
    const std::string node = "/dev/snd/pcmC" + cardText + "D" + deviceText + "c";
    std::error_code error;
    for (fs::directory_iterator process(proc, error), end;
         holder.processId < 0 && !error && process != end; process.increment(error)) {
        const std::string name = process->path().filename();
        if (std::all_of(name.begin(), name.end(),
                        [](unsigned char digit) { return std::isdigit(digit) != 0; }) &&
            HasOpen(process->path(), node)) {
            holder.processId = static_cast<pid_t>(std::strtol(name.c_str(), nullptr, 10));
        }
    }
    if (holder.processId >= 0) {
        holder.command = CommandOf(holder.processId, proc);
    }
    return holder;
}

std::string HolderText(const DeviceHolder& holder) {
    if (holder.processId < 0) {
        return "another process";
    }
    const std::string number = "process " + std::to_string(holder.processId);
    return holder.command.empty() ? number : number + " (" + holder.command + ")";
}

}  // namespace vorrel
