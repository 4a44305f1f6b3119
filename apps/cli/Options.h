#pragma once

#include <cstdint>
#include <ctime>
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
    std::vector<double> splitAt;              ///< Seconds: where `out` goes on in a new file.
    std::optional<double> maxFileTime;        ///< Seconds after which it does so by itself.
    bool preRecord = false;                   ///< The recorder runs, the recording waits for a key.
    std::optional<double> preRoll;            ///< The same, and begins so many seconds before it.
    std::optional<std::time_t> startAt;       ///< It begins by itself at that moment.
    std::string waveform;                     ///< A picture of the recording, "" = none.
    std::string hook;                         ///< A shell command for every event, "" = none.
    bool force = false;
};

struct SalvageOptions {
    std::string take;  ///< Which one, "" = list them.
    std::string out;   ///< Where it is saved to, "" = nowhere (list it, or remove it).
    std::optional<std::uint32_t> bits;  ///< PCM; none = what the take was to be saved with.
    bool force = false;
    bool remove = false;  ///< Deletes what the take has left: after it has been saved, or unsaved.
};

enum class Command { None, Devices, Info, Record, Salvage, Doctor };

struct Options {
    Command command = Command::None;  ///< None: `text` answers (help, version).
    CommonOptions common;
    RecordOptions record;
    SalvageOptions salvage;
    std::string
        tempDirectory;  ///< Where takes are kept until they are saved, "" = the usual place.
    std::string text;
};

/// Reads the command line. What can be judged without a recorder is judged here.
/// @param arguments  Without the program's name.
/// @throws Failure (usage): one line that says what is wrong.
Options ParseOptions(const std::vector<std::string>& arguments);

}  // namespace vorrel::cli
