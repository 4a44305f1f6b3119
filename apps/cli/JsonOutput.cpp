#include "JsonOutput.h"

#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace vorrel::cli {
namespace {

using Json = nlohmann::ordered_json;

void Write(const Json& object) {
    std::string line = object.dump(-1, ' ', false, Json::error_handler_t::replace);
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

/// Decimals of a tenth without the tail that binary gives them.
double Rounded(double value, double steps) {
    return std::round(value * steps) / steps;
}

const char* ExitName(ExitCode code) {
    switch (code) {
        case ExitCode::Done:
            return "done";
        case ExitCode::Usage:
            return "usage";
        case ExitCode::Device:
            return "device";
        case ExitCode::Storage:
            return "storage";
        case ExitCode::Dropouts:
            return "dropouts";
        case ExitCode::Skipped:
            return "skipped";
    }
    return "unknown";
}

}  // namespace

void JsonOutput::Device(const std::string& name) {
    Write({{"event", "device"}, {"device", name}});
}

void JsonOutput::Info(const VrAudioDeviceInfo& info) {
    Write({{"event", "info"},
           {"device", info.device_name},
           {"vendor_id", info.vid},
           {"product_id", info.pid},
           {"input_channels", info.i_ch},
           {"output_channels", info.o_ch},
           {"pcm_bits", info.PCM_supported_bits},
           {"pcm_container_bits", info.PCM_record_bits},
           {"pcm_rates_hz", info.PCM_supported_freq},
           {"dsd_rates_hz", info.DSD_supported_freq}});
}

void JsonOutput::Start(const std::string& device, const TakeFormat& format) {
    Write({{"event", "start"},
           {"device", device},
           {"type", "pcm"},
           {"rate_hz", format.rateHz},
           {"bits", format.bits},
           {"channels", format.channels}});
}

void JsonOutput::State(const std::string& state) {
    Write({{"event", "state"}, {"state", state}});
}

void JsonOutput::Position(double seconds) {
    Write({{"event", "position"}, {"seconds", Rounded(seconds, 10.0)}});
}

void JsonOutput::Levels(const std::vector<Level>& levels) {
    Json peaks = Json::array();
    Json clipped = Json::array();
    for (const Level& level : levels) {
        peaks.push_back(std::isfinite(level.peakDbfs) ? Json(Rounded(level.peakDbfs, 10.0))
                                                      : Json(nullptr));
        clipped.push_back(level.clipped);
    }
    Write({{"event", "level"}, {"peak_dbfs", peaks}, {"clipped", clipped}});
}

void JsonOutput::Progress(const std::string& file, double percent) {
    Write({{"event", "progress"}, {"file", file}, {"percent", Rounded(percent, 10.0)}});
}

void JsonOutput::Saved(const std::string& file, std::uint64_t bytes, std::uint64_t frames,
                       double seconds) {
    Write({{"event", "saved"},
           {"file", file},
           {"bytes", bytes},
           {"frames", frames},
           {"seconds", seconds}});
}

void JsonOutput::Skipped(const std::string& file, const std::string& reason) {
    Write({{"event", "skipped"}, {"file", file}, {"reason", reason}});
}

void JsonOutput::Warning(const std::string& text) {
    Write({{"event", "warning"}, {"message", text}});
}

void JsonOutput::Error(const std::string& text, ExitCode exit, VrError error) {
    Write({{"event", "error"},
           {"kind", ExitName(exit)},
           {"code", static_cast<std::int32_t>(error)},
           {"message", text}});
}

void JsonOutput::Finish(int exitCode) {
    Write({{"event", "finish"}, {"exit_code", exitCode}});
}

}  // namespace vorrel::cli
