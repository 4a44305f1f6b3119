#include "Commands.h"

#include <cstdio>
#include <memory>

#include "Engine.h"
#include "RecordSession.h"

namespace vorrel::cli {
namespace {

void PrintLine(const std::string& text) {
    std::fprintf(stdout, "%s\n", text.c_str());
}

std::string RatesText(const std::vector<std::uint64_t>& rates) {
    std::string text;
    for (const std::uint64_t rate : rates) {
        text += (text.empty() ? "" : ", ") + std::to_string(rate);
    }
    return text.empty() ? "none" : text + " Hz";
}

int RunDevices(const Options& options, Reporter& reporter) {
    const std::shared_ptr<Notifications> notifications = OpenEngine(options.common);
    const std::vector<std::string> names = ListDevices();
    if (names.empty()) {
        reporter.Info("no recorder is connected");
    }
    JsonOutput json;
    for (const std::string& name : names) {
        if (options.common.json) {
            json.Device(name);
        } else {
            PrintLine(name);
        }
    }
    return static_cast<int>(ExitCode::Done);
}

int RunInfo(const Options& options) {
    const std::shared_ptr<Notifications> notifications = OpenEngine(options.common);
    const std::shared_ptr<VrAudioDeviceInfo> info = SelectDevice(options.common.device);
    if (options.common.json) {
        JsonOutput().Info(*info);
        return static_cast<int>(ExitCode::Done);
    }
    char ids[32];
    std::snprintf(ids, sizeof ids, "%04x:%04x", static_cast<unsigned>(info->vid),
                  static_cast<unsigned>(info->pid));
    PrintLine("model:     " + info->device_name);
    PrintLine("USB ids:   " + std::string(ids));
    PrintLine("channels:  " + std::to_string(info->i_ch) + " in, " + std::to_string(info->o_ch) +
              " out");
    PrintLine("PCM bits:  " + std::to_string(info->PCM_supported_bits) + " in " +
              std::to_string(info->PCM_record_bits));
    PrintLine("PCM rates: " + RatesText(info->PCM_supported_freq));
    PrintLine("DSD rates: " + RatesText(info->DSD_supported_freq));
    return static_cast<int>(ExitCode::Done);
}

}  // namespace

int RunCommand(const Options& options, Reporter& reporter) {
    switch (options.command) {
        case Command::None:
            std::fputs(options.text.c_str(), stdout);
            return static_cast<int>(ExitCode::Done);
        case Command::Devices:
            return RunDevices(options, reporter);
        case Command::Info:
            return RunInfo(options);
        case Command::Record: {
            const int code = RecordSession(options, reporter).Run();
            reporter.Finish(code);
            return code;
        }
    }
    return static_cast<int>(ExitCode::Usage);
}

}  // namespace vorrel::cli
