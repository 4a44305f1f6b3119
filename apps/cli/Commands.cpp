#include "Commands.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Engine.h"
#include "RecordSession.h"
#include "doctor/Doctor.h"
#include "salvage/Salvage.h"

namespace vorrel::cli {
namespace {

std::string RatesText(const std::vector<std::uint64_t>& rates) {
    std::string text;
    for (const std::uint64_t rate : rates) {
        text += (text.empty() ? "" : ", ") + std::to_string(rate);
    }
    return text.empty() ? "none" : text + " Hz";
}

void SayIfSimulated(const Options& options, Reporter& reporter) {
    if (IsSimulated() && options.common.simulate) {
        reporter.Info("this is the simulated recorder");
    } else if (IsSimulated()) {
        reporter.Warning(kSimulatedWarning);
    }
}

int RunDevices(const Options& options, Reporter& reporter) {
    const std::shared_ptr<Notifications> notifications = OpenEngine(options.common);
    const std::vector<std::string> names = ListDevices();
    if (names.empty()) {
        reporter.Info("no recorder is connected");
    } else {
        SayIfSimulated(options, reporter);
    }
    for (const std::string& name : names) {
        if (options.common.json) {
            reporter.Device(name, IsSimulated());
        } else {
            reporter.Answer(name);
        }
    }
    reporter.RequireWritten();
    return reporter.FinishDone();
}

int RunInfo(const Options& options, Reporter& reporter) {
    const std::shared_ptr<Notifications> notifications = OpenEngine(options.common);
    const std::shared_ptr<VrAudioDeviceInfo> info = SelectDevice(options.common.device);
    SayIfSimulated(options, reporter);
    if (options.common.json) {
        reporter.DeviceInfo(*info, IsSimulated());
    } else {
        char ids[32];
        std::snprintf(ids, sizeof ids, "%04x:%04x", static_cast<unsigned>(info->vid),
                      static_cast<unsigned>(info->pid));
        reporter.Answer("model:     " + info->device_name);
        reporter.Answer("USB ids:   " + std::string(ids));
        reporter.Answer("channels:  " + std::to_string(info->i_ch) + " in, " +
                        std::to_string(info->o_ch) + " out");
        reporter.Answer("PCM bits:  " + std::to_string(info->PCM_supported_bits) + " in " +
                        std::to_string(info->PCM_record_bits));
        reporter.Answer("PCM rates: " + RatesText(info->PCM_supported_freq));
        reporter.Answer("DSD rates: " + RatesText(info->DSD_supported_freq));
    }
    reporter.RequireWritten();
    return reporter.FinishDone();
}

}  // namespace

int RunCommand(const Options& options, Reporter& reporter) {
    switch (options.command) {
        case Command::None:
            reporter.Answer(options.text.substr(0, options.text.find_last_not_of('\n') + 1));
            reporter.RequireWritten();
            return static_cast<int>(ExitCode::Done);
        case Command::Devices:
            return RunDevices(options, reporter);
        case Command::Info:
            return RunInfo(options, reporter);
        case Command::Doctor:
            return RunDoctor(options, reporter);
        case Command::Salvage:
            return RunSalvage(options, reporter);
        case Command::Record: {
            RecordSession session(options, reporter);
            int code = session.Run();
            if (!reporter.Finish(code) && code == static_cast<int>(ExitCode::Done)) {
                code =
                    static_cast<int>(ExitCode::Storage);  // somebody waits for what he was to read
            }
            if (session.KeepsStore()) {
                // Without the engine's own end, which would delete what it has stored.
                std::_Exit(code);
            }
            return code;
        }
    }
    return static_cast<int>(ExitCode::Usage);
}

}  // namespace vorrel::cli
