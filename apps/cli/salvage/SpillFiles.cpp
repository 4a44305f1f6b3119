#include "salvage/SpillFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <limits>
#include <set>
#include <utility>

#include "TakeDirectory.h"

namespace vorrel::cli {
namespace {

constexpr std::uint64_t kLargestSpill = std::uint64_t{1} << 30;
constexpr std::uint64_t kStepSeconds = 5;
// As they are stored: a float of 0, and the pattern of a DSD stream that says nothing.
constexpr std::uint8_t kPcmSilence = 0;
constexpr std::uint8_t kDsdSilence = 0x69;

/// Bytes of a channel, and of the preview, that the engine stores in one step.
std::uint64_t ChannelStep(const TakeFormat& format) {
    return format.dsd ? format.rateHz * kStepSeconds / 8 : format.rateHz * kStepSeconds * 4;
}

std::uint64_t PreviewStep(const TakeFormat& format) {
    return format.channels * format.PreviewRateHz() * 2 * kStepSeconds;
}

std::uint64_t StepsAFile(std::uint64_t step) {
    return std::max<std::uint64_t>(kLargestSpill / std::max<std::uint64_t>(step, 1), 1);
}

}  // namespace

std::vector<std::size_t> SpillOwners(const TakeFormat& format, std::size_t files) {
    const std::uint64_t ofChannel = StepsAFile(ChannelStep(format));
    const std::uint64_t ofPreview = StepsAFile(PreviewStep(format));
    std::vector<std::size_t> owners;
    // The step at which each begins its next file; in the same step the channels come first.
    std::uint64_t nextChannel = 0;
    std::uint64_t nextPreview = 0;
    while (owners.size() < files) {
        if (nextChannel <= nextPreview) {
            for (std::size_t channel = 0; channel < format.channels; ++channel) {
                owners.push_back(channel);
            }
            nextChannel += ofChannel;
        } else {
            owners.push_back(format.channels);
            nextPreview += ofPreview;
        }
    }
    owners.resize(files);
    return owners;
}

SpillFiles::SpillFiles(const std::string& directory, const TakeRecord& record)
    : channels(record.format.channels), silence(record.format.dsd ? kDsdSilence : kPcmSilence) {
    // The first reason is the one that the others may follow from.
    const auto doubtThat = [this](const std::string& reason) {
        doubt = doubt.empty() ? reason : doubt;
    };
    std::vector<SpillFile> files;
    std::vector<std::pair<FileAge, SpillFile>> unnamed;
    std::error_code error;
    const auto sizeOf = [](const std::string& path) -> std::uint64_t {
        std::error_code unknown;
        const std::uintmax_t size = std::filesystem::file_size(path, unknown);
        return unknown ? 0 : size;
    };
    const std::set<std::string> named(record.spills.begin(), record.spills.end());
    for (const std::string& name : record.spills) {
        const std::string path = directory + "/" + name;
        if (std::filesystem::is_regular_file(std::filesystem::symlink_status(path, error))) {
            files.push_back({path, sizeOf(path)});
        } else {
            files.push_back({path, 0});  // keeps its place: what follows belongs to others
            doubtThat(path + " is missing");
        }
    }
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        std::error_code unknown;
        if (IsSpillName(name) && std::filesystem::is_regular_file(entry->symlink_status(unknown)) &&
            !named.contains(name)) {
            unnamed.push_back({AgeOf(entry->path().string()),
                               {entry->path().string(), sizeOf(entry->path().string())}});
        }
    }
    std::sort(unnamed.begin(), unnamed.end(),
              [](const auto& one, const auto& other) { return one.first < other.first; });
    for (auto& [age, file] : unnamed) {
        doubtThat("the journal does not name " + file.path);
        files.push_back(std::move(file));
    }
    if (record.guessed) {
        doubtThat("which channel is which was told by the clock alone");
    }

    const std::vector<std::size_t> owners = SpillOwners(record.format, files.size());
    for (std::size_t index = 0; index < files.size(); ++index) {
        bytes += files[index].bytes;
        if (owners[index] < channels.size()) {
            channels[owners[index]].push_back(files[index]);
        }
    }
    const std::uint64_t step = ChannelStep(record.format);
    const std::uint64_t full = StepsAFile(step) * step;
    std::uint64_t least = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t most = 0;
    for (const std::vector<SpillFile>& run : channels) {
        std::uint64_t length = 0;
        for (std::size_t index = 0; index < run.size(); ++index) {
            if (index + 1 < run.size() && run[index].bytes != full) {
                doubtThat(run[index].path + " has not the size that it had to have");
            }
            length += run[index].bytes;
        }
        lengths.push_back(length);
        least = std::min(least, length);
        most = std::max(most, length);
    }
    // All are stored in one go; the kill fell into it, or something is not what it is taken for.
    const bool unequal = !channels.empty() && most - least > step;
    if (unequal) {
        doubtThat("the channels have not the same length");
        doubt += "; silence fills the shorter channels";
    }
    stored = channels.empty() ? 0 : unequal ? most : least;
    frames = record.format.dsd ? stored * 8 : stored / sizeof(float);
}

bool SpillFiles::ReadFilled(std::size_t channel, std::uint64_t from, std::vector<std::uint8_t>& out,
                            std::size_t count) const {
    const std::uint64_t length = lengths.at(channel);
    if (from + count > stored) {
        return false;
    }
    const std::uint64_t there = from < length ? std::min<std::uint64_t>(count, length - from) : 0;
    const bool read = Read(channel, from, out, static_cast<std::size_t>(there));
    out.resize(count, silence);
    return read;
}

bool SpillFiles::Read(std::size_t channel, std::uint64_t from, std::vector<std::uint8_t>& out,
                      std::size_t count) const {
    out.resize(count);
    std::size_t done = 0;
    for (const SpillFile& file : channels.at(channel)) {
        if (from >= file.bytes) {
            from -= file.bytes;
            continue;
        }
        const int descriptor = ::open(file.path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        if (descriptor < 0) {
            return false;
        }
        bool failed = false;
        while (!failed && done < count && from < file.bytes) {
            const std::size_t wanted =
                static_cast<std::size_t>(std::min<std::uint64_t>(count - done, file.bytes - from));
            const ssize_t got =
                ::pread(descriptor, out.data() + done, wanted, static_cast<off_t>(from));
            if (got < 0 && errno == EINTR) {
                continue;
            }
            failed = got <= 0;
            if (!failed) {
                done += static_cast<std::size_t>(got);
                from += static_cast<std::uint64_t>(got);
            }
        }
        ::close(descriptor);
        if (failed) {
            return false;
        }
        if (done == count) {
            return true;
        }
        from = 0;  // the next one begins where this one ends
    }
    return done == count;
}

}  // namespace vorrel::cli
