// Saves a DSD take as a DSF file, for bench/compare.sh to run against other people's programs:
//     vorrel_save_dsd_take tone CHANNELS RATE SECONDS OUT.dsf GAIN_DB TEMP_DIRECTORY
//     vorrel_save_dsd_take IN.dsf OUT.dsf GAIN_DB TEMP_DIRECTORY
// The samples go through the channel stores and their spill files, as captured ones do. Prints the
// seconds of the two halves, filling the stores and saving, and the seconds of the take.

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <tuple>
#include <vector>

#include "SaveProgram.h"
#include "convert/BitReversal.h"
#include "convert/DsdModulator.h"
#include "convert/SampleTypeInfo.h"
#include "platform/AlignedBytes.h"
#include "writer/DsfHeader.h"

namespace {

using vorrel::bench::Clock;
using vorrel::bench::SaveAndWait;
using vorrel::bench::SecondsSince;

using Channels = std::vector<vorrel::Block>;

/// One block of bytes of every channel, most significant bit first; empty at the end.
class Source {
public:
    virtual ~Source() = default;
    virtual void Read(Channels& blocks) = 0;

    std::uint16_t channels = 0;
    std::uint32_t rateHz = 0;
    std::uint64_t frames = 0;
};

class DsfSource final : public Source {
public:
    explicit DsfSource(const char* path) : in(path, std::ios::binary) {
        std::vector<char> header(vorrel::kDsfHeaderBytes);
        in.read(header.data(), static_cast<std::streamsize>(header.size()));
        std::uint32_t count = 0;
        std::memcpy(&count, header.data() + 52, sizeof count);
        std::memcpy(&rateHz, header.data() + 56, sizeof rateHz);
        std::memcpy(&frames, header.data() + 64, sizeof frames);
        if (in && std::memcmp(header.data(), "DSD ", 4) == 0) {
            channels = static_cast<std::uint16_t>(count);
            left = frames / 8;
        }
    }
    void Read(Channels& blocks) override {
        const std::size_t bytes = std::min<std::uint64_t>(left, vorrel::kDsfBlockBytes);
        for (vorrel::Block& block : blocks) {
            block.resize(vorrel::kDsfBlockBytes);
            in.read(reinterpret_cast<char*>(block.data()), vorrel::kDsfBlockBytes);
            vorrel::ReverseBits(block.data(), block.size());
            block.resize(bytes);
        }
        left -= bytes;
    }

private:
    std::ifstream in;
    std::uint64_t left = 0;
};

/// 1 kHz at -6 dB of full modulation, in every channel.
class ToneSource final : public Source {
public:
    ToneSource(const char* channelCount, const char* rate, const char* seconds) {
        channels = static_cast<std::uint16_t>(std::atoi(channelCount));
        rateHz = static_cast<std::uint32_t>(std::atol(rate));
        frames = static_cast<std::uint64_t>(std::atof(seconds) * rateHz) / 8 * 8;
    }
    void Read(Channels& blocks) override {
        constexpr double kTau = 6.283185307179586;
        const std::uint64_t bytes =
            std::min<std::uint64_t>((frames - position) / 8, vorrel::kDsfBlockBytes);
        blocks[0].resize(bytes);
        for (std::uint8_t& byte : blocks[0]) {
            unsigned bits = 0;
            for (int bit = 0; bit < 8; ++bit, ++position) {
                const double x =
                    0.5 * std::sin(kTau * 1'000 * static_cast<double>(position) / rateHz);
                bits = bits << 1U | (vorrel::dsm(modulator, x) > 0 ? 1U : 0U);
            }
            byte = static_cast<std::uint8_t>(bits);
        }
        for (std::size_t channel = 1; channel < blocks.size(); ++channel) {
            blocks[channel] = blocks[0];
        }
    }

private:
    std::uint64_t position = 0;
    vorrel::_dsm<double> modulator;
};

bool Fill(vorrel::RecordData& record, Source& source) {
    Channels blocks(source.channels);
    for (source.Read(blocks); !blocks[0].empty(); source.Read(blocks)) {
        for (std::uint16_t channel = 0; channel < source.channels; ++channel) {
            if (record.Add(channel, blocks[channel]) != VrSuccess) {
                return false;
            }
        }
    }
    return true;
}

int Run(Source& source, const char* path, const char* gain, const char* tempDirectory) {
    const Clock::time_point fillStart = Clock::now();
    vorrel::test::FakeManager manager(tempDirectory);
    vorrel::RecordRangeManager ranges;
    vorrel::RecordData record(manager);
    if (source.channels == 0 ||
        record.Init(source.channels, source.rateHz,
                    vorrel::GetSampleTypeInfo(vorrel::kSampleTypeDsd), &ranges) != VrSuccess) {
        std::cerr << "no take\n";
        return 1;
    }
    ranges.AddRecordEvent(0, vorrel::kRecordEventRecord);
    if (!Fill(record, source)) {
        return 1;
    }
    const double fillSeconds = SecondsSince(fillStart);

    const Clock::time_point saveStart = Clock::now();
    vorrel::SaveThread save(manager);
    vorrel::VrSaveSettingInternal file;
    file.path = path;
    file.end = static_cast<double>(record.GetLength(true)) / source.rateHz;
    file.gain = std::atof(gain);
    const double seconds = file.end;
    if (!SaveAndWait(save, manager, record, std::move(file))) {
        return 1;
    }
    std::printf("fill %.3f save %.3f take %.3f\n", fillSeconds, SecondsSince(saveStart), seconds);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 8 && std::strcmp(argv[1], "tone") == 0) {
        ToneSource source(argv[2], argv[3], argv[4]);
        return Run(source, argv[5], argv[6], argv[7]);
    }
    if (argc == 5) {
        DsfSource source(argv[1]);
        return Run(source, argv[2], argv[3], argv[4]);
    }
    std::cerr << "usage: vorrel_save_dsd_take IN.dsf OUT.dsf GAIN_DB TEMP_DIRECTORY\n"
                 "       vorrel_save_dsd_take tone CHANNELS RATE SECONDS OUT.dsf GAIN_DB "
                 "TEMP_DIRECTORY\n";
    return 1;
}
