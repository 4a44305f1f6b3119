#include "salvage/Salvage.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <system_error>
#include <tuple>
#include <vector>

#include "FileDigest.h"
#include "OptionValues.h"
#include "OutputFile.h"
#include "PrivateDirectory.h"
#include "SavePlan.h"
#include "Signals.h"
#include "TimeRange.h"
#include "Volumes.h"
#include "salvage/LeftTake.h"
#include "salvage/SalvageWriter.h"
#include "salvage/SpillFiles.h"

namespace vorrel::cli {
namespace {

std::string MomentText(std::time_t moment) {
    std::tm local{};
    ::localtime_r(&moment, &local);
    std::array<char, 32> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M", &local)};
}

std::string FormatText(const TakeFormat& format) {
    return std::string(format.dsd ? "DSD" : "PCM") + " " + std::to_string(format.rateHz) + " Hz, " +
           std::to_string(format.channels) + (format.channels == 1 ? " channel" : " channels");
}

std::string TakeText(const LeftTake& take) {
    std::string text = take.name + "  ";
    if (!take.record) {
        return text + SizeText(take.bytes) + " without a journal: not ours to read";
    }
    text += MomentText(take.record->started) + "  " + FormatText(take.record->format) + "  ";
    text += take.frames == 0 ? "nothing of it has reached the disk"
                             : ClockText(take.Seconds()) + ", " + SizeText(take.bytes);
    text += take.record->out.empty() ? "" : "  for " + take.record->out;
    text += take.elsewhere.empty() ? "" : "  of another machine (" + take.elsewhere + ")";
    for (const std::string& path : take.halfWritten) {
        text += " and a half-written " + path;
    }
    return text;
}

int List(const std::string& base, bool json, Reporter& reporter) {
    const std::vector<LeftTake> takes = FindLeftTakes(base);
    if (takes.empty()) {
        reporter.Info("nothing is left behind in " + base);
    }
    for (const LeftTake& take : takes) {
        if (json) {
            reporter.LeftBehind(take);
        } else {
            reporter.Answer(TakeText(take));
        }
    }
    reporter.RequireWritten();
    return reporter.FinishDone();
}

std::string NameOf(const std::string& directory) {
    return std::filesystem::path(directory).filename().string();
}

/// Whether a path, in any spelling, is that of a take's directory.
bool IsSameDirectory(const std::string& directory, const std::string& path) {
    std::error_code unknown;
    return path.find('/') != std::string::npos &&
           std::filesystem::equivalent(directory, path, unknown);
}

/// Whether a take that fits is in use: one that still runs, or is salvaged at this moment.
bool IsInUse(const std::string& base, const std::string& name) {
    const std::vector<std::string> used = PrivateDirectory::FindUsed(base);
    return std::any_of(used.begin(), used.end(), [&name](const std::string& directory) {
        return NameOf(directory).find(name) != std::string::npos ||
               IsSameDirectory(directory, name);
    });
}

/// By its whole name, or by what makes it the only one. What has no journal is called by its whole
/// name only: that it is a take is a guess.
LeftTake FindTake(const std::string& base, const std::string& name) {
    std::vector<LeftTake> fitting;
    std::string guess;
    for (LeftTake& take : FindLeftTakes(base)) {
        if (take.name == name || IsSameDirectory(take.directory, name)) {
            return take;
        }
        if (take.name.find(name) == std::string::npos) {
            continue;
        }
        if (take.record) {
            fitting.push_back(std::move(take));
        } else {
            guess = "; " + take.name + " has no journal: call it by its whole name";
        }
    }
    if (fitting.empty() && IsInUse(base, name)) {
        throw Failure(ExitCode::Storage, "\"" + name + "\" is in use by another program");
    }
    if (fitting.empty()) {
        throw Failure(ExitCode::Usage,
                      "no take called \"" + name + "\" is left behind in " + base + guess);
    }
    if (fitting.size() > 1) {
        throw Failure(ExitCode::Usage, "\"" + name + "\" fits " + std::to_string(fitting.size()) +
                                           " takes in " + base);
    }
    return fitting.front();
}

/// Some of them, for a line.
std::string NamesText(const std::vector<std::string>& names) {
    constexpr std::size_t kMost = 3;
    std::string text;
    for (std::size_t index = 0; index < std::min(names.size(), kMost); ++index) {
        text += (index == 0 ? "" : ", ") + names[index];
    }
    return names.size() <= kMost ? text
                                 : text + " and " + std::to_string(names.size() - kMost) + " more";
}

void RemoveTake(const LeftTake& take, const LeftoverLock& lock, Reporter& reporter) {
    // First, as long as the journal names them.
    for (const std::string& path : take.halfWritten) {
        if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
            throw Failure(ExitCode::Storage,
                          path + " could not be deleted: " + std::strerror(errno));
        }
        reporter.Info("deleted " + path);
    }
    if (const std::vector<std::string> staying = lock.DeleteTake(); !staying.empty()) {
        throw Failure(ExitCode::Storage, take.directory +
                                             " stays: there is more in it than the "
                                             "take (" +
                                             NamesText(staying) + ")");
    }
    if (::rmdir(take.directory.c_str()) != 0) {
        throw Failure(ExitCode::Storage,
                      take.directory + " could not be deleted: " + std::strerror(errno));
    }
    reporter.Info("deleted " + take.directory);
}

/// The signal that asks for the end, 0 = none.
int EndSignal(Signals& signals) {
    for (const auto& [number, when] : signals.Take()) {
        if (number == SIGTSTP) {
            ::kill(::getpid(), SIGSTOP);
        } else if (number != SIGCONT && number != SIGUSR1) {
            return number;
        }
    }
    return 0;
}

/// A salvage that a signal has ended; the take stays.
struct Ended {
    int signal;
};

/// A file must not be made out of what it is made of, or go with it.
void RefuseInside(const std::string& path, const LeftTake& take) {
    std::error_code error;
    const std::string directory = std::filesystem::canonical(take.directory, error).string() + "/";
    if (!error && path.compare(0, directory.size(), directory) == 0) {
        throw Failure(ExitCode::Usage, path + " would be inside the take itself");
    }
}

std::string DigestOf(const std::string& path, Signals& signals) {
    constexpr std::size_t kStep = std::size_t{32} << 20;
    FileDigest digest(path);
    while (!digest.Step(kStep)) {
        if (const int number = EndSignal(signals); number != 0) {
            throw Ended{number};
        }
    }
    return digest.Text();
}

void SaveOne(const LeftTake& take, const SpillFiles& files, const TakeFormat& format,
             const PlannedFile& planned, bool force, Reporter& reporter, Signals& signals) {
    OutputFile file(ResolveTarget(planned.path), force);
    file.Check();
    // The journal of another machine's take may be one that is still written there.
    if (take.elsewhere.empty()) {
        TakeJournal::NoteWriting(take.directory, file.StagingPath());
    }
    const auto total = static_cast<double>(planned.end - planned.start);
    int said = -1;
    int endedBy = 0;
    try {
        WriteSalvaged(files, format, planned.start, planned.end, file.StagingPath(),
                      [&](std::uint64_t frames) {
                          const int percent =
                              static_cast<int>(100.0 * static_cast<double>(frames) / total);
                          if (percent != said) {
                              reporter.Progress(planned.path, percent);
                              said = percent;
                          }
                          endedBy = EndSignal(signals);
                          return endedBy == 0;
                      });
    } catch (const Failure&) {
        if (endedBy != 0) {
            throw Ended{endedBy};
        }
        throw;
    }
    const FileSummary summary =
        format.dsd ? SummarizeDsf(file.StagingPath()) : SummarizeWav(file.StagingPath());
    if (!summary.complete) {
        throw Failure(ExitCode::Storage, planned.path + " could not be written as a whole");
    }
    if (take.elsewhere.empty()) {
        TakeJournal::NoteWritten(take.directory);
    }
    const std::string name = file.Commit();
    reporter.Saved(name, summary.bytes, summary.frames,
                   static_cast<double>(summary.frames) / static_cast<double>(format.rateHz),
                   reporter.HasProgram() ? DigestOf(name, signals) : "");
}

/// @return What is to be doubted of the take, "" = nothing.
std::string Save(const LeftTake& take, const SalvageOptions& wish, Reporter& reporter) {
    if (!take.record) {
        throw Failure(ExitCode::Usage, take.name + " has no journal that tells its format");
    }
    TakeFormat format = take.record->format;
    if (!format.dsd) {
        const bool known = format.bits == 16 || format.bits == 24 || format.bits == 32;
        format.bits = wish.bits.value_or(known ? format.bits : 24);
    } else if (wish.bits) {
        throw Failure(ExitCode::Usage, "--bits is for a PCM take: a DSD sample is one bit");
    }
    CheckEnding(wish.out, format.dsd);
    if (take.frames == 0) {
        throw Failure(ExitCode::Storage, "nothing of " + take.name + " has reached the disk");
    }
    const SpillFiles files(take.directory, *take.record);
    WantedFile wanted;
    wanted.path = ResolveTarget(wish.out);
    RefuseInside(wanted.path, take);
    wanted.whole = true;
    wanted.start = take.record->startFrame;
    wanted.largest = LargestFile(DirectoryOf(wanted.path));
    const SavePlan plan = MakeSavePlan({wanted}, format, files.Frames(), 0);
    if (plan.files.empty()) {
        throw Failure(ExitCode::Storage, "nothing of " + take.name + " is left");
    }
    if (plan.files.size() > 1) {
        reporter.Info(wanted.path + " would pass " + LimitText(wanted, format) +
                      "; saving it in parts");
    }
    double bytes = 0.0;
    double largest = 0.0;
    for (const PlannedFile& planned : plan.files) {
        if (std::find(take.halfWritten.begin(), take.halfWritten.end(), planned.path) !=
            take.halfWritten.end()) {
            throw Failure(ExitCode::Usage,
                          planned.path + " goes with the take: choose another name");
        }
        OutputFile(planned.path, wish.force).Check();
        const auto size = static_cast<double>(FileBytes(format, planned.end - planned.start, 0));
        bytes += size;
        largest = std::max(largest, size);
    }
    if (const std::string reason = WhyNotWritten(wanted.path, largest, bytes); !reason.empty()) {
        throw Failure(ExitCode::Storage, wanted.path + " cannot be written: " + reason);
    }
    Signals signals;
    for (const PlannedFile& planned : plan.files) {
        SaveOne(take, files, format, planned, wish.force, reporter, signals);
    }
    if (take.record->gain != 0.0 || !take.record->tags.empty()) {
        reporter.Info(
            "saved as it was recorded, without the gain and the tags that it was to have");
    }
    return files.Doubt();
}

}  // namespace

int RunSalvage(const Options& options, Reporter& reporter) {
    SalvageOptions wish = options.salvage;
    // As a shell completes the name of a directory.
    while (wish.take.size() > 1 && wish.take.back() == '/') {
        wish.take.pop_back();
    }
    const std::string base = TemporaryBase(options.tempDirectory);
    if (wish.take.empty()) {
        return List(base, options.common.json, reporter);
    }
    const LeftTake take = FindTake(base, wish.take);
    if (wish.out.empty() && !wish.remove) {
        throw Failure(ExitCode::Usage,
                      "salvage " + wish.take + ": give it the name of a file, or --remove it");
    }
    if (!take.elsewhere.empty()) {
        if (wish.remove) {
            throw Failure(ExitCode::Storage,
                          take.name + " is of another machine (" + take.elsewhere +
                              "), where it may still be recorded: --remove it there. If there is "
                              "no such machine any more, delete " +
                              take.directory + " yourself");
        }
        reporter.Warning(take.name + " is of another machine (" + take.elsewhere +
                         "), where it may still be recorded: only what has come here is saved");
    }
    const LeftoverLock lock(take.directory);
    std::string doubt;
    if (!wish.out.empty()) {
        try {
            doubt = Save(take, wish, reporter);
        } catch (const Ended& ended) {
            const int code = kSignalExit + ended.signal;
            reporter.Warning("ended by signal " + std::to_string(ended.signal) +
                             "; the take stays in " + take.directory);
            std::ignore = reporter.Finish(code);
            return code;
        }
    }
    if (!doubt.empty()) {
        // The only copy of what the file may lack: it goes when somebody has listened to the file.
        reporter.Kept(take.directory);
        throw Failure(ExitCode::Storage, "what was saved may not be the whole take: " + doubt +
                                             ". Listen to it; the take stays in " + take.directory +
                                             (wish.remove ? " in spite of --remove" : "") +
                                             ", and \"vorrel salvage " + take.name +
                                             " --remove\" alone deletes it");
    }
    if (wish.remove) {
        RemoveTake(take, lock, reporter);
    } else {
        reporter.Info("the take stays in " + take.directory + "; --remove deletes it");
    }
    return reporter.FinishDone();
}

}  // namespace vorrel::cli
