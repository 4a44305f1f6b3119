#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ExitCode.h"
#include "Hooks.h"
#include "JsonOutput.h"
#include "Output.h"
#include "Screen.h"
#include "doctor/Finding.h"
#include "salvage/LeftTake.h"

namespace vorrel::cli {

/// Tells people (stderr), programs (stdout, with --json) and the user's hook the same things. Never
/// waits for a reader, but for a short time at the end.
class Reporter {
public:
    /// @param stdoutClosed  Whether the parent has given the process no stdout.
    Reporter(bool json, bool quiet, bool stdoutClosed);

    /// From now on runs a shell command at every event.
    void UseHook(const std::string& command) { hooks.emplace(command); }
    /// Neither runs nor awaits it any more.
    void DropHook() { hooks.reset(); }
    /// What to poll for `LookAtHook`, -1 = nothing.
    int HookDescriptor() const { return hooks ? hooks->Descriptor() : -1; }
    void LookAtHook();
    /// Whether a program wants to know what only programs want to know.
    bool HasProgram() const { return json.has_value(); }

    /// Whether anybody would see levels and progress between two messages.
    bool HasLiveAudience() const { return json || (screen.IsTerminal() && !quiet); }

    void Info(const std::string& text);  ///< For people, unless --quiet.
    void Warning(const std::string& text);
    void Error(const Failure& failure);
    /// A line of an answer, on stdout.
    void Answer(const std::string& line) { out.Write(line + "\n", Output::Kind::Lasting); }
    /// The answers as objects; only with --json.
    void Device(const std::string& name, bool simulated);
    void DeviceInfo(const VrAudioDeviceInfo& info, bool simulated);
    /// One finding, as an answer or an object.
    void Checked(const Finding& finding);
    /// Waits until stdout has taken everything.
    /// @throws Failure (storage) when it has not.
    void RequireWritten();

    void Start(const std::string& device, bool simulated, const TakeFormat& format);
    void State(const std::string& state);
    void Position(double seconds);
    /// The moving line and its counterpart for programs.
    void Status(const StatusLine& status);
    void Progress(const std::string& file, double percent);
    /// @param digest  The file's SHA-256, "" = unknown.
    void Saved(const std::string& file, std::uint64_t bytes, std::uint64_t frames, double seconds,
               const std::string& digest);
    void Marked(std::size_t number, double seconds);
    /// Buffers of the recording were lost, near that position.
    void Lost(double seconds);
    /// A line of the engine's own, also for who wants quiet.
    void Trace(const std::string& line);
    /// A picture of the recording is there.
    void Drawn(const std::string& file);
    /// A take that was left behind, as an object.
    void LeftBehind(const LeftTake& take);
    /// A file that could not be had where it was wanted has become `file`.
    void Rescued(const std::string& wanted, const std::string& file);
    /// Not all could be saved, or surely so; what the engine has stored stays in `directory`.
    void Kept(const std::string& directory);
    void Skipped(const std::string& file, const std::string& reason);
    /// The last object, then a short time for all that is queued.
    /// @return false when stdout has refused an object; a reader that has gone, or
    ///         was never there, refuses nothing.
    bool Finish(int exitCode);
    /// `Finish` of a command that has done its work. @return The exit code.
    int FinishDone();
    /// Before the process stops or ends without this object's end.
    void ClearScreen();

private:
    void RunHook(const std::string& event, Hooks::Variables variables);
    void SayOfHook(const std::string& wrong);

    Output error, out;
    Screen screen;
    std::optional<JsonOutput> json;
    std::optional<Hooks> hooks;
    bool quiet;
};

}  // namespace vorrel::cli
