// A recorder that goes while the recording is waited for, and comes back.
#include <utility>

#include "RecordSession.h"
#include "vorrel/Vorrel.h"

namespace vorrel::cli {
namespace {

using namespace std::chrono_literals;

constexpr auto kRecorderPeriod = 1s;  // between two looks for a recorder that has gone
// ... where it is listed and refused: the engine has a line for each time.
constexpr auto kRefusedPeriod = 10s;

}  // namespace

/// Selects the recorder of the common options.
std::shared_ptr<VrAudioDeviceInfo> RecordSession::SelectRecorder() {
    std::shared_ptr<VrAudioDeviceInfo> info = SelectDevice(common.device);
    const std::vector<std::uint64_t>& rates =
        record.dsd ? info->DSD_supported_freq : info->PCM_supported_freq;
    VrRecordSetting setting;
    setting.rec_type = record.dsd ? 1 : 0;
    setting.freq = ChooseRate(rates, record.rateHz, record.dsd);
    setting.bits = static_cast<std::uint16_t>(record.dsd ? 1 : record.bits);
    Require(Vorrel_SetRecordSetting(&setting), ExitCode::Device,
            info->device_name + " does not take the setting");
    format.rateHz = setting.freq;
    return info;
}

/// Nothing of the take is in it, so nothing is lost but time.
void RecordSession::MissRecorder() {
    if (recorderGone) {
        return;
    }
    recorderGone = true;
    nextRecorderLook = Clock::now() + kRecorderPeriod;
    reporter.Warning("the recorder is gone; it is looked for until the recording begins");
    if (state == State::Armed) {
        Enter(State::Restarting);
        std::ignore = Vorrel_Stop(false);
    }
}

/// What is plugged in again is a new recorder, without its settings.
/// @throws Failure (device): it is not there, or not to be used.
void RecordSession::FindRecorder() {
    const TakeFormat planned = format;
    const std::shared_ptr<VrAudioDeviceInfo> info = SelectRecorder();
    if (info->i_ch != planned.channels || format.rateHz != planned.rateHz) {
        format = planned;
        throw Failure(ExitCode::Device, "the recorder that is there is another one");
    }
    recorderGone = false;
    reporter.Info("the recorder is there again");
}

void RecordSession::LookForRecorder() {
    try {
        FindRecorder();
    } catch (const Failure& failure) {
        const bool refused = failure.error != VrErrorDeviceNotFound;  // may still be on its way
        nextRecorderLook = Clock::now() + (refused ? kRefusedPeriod : kRecorderPeriod);
        return;
    }
    if (IsArming()) {
        StartAgain();
        if (state == State::Starting) {
            reporter.State(StateName(state));
        }
    }
}

/// A recorder that was stopped, or is there again, while the recording is waited for.
void RecordSession::StartAgain() {
    if (const VrError error = StartEngine(); error != VrSuccess) {
        deviceFailed = true;
        Fail(Failure(ExitCode::Device, "the recorder does not start again: " + ErrorText(error),
                     error));
        Enter(State::Done);
    }
}

/// The moment has come.
void RecordSession::StartFromWaiting() {
    try {
        if (recorderGone) {
            FindRecorder();
        }
        Require(StartEngine(), ExitCode::Device, "the recording does not start");
    } catch (const Failure& failure) {
        deviceFailed = true;
        Fail(recorderGone
                 ? Failure(ExitCode::Device,
                           std::string("the recording does not start, for the recorder is gone: ") +
                               failure.what(),
                           failure.error)
                 : failure);
        Enter(State::Done);
        return;
    }
    takeAsked = !taken;  // armed first, where it is to be
    reporter.State(StateName(state));
}

}  // namespace vorrel::cli
