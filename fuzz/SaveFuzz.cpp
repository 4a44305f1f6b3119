// Save requests of any paths, times, gains, tags and widths: which files are written, skipped and
// failed is worked out here, and of what was written every byte that can be known.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "Input.h"
#include "Require.h"
#include "ScratchDirectory.h"
#include "convert/SampleTypeInfo.h"
#include "store/RecordData.h"
#include "support/FakeManager.h"
#include "writer/SaveThread.h"

namespace {

using namespace vorrel;  // NOLINT(google-build-using-namespace)
using fuzz::Input;
using fuzz::Require;

constexpr std::uint16_t kChannels = 2;
constexpr std::uint64_t kPcmRate = 1'000;
constexpr std::uint64_t kPcmFrames = 2'500;
constexpr std::uint64_t kDsdRate = 64'000;
constexpr std::uint64_t kDsdBytes = 12'500;  // of a channel: three blocks of a file and a part

/// 16-bit steps, exact at every width.
int Step(std::uint64_t frame, std::uint64_t channel) {
    return static_cast<int>((frame * 7 + channel * 1'001) % 65'536) - 32'768;
}
std::uint8_t DsdByte(std::uint64_t at, std::uint64_t channel) {
    return static_cast<std::uint8_t>(at * 37 + at / 256 * 11 + channel * 101);
}

/// A recording that is there to be saved.
struct Take {
    explicit Take(bool dsd) : data(manager) {
        Require(ranges.Reset());
        ranges.AddRecordEvent(0, kRecordEventRecord);
        Require(data.Init(kChannels, dsd ? kDsdRate : kPcmRate,
                          GetSampleTypeInfo(dsd ? kSampleTypeDsd : kSampleTypePcm),
                          &ranges) == VrSuccess);
        for (std::uint16_t channel = 0; channel < kChannels; ++channel) {
            std::vector<std::uint8_t> block(dsd ? kDsdBytes : kPcmFrames * sizeof(float));
            for (std::uint64_t n = 0; n < (dsd ? kDsdBytes : kPcmFrames); ++n) {
                if (dsd) {
                    block[n] = DsdByte(n, channel);
                } else {
                    const float sample = static_cast<float>(Step(n, channel)) / 32'768.0F;
                    std::memcpy(block.data() + n * sizeof(float), &sample, sizeof(float));
                }
            }
            Require(data.Add(channel, block) == VrSuccess);
        }
    }
    fuzz::ScratchDirectory spill;
    test::FakeManager manager{spill.Path()};
    RecordRangeManager ranges;
    RecordData data;
};

std::uint64_t Frames(std::uint64_t rate, double seconds) {
    const double product = static_cast<double>(rate) * seconds;
    if (std::isnan(product) || product <= 0) {
        return 0;
    }
    return product >= 0x1p64 ? ~std::uint64_t{0} : static_cast<std::uint64_t>(std::floor(product));
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::uint64_t Number(const std::string& bytes, std::size_t at, unsigned size) {
    Require(at + size <= bytes.size());
    std::uint64_t value = 0;
    for (unsigned byte = size; byte > 0; --byte) {
        value = value << 8U | static_cast<std::uint8_t>(bytes[at + byte - 1]);
    }
    return value;
}

/// A tag that fills the file from `at` to its end, but for one zero byte if it may be padded.
void RequireId3(const std::string& bytes, std::size_t at, bool padded) {
    Require(bytes.compare(at, 6, std::string("ID3\3\0\0", 6)) == 0);
    std::size_t size = 10;
    for (std::size_t byte = 0, left = 0; byte < 4; ++byte) {
        const auto seven = static_cast<std::uint8_t>(bytes[at + 6 + byte]);
        Require(seven < 0x80);
        left = left << 7U | seven;
        size = 10 + left;
    }
    const std::size_t end = at + size;
    Require(end == bytes.size() ||
            (padded && size % 2 == 1 && end + 1 == bytes.size() && bytes.back() == '\0'));
    for (std::size_t frame = at + 10; frame != end;) {
        std::size_t length = 0;
        for (std::size_t byte = 4; byte < 8; ++byte) {
            length = length << 8U | static_cast<std::uint8_t>(bytes[frame + byte]);
        }
        Require(bytes.compare(frame + 8, 5, std::string("\0\0\1\xFF\xFE", 5)) == 0);
        Require(length > 3 && frame + 10 + length <= end);
        frame += 10 + length;
    }
}

void RequireWav(const std::string& bytes, const VrSaveSettingInternal& file, unsigned bits,
                std::uint64_t start, std::uint64_t frames) {
    const std::uint64_t align = kChannels * bits / 8;
    Require(bytes.compare(0, 4, "RIFF") == 0 && bytes.compare(8, 8, "WAVEfmt ") == 0);
    Require(Number(bytes, 4, 4) + 8 == bytes.size());
    Require(Number(bytes, 16, 4) == 16 && Number(bytes, 20, 2) == 1);
    Require(Number(bytes, 22, 2) == kChannels && Number(bytes, 24, 4) == kPcmRate);
    Require(Number(bytes, 28, 4) == kPcmRate * align && Number(bytes, 32, 2) == align);
    Require(Number(bytes, 34, 2) == bits && bytes.compare(36, 4, "data") == 0);
    Require(Number(bytes, 40, 4) == frames * align);
    if (file.gain == 0.0) {
        for (std::uint64_t sample = 0; sample < frames * kChannels; ++sample) {
            const int step = Step(start + sample / kChannels, sample % kChannels);
            const auto expected = static_cast<std::uint32_t>(step) << (bits - 16);
            Require(Number(bytes, 44 + sample * bits / 8, bits / 8) ==
                    (expected & (~0U >> (32 - bits))));
        }
    }
    std::size_t at = 44 + frames * align;
    const bool tagged = std::any_of(file.tags.begin(), file.tags.end(), [](const auto& tag) {
        return tag.first != "AlbumArtist" && !tag.second.empty();
    });
    Require((at == bytes.size()) == !tagged);
    if (!tagged) {
        return;
    }
    Require(bytes.compare(at, 4, "LIST") == 0 && bytes.compare(at + 8, 4, "INFO") == 0);
    const std::size_t listEnd = at + 8 + Number(bytes, at + 4, 4);
    for (at += 12; at < listEnd;) {
        const std::uint64_t size = Number(bytes, at + 4, 4);
        Require(size % 2 == 0 && size > 0 && bytes[at + 8 + size - 1] == '\0');
        at += 8 + size;
    }
    Require(at == listEnd && bytes.compare(at, 4, "id3 ") == 0);
    Require(at + 8 + Number(bytes, at + 4, 4) == bytes.size());
    RequireId3(bytes, at + 8, true);
}

std::uint8_t Mirrored(std::uint8_t byte) {
    unsigned mirrored = 0;
    for (unsigned bit = 0; bit < 8; ++bit) {
        mirrored |= (unsigned{byte} >> bit & 1U) << (7 - bit);
    }
    return static_cast<std::uint8_t>(mirrored);
}

void RequireDsf(const std::string& bytes, const VrSaveSettingInternal& file, std::uint64_t start,
                std::uint64_t frames) {
    const std::uint64_t blocks = (frames / 8 + 4'095) / 4'096;
    const std::uint64_t payload = blocks * 4'096 * kChannels;
    Require(bytes.compare(0, 4, "DSD ") == 0 && Number(bytes, 12, 8) == bytes.size());
    Require(Number(bytes, 56, 4) == kDsdRate && Number(bytes, 64, 8) == frames);
    Require(Number(bytes, 84, 8) == payload + 12);
    const bool tagged = bytes.size() != 92 + payload;
    Require(Number(bytes, 20, 8) == (tagged ? 92 + payload : 0));
    Require(tagged == std::any_of(file.tags.begin(), file.tags.end(),
                                  [](const auto& tag) { return !tag.second.empty(); }));
    if (tagged) {
        RequireId3(bytes, 92 + payload, false);
    }
    if (file.gain != 0.0) {
        return;
    }
    for (std::uint64_t block = 0; block < blocks; ++block) {
        const std::uint64_t position = start + block * 32'768;
        const std::uint64_t filled = std::min<std::uint64_t>(32'768, start + frames - position) / 8;
        for (std::uint64_t channel = 0; channel < kChannels; ++channel) {
            for (std::uint64_t byte = 0; byte < 4'096; ++byte) {
                const std::uint8_t expected = byte < filled
                                                  ? Mirrored(DsdByte(position / 8 + byte, channel))
                                                  : std::uint8_t{0};
                const auto at =
                    static_cast<std::size_t>(92 + (block * kChannels + channel) * 4'096 + byte);
                Require(static_cast<std::uint8_t>(bytes[at]) == expected);
            }
        }
    }
}

/// Whether every block of a DSD range can be read: it has a whole byte, and the take has it.
bool HasBlocks(std::uint64_t start, std::uint64_t end) {
    for (std::uint64_t position = start; position < end;) {
        const std::uint64_t next = end - position < 32'768 ? end : position + 32'768;
        if (next / 8 <= position / 8 || next / 8 > kDsdBytes) {
            return false;
        }
        position = next;
    }
    return true;
}

double Seconds(Input& input) {
    switch (input.Below(4)) {
        case 0:
            return input.AnyDouble();
        case 1:
            return static_cast<double>(input.Below(256)) / 64.0;
        default:
            return static_cast<double>(input.Below(256) * 256 + input.Below(256)) / 32'768.0;
    }
}

/// A path inside `directory`, or one without any directory, which is refused.
std::string Path(Input& input, const std::string& directory) {
    const bool bare = input.Below(16) == 0;
    std::string text = input.Until('\n');
    std::replace(text.begin(), text.end(), '\0', 'n');  // no path has it
    for (std::size_t at = 0; (at = text.find("..", at)) != std::string::npos;) {
        text.replace(at, 2, "xx");  // stays inside
    }
    if (!bare) {
        return directory + "/" + text;
    }
    std::replace(text.begin(), text.end(), '/', 's');
    return text;
}

void Check(const std::vector<VrSaveSettingInternal>& files, bool dsd, unsigned bits,
           const std::vector<test::FakeManager::Message>& messages) {
    std::size_t told = 0;
    // A later file of the request may have replaced an earlier one.
    const auto isLast = [&](std::size_t n) {
        return std::none_of(files.begin() + static_cast<std::ptrdiff_t>(n) + 1, files.end(),
                            [&](const auto& other) { return other.path == files[n].path; });
    };
    for (std::size_t n = 0; n < files.size(); ++n) {
        const VrSaveSettingInternal& file = files[n];
        const std::uint64_t rate = dsd ? kDsdRate : kPcmRate;
        const std::uint64_t start = Frames(rate, file.start);
        const std::uint64_t asked = Frames(rate, file.end);
        const std::uint64_t end = dsd ? asked : std::min(asked, kPcmFrames);
        const std::size_t slash = file.path.rfind('/');
        const bool refused = end < start || slash == std::string::npos;
        if (!refused && told < messages.size() && messages[told].first == VrMessageFileSkipped) {
            if (messages[told].second == file.path) {
                ++told;
                continue;
            }
        }
        std::error_code ignored;
        const bool fails =
            refused || !std::filesystem::is_directory(file.path.substr(0, slash + 1), ignored) ||
            (dsd ? !HasBlocks(start, end) : bits != 16 && bits != 24 && bits != 32);
        if (fails) {
            Require(told + 1 == messages.size());  // the files behind it are not begun
            Require(messages[told] == test::FakeManager::Message(VrMessageSaveFailed, file.path));
            return;
        }
        if (isLast(n)) {
            const std::string bytes = ReadFile(file.path);
            if (dsd) {
                RequireDsf(bytes, file, start, end - start);
            } else {
                RequireWav(bytes, file, bits, start, end - start);
            }
        }
    }
    Require(told == messages.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::ScratchDirectory directory;
    static Take pcm(false);
    static Take dsd(true);
    constexpr const char* kKeys[] = {"Title", "Alubum", "Artist", "AlbumArtist"};
    directory.Empty();

    Input input(data, size);
    const bool isDsd = input.Below(2) != 0;
    const std::uint64_t width = input.Below(8);
    const auto bits = static_cast<std::uint16_t>(width < 6 ? 16 + width % 3 * 8 : input.Byte());
    const std::uint64_t cancel = input.Below(8);  // 1: and delete; 2: and keep
    std::vector<VrSaveSettingInternal> files;
    while (!input.Ended() && files.size() < 4) {
        VrSaveSettingInternal file;
        file.path = Path(input, directory.Path());
        file.start = Seconds(input);
        file.end = Seconds(input);
        file.gain = input.Below(3) == 0 ? Seconds(input) - 1.0 : 0.0;
        for (const char* key : kKeys) {
            // Letters only: what becomes of other bytes is TagsFuzz's.
            for (std::uint64_t letters = input.Below(6); letters > 0; --letters) {
                file.tags[key].push_back(static_cast<char>('a' + input.Below(26)));
            }
        }
        files.push_back(std::move(file));
    }

    Take& take = isDsd ? dsd : pcm;
    test::FakeManager manager(take.spill.Path());
    SaveThread thread(manager);
    thread.SetBits(bits);
    const auto list = std::make_shared<const std::vector<VrSaveSettingInternal>>(files);
    Require(thread.SaveFiles(list, take.data) == VrSuccess);
    if (cancel == 1 || cancel == 2) {
        Require(thread.SaveCancel(cancel == 1) == VrSuccess);
    }
    thread.WaitFinished();
    Require(manager.Operations() == std::vector<VrRecOperation>{VrRecOperationSaveFinished});
    if (cancel != 1 && cancel != 2) {
        Check(files, isDsd, bits, manager.Messages());
    }
    return 0;
}
