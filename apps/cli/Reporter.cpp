#include "Reporter.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <tuple>
#include <utility>

#include "EngineTrace.h"
#include "TimeRange.h"

namespace vorrel::cli {
namespace {

using namespace std::chrono_literals;

constexpr auto kLastWait = 1s;      // for a reader that does not read, at the end
constexpr auto kShortWait = 200ms;  // ... before the process stops
constexpr auto kHookWait = 60s;     // for hooks that still run, at the end

}  // namespace

Reporter::Reporter(bool wantsJson, bool wantsQuiet, bool stdoutClosed)
    : error(PeoplesDescriptor()),
      out(STDOUT_FILENO, stdoutClosed ? EBADF : 0),
      screen(PeoplesDescriptor(), error),
      quiet(wantsQuiet) {
    if (wantsJson) {
        json.emplace(out);
    }
}

void Reporter::Device(const std::string& name, bool simulated) {
    if (json) {
        json->Device(name, simulated);
    }
}

void Reporter::DeviceInfo(const VrAudioDeviceInfo& info, bool simulated) {
    if (json) {
        json->Info(info, simulated);
    }
}

void Reporter::Checked(const Finding& finding) {
    if (json) {
        json->Checked(finding);
        return;
    }
    constexpr const char* kMarks[] = {"ok      ", "note    ", "PROBLEM "};
    Answer(kMarks[static_cast<std::size_t>(finding.verdict)] + finding.topic + ": " + finding.text);
    if (!finding.advice.empty()) {
        Answer("        -> " + finding.advice);
    }
}

void Reporter::RequireWritten() {
    if (!out.Flush(std::nullopt)) {
        throw Failure(ExitCode::Storage, std::string("the output could not be written: ") +
                                             std::strerror(out.Error()));
    }
}

void Reporter::ClearScreen() {
    screen.Clear();
    std::ignore = error.Flush(kShortWait);
    std::ignore = out.Flush(kShortWait);
}

void Reporter::Info(const std::string& text) {
    if (!quiet) {
        screen.Print(text);
    }
}

void Reporter::Warning(const std::string& text) {
    screen.Print("vorrel: warning: " + text);
    if (json) {
        json->Warning(text);
    }
    RunHook("warning", {{"VORREL_MESSAGE", text}});
}

void Reporter::RunHook(const std::string& event, Hooks::Variables variables) {
    if (hooks) {
        hooks->Run(event, std::move(variables));
    }
}

void Reporter::LookAtHook() {
    if (hooks) {
        SayOfHook(hooks->Reap());
    }
}

/// No `Warning`, which would run the hook again.
void Reporter::SayOfHook(const std::string& wrong) {
    if (wrong.empty()) {
        return;
    }
    screen.Print("vorrel: warning: " + wrong);
    if (json) {
        json->Warning(wrong);
    }
}

void Reporter::Error(const Failure& failure) {
    screen.Print(std::string("vorrel: ") + failure.what());
    if (json) {
        json->Error(failure.what(), failure.exit, failure.error);
    }
    RunHook("error", {{"VORREL_MESSAGE", failure.what()}});
}

void Reporter::Start(const std::string& device, bool simulated, const TakeFormat& format) {
    Info("recording from " + std::string(simulated ? "the simulated " : "") + device + ": " +
         std::to_string(format.channels) + (format.channels == 1 ? " channel, " : " channels, ") +
         std::to_string(format.rateHz) + " Hz, " +
         (format.dsd ? std::string("DSD") : std::to_string(format.bits) + " bits"));
    if (json) {
        json->Start(device, simulated, format);
    }
}

void Reporter::State(const std::string& state) {
    if (json) {
        json->State(state);
    }
    RunHook("state", {{"VORREL_STATE", state}});
}

void Reporter::Position(double seconds) {
    if (json) {
        json->Position(seconds);
    }
}

void Reporter::Status(const StatusLine& status) {
    if (!quiet) {
        screen.Draw(status);
    }
    if (json && !status.levels.empty()) {
        json->Levels(status.levels);
    }
}

void Reporter::Progress(const std::string& file, double percent) {
    if (json) {
        json->Progress(file, percent);
    }
}

void Reporter::Saved(const std::string& file, std::uint64_t bytes, std::uint64_t frames,
                     double seconds, const std::string& digest) {
    Info("saved " + file + " (" + ClockText(seconds) + ", " + std::to_string(bytes) + " bytes)");
    if (json) {
        json->Saved(file, bytes, frames, seconds, digest);
    }
    RunHook("saved", {{"VORREL_FILE", file}, {"VORREL_SECONDS", std::to_string(seconds)}});
}

void Reporter::Marked(std::size_t number, double seconds) {
    if (json) {
        json->Marked(number, seconds);
    }
    RunHook("mark", {{"VORREL_MARK", std::to_string(number)}});
}

void Reporter::Lost(double seconds) {
    if (json) {
        json->Lost(seconds);
    }
    RunHook("lost", {{"VORREL_SECONDS", std::to_string(seconds)}});
}

void Reporter::Trace(const std::string& line) {
    screen.Print(line);
    if (json) {
        json->Trace(line);
    }
}

void Reporter::Drawn(const std::string& file) {
    Info("drawn " + file);
    if (json) {
        json->Drawn(file);
    }
    RunHook("drawn", {{"VORREL_FILE", file}});
}

void Reporter::LeftBehind(const LeftTake& take) {
    if (json) {
        json->LeftBehind(take);
    }
}

void Reporter::Rescued(const std::string& wanted, const std::string& file) {
    Warning("what was to become " + wanted + " is in " + file);
    if (json) {
        json->Rescued(wanted, file);
    }
}

void Reporter::Kept(const std::string& directory) {
    if (json) {
        json->Kept(directory);
    }
}

void Reporter::Skipped(const std::string& file, const std::string& reason) {
    screen.Print("vorrel: skipped " + file + ": " + reason);
    if (json) {
        json->Skipped(file, reason);
    }
    RunHook("skipped", {{"VORREL_FILE", file}, {"VORREL_MESSAGE", reason}});
}

bool Reporter::Finish(int exitCode) {
    screen.Clear();
    if (hooks) {
        RunHook("finish", {{"VORREL_EXIT_CODE", std::to_string(exitCode)}});
        SayOfHook(hooks->Finish(kHookWait));
    }
    bool written = true;
    if (json) {
        json->Finish(exitCode);
        std::ignore = out.Flush(kLastWait);
        // A reader that has gone, or was never there, has its reasons; a place that takes nothing
        // is worth a word.
        if (const int reason = out.Error(); reason != 0 && reason != EPIPE) {
            written = reason == EBADF;
            screen.Print(std::string("vorrel: warning: the JSON output could not be written: ") +
                         std::strerror(reason));
        }
    }
    std::ignore = error.Flush(kLastWait);
    return written;
}

int Reporter::FinishDone() {
    const bool written = Finish(static_cast<int>(ExitCode::Done));
    return static_cast<int>(written ? ExitCode::Done : ExitCode::Storage);
}

}  // namespace vorrel::cli
