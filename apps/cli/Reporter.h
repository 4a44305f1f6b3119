#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ExitCode.h"
#include "JsonOutput.h"
#include "Screen.h"

namespace vorrel::cli {

/// Tells people (stderr) and programs (stdout, with --json) the same things.
class Reporter {
public:
    Reporter(bool json, bool quiet);

    /// Whether anybody would see levels and progress between two messages.
    bool HasLiveAudience() const { return json || (screen.IsTerminal() && !quiet); }

    void Info(const std::string& text);  ///< For people, unless --quiet.
    void Warning(const std::string& text);
    void Error(const Failure& failure);
    void Start(const std::string& device, const TakeFormat& format);
    void State(const std::string& state);
    void Position(double seconds);
    /// The moving line and its counterpart for programs.
    void Status(const StatusLine& status);
    void Progress(const std::string& file, double percent);
    void Saved(const std::string& file, std::uint64_t bytes, std::uint64_t frames, double seconds);
    void Skipped(const std::string& file, const std::string& reason);
    void Finish(int exitCode);
    /// Before the process stops or ends without this object's end.
    void ClearScreen() { screen.Clear(); }

private:
    Screen screen;
    std::optional<JsonOutput> json;
    bool quiet;
};

}  // namespace vorrel::cli
