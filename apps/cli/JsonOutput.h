#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ExitCode.h"
#include "LevelMeter.h"
#include "Output.h"
#include "SavePlan.h"
#include "doctor/Finding.h"
#include "salvage/LeftTake.h"
#include "vorrel/VrRecords.h"

namespace vorrel::cli {

/// The program's side: one JSON object a line, each with an "event". Unknown bytes in texts become
/// U+FFFD; a level of digital silence is null. A reader that has gone away ends nothing.
class JsonOutput {
public:
    explicit JsonOutput(Output& texts) : output(texts) {}

    void Device(const std::string& name, bool simulated);
    void Info(const VrAudioDeviceInfo& info, bool simulated);
    void Checked(const Finding& finding);
    void Start(const std::string& device, bool simulated, const TakeFormat& format);
    void State(const std::string& state);
    void Position(double seconds);
    void Levels(const std::vector<Level>& levels);
    void Progress(const std::string& file, double percent);
    void Saved(const std::string& file, std::uint64_t bytes, std::uint64_t frames, double seconds,
               const std::string& digest);
    void Marked(std::size_t number, double seconds);
    void Lost(double seconds);
    void Trace(const std::string& line);
    void Drawn(const std::string& file);
    void LeftBehind(const LeftTake& take);
    void Rescued(const std::string& wanted, const std::string& file);
    void Kept(const std::string& directory);
    void Skipped(const std::string& file, const std::string& reason);
    void Warning(const std::string& text);
    void Error(const std::string& text, ExitCode exit, VrError error);
    void Finish(int exitCode);

private:
    Output& output;
};

}  // namespace vorrel::cli
