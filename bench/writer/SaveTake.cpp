// Saves a take whose samples come from a 32-bit float WAV:
//     vorrel_save_take IN.wav OUT.wav BITS GAIN_DB TEMP_DIRECTORY
// The samples go through the channel stores and their spill files, as captured ones do. Prints the
// seconds of the two halves, filling the stores and saving.

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "SaveProgram.h"
#include "convert/ChannelKernels.h"
#include "convert/SampleTypeInfo.h"
#include "platform/AlignedBytes.h"

namespace {

using vorrel::bench::Clock;
using vorrel::bench::SaveAndWait;
using vorrel::bench::SecondsSince;

struct FloatWav {
    std::uint16_t channels = 0;
    std::uint32_t rateHz = 0;
    std::uint64_t dataBytes = 0;
};

template <class T>
T ReadLittleEndian(std::istream& in) {
    T value{};
    in.read(reinterpret_cast<char*>(&value), sizeof value);
    return value;
}

/// Reads the header up to the first sample.
FloatWav ReadHeader(std::istream& in) {
    FloatWav wav;
    in.seekg(12);
    while (in) {
        std::array<char, 4> id{};
        in.read(id.data(), id.size());
        const auto size = ReadLittleEndian<std::uint32_t>(in);
        if (std::memcmp(id.data(), "fmt ", 4) == 0) {
            std::ignore = ReadLittleEndian<std::uint16_t>(in);
            wav.channels = ReadLittleEndian<std::uint16_t>(in);
            wav.rateHz = ReadLittleEndian<std::uint32_t>(in);
            in.seekg(size - 8, std::ios::cur);
        } else if (std::memcmp(id.data(), "data", 4) == 0) {
            wav.dataBytes = size;
            return wav;
        } else {
            in.seekg(size, std::ios::cur);
        }
    }
    return wav;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::cerr << "usage: vorrel_save_take IN.wav OUT.wav BITS GAIN_DB TEMP_DIRECTORY\n";
        return 1;
    }
    std::ifstream in(argv[1], std::ios::binary);
    const FloatWav wav = ReadHeader(in);
    if (!in || wav.channels == 0) {
        std::cerr << argv[1] << ": no float WAV\n";
        return 1;
    }

    const Clock::time_point fillStart = Clock::now();
    vorrel::test::FakeManager manager(argv[5]);
    vorrel::RecordRangeManager ranges;
    vorrel::RecordData record(manager);
    if (record.Init(wav.channels, wav.rateHz, vorrel::GetSampleTypeInfo(vorrel::kSampleTypePcm),
                    &ranges) != VrSuccess) {
        return 1;
    }
    ranges.AddRecordEvent(0, vorrel::kRecordEventRecord);
    // Blocks of 50 ms, as a device delivers them.
    const std::size_t blockFrames = wav.rateHz / 20;
    std::vector<float> interleaved(blockFrames * wav.channels);
    std::vector<vorrel::Block> blocks(wav.channels);
    std::vector<std::uint8_t*> lanes(wav.channels);
    const std::size_t frameBytes = wav.channels * sizeof(float);
    for (std::uint64_t left = wav.dataBytes / frameBytes; left > 0;) {
        const std::size_t frames = std::min<std::uint64_t>(left, blockFrames);
        in.read(reinterpret_cast<char*>(interleaved.data()),
                static_cast<std::streamsize>(frames * frameBytes));
        for (std::size_t channel = 0; channel < wav.channels; ++channel) {
            blocks[channel].resize(frames * sizeof(float));
            lanes[channel] = blocks[channel].data();
        }
        vorrel::SplitLanes(lanes, interleaved.data(), frames);
        for (std::uint16_t channel = 0; channel < wav.channels; ++channel) {
            if (record.Add(channel, blocks[channel]) != VrSuccess) {
                return 1;
            }
        }
        left -= frames;
    }
    const double fillSeconds = SecondsSince(fillStart);

    const Clock::time_point saveStart = Clock::now();
    vorrel::SaveThread save(manager);
    save.SetBits(static_cast<std::uint16_t>(std::atoi(argv[3])));
    vorrel::VrSaveSettingInternal file;
    file.path = argv[2];
    file.end = static_cast<double>(record.GetLength(true) + 1) / wav.rateHz;
    file.gain = std::atof(argv[4]);
    if (!SaveAndWait(save, manager, record, std::move(file))) {
        return 1;
    }
    std::printf("fill %.3f save %.3f\n", fillSeconds, SecondsSince(saveStart));
    return 0;
}
