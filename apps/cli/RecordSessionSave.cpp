// From the end of the recording to the last file.
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "OptionValues.h"
#include "RecordSession.h"
#include "Volumes.h"
#include "WaveformPicture.h"
#include "vorrel/Vorrel.h"

namespace vorrel::cli {
namespace {

using namespace std::chrono_literals;

// How long a failed save's message may come after the save's end.
constexpr auto kJudgePeriod = 2s;
constexpr std::uint64_t kPictureBlock = 65'536;  // preview frames read at once

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
    for (const PlannedFile& file : plan.files) {
        framesToSave += file.end - file.start;
        if (file.shortened && !wanted[file.wanted].whole) {
            reporter.Warning(file.path + " is shorter than wanted: the recording ended at " +
                             ClockText(SecondsOfFrame(file.end - takeStart, format.rateHz)));
        }
        if (file.tooLarge) {
            reporter.Warning(file.path + " would pass the 4 GiB that a WAV file can hold");
        } else if (file.part == 1) {
            reporter.Info(wanted[file.wanted].path +
                          " would pass the 4 GiB that a WAV file can hold; saving it in parts");
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
        const std::vector<WantedFile> files =
            wish.whole ? tracks->Split(wish, totalFrames) : std::vector<WantedFile>{wish};
        placed.insert(placed.end(), files.begin(), files.end());
    }
    wanted = std::move(placed);
}

void RecordSession::SaveNext() {
    current.reset();
    if (queue.empty() || abandonedBy != 0) {
        Enter(State::Done);
        return;
    }
    // One request a file, so that a file that fails takes no other with it.
    const PlannedFile& file = queue.front();
    // What this run has written is never replaced, whatever --force says.
    const bool fresh = file.place > 0 || written.count(file.path) > 0;
    const std::string name = fresh ? FreeName(file.path) : file.path;
    if (fresh && file.place == 0) {
        reporter.Warning(file.path + " is another file of this recording; this one becomes " +
                         name);
    }
    current.emplace(name, record.force && !fresh);
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
        written.insert(name);
        journal->Saved(name);
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
        reason = WhyNotWritten(file.path, bytes - (current ? current->StagedBytes() : 0.0));
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

/// What the engine has of the take, as its preview tells it.
void RecordSession::DrawPicture() {
    const std::uint64_t perFrame = format.dsd ? TakeFormat::kDsdFramesPerPreview : 1;
    const std::uint64_t first = takeStart / perFrame;
    std::uint64_t end = 0;
    if (Vorrel_GetPreviewDataLength(&end) != VrSuccess || end <= first) {
        reporter.Skipped(record.waveform, "nothing was recorded");
        filesSkipped = true;
        return;
    }
    if (stopAfter) {
        end = std::min(end, first + *stopAfter / perFrame);
    }
    PeakSummary peaks(end - first, kPictureColumns, format.channels);
    std::vector<std::int16_t> samples;
    for (std::uint64_t frame = first; frame < end;) {
        const std::uint64_t count = std::min(kPictureBlock, end - frame);
        samples.resize(static_cast<std::size_t>(count * format.channels));
        if (Vorrel_GetPreviewData(frame, frame + count, samples.data()) != VrSuccess) {
            throw Failure(ExitCode::Storage,
                          record.waveform + ": the preview can no longer be read");
        }
        peaks.Add(samples);
        frame += count;
        for (const int number : signals.Take()) {
            if (number != SIGCONT && number != SIGTSTP && number != SIGUSR1) {
                throw Failure(ExitCode::Storage, record.waveform + " is not drawn: interrupted");
            }
        }
    }
    const auto rate = static_cast<double>(format.PreviewRateHz());
    PictureTexts texts;
    texts.seconds = static_cast<double>(end - first) / rate;
    texts.title = wanted.front().path.substr(wanted.front().path.rfind('/') + 1);
    if (!IsUtf8(texts.title)) {
        // A name is any bytes, a text is not.
        std::replace_if(
            texts.title.begin(), texts.title.end(), [](char c) { return (c & 0x80) != 0; }, '?');
    }
    texts.title += "   " + ClockText(texts.seconds);
    for (const std::uint64_t cut : tracks->Cuts()) {
        const double seconds = static_cast<double>(cut) / static_cast<double>(format.rateHz);
        if (seconds < texts.seconds) {
            texts.marks.push_back(seconds);
        }
    }
    OutputFile file(picturePath, record.force);
    journal->Writing(file.StagingPath());
    try {
        DrawWaveform(peaks, texts, file.StagingPath(),
                     EndingOf(picturePath) == ".svg" ? PictureKind::Svg : PictureKind::Png);
    } catch (const Failure& failure) {
        const std::string reason = WhyNotWritten(picturePath, 0.0);
        throw Failure(ExitCode::Storage, picturePath + " could not be drawn: " +
                                             (reason.empty() ? failure.what() : reason));
    }
    journal->Written();
    const std::string name = file.Commit();
    reporter.Drawn(name);
    if (name != picturePath) {
        throw Failure(ExitCode::Storage,
                      picturePath + " is another file by now; the picture is " + name);
    }
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
    if (!keepStore) {
        // Gives the spill files back, so that the directory can go.
        std::ignore = Vorrel_New();
        spares.Release(0);
        journal.reset();
        spillDirectory->Remove();
    }
    keyboard->Suspend();
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
