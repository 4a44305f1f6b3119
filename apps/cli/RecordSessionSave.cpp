// From the end of the recording to the last file.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "RecordSession.h"
#include "Volumes.h"
#include "vorrel/Vorrel.h"

namespace vorrel::cli {
namespace {

using namespace std::chrono_literals;

// How long a failed save's message may come after the save's end.
constexpr auto kJudgePeriod = 2s;

/// Where it was to be, before it was rescued to another place.
const std::string& WantedPath(const PlannedFile& file) {
    return file.place > 0 ? file.origin : file.path;
}

}  // namespace

void RecordSession::BeginSave() {
    if (abandonedBy != 0) {
        Enter(State::Done);
        return;
    }
    spares.Release(0);
    const std::uint64_t total = taken ? RecordedFrames() : 0;
    PlaceWishes(total);
    SavePlan plan = MakeSavePlan(wanted, format, total, TagBytesBound(record.tags));
    const bool nothing = total <= takeStart;
    for (const WantedFile& wish : plan.missed) {
        filesSkipped = true;
        reporter.Skipped(wish.path,
                         nothing ? "nothing was recorded" : "the recording ended before it begins");
    }
    for (const WantedFile& wish : plan.oversized) {
        filesSkipped = true;
        reporter.Skipped(wish.path, "it would pass " + LimitText(wish, format));
    }
    for (const PlannedFile& file : plan.files) {
        framesToSave += file.end - file.start;
        if (file.shortened && !wanted[file.wanted].whole) {
            reporter.Warning(file.path + " is shorter than wanted: the recording ended at " +
                             ClockText(SecondsOfFrame(file.end - takeStart, format.rateHz)));
        }
        if (file.tooLarge) {
            reporter.Warning(file.path + " would pass the 4 GiB that a WAV file can hold");
        } else if (file.part == 1) {
            const WantedFile& wish = wanted[file.wanted];
            reporter.Info(wish.path + " would pass " + LimitText(wish, format) +
                          "; saving it in parts");
        }
    }
    queue.assign(plan.files.begin(), plan.files.end());
    Enter(State::Saving);
    status.state = "saving";
    status.levels.clear();
    status.diskSecondsLeft.reset();
    SaveNext();
}

/// From frames of the take to those of what is stored, and the whole take into its tracks.
void RecordSession::PlaceWishes(std::uint64_t totalFrames) {
    std::vector<WantedFile> placed;
    for (WantedFile wish : wanted) {
        wish.start += takeStart;
        if (wish.end) {
            *wish.end += takeStart;
        }
        if (!wish.whole || totalFrames <= takeStart) {
            placed.push_back(wish);
            continue;
        }
        const std::vector<WantedFile> files = tracks->Split(wish, totalFrames);
        SayMissedCuts(wish, totalFrames, files.size());
        for (std::size_t track = 1; track < files.size(); ++track) {
            trackStarts.push_back(files[track].start - takeStart);
        }
        placed.insert(placed.end(), files.begin(), files.end());
    }
    wanted = std::move(placed);
}

/// A file that was announced and does not come is skipped; a mark at the very end is only said.
void RecordSession::SayMissedCuts(const WantedFile& whole, std::uint64_t totalFrames,
                                  std::size_t trackCount) {
    const std::vector<std::uint64_t> missed = tracks->Missed(whole, totalFrames);
    std::size_t number = trackCount;
    for (const std::uint64_t cut : missed) {
        if (announcedCuts.count(cut) == 0) {
            reporter.Warning("the mark at " + ClockText(SecondsOfFrame(cut, format.rateHz)) +
                             " is where the recording ends: no file begins there");
            continue;
        }
        filesSkipped = true;
        reporter.Skipped(TrackPath(whole.path, ++number, trackCount + missed.size()),
                         "the recording ended before it begins, at " +
                             ClockText(SecondsOfFrame(cut, format.rateHz)));
    }
}

/// A name for a file of this run: what the run has written is never replaced, whatever --force
/// says, and by whatever other way its name leads there.
std::string RecordSession::FreshName(const std::string& path) {
    const std::optional<FileIdentity> there = IdentityOf(path);
    if (!there || written.count(there) == 0) {
        return path;
    }
    std::string name = FreeName(path);
    reporter.Warning(path + " is another file of this recording; this one becomes " + name);
    return name;
}

/// Whether the volume of a directory has gone since it was checked, or another has come over it.
bool RecordSession::LeadsElsewhere(const std::string& directory) const {
    const auto checked = targetPlaces.find(directory);
    const std::optional<Place> now = PlaceOf(directory);
    return checked != targetPlaces.end() && now && !IsSamePlace(checked->second, *now);
}

/// A file that is saved in what was below its volume is not where it was wanted, whatever its path
/// says.
void RecordSession::FailIfElsewhere(const std::string& name) {
    const std::string directory = DirectoryOf(name);
    if (!LeadsElsewhere(directory)) {
        return;
    }
    storageFailed = true;
    Fail(Failure(ExitCode::Storage, "the volume that was at " + directory +
                                        " before the recording is gone, or another "
                                        "has come over it: " +
                                        name + " is on the one that is there now"));
}

void RecordSession::SaveNext() {
    current.reset();
    if (queue.empty() || abandonedBy != 0) {
        Enter(State::Done);
        return;
    }
    // One request a file, so that a file that fails takes no other with it.
    const PlannedFile& file = queue.front();
    // What --force may replace is what was there before the recording.
    const bool elsewhere = file.place > 0 || LeadsElsewhere(DirectoryOf(file.path));
    const std::string name = elsewhere ? FreeName(file.path) : FreshName(file.path);
    current.emplace(name, record.force && !elsewhere && name == file.path);
    journal->Writing(current->StagingPath());
    currentSkipped = false;
    VrSaveSetting setting;
    setting.path = current->StagingPath();
    setting.start = SecondsOfFrame(file.start, format.rateHz);
    // A bit past the end of a PCM recording where all is wanted: the engine knows its exact length
    // and cuts there. A DSD file must not pass it.
    const std::uint64_t past = file.toEnd && !format.dsd ? format.rateHz : 0;
    setting.end = SecondsOfFrame(file.end + past, format.rateHz);
    if (!file.plain) {
        setting.gain = record.gain;
        setting.tags = record.tags;
    }
    const std::vector<VrSaveSetting> request = {setting};
    Enter(State::Saving);
    if (const VrError error = Vorrel_SaveFile(&request); error != VrSuccess) {
        FileFailed(ErrorText(error));
    }
}

void RecordSession::JudgeFile() {
    if (abandonedBy != 0) {
        current.reset();
        Enter(State::Done);
        return;
    }
    const PlannedFile file = queue.front();
    doneName.clear();
    if (currentSkipped) {
        if (!file.tooLarge) {
            FileFailed("");
            return;
        }
        current.reset();
        filesSkipped = true;
        reporter.Skipped(file.path, "it would pass the 4 GiB that a WAV file can hold");
        queue.pop_front();
        if (wanted.front().whole) {
            framesSaved += file.end - file.start;
        } else {
            Rescue(file);  // nothing else has it
        }
        SaveNext();
        return;
    }
    const FileSummary summary =
        format.dsd ? SummarizeDsf(current->StagingPath()) : SummarizeWav(current->StagingPath());
    if (!summary.complete) {
        Enter(State::Judging);  // the failure's message follows the end of the save
        judgeUntil = Clock::now() + kJudgePeriod;
        return;
    }
    std::string name;
    try {
        name = current->Commit();
    } catch (const Failure& failure) {
        if (!current->IsKept()) {
            FileFailed(failure.what());
            return;
        }
        storageFailed = true;
        Fail(failure);
    }
    journal->Written();
    if (!name.empty()) {
        if (name != current->Target()) {
            storageFailed = true;
            Fail(Failure(ExitCode::Storage,
                         current->Target() +
                             (record.force ? " cannot be replaced" : " is there already") +
                             "; saved as " + name));
        }
        doneName = name;
        doneSummary = summary;
        written.insert(IdentityOf(name));
        journal->Saved(name);
        if (queue.front().place == 0) {
            FailIfElsewhere(name);
        }
        if (reporter.HasProgram()) {
            digest.emplace(name);
            Enter(State::Digesting);
            return;
        }
    }
    FileSaved("");
}

/// The file at the front of the queue is done, under `doneName`, if it has a name.
void RecordSession::FileSaved(const std::string& digestText) {
    const PlannedFile file = queue.front();
    if (!doneName.empty()) {
        reporter.Progress(doneName, 100.0);
        reporter.Saved(doneName, doneSummary.bytes, doneSummary.frames,
                       static_cast<double>(doneSummary.frames) / static_cast<double>(format.rateHz),
                       digestText);
        if (file.place > 0) {
            reporter.Rescued(file.origin, doneName);
        }
    }
    digest.reset();
    doneName.clear();
    framesSaved += file.end - file.start;
    queue.pop_front();
    SaveNext();
}

void RecordSession::FileFailed(std::string reason) {
    const PlannedFile file = queue.front();
    queue.pop_front();
    storageFailed = true;
    if (reason.empty()) {
        // While half of it is there: only what is missing is tried.
        const auto bytes = static_cast<double>(FileBytes(format, file.end - file.start, 0));
        reason = WhyNotWritten(file.path, bytes, bytes - (current ? current->StagedBytes() : 0.0));
    }
    current.reset();  // half a file takes the room of a whole one
    Fail(Failure(ExitCode::Storage,
                 file.path + " could not be saved" + (reason.empty() ? "" : ": " + reason)));
    Rescue(file);
    SaveNext();
}

/// The only copy of the recording goes with the end of the process: any other place is better.
void RecordSession::Rescue(const PlannedFile& file) {
    const std::uint64_t tagBytes = TagBytesBound(record.tags);
    const std::string own = DirectoryOf(file.path);
    const bool inParts =
        file.tooLarge ||
        LargestFile(own) < static_cast<double>(FileBytes(format, file.end - file.start, tagBytes));
    const char* home = std::getenv("HOME");
    std::vector<std::string> directories = {inParts || file.plain ? own : "", temporaryBase,
                                            startDirectory, home == nullptr ? "" : home};
    // A place that has failed is not tried again.
    const std::size_t tried = std::min(file.place, directories.size());
    directories.erase(directories.begin(),
                      directories.begin() + static_cast<std::ptrdiff_t>(tried));
    const RescuePlan plan =
        MakeRescuePlan(file, format, tagBytes, FindRescuePlaces(directories, tried + 1));
    queue.insert(queue.begin(), plan.files.begin(), plan.files.end());
    if (plan.files.empty() && !file.plain && (record.gain != 0.0 || !record.tags.empty())) {
        // It may be these that make every save fail.
        PlannedFile plain = file;
        plain.plain = true;
        plain.place = 0;
        plain.path = WantedPath(file);
        reporter.Warning(plain.path + ": tried again without gain and tags");
        Rescue(plain);
        return;
    }
    if (plan.lostFrom < file.end) {
        storeNeeded = storageFailed = true;
        framesSaved += file.end - plan.lostFrom;
        Fail(Failure(
            ExitCode::Storage,
            "no place was found for " + WantedPath(file) +
                (plan.lostFrom > file.start
                     ? " from " + ClockText(SecondsOfFrame(plan.lostFrom, format.rateHz)) + " on"
                     : "")));
    }
}

/// Leaves the user what the engine has stored, where there is something.
void RecordSession::LeaveStore() {
    std::error_code error;
    std::uintmax_t bytes = 0;
    for (std::filesystem::directory_iterator entry(spillDirectory->Path(), error), end;
         !error && entry != end; entry.increment(error)) {
        std::error_code unknown;
        const std::uintmax_t size = entry->file_size(unknown);
        bytes += unknown || entry->path().filename() == TakeJournal::kName ? 0 : size;
    }
    if (bytes == 0) {
        return;
    }
    keepStore = true;
    spillDirectory->Keep();
    reporter.Warning("what the engine has stored of the recording stays in " +
                     spillDirectory->Path() + ": " + SizeText(bytes) +
                     ", a file a channel of raw samples (and one of the preview); \"vorrel "
                     "salvage\" makes a file of it");
    reporter.Kept(spillDirectory->Path());
}

int RecordSession::Finish() {
    current.reset();
    if (!record.waveform.empty() && abandonedBy == 0 && taken) {
        try {
            DrawPicture();
        } catch (const Failure& failure) {
            storageFailed = true;
            Fail(failure);
        }
    }
    if (storeNeeded && abandonedBy == 0) {
        LeaveStore();
    }
    spillSync.reset();
    if (!keepStore) {
        // Gives the spill files back, so that the directory can go.
        std::ignore = Vorrel_New();
        spares.Release(0);
        journal.reset();
        spillDirectory->Remove();
    }
    keyboard->Suspend();
    LookAtTrace();
    if (abandonedBy != 0) {
        reporter.DropHook();  // who abandons waits for nothing
        Signals::EndWith(kSignalExit + abandonedBy);
        return kSignalExit + abandonedBy;
    }
    ExitCode code = ExitCode::Done;
    if (storageFailed) {
        code = ExitCode::Storage;
    } else if (deviceFailed) {
        code = ExitCode::Device;
    } else if (filesSkipped) {
        code = ExitCode::Skipped;
    } else if (buffersLost) {
        code = ExitCode::Dropouts;
    }
    Signals::EndWith(static_cast<int>(code));
    return static_cast<int>(code);
}

}  // namespace vorrel::cli
