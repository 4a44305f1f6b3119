#include "device/alsa/DeviceHolder.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

namespace vorrel {
namespace {

namespace fs = std::filesystem;

std::string CommandOf(pid_t processId, const std::string& proc) {
    std::ifstream file(proc + "/" + std::to_string(processId) + "/comm");
    std::string command;
    std::getline(file, command);
    return command;
}

/// The number behind `key` and a colon in a text of such lines; -1 where there is none above 0.
pid_t NumberOf(std::string_view key, const std::string& path) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(key)) {
            const std::size_t colon = line.find(':');
            const long number =
                colon == std::string::npos ? 0 : std::strtol(line.c_str() + colon + 1, nullptr, 10);
            return number > 0 ? static_cast<pid_t>(number) : -1;
        }
    }
    return -1;
}

/// The process that the driver names; -1 where it says nothing of an owner. It names the thread
/// that opened the PCM, which need not be the process's first, and which may have ended since.
pid_t OwnerInStatus(const std::string& path, const std::string& proc) {
    const pid_t thread = NumberOf("owner_pid", path);
    return thread < 0 ? -1 : NumberOf("Tgid", proc + "/" + std::to_string(thread) + "/status");
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
    holder.processId = OwnerInStatus(
        proc + "/asound/card" + cardText + "/pcm" + deviceText + "c/sub0/status", proc);
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
