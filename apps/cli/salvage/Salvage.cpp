#include "salvage/Salvage.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <filesystem>
#include <system_error>
#include <tuple>
#include <vector>

#include "FileDigest.h"
#include "OptionValues.h"
#include "OutputFile.h"
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
    return text + (take.record->out.empty() ? "" : "  for " + take.record->out);
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

/// Whether a take is there, and in use: one that still runs, or is salvaged at this moment.
bool IsInUse(const std::string& base, const std::string& name) {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(base, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string found = entry->path().filename().string();
        std::error_code unknown;
        if (found.find(name) != std::string::npos && found.rfind("vorrel-", 0) == 0 &&
            entry->is_directory(unknown)) {
            return true;
        }
    }
    return false;
}

/// By its whole name, or by what makes it the only one.
LeftTake FindTake(const std::string& base, const std::string& name) {
    std::vector<LeftTake> fitting;
    for (LeftTake& take : FindLeftTakes(base)) {
        if (take.name == name || take.directory == name) {
            return take;
        }
        if (take.name.find(name) != std::string::npos) {
            fitting.push_back(std::move(take));
        }
    }
    if (fitting.empty() && IsInUse(base, name)) {
        throw Failure(ExitCode::Storage, "\"" + name + "\" is in use by another program");
    }
    if (fitting.empty()) {
        throw Failure(ExitCode::Usage, "no take called \"" + name + "\" is left behind in " + base);
    }
    if (fitting.size() > 1) {
        throw Failure(ExitCode::Usage, "\"" + name + "\" fits " + std::to_string(fitting.size()) +
                                           " takes in " + base);
    }
    return fitting.front();
}

void RemoveTake(const LeftTake& take, Reporter& reporter) {
    std::error_code error;
    std::filesystem::remove_all(take.directory, error);
    if (error) {
        throw Failure(ExitCode::Storage,
                      take.directory + " could not be deleted: " + error.message());
    }
    reporter.Info("deleted " + take.directory);
}

/// The signal that asks for the end, 0 = none.
int EndSignal(Signals& signals) {
    for (const int number : signals.Take()) {
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

void SaveOne(const SpillFiles& files, const TakeFormat& format, const PlannedFile& planned,
             bool force, Reporter& reporter, Signals& signals) {
    OutputFile file(ResolveTarget(planned.path), force);
    file.Check();
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
    const std::string name = file.Commit();
    reporter.Saved(name, summary.bytes, summary.frames,
                   static_cast<double>(summary.frames) / static_cast<double>(format.rateHz),
                   reporter.HasProgram() ? DigestOf(name, signals) : "");
}

void Save(const LeftTake& take, const SalvageOptions& wish, Reporter& reporter) {
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
    if (!files.Doubt().empty()) {
        reporter.Warning(files.Doubt() + "; listen to what is saved of the take");
    }
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
        SaveOne(files, format, planned, wish.force, reporter, signals);
    }
    if (take.record->gain != 0.0 || !take.record->tags.empty()) {
        reporter.Info(
            "saved as it was recorded, without the gain and the tags that it was to have");
    }
}

}  // namespace

int RunSalvage(const Options& options, Reporter& reporter) {
    const SalvageOptions& wish = options.salvage;
    const std::string base = TemporaryBase(options.tempDirectory);
    if (wish.take.empty()) {
        return List(base, options.common.json, reporter);
    }
    const LeftTake take = FindTake(base, wish.take);
    if (wish.out.empty() && !wish.remove) {
        throw Failure(ExitCode::Usage,
                      "salvage " + wish.take + ": give it the name of a file, or --remove it");
    }
    const LeftoverLock lock(take.directory);
    if (!wish.out.empty()) {
        try {
            Save(take, wish, reporter);
        } catch (const Ended& ended) {
            const int code = kSignalExit + ended.signal;
            reporter.Warning("ended by signal " + std::to_string(ended.signal) +
                             "; the take stays in " + take.directory);
            std::ignore = reporter.Finish(code);
            return code;
        }
    }
    if (wish.remove) {
        RemoveTake(take, reporter);
    } else {
        reporter.Info("the take stays in " + take.directory + "; --remove deletes it");
    }
    return reporter.FinishDone();
}

}  // namespace vorrel::cli
