#include "JsonOutput.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace vorrel::cli {
namespace {

using Json = nlohmann::ordered_json;

void Write(Output& output, const Json& object, Output::Kind kind = Output::Kind::Lasting) {
    output.Write(object.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n', kind);
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

void JsonOutput::Device(const std::string& name, bool simulated) {
    Write(output, {{"event", "device"}, {"device", name}, {"simulated", simulated}});
}

void JsonOutput::Info(const VrAudioDeviceInfo& info, bool simulated) {
    Write(output, {{"event", "info"},
                   {"device", info.device_name},
                   {"simulated", simulated},
                   {"vendor_id", info.vid},
                   {"product_id", info.pid},
                   {"input_channels", info.i_ch},
                   {"output_channels", info.o_ch},
                   {"pcm_bits", info.PCM_supported_bits},
                   {"pcm_container_bits", info.PCM_record_bits},
                   {"pcm_rates_hz", info.PCM_supported_freq},
                   {"dsd_rates_hz", info.DSD_supported_freq}});
}

void JsonOutput::Checked(const Finding& finding) {
    constexpr const char* kVerdicts[] = {"good", "note", "problem"};
    Write(output, {{"event", "check"},
                   {"topic", finding.topic},
                   {"verdict", kVerdicts[static_cast<std::size_t>(finding.verdict)]},
                   {"message", finding.text},
                   {"advice", finding.advice}});
}

void JsonOutput::Start(const std::string& device, bool simulated, const TakeFormat& format) {
    Write(output, {{"event", "start"},
                   {"device", device},
                   {"simulated", simulated},
                   {"type", format.dsd ? "dsd" : "pcm"},
                   {"rate_hz", format.rateHz},
                   {"bits", format.SampleBits()},
                   {"channels", format.channels}});
}

void JsonOutput::State(const std::string& state) {
    Write(output, {{"event", "state"}, {"state", state}});
}

void JsonOutput::Position(double seconds) {
    Write(output, {{"event", "position"}, {"seconds", Rounded(seconds, 10.0)}},
          Output::Kind::Passing);
}

void JsonOutput::Levels(const std::vector<Level>& levels) {
    Json peaks = Json::array();
    Json averages = Json::array();
    Json clipped = Json::array();
    const auto decibels = [](double dbfs) {
        return std::isfinite(dbfs) ? Json(Rounded(dbfs, 10.0)) : Json(nullptr);
    };
    for (const Level& level : levels) {
        peaks.push_back(decibels(level.peakDbfs));
        averages.push_back(decibels(level.rmsDbfs));
        clipped.push_back(level.clipped);
    }
    Write(output,
          {{"event", "level"}, {"peak_dbfs", peaks}, {"rms_dbfs", averages}, {"clipped", clipped}},
          Output::Kind::Passing);
}

void JsonOutput::Progress(const std::string& file, double percent) {
    Write(output, {{"event", "progress"}, {"file", file}, {"percent", Rounded(percent, 10.0)}},
          Output::Kind::Passing);
}

void JsonOutput::Saved(const std::string& file, std::uint64_t bytes, std::uint64_t frames,
                       double seconds, const std::string& digest) {
    Json object = {{"event", "saved"},
                   {"file", file},
                   {"bytes", bytes},
                   {"frames", frames},
                   {"seconds", seconds}};
    if (!digest.empty()) {
        object["sha256"] = digest;
    }
    Write(output, object);
}

void JsonOutput::Marked(std::size_t number, double seconds) {
    Write(output, {{"event", "mark"}, {"number", number}, {"seconds", seconds}});
}

void JsonOutput::Lost(double seconds) {
    Write(output, {{"event", "lost"}, {"seconds", Rounded(seconds, 10.0)}});
}

void JsonOutput::Trace(const std::string& line) {
    Write(output, {{"event", "trace"}, {"message", line}});
}

void JsonOutput::Drawn(const std::string& file) {
    Write(output, {{"event", "drawn"}, {"file", file}});
}

void JsonOutput::LeftBehind(const LeftTake& take) {
    Json object = {{"event", "take"},     {"take", take.name},     {"directory", take.directory},
                   {"bytes", take.bytes}, {"frames", take.frames}, {"seconds", take.Seconds()}};
    if (take.record) {
        object["started"] = take.record->started;
        object["device"] = take.record->device;
        object["type"] = take.record->format.dsd ? "dsd" : "pcm";
        object["rate_hz"] = take.record->format.rateHz;
        object["channels"] = take.record->format.channels;
        object["bits"] = take.record->format.SampleBits();
        object["out"] = take.record->out;
        object["state"] = take.record->state;
        object["half_written"] = take.halfWritten;
        object["elsewhere"] = take.elsewhere;
    }
    Write(output, object);
}

void JsonOutput::Rescued(const std::string& wanted, const std::string& file) {
    Write(output, {{"event", "rescued"}, {"wanted", wanted}, {"file", file}});
}

void JsonOutput::Kept(const std::string& directory) {
    Write(output, {{"event", "kept"}, {"directory", directory}});
}

void JsonOutput::Skipped(const std::string& file, const std::string& reason) {
    Write(output, {{"event", "skipped"}, {"file", file}, {"reason", reason}});
}

void JsonOutput::Warning(const std::string& text) {
    Write(output, {{"event", "warning"}, {"message", text}});
}

void JsonOutput::Error(const std::string& text, ExitCode exit, VrError error) {
    Write(output, {{"event", "error"},
                   {"kind", ExitName(exit)},
                   {"code", static_cast<std::int32_t>(error)},
                   {"message", text}});
}

void JsonOutput::Finish(int exitCode) {
    Write(output, {{"event", "finish"}, {"exit_code", exitCode}});
}

}  // namespace vorrel::cli
