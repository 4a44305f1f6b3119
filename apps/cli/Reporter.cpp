#include "Reporter.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <tuple>

#include "TimeRange.h"

namespace vorrel::cli {
namespace {

using namespace std::chrono_literals;

constexpr auto kLastWait = 1s;      // for a reader that does not read, at the end
constexpr auto kShortWait = 200ms;  // ... before the process stops

}  // namespace

Reporter::Reporter(bool wantsJson, bool wantsQuiet, bool stdoutClosed)
    : error(STDERR_FILENO),
      out(STDOUT_FILENO, stdoutClosed ? EBADF : 0),
      screen(STDERR_FILENO, error),
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
}

void Reporter::Error(const Failure& failure) {
    screen.Print(std::string("vorrel: ") + failure.what());
    if (json) {
        json->Error(failure.what(), failure.exit, failure.error);
    }
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
                     double seconds) {
    Info("saved " + file + " (" + ClockText(seconds) + ", " + std::to_string(bytes) + " bytes)");
    if (json) {
        json->Saved(file, bytes, frames, seconds);
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
}

bool Reporter::Finish(int exitCode) {
    screen.Clear();
    bool written = true;
    if (json) {
        json->Finish(exitCode);
        std::ignore = out.Flush(kLastWait);
        // A reader that has gone, or was never there, has its reasons; a place that takes nothing is
        // worth a word.
        if (const int reason = out.Error(); reason != 0 && reason != EPIPE) {
            written = reason == EBADF;
            screen.Print(std::string("vorrel: warning: the JSON output could not be written: ") +
                         std::strerror(reason));
        }
    }
    std::ignore = error.Flush(kLastWait);
    return written;
}

}  // namespace vorrel::cli
