#include "salvage/TakeJournal.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <new>
#include <nlohmann/json.hpp>
#include <sstream>
#include <tuple>

#include "salvage/HalfWritten.h"

namespace vorrel::cli {
namespace {

using nlohmann::json;

constexpr int kVersion = 1;

/// Any text in UTF-8: unknown bytes become U+FFFD.
std::string Line(const json& object) {
    return object.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

/// @param path  "" = no file any more.
std::string WritingLine(const std::string& path) {
    const Machine machine = ThisMachine();
    return Line({{"writing", EncodePath(path)},
                 {"process", ::getpid()},
                 {"host", machine.host},
                 {"boot", machine.boot}});
}

/// Appends to a journal that another process has begun. One that takes nothing keeps no take from
/// being saved.
void Append(const std::string& path, const std::string& line) {
    const int descriptor =
        ::open(path.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat status {};
    if (descriptor >= 0 && ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) {
        // The last line may be half a one.
        const std::string text = "\n" + line;
        std::ignore = ::write(descriptor, text.data(), text.size());
    }
    if (descriptor >= 0) {
        ::close(descriptor);
    }
}

/// Of the process that has written a line.
Machine MachineOf(const json& object) {
    return {object.value("host", ""), object.value("boot", "")};
}

/// What a journal of ours can say; anything else is damage, and not to be calculated with.
bool IsPlausible(const TakeRecord& record) {
    constexpr std::uint64_t kMostRate = 1'000'000'000;
    constexpr std::uint32_t kMostChannels = 1'024;
    const TakeFormat& format = record.format;
    return format.rateHz > 0 && format.rateHz <= kMostRate && format.channels > 0 &&
           format.channels <= kMostChannels && record.startFrame % format.FrameStep() == 0;
}

/// One line as an object; no object where it is damaged. The tags are as deep as a journal goes:
/// what somebody nests deeper would take eighty times its size in memory, and is left out.
json Parse(const std::string& line) {
    constexpr int kTagDepth = 2;
    return json::parse(
        line, [](int depth, json::parse_event_t, const json&) { return depth <= kTagDepth; },
        false);
}

/// A number without a fraction and not below 0: others cannot be made one.
/// @throws json::exception
std::uint64_t Whole(const json& object, const char* key) {
    return object.at(key).get_ref<const json::number_unsigned_t&>();
}

std::uint32_t SmallWhole(const json& object, const char* key) {
    return static_cast<std::uint32_t>(
        std::min<std::uint64_t>(Whole(object, key), std::numeric_limits<std::uint32_t>::max()));
}

/// The engine's files, each once, in the order of their making.
class SpillNames {
public:
    void Add(const std::string& name) { numbers.emplace(name, next++); }
    void Remove(const std::string& name) { numbers.erase(name); }
    std::vector<std::string> InOrder() const {
        std::map<std::size_t, std::string> order;
        for (const auto& [name, number] : numbers) {
            order.emplace(number, name);
        }
        std::vector<std::string> names;
        names.reserve(order.size());
        for (const auto& [number, name] : order) {
            names.push_back(name);
        }
        return names;
    }

private:
    std::map<std::string, std::size_t> numbers;
    std::size_t next = 0;
};

/// A journal's text; "" = it is none. No link, no pipe, and no more than a long take writes.
std::string ReadText(const std::string& path) {
    constexpr off_t kMostBytes = off_t{16} << 20;
    std::string text;
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat status {};
    if (descriptor >= 0 && ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) &&
        status.st_size <= kMostBytes) {
        text.resize(static_cast<std::size_t>(status.st_size));
        std::size_t got = 0;
        while (got < text.size()) {
            const ssize_t count = ::read(descriptor, text.data() + got, text.size() - got);
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count <= 0) {
                break;
            }
            got += static_cast<std::size_t>(count);
        }
        text.resize(got);
    }
    if (descriptor >= 0) {
        ::close(descriptor);
    }
    return text;
}

}  // namespace

TakeJournal::TakeJournal(const std::string& directory)
    : place(directory),
      file(::open((directory + "/" + kName).c_str(),
                  O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600)),
      watch(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    if (watch >= 0 &&
        ::inotify_add_watch(watch, directory.c_str(), IN_CREATE | IN_DELETE | IN_ONLYDIR) < 0) {
        ::close(watch);
        watch = -1;
    }
}

TakeJournal::~TakeJournal() {
    try {
        Write("");
    } catch (const std::bad_alloc&) {
        // The next to last chance of these lines was the last.
    }
    for (const int descriptor : {file, watch}) {
        if (descriptor >= 0) {
            ::close(descriptor);
        }
    }
}

void TakeJournal::Write(const std::string& line) {
    if (file < 0) {
        return;
    }
    unwritten += line;
    // Glued to half a line, a whole one could not be read either.
    const std::string text = (torn ? "\n" : "") + unwritten;
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(file, text.data() + written, text.size() - written);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;  // a full disk; the recording itself meets it in its own way
        }
        written += static_cast<std::size_t>(count);
    }
    if (written == 0) {
        return;
    }
    torn = text[written - 1] != '\n';
    // A line that lacks nothing but its end is whole; of any other half, all comes once more.
    const bool whole = torn && written < text.size() && text[written] == '\n';
    unwritten = text.substr(whole ? written + 1 : text.rfind('\n', written - 1) + 1);
}

void TakeJournal::Begin(const TakeRecord& record) {
    const Machine machine = ThisMachine();
    Write(Line({{"journal", kVersion},
                {"process", ::getpid()},
                {"host", machine.host},
                {"boot", machine.boot},
                {"started", record.started},
                {"device", record.device},
                {"type", record.format.dsd ? "dsd" : "pcm"},
                {"rate_hz", record.format.rateHz},
                {"channels", record.format.channels},
                {"bits", record.format.bits},
                {"out", record.out},
                {"gain_db", record.gain},
                {"tags", record.tags}}));
}

void TakeJournal::State(const std::string& name, double seconds) {
    Write(Line({{"state", name}, {"seconds", seconds}}));
}

void TakeJournal::Start(std::uint64_t frame) {
    Write(Line({{"start_frame", frame}}));
}

void TakeJournal::Mark(std::uint64_t frame) {
    Write(Line({{"mark", frame}}));
}

void TakeJournal::Restart() {
    Look();
    Write(Line({{"restart", true}}));
}

void TakeJournal::Saved(const std::string& name) {
    Write(Line({{"saved", name}}));
}

void TakeJournal::Writing(const std::string& path) {
    Write(WritingLine(path));
}

void TakeJournal::Written() {
    Write(WritingLine(""));
}

void TakeJournal::NoteWriting(const std::string& directory, const std::string& path) {
    Append(directory + "/" + kName, WritingLine(path));
}

void TakeJournal::NoteWritten(const std::string& directory) {
    Append(directory + "/" + kName, WritingLine(""));
}

void TakeJournal::Look() {
    alignas(inotify_event) std::array<char, 4096> events{};
    ssize_t count = 0;
    if (!unwritten.empty()) {
        Write("");
    }
    while (watch >= 0 && (count = ::read(watch, events.data(), events.size())) > 0) {
        for (std::size_t at = 0; at < static_cast<std::size_t>(count);) {
            inotify_event event{};
            std::memcpy(&event, events.data() + at, sizeof event);
            const char* const name = events.data() + at + sizeof event;
            at += sizeof event + event.len;
            if (event.len > 0 && IsSpillName(name)) {
                Write(Line({{(event.mask & IN_CREATE) != 0 ? "spill" : "spill_gone", name}}));
            }
        }
    }
    if (watch < 0) {
        LookAtNames();
    }
}

/// What the kernel does not tell is looked for; made between two looks, by the time of making.
void TakeJournal::LookAtNames() {
    std::vector<std::pair<FileAge, std::string>> fresh;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(place, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (IsSpillName(name) && seen.insert(name).second) {
            fresh.emplace_back(AgeOf(entry->path().string()), name);
        }
    }
    std::sort(fresh.begin(), fresh.end());
    for (const auto& [age, name] : fresh) {
        Write(Line({{"spill", name}, {"looked_for", true}}));
    }
}

FileAge AgeOf(const std::string& path) {
    struct statx status {};
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_MTIME | STATX_INO,
                &status) != 0) {
        return {std::numeric_limits<std::int64_t>::max(), 0};
    }
    const auto& time = (status.stx_mask & STATX_BTIME) != 0 ? status.stx_btime : status.stx_mtime;
    return {time.tv_sec * 1'000'000'000 + time.tv_nsec, status.stx_ino};
}

std::optional<TakeRecord> TakeJournal::Read(const std::string& directory) {
    std::istringstream lines(ReadText(directory + "/" + kName));
    std::optional<TakeRecord> record;
    SpillNames spills;
    const Machine now = ThisMachine();
    for (std::string line; std::getline(lines, line);) {
        const json object = Parse(line);
        if (!object.is_object()) {
            continue;  // the last one may be half a line
        }
        try {
            if (!record) {
                if (object.at("journal") != kVersion) {
                    return std::nullopt;
                }
                record.emplace();
                record->started = object.at("started").get_ref<const json::number_integer_t&>();
                record->device = object.at("device").get<std::string>();
                record->format.dsd = object.at("type") == "dsd";
                record->format.rateHz = Whole(object, "rate_hz");
                record->format.channels = SmallWhole(object, "channels");
                record->format.bits = SmallWhole(object, "bits");
                record->out = object.at("out").get<std::string>();
                record->gain = object.at("gain_db").get<double>();
                record->tags = object.at("tags").get<std::map<std::string, std::string>>();
                record->machine = MachineOf(object);
            } else if (object.contains("spill")) {
                const auto name = object.at("spill").get<std::string>();
                if (IsSpillName(name)) {
                    spills.Add(name);
                    record->guessed = record->guessed || object.contains("looked_for");
                }
            } else if (object.contains("spill_gone")) {
                spills.Remove(object.at("spill_gone").get<std::string>());
            } else if (object.contains("mark")) {
                record->marks.push_back(Whole(object, "mark"));
            } else if (object.contains("start_frame")) {
                record->startFrame = Whole(object, "start_frame");
            } else if (object.contains("writing")) {
                const auto process = static_cast<long>(SmallWhole(object, "process"));
                const Machine writer = MachineOf(object);
                if (IsElsewhere(writer, now)) {
                    continue;  // a number of another machine's
                }
                record->writing.erase(process);
                record->ended.erase(process);
                if (HasRestarted(writer, now)) {
                    record->ended.insert(process);
                }
                const std::string path = DecodePath(object.at("writing").get<std::string>());
                if (!path.empty()) {
                    record->writing.emplace(process, path);
                }
            } else if (object.contains("state")) {
                record->state = object.at("state").get<std::string>();
            } else if (object.contains("restart")) {
                record->startFrame = 0;
                record->marks.clear();
            }
        } catch (const json::exception&) {
            if (!record || record->format.rateHz == 0) {
                return std::nullopt;
            }
        }
    }
    if (record && !IsPlausible(*record)) {
        return std::nullopt;
    }
    if (record) {
        record->spills = spills.InOrder();
    }
    return record;
}

}  // namespace vorrel::cli
