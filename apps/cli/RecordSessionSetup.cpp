// From the command line to a recorder that is ready.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <limits>
#include <utility>

#include "EngineTrace.h"
#include "RecordSession.h"
#include "Volumes.h"
#include "salvage/LeftTake.h"
#include "vorrel/Vorrel.h"

namespace vorrel::cli {
namespace {

// To write one file: itself, what names its volume, tables of text encodings, its directory. And
// two of the thread that brings what is stored to the disk.
constexpr std::size_t kDescriptorsToSave = 10;

std::string ShortestText(const TakeFormat& format) {
    return format.dsd ? "eight one-bit samples, which are a byte" : "one sample";
}

}  // namespace

void RecordSession::CheckTargets() {
    enum class Kind { Whole, Range, Track, Picture };
    std::vector<std::pair<std::string, Kind>> asked;  // name as given
    if (!record.out.empty()) {
        asked.emplace_back(record.out, Kind::Whole);
    }
    for (const Range& range : record.ranges) {
        asked.emplace_back(range.file, Kind::Range);
    }
    // Of a limit of length it is known only that the second file comes next, if any.
    const std::size_t trackCount = !record.splitAt.empty() ? record.splitAt.size() + 1
                                   : record.maxFileTime    ? 2
                                                           : 0;
    // Beside the file itself, and not beside a link to it.
    const std::string whole = trackCount > 0 ? ResolveTarget(record.out) : "";
    if (trackCount > 0 && !HasRoomForNumber(whole)) {
        throw Failure(ExitCode::Usage, record.out + ": the name is too long for a number in it");
    }
    for (std::size_t number = 1; number <= trackCount; ++number) {
        asked.emplace_back(TrackPath(whole, number, trackCount), Kind::Track);
    }
    if (!record.waveform.empty()) {
        asked.emplace_back(record.waveform, Kind::Picture);
    }
    std::set<std::pair<std::optional<FileIdentity>, std::string>> places;  // directory and name
    for (const auto& [name, kind] : asked) {
        const std::string path = ResolveTarget(name);
        const std::string directory = DirectoryOf(path);
        if (!places.emplace(IdentityOf(directory), path.substr(directory.size())).second) {
            throw Failure(ExitCode::Usage, name + " would be written twice");
        }
        OutputFile(path, record.force).Check();
        if (const std::optional<Place> place = PlaceOf(directory)) {
            targetPlaces.emplace(directory, *place);
        }
        if (kind == Kind::Picture) {
            picturePath = path;
        }
        // What the picture shows is the whole, whether or not a range becomes a file.
        if (kind == Kind::Whole || (kind == Kind::Picture && pictureTitle.empty())) {
            pictureTitle = path.substr(path.rfind('/') + 1);
        }
        if (kind == Kind::Whole || kind == Kind::Range) {
            WantedFile wish;
            wish.path = path;
            wish.whole = kind == Kind::Whole;
            wish.largest = LargestFile(DirectoryOf(path));
            wanted.push_back(wish);
        }
    }
}

void RecordSession::OpenTemporary() {
    std::error_code error;
    startDirectory = std::filesystem::current_path(error).string();
    temporaryBase = TemporaryBase(tempDirectory);
    for (const Leftover& leftover : PrivateDirectory::FindLeftovers(temporaryBase)) {
        if (leftover.bytes > 0 && leftover.elsewhere.empty()) {
            reporter.Warning("a recording that was killed has left " + SizeText(leftover.bytes) +
                             " in " + leftover.path + "; \"vorrel salvage\" saves or deletes it");
        }
    }
    spillDirectory.emplace(temporaryBase);
    journal.emplace(spillDirectory->Path());
}

void RecordSession::OpenDevice() {
    notifications = OpenEngine(common);
    Require(Vorrel_SetTempDirectory(spillDirectory->Path().c_str()), ExitCode::Storage,
            "the temporary directory is not accepted");
    const std::shared_ptr<VrAudioDeviceInfo> info = SelectRecorder();
    format.dsd = record.dsd;
    format.bits = record.bits;
    format.channels = info->i_ch;
    if (format.channels == 0) {
        throw Failure(ExitCode::Device, info->device_name + " has no inputs");
    }
    // As many as the spill files will take are tried, too.
    spares.Reserve(kDescriptorsToSave + format.channels + 1);
    spares.Release(kDescriptorsToSave);
    ReadWishes(info->device_name);
    if (IsSimulated() && !common.simulate) {
        reporter.Warning(kSimulatedWarning);
    }
    reporter.Start(info->device_name, IsSimulated(), format);
}

/// Times become frames as soon as the rate is known.
void RecordSession::ReadWishes(const std::string& deviceName) {
    if (record.duration) {
        stopAfter = FrameAt(*record.duration, format);
        if (*stopAfter == 0) {
            throw Failure(ExitCode::Usage, "--duration is shorter than " + ShortestText(format));
        }
    }
    const std::size_t firstRange = wanted.size() - record.ranges.size();
    for (std::size_t index = 0; index < wanted.size(); ++index) {
        WantedFile& wish = wanted[index];
        wish.end = stopAfter;
        if (index >= firstRange) {
            const Range& range = record.ranges[index - firstRange];
            wish.start = FrameAt(range.start, format);
            if (range.end) {
                wish.end = FrameAt(*range.end, format);
            }
            if (wish.end && *wish.end <= wish.start) {
                throw Failure(ExitCode::Usage,
                              range.file + ": the range is shorter than " + ShortestText(format));
            }
        }
    }
    tracks.emplace(format);
    for (const double seconds : record.splitAt) {
        const std::optional<Tracks::Cut> cut = tracks->Add(FrameAt(seconds, format));
        if (!cut) {
            throw Failure(ExitCode::Usage, "--split-at " + ClockText(seconds) +
                                               ": there is no room for a file before it");
        }
        if (stopAfter && cut->frame >= *stopAfter) {
            throw Failure(ExitCode::Usage,
                          "--split-at " + ClockText(seconds) +
                              ": the nearest place for a cut is where the recording ends "
                              "(--duration " +
                              ClockText(*record.duration) + ")");
        }
        announcedCuts.insert(cut->frame);
        tracks->NumberAlways();
        if (cut->movedFrames != 0) {
            reporter.Info("cut at " + ClockText(seconds) + MovedText(*cut, format));
        }
    }
    if (record.maxFileTime) {
        tracks->LimitLength(FrameAt(*record.maxFileTime, format));
    }

    TakeRecord take;
    take.started = std::time(nullptr);
    take.device = deviceName;
    take.format = format;
    take.out = record.out.empty() ? "" : wanted.front().path;
    take.gain = record.gain;
    take.tags = record.tags;
    journal->Begin(take);
    for (const std::uint64_t cut : tracks->Cuts()) {
        journal->Mark(cut);
    }
}

void RecordSession::CheckSpace() {
    const Room room = MeasureRoom();
    if (room.seconds <= 0.0) {
        throw Failure(ExitCode::Storage,
                      "there is no space left for a recording in " + room.fullest);
    }
    if (record.duration && room.seconds < *record.duration) {
        reporter.Warning("the space left in " + room.fullest + " is enough for " +
                         ClockText(room.seconds) + " only");
    }
}

void RecordSession::WarnOfLimits() {
    WarnOfStoreLimit();
    const std::uint64_t tagBytes = TagBytesBound(record.tags);
    const bool wholeIsSaved = !record.out.empty();
    for (const WantedFile& wish : wanted) {
        const std::uint64_t most = MostFramesOf(wish, format, tagBytes);
        const bool volumeLimits = most < MostFrames(format, tagBytes);
        if (!wish.end && !volumeLimits) {
            continue;  // hours away, and cut when it comes to that
        }
        bool passes = !wish.end;
        if (wish.end) {
            const std::vector<WantedFile> files =
                wish.whole ? tracks->Split(wish, *wish.end) : std::vector<WantedFile>{wish};
            passes = std::any_of(files.begin(), files.end(), [&](const WantedFile& file) {
                return file.end.value_or(*wish.end) - file.start > most;
            });
        }
        if (!passes) {
            continue;
        }
        const bool inParts = wish.whole || (volumeLimits && !wholeIsSaved);
        reporter.Warning(
            wish.path + (wish.end ? " would pass " : " may pass ") + LimitText(wish, format) +
            " (" + ClockText(SecondsOfFrame(most, format.rateHz)) + " at this format); it " +
            (wish.end ? "will" : "would") + " be " + (inParts ? "saved in parts" : "skipped"));
    }
}

void RecordSession::WarnOfStoreLimit() {
    const double largest = LargestFile(spillDirectory->Path());
    const double seconds = largest / format.LargestSpillRate();
    if (largest < std::numeric_limits<double>::max() &&
        (!record.duration || seconds < *record.duration)) {
        reporter.Warning("a file in " + temporaryBase + " can have " +
                         SizeText(static_cast<std::uint64_t>(largest)) +
                         ": the recording ends when about " + ClockText(seconds) + " are stored");
    }
}

void RecordSession::SayKeys() {
    if (record.startAt) {
        std::tm local{};
        ::localtime_r(&*record.startAt, &local);
        char text[32];
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
        reporter.Info("the recording begins at " + std::string(text));
    }
    if (keyboard->Descriptor() >= 0) {
        reporter.Info(IsArming() || record.startAt
                          ? "r: record; space: pause and resume; m: mark; q: stop and save"
                          : "space: pause and resume; m: mark; q: stop and save");
        return;
    }
    if (::isatty(STDIN_FILENO) == 0 && ::isatty(PeoplesDescriptor()) == 0) {
        return;  // nobody sits there who could do any of it
    }
    const bool marks = Signals::Heeds(SIGUSR1);
    if (marks && (IsArming() || record.startAt)) {
        reporter.Info("SIGUSR1: record");
    }
    if (!record.duration) {
        reporter.Info(std::string(Signals::Heeds(SIGINT) ? "SIGINT or SIGTERM" : "SIGTERM") +
                      ": stop and save" + (marks ? "; SIGUSR1: mark" : ""));
    }
}

}  // namespace vorrel::cli
