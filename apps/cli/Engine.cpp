#include "Engine.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <tuple>
#include <utility>

#include "EngineTrace.h"
#include "vorrel/Vorrel.h"

namespace vorrel::cli {
namespace {

constexpr std::uint64_t kUsualPcmRate = 48'000;
constexpr std::uint64_t kUsualDsdRate = 2'822'400;
constexpr std::string_view kSimulatedBackend = "simulated";
/// What the engine takes when the environment names none; the build knows.
constexpr std::string_view kDefaultBackend = VORREL_DEFAULT_BACKEND;

std::string Join(const std::vector<std::string>& texts) {
    std::string joined;
    for (const std::string& text : texts) {
        joined += (joined.empty() ? "" : ", ") + text;
    }
    return joined;
}

std::string Variable(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

std::vector<std::string> ListNames() {
    std::vector<std::string> names;
    Require(Vorrel_GetAudioDevices(&names), ExitCode::Device, "the recorders cannot be listed");
    return names;
}

/// The back end that the engine takes.
std::string Backend() {
    const std::string name = Variable("VORREL_BACKEND");
    return name.empty() ? std::string(kDefaultBackend) : name;
}

/// Where the user has named a back end, or set the simulated one up, and it cannot be had: why.
/// Only the first look in a process is told.
std::string BackendRefusal() {
    std::vector<std::string> lines;
    bool none = false;
    {
        EngineTrace trace;
        none = ListNames().empty();
        lines = trace.Take();
    }
    // Of the real one, none only means that nothing is plugged in.
    if (none && (IsSimulated() || Backend() != kDefaultBackend)) {
        return EngineTrace::Sentence(lines);
    }
    for (const std::string& line : lines) {
        // No reason, but not ours.
        std::ignore = ::write(PeoplesDescriptor(), (line + "\n").data(), line.size() + 1);
    }
    return "";
}

}  // namespace

void Notifications::Vorrel_NotifyOperationProc(VrRecOperation operation) {
    waiting.emplace_back(OperationDone{operation});
}

void Notifications::Vorrel_NotifyStreamPosProc(double seconds) {
    waiting.emplace_back(PositionMoved{seconds});
}

void Notifications::Vorrel_NotifyConvertPosProc(double) {}  // levels are read when drawn

void Notifications::Vorrel_NotifyErrorMessageProc(VrMessageKind kind, const std::string& message) {
    waiting.emplace_back(MessageCame{kind, message});
}

std::vector<Notification> Notifications::Take() {
    return std::exchange(waiting, {});
}

std::string ErrorText(VrError error) {
    switch (error) {
        case VrSuccess:
            return "done";
        case VrErrorNotInitialized:
            return "the engine is not initialised";
        case VrErrorInvalidParameter:
            return "an argument is not valid";
        case VrErrorFailed:
            return "the operation failed";
        case VrErrorDeviceNotFound:
            return "the recorder is not there";
        case VrErrorAlreadyInitialized:
            return "the engine is already in use";
        case VrErrorInvalidState:
            return "not possible now";
        case VrErrorNotSupported:
            return "the recorder does not support it";
        case VrErrorCanceled:
            return "cancelled";
    }
    return "unknown result";
}

void Require(VrError error, ExitCode exit, const std::string& what) {
    if (error != VrSuccess) {
        throw Failure(exit,
                      what + ": " + ErrorText(error) + " (" +
                          std::to_string(static_cast<std::int32_t>(error)) + ")",
                      error);
    }
}

std::shared_ptr<Notifications> OpenEngine(const CommonOptions& options) {
    if (options.simulate) {
        // The engine has no other way to be told, and it looks at its first device call.
        ::setenv("VORREL_BACKEND", "simulated", 1);
        if (!options.simulated.empty()) {
            ::setenv("VORREL_SIMULATED", options.simulated.c_str(), 1);
        }
    }
    auto notifications = std::make_shared<Notifications>();
    Require(Vorrel_Init(notifications), ExitCode::Device, "the engine does not start");
    const std::string refusal = BackendRefusal();
    if (!refusal.empty() && !options.simulated.empty()) {
        throw Failure(ExitCode::Usage,
                      "--simulate=" + options.simulated + " is not possible: " + refusal);
    }
    if (!refusal.empty()) {
        throw Failure(ExitCode::Device, "there is no recorder: " + refusal, VrErrorDeviceNotFound);
    }
    return notifications;
}

bool IsSimulated() {
    return Backend() == kSimulatedBackend;
}

std::vector<std::string> ListDevices() {
    return ListNames();
}

std::shared_ptr<VrAudioDeviceInfo> SelectDevice(const std::string& name) {
    const std::vector<std::string> names = ListDevices();
    if (names.empty()) {
        throw Failure(ExitCode::Device, "no recorder is connected", VrErrorDeviceNotFound);
    }
    const std::string& chosen = name.empty() ? names.front() : name;
    if (std::find(names.begin(), names.end(), chosen) == names.end()) {
        throw Failure(ExitCode::Device,
                      "no recorder is called \"" + chosen + "\"; there is: " + Join(names),
                      VrErrorDeviceNotFound);
    }
    const VrError error = Vorrel_SetAudioDevice(chosen.c_str());
    Require(error, ExitCode::Device,
            error == VrErrorFailed ? chosen + " cannot be used (another program may be using it)"
                                   : chosen + " cannot be used");
    std::shared_ptr<VrAudioDeviceInfo> info;
    Require(Vorrel_GetAudioDeviceInfo(&info), ExitCode::Device,
            chosen + " does not tell what it can do");
    return info;
}

std::uint64_t ChooseRate(const std::vector<std::uint64_t>& offered,
                         std::optional<std::uint64_t> wanted, bool dsd) {
    if (offered.empty()) {
        throw Failure(ExitCode::Device,
                      std::string("the recorder offers no ") + (dsd ? "DSD" : "PCM") + " rate");
    }
    const std::uint64_t rate = wanted.value_or(dsd ? kUsualDsdRate : kUsualPcmRate);
    if (std::find(offered.begin(), offered.end(), rate) != offered.end()) {
        return rate;
    }
    if (!wanted) {
        return offered.front();
    }
    std::vector<std::string> rates;
    rates.reserve(offered.size());
    for (const std::uint64_t possible : offered) {
        rates.push_back(std::to_string(possible));
    }
    throw Failure(ExitCode::Usage, "--rate " + std::to_string(rate) +
                                       " is not offered; possible are: " + Join(rates));
}

}  // namespace vorrel::cli
