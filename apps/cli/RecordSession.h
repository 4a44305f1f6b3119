#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Engine.h"
#include "Keyboard.h"
#include "Options.h"
#include "OutputFile.h"
#include "PrivateDirectory.h"
#include "Reporter.h"
#include "SavePlan.h"
#include "Signals.h"

namespace vorrel::cli {

/// `vorrel record` from the first check to the last file: one thread, one loop that waits for the
/// engine's notifications, signals, keys and the clock. Once a process.
class RecordSession {
public:
    RecordSession(const Options& options, Reporter& reporter);

    /// @return The exit code.
    /// @throws Failure before a recording runs; nothing is left behind then.
    int Run();

private:
    enum class State { Starting, Recording, Paused, Stopping, Saving, Judging, Done };
    using Clock = std::chrono::steady_clock;

    // Before the recording.
    void CheckTargets();
    void OpenDevice();
    void CheckSpace();
    void WarnOfLimits();

    // The loop.
    void WaitForEvents();
    void HandleNotifications();
    void HandleOperation(VrRecOperation operation);
    void HandlePosition(double seconds);
    void HandleMessage(const MessageCame& message);
    void HandleSignal(int number);
    void HandleKey(char key);
    void Tick();

    // What the handlers decide.
    void Enter(State next);
    void TogglePause();
    void PauseNow();
    void RequestStop();
    void Abandon(int number);
    [[noreturn]] void LeaveAtOnce(int number);
    void Fail(const Failure& failure);
    void BeginSave();
    void SaveNext();
    void JudgeFile();
    void FileFailed();
    int Finish();

    std::uint64_t RecordedFrames() const;
    DiskState MeasureDisk() const;
    void MeasureLevels();
    void ShowStatus();
    std::string TargetDirectory() const;

    const CommonOptions& common;
    const RecordOptions& record;
    Reporter& reporter;

    Signals signals;
    std::optional<PrivateDirectory> spillDirectory;
    std::shared_ptr<Notifications> notifications;
    std::optional<Keyboard> keyboard;  // after all else, so that the terminal is put back first
    TakeFormat format;

    std::vector<WantedFile> wanted;
    std::deque<PlannedFile> queue;  // not yet saved; the front is being saved
    std::optional<OutputFile> current;
    std::uint64_t framesSaved = 0, framesToSave = 0;
    bool currentSkipped = false;
    Clock::time_point judgeUntil;

    State state = State::Starting;
    double position = 0.0;
    int movesUntilPause = 1;  // positions still to come before the recording has surely grown
    bool pausePending = false;
    bool deviceStarted = false;
    int stopSignals = 0;
    int abandonedBy = 0;  // the signal, 0 = not abandoned

    StatusLine status;
    std::uint64_t previewSeen = 0;
    Clock::time_point nextTick, nextDiskLook;

    bool storageFailed = false, deviceFailed = false, filesSkipped = false, buffersLost = false;
};

}  // namespace vorrel::cli
