#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ExitCode.h"
#include "LevelMeter.h"
#include "SavePlan.h"
#include "vorrel/VrRecords.h"

namespace vorrel::cli {

/// The program's side: one JSON object a line on stdout, each with an "event", written at once.
/// Unknown bytes in texts become U+FFFD; a level of digital silence is null. A reader that has gone
/// away ends nothing.
class JsonOutput {
public:
    void Device(const std::string& name);
    void Info(const VrAudioDeviceInfo& info);
    void Start(const std::string& device, const TakeFormat& format);
    void State(const std::string& state);
    void Position(double seconds);
    void Levels(const std::vector<Level>& levels);
    void Progress(const std::string& file, double percent);
    void Saved(const std::string& file, std::uint64_t bytes, std::uint64_t frames, double seconds);
    void Skipped(const std::string& file, const std::string& reason);
    void Warning(const std::string& text);
    void Error(const std::string& text, ExitCode exit, VrError error);
    void Finish(int exitCode);
};

}  // namespace vorrel::cli
