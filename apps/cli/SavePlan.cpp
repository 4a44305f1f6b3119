#include "SavePlan.h"

#include <algorithm>
#include <limits>

namespace vorrel::cli {
namespace {

constexpr std::uint64_t kHeaderBytes = 44;
constexpr std::uint64_t kLargestFile = std::numeric_limits<std::uint32_t>::max();

// The engine's memory holds five seconds of every channel before it spills them at once.
constexpr double kSpillStepSeconds = 6.0;

}  // namespace

std::uint64_t TagBytesBound(const std::map<std::string, std::string>& tags) {
    std::uint64_t bytes = 256;  // chunk and frame headers, terminators, pads
    for (const auto& [key, value] : tags) {
        // Twice in the file, in encodings that give a byte of UTF-8 two bytes at most; doubled
        // again for characters that an encoding has to spell out.
        bytes += value.size() * 8;
    }
    return bytes;
}

std::uint64_t MostFrames(const TakeFormat& format, std::uint64_t tagBytes) {
    const std::uint64_t used = kHeaderBytes + tagBytes;
    return used >= kLargestFile ? 0 : (kLargestFile - used) / format.FrameBytes();
}

SavePlan MakeSavePlan(const std::vector<WantedFile>& wanted, const TakeFormat& format,
                      std::uint64_t totalFrames, std::uint64_t tagBytes) {
    const std::uint64_t most = std::max<std::uint64_t>(MostFrames(format, tagBytes), 1);
    SavePlan plan;
    for (std::size_t index = 0; index < wanted.size(); ++index) {
        const WantedFile& wish = wanted[index];
        const std::uint64_t end = std::min(wish.end.value_or(totalFrames), totalFrames);
        if (wish.start >= end) {
            plan.missed.push_back(wish);
            continue;
        }
        PlannedFile file;
        file.wanted = index;
        file.shortened = wish.end.has_value() && *wish.end > totalFrames;
        std::uint64_t start = wish.start;
        for (; wish.whole && end - start > most; start += most) {
            file.path = PartPath(wish.path, file.part);
            file.start = start;
            file.end = start + most;
            plan.files.push_back(file);
            ++file.part;
        }
        file.path = PartPath(wish.path, file.part);
        file.start = start;
        file.end = end;
        file.toEnd = !wish.end.has_value();
        file.tooLarge = end - start > MostFrames(format, 0);
        plan.files.push_back(file);
    }
    return plan;
}

std::string PartPath(const std::string& path, std::size_t part) {
    if (part == 0) {
        return path;
    }
    const std::size_t slash = path.rfind('/');
    const std::size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
    std::size_t dot = path.rfind('.');
    if (dot == std::string::npos || dot <= nameStart) {
        dot = path.size();
    }
    return path.substr(0, dot) + "-" + std::to_string(part + 1) + path.substr(dot);
}

double SecondsLeft(const DiskState& disk) {
    const double spill = disk.spillFree - kSpillStepSeconds * disk.spillRate;
    double seconds = std::numeric_limits<double>::infinity();
    if (disk.sameVolume) {
        const double rate = disk.spillRate + disk.targetRate;
        seconds = rate > 0.0 ? (spill - disk.targetBytes) / rate : seconds;
    } else {
        const double target = disk.targetFree - disk.targetBytes;
        if (disk.spillRate > 0.0) {
            seconds = spill / disk.spillRate;
        }
        if (disk.targetRate > 0.0) {
            seconds = std::min(seconds, target / disk.targetRate);
        } else if (target < 0.0) {
            seconds = 0.0;
        }
    }
    return std::max(seconds, 0.0);
}

}  // namespace vorrel::cli
