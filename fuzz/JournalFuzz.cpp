// What a killed program has left, or somebody has put in its place: a journal of any bytes, and
// beside it files, links, pipes and directories. Whatever is read comes out of the take's own
// files, and what a journal of ours says is understood, also when its end is missing.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "Input.h"
#include "OutputFile.h"
#include "Require.h"
#include "ScratchDirectory.h"
#include "salvage/LeftTake.h"
#include "salvage/SalvageWriter.h"
#include "salvage/SpillFiles.h"
#include "salvage/TakeJournal.h"

namespace {

using vorrel::cli::LeftTake;
using vorrel::cli::SpillFile;
using vorrel::cli::SpillFiles;
using vorrel::cli::TakeFormat;
using vorrel::cli::TakeJournal;
using vorrel::cli::TakeRecord;
using vorrel::fuzz::Input;
using vorrel::fuzz::Require;
using vorrel::fuzz::ScratchDirectory;
using Bytes = std::vector<std::uint8_t>;

constexpr std::array kNames = {"tmp000001", "tmp000002", "tmp000003", "tmp000004", "tmp00000a",
                               "tmp00000b", "tmp00000c", "tmp00000d", "tmp",       "other"};

/// A take's directory, one beside it that is nobody's business, and what comes of a salvage.
class Place {
public:
    Place() {
        std::filesystem::create_directory(Outside());
        Write(Outside() + "/file", Bytes(4'096, 0xEE));
        std::ofstream(Outside() + "/journal")
            << R"({"journal":1,"started":1,"device":"d","type":"pcm","rate_hz":48000,"channels":1,)"
            << R"("bits":24,"out":"","gain_db":0,"tags":{}})" << '\n';
        // Whoever opened it would wait for ever.
        Require(::mkfifo((Outside() + "/pipe").c_str(), 0600) == 0);
    }
    void Begin() const {
        std::filesystem::remove_all(Take());
        std::filesystem::create_directory(Take());
    }
    static void Write(const std::string& path, const Bytes& bytes) {
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
    }

    const std::string& Base() const { return scratch.Path(); }
    std::string Take() const { return Base() + "/vorrel-fuzzed"; }
    std::string Outside() const { return Base() + "/outside"; }
    std::string Salvaged() const { return Base() + "/salvaged"; }
    std::string Journal() const { return Take() + "/" + TakeJournal::kName; }

private:
    ScratchDirectory scratch;
};

/// Puts something that is no file, or nothing, at a path in the take's directory.
void PutAnotherThing(std::uint64_t kind, const std::string& path, const Place& place,
                     const char* outside) {
    const auto link = [&path](const std::string& target) {
        Require(::symlink(target.c_str(), path.c_str()) == 0);
    };
    switch (kind) {
        case 0:
            link(place.Outside() + "/" + outside);
            break;
        case 1:
            link(place.Outside() + "/pipe");
            break;
        case 2:
            link(place.Outside());
            break;
        case 3:
            link(kNames[0]);
            break;
        case 4:
            Require(::mkfifo(path.c_str(), 0600) == 0);
            break;
        case 5:
            std::filesystem::create_directory(path);
            break;
        default:
            break;  // nothing
    }
}

/// Fills the take's directory. @return what its regular files hold, by name.
std::map<std::string, Bytes> Fill(Input& input, const Place& place) {
    std::map<std::string, Bytes> contents;
    std::set<std::string> taken;
    for (std::uint64_t left = input.Below(16); left > 0; --left) {
        const std::string name = kNames[input.Below(kNames.size())];
        if (!taken.insert(name).second) {
            continue;
        }
        const std::uint64_t kind = input.Below(16);
        const std::string path = place.Take() + "/" + name;
        if (kind < 7) {
            PutAnotherThing(kind, path, place, "file");
            continue;
        }
        Bytes bytes(input.Below(256) * (kind == 15 ? 41 : 4));
        for (std::size_t at = 0; at < bytes.size(); ++at) {
            bytes[at] = static_cast<std::uint8_t>(at * 31 + taken.size() * 7);
        }
        Place::Write(path, bytes);
        contents[name] = std::move(bytes);
    }
    return contents;
}

bool IsSpill(const std::string& name) {
    return name.size() == 9 && name.starts_with("tmp") &&
           std::all_of(name.begin(), name.end(), [](unsigned char character) {
               return character < 0x80 && std::isalnum(character) != 0;
           });
}

void RequirePlausible(const TakeRecord& record) {
    const TakeFormat& format = record.format;
    Require(format.rateHz > 0 && format.rateHz <= 1'000'000'000);
    Require(format.channels > 0 && format.channels <= 1'024);
    Require(record.startFrame % format.FrameStep() == 0);
    const std::set<std::string> once(record.spills.begin(), record.spills.end());
    Require(once.size() == record.spills.size());
    Require(std::all_of(once.begin(), once.end(), &IsSpill));
}

/// Each file of a run, and what the whole run holds.
Bytes ContentsOf(const std::vector<SpillFile>& run, const std::map<std::string, Bytes>& contents,
                 const std::string& take) {
    Bytes whole;
    for (const SpillFile& file : run) {
        Require(file.path.starts_with(take + "/"));
        const auto found = contents.find(file.path.substr(take.size() + 1));
        Require(file.bytes == (found == contents.end() ? 0 : found->second.size()));
        if (found != contents.end()) {
            whole.insert(whole.end(), found->second.begin(), found->second.end());
        }
    }
    return whole;
}

void RequireReads(const SpillFiles& files, std::size_t channel, const Bytes& whole, Input& input) {
    Bytes bytes;
    Require(files.Read(channel, 0, bytes, whole.size()) && bytes == whole);
    const std::uint64_t from = input.Below(256) * whole.size() / 256;
    Require(files.Read(channel, from, bytes, whole.size() - from));
    Require(std::equal(bytes.begin(), bytes.end(), whole.end() - std::ssize(bytes), whole.end()));
    Require(!files.Read(channel, from, bytes, whole.size() - from + 1));
}

/// @return how many frames there are.
std::uint64_t RequireSamples(const SpillFiles& files, const TakeRecord& record,
                             const std::map<std::string, Bytes>& contents, const Place& place,
                             Input& input) {
    std::uint64_t bytes = 0;
    for (const auto& [name, content] : contents) {
        bytes += IsSpill(name) ? content.size() : 0;
    }
    Require(files.Bytes() == bytes);
    Require(files.Channels().size() == record.format.channels);

    // What the journal names is whose its order says.
    const auto owners = vorrel::cli::SpillOwners(record.format, record.spills.size());
    std::vector<std::size_t> next(record.format.channels + 1);
    for (std::size_t index = 0; index < owners.size(); ++index) {
        if (owners[index] < record.format.channels) {
            const auto& run = files.Channels()[owners[index]];
            Require(next[owners[index]] < run.size());
            Require(run[next[owners[index]]++].path == place.Take() + "/" + record.spills[index]);
        }
    }
    std::uint64_t least = ~std::uint64_t{0};
    std::uint64_t most = 0;
    for (std::size_t channel = 0; channel < files.Channels().size(); ++channel) {
        const Bytes whole = ContentsOf(files.Channels()[channel], contents, place.Take());
        RequireReads(files, channel, whole, input);
        least = std::min<std::uint64_t>(least, whole.size());
        most = std::max<std::uint64_t>(most, whole.size());
    }
    // Five seconds of a channel go to the disk at once; what differs by more is filled with
    // silence.
    const std::uint64_t rate = record.format.rateHz;
    const std::uint64_t step = record.format.dsd ? rate * 5 / 8 : rate * 20;
    const std::uint64_t stored = most - least > step ? most : least;
    Require(files.Frames() == (record.format.dsd ? stored * 8 : stored / 4));
    return files.Frames();
}

void RequireSalvage(const SpillFiles& files, const TakeRecord& record, const Place& place) {
    TakeFormat format = record.format;
    if (format.bits != 16 && format.bits != 24) {
        format.bits = 32;
    }
    const std::uint64_t frames = files.Frames() - record.startFrame;
    vorrel::cli::WriteSalvaged(files, format, record.startFrame, files.Frames(), place.Salvaged(),
                               [](std::uint64_t) { return true; });
    const auto summary = format.dsd ? vorrel::cli::SummarizeDsf(place.Salvaged())
                                    : vorrel::cli::SummarizeWav(place.Salvaged());
    Require(summary.complete && summary.frames == frames);
    Require(std::filesystem::file_size(place.Salvaged()) ==
            (format.dsd ? 92 : 44) + format.PayloadBytes(frames));
}

void RequireTheRoadHolds(Input& input, const Place& place) {
    const std::string text = input.Until(0);
    place.Begin();
    const std::uint64_t kind = input.Below(16);
    if (kind < 7) {
        PutAnotherThing(kind, place.Journal(), place, "journal");
    } else {
        std::ofstream(place.Journal(), std::ios::binary) << text;
    }
    const std::map<std::string, Bytes> contents = Fill(input, place);

    const std::optional<TakeRecord> record = TakeJournal::Read(place.Take());
    Require(!record || kind >= 7);
    std::uint64_t frames = 0;
    if (record) {
        RequirePlausible(*record);
        const SpillFiles files(place.Take(), *record);
        const std::uint64_t stored = RequireSamples(files, *record, contents, place, input);
        frames = stored - std::min(stored, record->startFrame);
        if (frames > 0) {
            RequireSalvage(files, *record, place);
        }
    }
    std::uint64_t bytes = 0;
    for (const auto& [name, content] : contents) {
        bytes += IsSpill(name) ? content.size() : 0;  // what is called otherwise is not the take's
    }
    const std::vector<LeftTake> takes = vorrel::cli::FindLeftTakes(place.Base());
    Require(takes.size() <= 1 && (!takes.empty() || !record));
    for (const LeftTake& take : takes) {
        Require(take.directory == place.Take() && take.record.has_value() == record.has_value());
        Require(take.bytes == bytes && take.frames == frames);
    }
}

std::string Word(Input& input) {
    std::string word(input.Below(8), ' ');
    for (char& character : word) {
        character = static_cast<char>(input.Below(128));
    }
    return word;
}

/// A record that a journal of ours may begin with.
TakeRecord AnyRecord(Input& input) {
    TakeRecord record;
    record.started = static_cast<std::time_t>(input.Below(256)) * 10'000'000;
    record.device = Word(input);
    record.format.dsd = input.Below(2) != 0;
    record.format.rateHz = record.format.dsd ? 2'822'400 : 44'100;
    record.format.channels = static_cast<std::uint32_t>(1 + input.Below(8));
    record.format.bits = static_cast<std::uint32_t>(16 + 8 * input.Below(3));
    record.out = Word(input);
    record.gain = static_cast<double>(input.Below(81)) / 2 - 20.0;
    for (std::uint64_t tags = input.Below(4); tags > 0; --tags) {
        record.tags[Word(input)] = Word(input);
    }
    return record;
}

/// What is written is read, and a journal that was cut off is one up to there.
void RequireWhatIsWrittenIsRead(Input& input, const Place& place) {
    std::ignore = input.Byte();
    place.Begin();
    TakeRecord expected = AnyRecord(input);
    std::uintmax_t firstLine = 0;
    {
        TakeJournal journal(place.Take());
        journal.Begin(expected);
        firstLine = std::filesystem::file_size(place.Journal());
        for (std::uint64_t left = input.Below(12); left > 0; --left) {
            const std::uint64_t frame = 8 * input.Below(256);
            const std::string name = kNames[input.Below(4)];
            switch (input.Below(6)) {
                case 0:
                    expected.state = Word(input);
                    journal.State(expected.state, 0.5 * static_cast<double>(frame));
                    break;
                case 1:
                    expected.startFrame = frame;
                    journal.Start(frame);
                    break;
                case 2:
                    expected.marks.push_back(frame);
                    journal.Mark(frame);
                    break;
                case 3:
                    expected.startFrame = 0;
                    expected.marks.clear();
                    journal.Restart();
                    break;
                case 4:
                    journal.Saved(Word(input));
                    break;
                default:
                    // Made, or deleted where it is already.
                    if (std::erase(expected.spills, name) != 0) {
                        ::unlink((place.Take() + "/" + name).c_str());
                    } else {
                        Place::Write(place.Take() + "/" + name, {});
                        expected.spills.push_back(name);
                    }
                    journal.Look();
            }
        }
    }
    const std::optional<TakeRecord> read = TakeJournal::Read(place.Take());
    Require(read && read->started == expected.started && read->device == expected.device);
    Require(read->format.dsd == expected.format.dsd && read->format.bits == expected.format.bits);
    Require(read->format.rateHz == expected.format.rateHz);
    Require(read->format.channels == expected.format.channels);
    Require(read->out == expected.out && read->gain == expected.gain);
    Require(read->tags == expected.tags && read->state == expected.state && !read->guessed);
    Require(read->startFrame == expected.startFrame && read->marks == expected.marks);
    Require(read->spills == expected.spills);

    const std::uintmax_t size = std::filesystem::file_size(place.Journal());
    const std::uintmax_t cut = input.Below(256) * size / 256;
    std::filesystem::resize_file(place.Journal(), cut);
    const std::optional<TakeRecord> fewer = TakeJournal::Read(place.Take());
    // The line's end is not missed where all else of it is there.
    Require(fewer.has_value() == (cut + 1 >= firstLine));
    Require(!fewer || (fewer->tags == expected.tags && fewer->spills.size() <= 4));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Place place;
    Input input(data, size);
    // Two kinds of input, because it takes long to close a journal that watches a directory.
    if (size > 0 && data[0] == 0) {
        RequireWhatIsWrittenIsRead(input, place);
    } else {
        RequireTheRoadHolds(input, place);
    }
    return 0;
}
