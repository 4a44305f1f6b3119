#include "device/alsa/DeviceHolder.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string_view>

namespace vorrel {
namespace {

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

/// Calls `visit` with each name in a directory until it answers true. @return Whether one did.
/// What cannot be read has no names. Not by the standard library's iterator, whose step ends the
/// process when memory runs out in it.
template <class Visit>
bool AnyName(const std::string& path, const Visit& visit) {
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(path.c_str()), &::closedir);
    if (directory == nullptr) {
        return false;
    }
    // The stream is this call's own, so nothing else moves its position.
    while (const dirent* entry = ::readdir(directory.get())) {  // NOLINT(concurrency-mt-unsafe)
        if (visit(*directory, entry->d_name)) {
            return true;
        }
    }
    return false;
}

bool HasOpen(const std::string& process, const std::string& node) {
    return AnyName(process + "/fd", [&node](DIR& files, const char* file) {
        // Longer than any node of a card: a longer target is another's, cut off or not.
        std::array<char, 64> target{};
        const ssize_t length = ::readlinkat(::dirfd(&files), file, target.data(), target.size());
        return length >= 0 &&
               std::string_view(target.data(), static_cast<std::size_t>(length)) == node;
    });
}

bool IsNumber(std::string_view name) {
    return std::all_of(name.begin(), name.end(),
                       [](unsigned char digit) { return std::isdigit(digit) != 0; });
}

}  // namespace

DeviceHolder FindDeviceHolder(int card, int device, const std::string& proc) {
    const std::string cardText = std::to_string(card);
    const std::string deviceText = std::to_string(device);
    DeviceHolder holder;
    holder.processId = OwnerInStatus(
        proc + "/asound/card" + cardText + "/pcm" + deviceText + "c/sub0/status", proc);
    const std::string node = "/dev/snd/pcmC" + cardText + "D" + deviceText + "c";
    if (holder.processId < 0) {
        AnyName(proc, [&](DIR&, const char* name) {
            const bool holds = IsNumber(name) && HasOpen(proc + "/" + name, node);
            if (holds) {
                holder.processId = static_cast<pid_t>(std::strtol(name, nullptr, 10));
            }
            return holds;
        });
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
