#include "SavePlan.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace vorrel::cli {
namespace {

constexpr std::uint64_t kWavHeaderBytes = 44;
constexpr std::uint64_t kDsfHeaderBytes = 92;
constexpr std::uint64_t kLargestWav = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t kEngineFloatBytes = 4;
constexpr std::uint64_t kPreviewBytes = 2;
// Left free on a volume that takes a rescued file: directories and maps of the file system.
constexpr double kRescueMargin = 256.0 * 1024.0;

std::uint64_t HeaderBytes(const TakeFormat& format) {
    return format.dsd ? kDsfHeaderBytes : kWavHeaderBytes;
}

/// Most frames that a file of at most `bytes` holds.
std::uint64_t FramesInBytes(const TakeFormat& format, std::uint64_t tagBytes, double bytes) {
    const double room = bytes - static_cast<double>(HeaderBytes(format) + tagBytes);
    if (room <= 0.0) {
        return 0;
    }
    const std::uint64_t step = format.PartStep();
    const double steps = std::floor(room / static_cast<double>(format.PayloadBytes(step)));
    // Far above any recording, and far inside what a product can hold.
    constexpr double kMostSteps = 1e14;
    return std::min(static_cast<std::uint64_t>(std::min(steps, kMostSteps)) * step,
                    MostFrames(format, tagBytes));
}

}  // namespace

std::uint64_t TakeFormat::PayloadBytes(std::uint64_t frames) const {
    if (!dsd) {
        return frames * channels * (bits / 8);
    }
    const std::uint64_t bytes = (frames + 7) / 8;
    return (bytes + kDsfBlockBytes - 1) / kDsfBlockBytes * kDsfBlockBytes * channels;
}

double TakeFormat::FileRate() const {
    return static_cast<double>(rateHz) * channels * SampleBits() / 8.0;
}

double TakeFormat::LargestSpillRate() const {
    const auto preview = static_cast<double>(PreviewRateHz() * channels * kPreviewBytes);
    return std::max((SpillRate() - preview) / channels, preview);
}

double TakeFormat::SpillRate() const {
    const double samples =
        dsd ? FileRate() : static_cast<double>(rateHz * channels * kEngineFloatBytes);
    return samples + static_cast<double>(PreviewRateHz() * channels * kPreviewBytes);
}

std::uint64_t FrameAt(double seconds, const TakeFormat& format) {
    const std::uint64_t step = format.FrameStep();
    const double steps = seconds * static_cast<double>(format.rateHz) / static_cast<double>(step);
    return static_cast<std::uint64_t>(std::llround(steps)) * step;
}

std::uint64_t SavableFrames(const TakeFormat& format, std::uint64_t previewFrames,
                            double toldSeconds, std::uint64_t stretches) {
    const auto told =
        static_cast<std::uint64_t>(std::llround(toldSeconds * 10.0)) * format.rateHz / 10;
    if (!format.dsd) {
        return std::max(previewFrames, told);
    }
    const std::uint64_t sure = previewFrames > stretches ? previewFrames - stretches : 0;
    return std::max(sure * TakeFormat::kDsdFramesPerPreview,
                    told / format.FrameStep() * format.FrameStep());
}

std::uint64_t TagBytesBound(const std::map<std::string, std::string>& tags) {
    std::uint64_t bytes = 256;  // chunk and frame headers, terminators, pads
    for (const auto& [key, value] : tags) {
        // Twice in the file, in encodings that give a byte of UTF-8 two bytes at most; doubled
        // again for characters that an encoding has to spell out.
        bytes += value.size() * 8;
    }
    return bytes;
}

std::uint64_t FileBytes(const TakeFormat& format, std::uint64_t frames, std::uint64_t tagBytes) {
    return HeaderBytes(format) + format.PayloadBytes(frames) + tagBytes;
}

std::uint64_t MostFrames(const TakeFormat& format, std::uint64_t tagBytes) {
    if (format.dsd) {
        return std::numeric_limits<std::uint64_t>::max();
    }
    const std::uint64_t used = kWavHeaderBytes + tagBytes;
    return used >= kLargestWav ? 0 : (kLargestWav - used) / format.PayloadBytes(1);
}

std::uint64_t MostFramesOf(const WantedFile& wish, const TakeFormat& format,
                           std::uint64_t tagBytes) {
    const double inHeader =
        format.dsd ? std::numeric_limits<double>::max() : static_cast<double>(kLargestWav);
    return wish.largest >= inHeader ? MostFrames(format, tagBytes)
                                    : FramesInBytes(format, tagBytes, wish.largest);
}

SavePlan MakeSavePlan(const std::vector<WantedFile>& wanted, const TakeFormat& format,
                      std::uint64_t totalFrames, std::uint64_t tagBytes) {
    const bool wholeIsSaved = std::any_of(wanted.begin(), wanted.end(),
                                          [](const WantedFile& wish) { return wish.whole; });
    SavePlan plan;
    for (std::size_t index = 0; index < wanted.size(); ++index) {
        const WantedFile& wish = wanted[index];
        const std::uint64_t end = std::min(wish.end.value_or(totalFrames), totalFrames);
        if (wish.start >= end) {
            plan.missed.push_back(wish);
            continue;
        }
        const std::uint64_t inHeader = std::max<std::uint64_t>(MostFrames(format, tagBytes), 1);
        std::uint64_t most = MostFramesOf(wish, format, tagBytes);
        // Where the volume takes nothing at all, the attempt tells, and another place is found.
        const bool volumeLimits = most > 0 && most < inHeader;
        most = volumeLimits ? most : inHeader;
        if (volumeLimits && !wish.whole && wholeIsSaved && end - wish.start > most) {
            plan.oversized.push_back(wish);
            continue;
        }
        const bool inParts = wish.whole || volumeLimits;
        PlannedFile file;
        file.wanted = index;
        file.shortened = wish.end.has_value() && *wish.end > totalFrames;
        std::uint64_t start = wish.start;
        for (; inParts && end - start > most; start += most) {
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

std::string DirectoryOf(const std::string& path) {
    return path.substr(0, path.rfind('/') + 1);
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

std::string RescuePath(const std::string& path, const std::string& directory) {
    std::string name = path.substr(path.rfind('/') + 1);
    std::size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0) {
        dot = name.size();
    }
    return directory + name.substr(0, dot) + "-rescued" + name.substr(dot);
}

RescuePlan MakeRescuePlan(const PlannedFile& file, const TakeFormat& format, std::uint64_t tagBytes,
                          const std::vector<RescuePlace>& places) {
    RescuePlan plan;
    plan.lostFrom = file.start;
    const std::string& origin = file.place == 0 ? file.path : file.origin;
    // Appends parts of [lostFrom, file.end) that one place holds in `room` bytes.
    const auto fill = [&](std::size_t index, double room) {
        while (plan.lostFrom < file.end) {
            const double largest = std::min(room, places[index].largestFile);
            const std::uint64_t most = FramesInBytes(format, tagBytes, largest);
            const std::uint64_t left = file.end - plan.lostFrom;
            PlannedFile part = file;
            part.start = plan.lostFrom;
            // What is left may end within a step, and fit where another whole step does not.
            const bool last = left <= MostFrames(format, tagBytes) &&
                              static_cast<double>(FileBytes(format, left, tagBytes)) <= largest;
            const std::uint64_t frames = last ? left : std::min(most, left);
            if (frames == 0) {
                return;
            }
            part.end = part.start + frames;
            part.toEnd = file.toEnd && part.end == file.end;
            part.tooLarge = false;
            part.place = places[index].number;
            part.origin = origin;
            part.path = RescuePath(origin, places[index].directory);
            plan.files.push_back(part);
            plan.lostFrom = part.end;
            room -= static_cast<double>(FileBytes(format, frames, tagBytes));
        }
    };
    for (std::size_t index = 0; index < places.size(); ++index) {
        fill(index, places[index].freeBytes - kRescueMargin);
        if (plan.lostFrom == file.end) {
            return plan;
        }
        plan.files.clear();
        plan.lostFrom = file.start;
    }
    for (std::size_t index = 0; index < places.size(); ++index) {
        fill(index, places[index].freeBytes - kRescueMargin);
    }
    return plan;
}

VolumeState Together(const std::vector<VolumeState>& volumes) {
    VolumeState all;
    for (const VolumeState& volume : volumes) {
        all.free = std::max(all.free, volume.free);
        all.rate += volume.rate;
        all.needed += volume.needed;
        all.reserve += volume.reserve;
    }
    return all;
}

double SecondsLeft(const std::vector<VolumeState>& volumes) {
    double seconds = std::numeric_limits<double>::infinity();
    for (const VolumeState& volume : volumes) {
        const double room = volume.free - volume.needed - volume.reserve;
        if (room <= 0.0) {
            return 0.0;
        }
        if (volume.rate > 0.0) {
            seconds = std::min(seconds, room / volume.rate);
        }
    }
    return seconds;
}

}  // namespace vorrel::cli
