#include "doctor/Doctor.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <tuple>

#include "Engine.h"
#include "PrivateDirectory.h"
#include "doctor/RecorderCheck.h"
#include "doctor/SchedulingCheck.h"
#include "doctor/StorageCheck.h"
#include "doctor/SystemTexts.h"

namespace vorrel::cli {
namespace {

void Append(Findings& findings, Findings more) {
    findings.insert(findings.end(), std::make_move_iterator(more.begin()),
                    std::make_move_iterator(more.end()));
}

/// What the engine makes of the recorders: each is selected, which switches it to PCM.
Findings CheckEngine(const Options& options) {
    Findings findings;
    try {
        const std::shared_ptr<Notifications> notifications = OpenEngine(options.common);
        const std::string kind = IsSimulated() ? "the simulated " : "";
        if (IsSimulated() && !options.common.simulate) {
            findings.push_back({"engine", Verdict::Note, kSimulatedWarning, ""});
        }
        const std::vector<std::string> names = ListDevices();
        if (names.empty()) {
            findings.push_back({"engine", Verdict::Problem, "the engine finds no recorder", ""});
            return findings;
        }
        // Recorders of one model have one name: the first of them is the one that is chosen.
        const std::string name =
            options.common.device.empty() ? names.front() : options.common.device;
        const std::shared_ptr<VrAudioDeviceInfo> info = SelectDevice(name);
        findings.push_back({"engine", Verdict::Good,
                            kind + name + " can be used: " + std::to_string(info->i_ch) +
                                (info->i_ch == 1 ? " channel, " : " channels, ") +
                                std::to_string(info->PCM_supported_freq.size()) + " PCM rates, " +
                                std::to_string(info->DSD_supported_freq.size()) + " DSD rates",
                            ""});
        if (info->PCM_supported_freq.empty()) {
            findings.push_back({"engine", Verdict::Problem,
                                "it offers no PCM rate: it may have stayed in its DSD mode",
                                "switch it off and on again"});
        }
        if (info->DSD_supported_freq.empty()) {
            findings.push_back({"engine", Verdict::Note, "it offers no DSD rate", ""});
        }
    } catch (const Failure& failure) {
        findings.push_back({"engine", Verdict::Problem, failure.what(), ""});
    }
    return findings;
}

ExitCode Judge(const Findings& findings) {
    ExitCode code = ExitCode::Done;
    for (const Finding& finding : findings) {
        if (finding.verdict != Verdict::Problem) {
            continue;
        }
        if (finding.topic == "recorder" || finding.topic == "engine") {
            return ExitCode::Device;
        }
        code = ExitCode::Storage;
    }
    return code;
}

/// Where the engine has a recorder that it can use, none of these keeps it from recording.
void Soften(Findings& findings) {
    for (Finding& finding : findings) {
        if (finding.verdict == Verdict::Problem) {
            finding.verdict = Verdict::Note;
        }
    }
}

}  // namespace

int RunDoctor(const Options& options, Reporter& reporter) {
    const std::string temporary = TemporaryBase(options.tempDirectory);
    const SystemTexts system;
    // The engine last: while it has the recorder, that is in use.
    Findings findings = CheckRecorders(system, BuiltForModel());
    const Findings engine = CheckEngine(options);
    const bool usable = std::none_of(engine.begin(), engine.end(), [](const Finding& finding) {
        return finding.verdict == Verdict::Problem;
    });
    if (IsSimulated() || usable) {
        Soften(findings);  // a sound server lets go of the recorder when it is asked
    }
    Append(findings, engine);
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    Append(findings, CheckSoundServers(system, runtime == nullptr ? "" : runtime));
    Append(findings, CheckScheduling(system, TryProcessLimits()));
    Append(findings, CheckStorage(temporary));
    for (const Finding& finding : findings) {
        reporter.Checked(finding);
    }
    reporter.RequireWritten();
    const auto code = static_cast<int>(Judge(findings));
    std::ignore = reporter.Finish(code);
    return code;
}

}  // namespace vorrel::cli
