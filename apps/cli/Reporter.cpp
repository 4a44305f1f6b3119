#include "Reporter.h"

#include <unistd.h>

#include <cstdio>

#include "TimeRange.h"

namespace vorrel::cli {

Reporter::Reporter(bool wantsJson, bool wantsQuiet) : screen(STDERR_FILENO), quiet(wantsQuiet) {
    if (wantsJson) {
        json.emplace();
    }
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

void Reporter::Start(const std::string& device, const TakeFormat& format) {
    Info("recording from " + device + ": " + std::to_string(format.channels) +
         (format.channels == 1 ? " channel, " : " channels, ") + std::to_string(format.rateHz) +
         " Hz, " + std::to_string(format.bits) + " bits");
    if (json) {
        json->Start(device, format);
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

void Reporter::Skipped(const std::string& file, const std::string& reason) {
    screen.Print("vorrel: skipped " + file + ": " + reason);
    if (json) {
        json->Skipped(file, reason);
    }
}

void Reporter::Finish(int exitCode) {
    screen.Clear();
    if (json) {
        json->Finish(exitCode);
    }
}

}  // namespace vorrel::cli
