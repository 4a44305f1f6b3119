#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "TimeRange.h"

namespace vorrel::cli {

/// What every command takes.
struct CommonOptions {
    bool json = false;
    bool quiet = false;
    bool simulate = false;
    std::string simulated;  ///< The simulated recorder's configuration, "" = its own default.
    std::string device;     ///< "" = the first one.
};

struct RecordOptions {
    std::string out;  ///< "" = ranges only.
    std::vector<Range> ranges;
    bool dsd = false;
    std::optional<std::uint64_t> rateHz;      ///< None = the usual one if offered, else the lowest.
    std::uint32_t bits = 24;                  ///< PCM only.
    std::optional<double> duration;           ///< Seconds of recording, pauses cut out.
    double gain = 0.0;                        ///< Decibels.
    std::map<std::string, std::string> tags;  ///< With the engine's keys.
    std::string tempDirectory;                ///< "" = $TMPDIR, else /tmp. The doctor's too.
    bool force = false;
};

enum class Command { None, Devices, Info, Record, Doctor };

struct Options {
    Command command = Command::None;  ///< None: `text` answers (help, version).
    CommonOptions common;
    RecordOptions record;
    std::string text;
};

/// Reads the command line. What can be judged without a recorder is judged here.
/// @param arguments  Without the program's name.
/// @throws Failure (usage): one line that says what is wrong.
Options ParseOptions(const std::vector<std::string>& arguments);

}  // namespace vorrel::cli
