#include "Tracks.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace vorrel::cli {

std::optional<Tracks::Cut> Tracks::Add(std::uint64_t frame) {
    const std::uint64_t step = format.PartStep();
    const std::uint64_t snapped = (frame + step / 2) / step * step;
    const auto place = std::lower_bound(cuts.begin(), cuts.end(), snapped);
    if (snapped == 0 || (place != cuts.end() && *place == snapped)) {
        return std::nullopt;
    }
    cuts.insert(place, snapped);
    return Cut{snapped, static_cast<std::int64_t>(snapped) - static_cast<std::int64_t>(frame)};
}

void Tracks::LimitLength(std::uint64_t frames) {
    const std::uint64_t step = format.PartStep();
    longest = std::max(frames / step, std::uint64_t{1}) * step;
}

std::vector<WantedFile> Tracks::Split(const WantedFile& whole, std::uint64_t totalFrames) const {
    const std::uint64_t end = std::min(whole.end.value_or(totalFrames), totalFrames);
    std::vector<std::uint64_t> starts = {whole.start};
    // One length after the other from the last start up to `next`.
    const auto fill = [&](std::uint64_t next) {
        while (longest && next - starts.back() > *longest) {
            starts.push_back(starts.back() + *longest);
        }
    };
    for (const std::uint64_t cut : cuts) {
        if (whole.start + cut >= end) {
            break;
        }
        fill(whole.start + cut);
        starts.push_back(whole.start + cut);
    }
    if (end > starts.back()) {
        fill(end);
    }
    if (starts.size() == 1 && !numbered) {
        return {whole};
    }
    // As many digits as if no cut had been missed: that is what was announced.
    const std::size_t count = starts.size() + Missed(whole, totalFrames).size();
    std::vector<WantedFile> tracks;
    for (std::size_t index = 0; index < starts.size(); ++index) {
        WantedFile track = whole;
        track.path = TrackPath(whole.path, index + 1, count);
        track.start = starts[index];
        if (index + 1 < starts.size()) {
            track.end = starts[index + 1];
        }
        tracks.push_back(track);
    }
    return tracks;
}

std::vector<std::uint64_t> Tracks::Missed(const WantedFile& whole,
                                          std::uint64_t totalFrames) const {
    const std::uint64_t end = std::min(whole.end.value_or(totalFrames), totalFrames);
    const std::uint64_t length = end - std::min(end, whole.start);
    return {std::lower_bound(cuts.begin(), cuts.end(), length), cuts.end()};
}

std::string MovedText(const Tracks::Cut& cut, const TakeFormat& format) {
    if (cut.movedFrames == 0) {
        return "";
    }
    const long milliseconds = std::lround(1000.0 * static_cast<double>(std::abs(cut.movedFrames)) /
                                          static_cast<double>(format.rateHz));
    return ", moved by " + (milliseconds == 0 ? "less than 1" : std::to_string(milliseconds)) +
           " ms to where blocks of a DSF file meet";
}

bool HasRoomForNumber(const std::string& path) {
    // "-12345"; a file system's names have 255 bytes.
    constexpr std::size_t kNumber = 6;
    constexpr std::size_t kLongestName = 255;
    return path.size() - (path.rfind('/') + 1) + kNumber <= kLongestName;
}

std::string TrackPath(const std::string& path, std::size_t number, std::size_t count) {
    const std::size_t nameStart = path.rfind('/') + 1;  // 0 without a "/"
    std::size_t dot = path.rfind('.');
    if (dot == std::string::npos || dot <= nameStart) {
        dot = path.size();
    }
    std::string digits = std::to_string(number);
    const std::size_t width = std::max<std::size_t>(std::to_string(count).size(), 2);
    digits.insert(0, width - std::min(width, digits.size()), '0');
    return path.substr(0, dot) + "-" + digits + path.substr(dot);
}

}  // namespace vorrel::cli
