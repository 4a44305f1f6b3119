#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "ExitCode.h"
#include "Options.h"
#include "vorrel/IVorrelDelegate.h"
#include "vorrel/VrRecords.h"

namespace vorrel::cli {

struct OperationDone {
    VrRecOperation operation;
};
struct PositionMoved {
    double seconds;
};
struct MessageCame {
    VrMessageKind kind;
    std::string text;
};
using Notification = std::variant<OperationDone, PositionMoved, MessageCame>;

/// Keeps what the engine tells until the event loop asks: the engine holds its delegate to the end
/// of the process, longer than any session lives. Main thread only.
class Notifications final : public IVorrelDelegate {
public:
    void Vorrel_NotifyOperationProc(VrRecOperation operation) override;
    void Vorrel_NotifyStreamPosProc(double seconds) override;
    void Vorrel_NotifyConvertPosProc(double seconds) override;
    void Vorrel_NotifyErrorMessageProc(VrMessageKind kind, const std::string& message) override;

    /// What came since the last call, in order.
    std::vector<Notification> Take();

private:
    std::vector<Notification> waiting;
};

/// A few words for an engine result.
std::string ErrorText(VrError error);

/// Throws a Failure of `exit` that says what could not be done and why, unless `error` is success.
void Require(VrError error, ExitCode exit, const std::string& what);

/// Readies the engine: the simulated recorder when wanted, then the delegate. Once a process,
/// before any other call to it.
/// @throws Failure: usage (--simulate=CONFIG is not understood), device.
std::shared_ptr<Notifications> OpenEngine(const CommonOptions& options);

/// Whether what the engine records from is simulated: the environment names that back end, or it
/// names none and this build has no other.
bool IsSimulated();
inline constexpr const char* kSimulatedWarning =
    "this is the SIMULATED recorder, not a real one: it records no microphone";

/// @throws Failure (device): they cannot be listed, or the environment names a back end, or a
///         configuration of the simulated one, that does not exist.
std::vector<std::string> ListDevices();

/// Selects the recorder of that name, "" = the first.
/// @throws Failure (device): none, none of that name, in use, ...
std::shared_ptr<VrAudioDeviceInfo> SelectDevice(const std::string& name);

/// The rate to record at: the wanted one, else 48,000 Hz (DSD: 2,822,400), else the lowest.
/// @throws Failure (usage) that lists the possible rates; (device) when there are none.
std::uint64_t ChooseRate(const std::vector<std::uint64_t>& offered,
                         std::optional<std::uint64_t> wanted, bool dsd);

}  // namespace vorrel::cli
