#include "Engine.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string_view>
#include <tuple>
#include <utility>

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

/// The engine says why it has no recorder in a trace line on standard error, and nowhere else.
/// Between making and `Take`, such lines come here.
class TraceCatcher {
public:
    TraceCatcher()
        : real(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)),
          caught(::memfd_create("vorrel-trace", MFD_CLOEXEC)) {
        if (real >= 0 && caught >= 0) {
            ::dup2(caught, STDERR_FILENO);
        }
    }
    ~TraceCatcher() {
        Restore();
        ::close(caught);
    }
    TraceCatcher(const TraceCatcher&) = delete;
    TraceCatcher& operator=(const TraceCatcher&) = delete;

    /// The lines as they came.
    std::string Take() {
        Restore();
        std::array<char, 4096> bytes{};
        const ssize_t count = ::pread(caught, bytes.data(), bytes.size(), 0);
        return {bytes.data(), count > 0 ? static_cast<std::size_t>(count) : 0};
    }

    /// Without the places in the source; lines become parts of a sentence.
    static std::string Sentence(const std::string& text) {
        std::string said;
        for (std::size_t start = 0; start < text.size();) {
            const std::size_t end = std::min(text.find('\n', start), text.size());
            std::string line = text.substr(start, end - start);
            if (const std::size_t colon = line.find("): "); colon != std::string::npos) {
                line.erase(0, colon + 3);
            }
            said += (said.empty() ? "" : "; ") + line;
            start = end + 1;
        }
        return said;
    }

private:
    void Restore() {
        if (real >= 0) {
            ::dup2(real, STDERR_FILENO);
            ::close(real);
            real = -1;
        }
    }

    int real;
    int caught;
};

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
    TraceCatcher trace;
    const bool none = ListNames().empty();
    const std::string said = trace.Take();
    // Of the real one, none only means that nothing is plugged in.
    if (none && (IsSimulated() || Backend() != kDefaultBackend)) {
        return TraceCatcher::Sentence(said);
    }
    std::ignore = ::write(STDERR_FILENO, said.data(), said.size());  // no reason, but not ours
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
