#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Engine.h"
#include "EngineTrace.h"
#include "FileDigest.h"
#include "Keyboard.h"
#include "Mounts.h"
#include "Options.h"
#include "OutputFile.h"
#include "PeakSummary.h"
#include "PrivateDirectory.h"
#include "Reporter.h"
#include "SavePlan.h"
#include "SignalRequests.h"
#include "Signals.h"
#include "SpareDescriptors.h"
#include "Tracks.h"
#include "salvage/SpillSync.h"
#include "salvage/TakeJournal.h"

namespace vorrel::cli {

/// `vorrel record` from the first check to the last file: one thread, one loop that waits for the
/// engine's notifications, signals, keys and the clock. Once a process.
class RecordSession {
public:
    RecordSession(const Options& options, Reporter& reporter);

    /// @return The exit code.
    /// @throws Failure before a recording runs; nothing is left behind then.
    int Run();

    /// Whether what the engine has stored is all there is of a part of the recording, and has been
    /// left to the user: the engine must not come to its own end, at which it deletes it.
    bool KeepsStore() const { return keepStore; }

private:
    enum class State {
        Waiting,     // for the time of day at which it begins, or for a recorder that has gone
        Starting,    // the recorder
        Armed,       // it runs, and what comes is not yet the take
        Restarting,  // ... anew, so that what was stored while armed is given back
        Recording,
        Paused,
        Stopping,
        Saving,
        Judging,    // whether a file that is not complete has failed
        Digesting,  // a complete file, for programs
        Done
    };
    using Clock = std::chrono::steady_clock;

    // Before the recording.
    void CheckTargets();
    void OpenTemporary();
    void OpenDevice();
    void ReadWishes(const std::string& deviceName);
    void SayKeys();
    void CheckSpace();
    void WarnOfLimits();
    void WarnOfStoreLimit();

    // The loop.
    void WaitForEvents();
    void HandleNotifications();
    void HandleOperation(VrRecOperation operation);
    void HandlePosition(double seconds);
    void HandleMessage(const MessageCame& message);
    void HandleSignal(const SignalCame& came);
    void HandleRequest(int number);
    void HandleKey(char key);
    void Tick();
    void LookAtDisks();
    void LookAtTrace();
    void TellGap(double engineSeconds);

    // What the handlers decide.
    void Enter(State next);
    VrError StartEngine();
    void DeviceStarted();
    void BeginTake();
    void StartOver();
    // ... of a recorder that goes before the take.
    std::shared_ptr<VrAudioDeviceInfo> SelectRecorder();
    void MissRecorder();
    void FindRecorder();
    void LookForRecorder();
    void StartAgain();
    void StartFromWaiting();
    void AddMark();
    void TogglePause();
    void PauseNow();
    void RequestStop();
    bool FilesAreSafe() const;
    void Abandon(int number);
    [[noreturn]] void LeaveAtOnce(int number);
    void Fail(const Failure& failure);
    void BeginSave();
    void PlaceWishes(std::uint64_t totalFrames);
    void SayMissedCuts(const WantedFile& whole, std::uint64_t totalFrames, std::size_t trackCount);
    std::string FreshName(const std::string& path);
    bool LeadsElsewhere(const std::string& directory) const;
    void FailIfElsewhere(const std::string& name);
    void WarnOfLostPlaces();
    void SaveNext();
    void JudgeFile();
    void FileSaved(const std::string& digestText);
    void FileFailed(std::string reason);
    void Rescue(const PlannedFile& file);
    void LeaveStore();
    void DrawPicture();
    std::optional<PeakSummary> SummarizeTake(std::uint64_t first, std::uint64_t end);
    int Finish();

    struct Volume {
        std::string directory;  // one on it
        VolumeState state;
        std::string pool;                 // that has its room, "" = itself
        std::optional<VolumeState> room;  // of all of its pool, where there are others

        double SecondsLeft() const;
    };
    struct Room {
        double seconds = 0.0;  // until the first volume is full
        double takeSeconds = 0.0, saveSeconds = 0.0;
        std::string fullest;  // a directory on the first one
    };
    static const char* StateName(State state);
    bool IsArming() const { return record.preRecord || record.preRoll.has_value(); }
    std::uint64_t RecordedFrames() const;
    std::uint64_t StoredFrames() const;
    double TakePosition() const;
    std::vector<Volume> MeasureVolumes() const;
    static void ShareRoom(std::vector<Volume>& volumes);
    Room MeasureRoom() const;
    std::string WhyNotStored() const;
    void MeasureLevels();
    void ShowStatus();

    const CommonOptions& common;
    const RecordOptions& record;
    const std::string& tempDirectory;
    Reporter& reporter;

    Signals signals;
    std::string temporaryBase;
    std::string startDirectory;  // "" = deleted
    std::optional<PrivateDirectory> spillDirectory;
    std::optional<TakeJournal> journal;
    std::optional<SpillSync> spillSync;
    SpareDescriptors spares;
    std::shared_ptr<Notifications> notifications;
    std::optional<EngineTrace> trace;
    std::optional<Keyboard> keyboard;  // after all else, so that the terminal is put back first
    TakeFormat format;

    std::vector<WantedFile> wanted;
    std::map<std::string, Place> targetPlaces;  // what each directory led to before the recording
    std::set<std::string> lostPlaces;           // those that lead elsewhere, as was said
    std::string picturePath;                    // "" = none
    std::string pictureTitle;
    std::vector<std::uint64_t> trackStarts;  // frames of the take at which a further track begins
    std::deque<PlannedFile> queue;           // not yet saved; the front is being saved
    std::optional<OutputFile> current;
    std::uint64_t framesSaved = 0, framesToSave = 0;
    bool currentSkipped = false;
    Clock::time_point judgeUntil;
    std::optional<FileDigest> digest;  // of the file that is done
    std::string doneName;
    FileSummary doneSummary;
    std::set<std::optional<FileIdentity>> written;  // files of this run; none: could not be told

    State state = State::Starting;
    std::optional<Tracks> tracks;
    std::set<std::uint64_t> announcedCuts;   // of --split-at; the others are marks
    std::uint64_t takeStart = 0;             // frames of what is stored
    bool taken = false;                      // what comes, or has come, is the take
    bool takeAsked = false;                  // before the recorder was ready for it
    std::optional<std::uint64_t> stopAfter;  // frames
    double position = 0.0;
    double positionAtLook = 0.0, growthPerLook = 0.0;
    std::uint64_t stretches = 1;  // of recording, with pauses between them
    int movesUntilPause = 1;      // positions still to come before the recording has surely grown
    bool pausePending = false;
    bool deviceStarted = false;
    bool recorderGone = false;  // before the take
    Clock::time_point nextRecorderLook;
    SignalRequests requests;       // to stop
    bool pictureUnwanted = false;  // by a second request
    int abandonedBy = 0;           // the signal, 0 = not abandoned

    StatusLine status;
    ClipHold clips;
    double waveMost = 0.0;
    int waveLooks = 0;
    std::uint64_t previewSeen = 0;
    Clock::time_point nextTick, nextDiskLook;
    Clock::time_point lastMove;  // of the position, or into another state
    bool stallSaid = false;

    std::optional<double> lastGap;  // of the engine's position
    bool storageFailed = false, deviceFailed = false, filesSkipped = false, buffersLost = false;
    bool overflowSaid = false;
    bool storeNeeded = false, keepStore = false;
};

}  // namespace vorrel::cli
