// Shows a level while it records, then draws the take as an SVG picture, from the preview.
//   waveform OUT.wav OUT.svg [SECONDS]
#include <poll.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "TakeHost.h"

namespace {

constexpr std::uint64_t kColumns = 800;
constexpr std::uint64_t kLaneHeight = 200;
constexpr std::uint64_t kMostFrames = 65'536;  // of the preview at once: a host's memory is bounded
constexpr double kFullScale = 32'768.0;

/// The lowest and the highest sample of a channel in one column of the picture.
struct Extent {
    int lowest = 0, highest = 0;
};

/// Calls `use(frame, samples of that frame)` for the recorded preview in [start, end).
template <typename Use>
void ReadPreview(std::uint64_t start, std::uint64_t end, std::uint16_t channels, Use use) {
    std::vector<std::int16_t> samples(kMostFrames * channels);
    for (std::uint64_t from = start; from < end; from += kMostFrames) {
        const std::uint64_t to = std::min(from + kMostFrames, end);
        if (Vorrel_GetPreviewData(from, to, samples.data()) != VrSuccess) {
            return;  // a spill file cannot be read: the picture ends here, the take does not
        }
        for (std::uint64_t frame = from; frame < to; ++frame) {
            use(frame, samples.data() + (frame - from) * channels);
        }
    }
}

std::uint64_t PreviewLength() {
    std::uint64_t frames = 0;
    return Vorrel_GetPreviewDataLength(&frames) == VrSuccess ? frames : 0;
}

/// The peak of what has come since `shown`, as a bar of sixty characters.
void ShowLevel(const example::TakeHost& host, std::uint64_t& shown, double seconds) {
    const std::uint64_t length = PreviewLength();
    int peak = 0;
    ReadPreview(shown, length, host.Channels(), [&](std::uint64_t, const std::int16_t* samples) {
        for (std::uint16_t channel = 0; channel < host.Channels(); ++channel) {
            peak = std::max(peak, std::abs(static_cast<int>(samples[channel])));
        }
    });
    shown = length;
    const auto cells = static_cast<std::size_t>(std::lround(60.0 * peak / kFullScale));
    std::cout << seconds << " s |" << std::string(cells, '#') << '\n';
}

void Draw(const example::TakeHost& host, const std::string& path) {
    const std::uint16_t channels = host.Channels();
    const std::uint64_t length = PreviewLength();
    std::vector<Extent> extents(kColumns * channels);
    ReadPreview(0, length, channels, [&](std::uint64_t frame, const std::int16_t* samples) {
        for (std::uint16_t channel = 0; channel < channels; ++channel) {
            Extent& extent = extents[frame * kColumns / length * channels + channel];
            extent.lowest = std::min(extent.lowest, static_cast<int>(samples[channel]));
            extent.highest = std::max(extent.highest, static_cast<int>(samples[channel]));
        }
    });

    std::ofstream picture(path);
    picture << "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " << kColumns << ' '
            << kLaneHeight * channels << "\" stroke=\"teal\">\n";
    for (std::uint64_t column = 0; column < kColumns; ++column) {
        for (std::uint16_t channel = 0; channel < channels; ++channel) {
            const Extent& extent = extents[column * channels + channel];
            const double middle = (channel + 0.5) * kLaneHeight;
            const double scale = kLaneHeight / 2.0 / kFullScale;
            picture << "<path d=\"M" << column << ".5 " << middle - extent.highest * scale << "V"
                    << middle - extent.lowest * scale + 1.0 << "\"/>\n";
        }
    }
    picture << "</svg>\n";
}

}  // namespace

int main(int count, char** arguments) {
    if (count < 3) {
        std::cerr << "usage: waveform OUT.wav OUT.svg [SECONDS]\n";
        return 1;
    }
    const std::string svg = arguments[2];
    std::shared_ptr<example::TakeHost> host;
    std::uint64_t shown = 0;
    bool done = false;
    int exitCode = 1;
    example::Take take;
    take.out = arguments[1];
    take.seconds = count > 3 ? std::strtod(arguments[3], nullptr) : 3.0;
    take.onPreview = [&](double seconds) { ShowLevel(*host, shown, seconds); };
    take.onRecorded = [&] { Draw(*host, svg); };
    take.onDone = [&](bool saved) {
        done = true;
        exitCode = saved ? 0 : 1;
    };
    try {
        host = example::TakeHost::Start(take);
        // Where a loop has more to wait for, its descriptors stand beside this one.
        pollfd queue{vorrel::MainQueue::Descriptor(), POLLIN, 0};
        while (!done) {
            ::poll(&queue, 1, -1);
            vorrel::MainQueue::Dispatch();
        }
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << '\n';
    }
    return exitCode;
}
