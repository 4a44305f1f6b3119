#include "device/simulated/AudioFileSource.h"

#include <sndfile.h>

#include <algorithm>

#include "device/simulated/RegularFile.h"
#include "platform/Trace.h"

namespace vorrel {
namespace {

struct CloseFile {
    void operator()(SNDFILE* file) const { ::sf_close(file); }
};
using AudioFile = std::unique_ptr<SNDFILE, CloseFile>;

/// Why samples of that coding would not arrive bit for bit as 32-bit floats; empty if they do.
std::string Obstacle(int format) {
    const int subtype = format & SF_FORMAT_SUBMASK;
    switch (subtype) {
        case SF_FORMAT_PCM_S8:
        case SF_FORMAT_PCM_U8:
        case SF_FORMAT_PCM_16:
        case SF_FORMAT_PCM_24:
        case SF_FORMAT_FLOAT:
            return {};
        default:
            break;
    }
    SF_FORMAT_INFO info{};
    info.format = subtype;
    const bool named =
        ::sf_command(nullptr, SFC_GET_FORMAT_INFO, &info, sizeof info) == 0 && info.name != nullptr;
    return std::string("its samples (") + (named ? info.name : "unknown coding") +
           ") do not pass through 32-bit floats bit for bit; "
           "integers of 8, 16 or 24 bits and 32-bit floats do";
}

/// Null, with the path and the reason in `problem`, for a file that is no source.
AudioFile Open(const std::string& path, SF_INFO& info, std::string& problem) {
    AudioFile file(::sf_open(path.c_str(), SFM_READ, &info));
    if (file == nullptr) {
        problem = path + ": " + ::sf_strerror(nullptr);
    } else if (const std::string obstacle = Obstacle(info.format); !obstacle.empty()) {
        problem = path + ": " + obstacle;
        file.reset();
    }
    return file;
}

class AudioFileSource final : public SampleSource {
public:
    AudioFileSource(AudioFile openedFile, const SF_INFO& info, bool loopsAtEnd)
        : file(std::move(openedFile)),
          channels(static_cast<std::size_t>(info.channels)),
          loops(loopsAtEnd && info.frames > 0) {}

    void Read(float* out, std::size_t frames) override {
        while (frames > 0 && !ended) {
            const sf_count_t got =
                ::sf_readf_float(file.get(), out, static_cast<sf_count_t>(frames));
            const std::size_t read = got > 0 ? static_cast<std::size_t>(got) : 0;
            out += read * channels;
            frames -= read;
            if (frames > 0) {
                // An empty read right at the beginning would turn the loop without end.
                ended = !loops || (rewound && read == 0) || !Rewind();
            }
            rewound = read == 0;
        }
        std::fill_n(out, frames * channels, 0.0F);
    }

private:
    bool Rewind() { return ::sf_seek(file.get(), 0, SF_SEEK_SET) == 0; }

    const AudioFile file;
    const std::size_t channels;
    const bool loops;
    bool rewound = false;
    bool ended = false;
};

}  // namespace

bool InspectAudioFile(const std::string& path, AudioFileFacts& facts, std::string& problem) {
    if (!IsRegular(path, problem)) {
        return false;
    }
    SF_INFO info{};
    if (Open(path, info, problem) == nullptr) {
        return false;
    }
    facts.rateHz = info.samplerate;
    facts.channels = static_cast<std::uint32_t>(info.channels);
    return true;
}

std::unique_ptr<SampleSource> OpenAudioFileSource(const std::string& path, std::uint32_t channels,
                                                  bool loop) {
    SF_INFO info{};
    std::string problem;
    AudioFile file = Open(path, info, problem);
    if (file != nullptr && static_cast<std::uint32_t>(info.channels) != channels) {
        problem = path + ": its channel count has changed";
        file.reset();
    }
    if (file == nullptr) {
        Trace(__FILE__, __LINE__, "simulated recorder: %s", problem.c_str());
        return nullptr;
    }
    return std::make_unique<AudioFileSource>(std::move(file), info, loop);
}

}  // namespace vorrel
