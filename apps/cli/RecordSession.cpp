#include "RecordSession.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <tuple>
#include <utility>

#include "vorrel/Vorrel.h"

namespace vorrel::cli {
namespace {

using namespace std::chrono_literals;

constexpr auto kTickPeriod = 100ms;  // ten redraws a second
constexpr auto kDiskPeriod = 500ms;
constexpr auto kWithoutDescriptor = 20ms;  // when the engine's queue cannot be polled
// The first may have been on its way when the pause ended.
constexpr int kMovesAfterResume = 2;
constexpr auto kStallPeriod = 5s;  // the text of the warning names it
// What is stored while armed is given back when it is so much more than the pre-roll.
constexpr double kArmedSeconds = 600.0;
constexpr std::size_t kDigestStep = std::size_t{32} << 20;  // bytes between two looks at signals

}  // namespace

RecordSession::RecordSession(const Options& options, Reporter& teller)
    : common(options.common),
      record(options.record),
      tempDirectory(options.tempDirectory),
      reporter(teller) {}

int RecordSession::Run() {
    CheckTargets();
    OpenTemporary();
    OpenDevice();
    CheckSpace();
    WarnOfLimits();
    trace.emplace();
    keyboard.emplace(STDIN_FILENO);
    SayKeys();
    if (!record.hook.empty()) {
        reporter.UseHook(record.hook);
    }

    spillSync.emplace(spillDirectory->Path());
    if (record.startAt && !IsArming()) {
        state = State::Waiting;
    } else {
        Require(StartEngine(), ExitCode::Device, "the recording does not start");
    }
    reporter.State(StateName(state));
    nextTick = nextDiskLook = lastMove = Clock::now();
    while (state != State::Done) {
        WaitForEvents();
    }
    return Finish();
}

// ---- The loop

void RecordSession::WaitForEvents() {
    const auto now = Clock::now();
    auto until = nextTick;
    if (state == State::Judging) {
        until = std::min(until, judgeUntil);
    }
    const int engine = MainQueue::Descriptor();
    if (engine < 0) {
        until = std::min(until, now + kWithoutDescriptor);
    }
    if (state == State::Digesting) {
        until = now;
    }
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(until - now);
    std::array<pollfd, 6> sources = {{{engine, POLLIN, 0},
                                      {signals.Descriptor(), POLLIN, 0},
                                      {keyboard->Descriptor(), POLLIN, 0},
                                      {journal->Descriptor(), POLLIN, 0},
                                      {reporter.HookDescriptor(), POLLIN, 0},
                                      {trace->Descriptor(), POLLIN, 0}}};
    // An interrupted wait is a signal, and that is in the pipe.
    std::ignore = ::poll(sources.data(), sources.size(),
                         static_cast<int>(std::max<std::int64_t>(wait.count(), 0)));

    for (const SignalCame& came : signals.Take()) {
        HandleSignal(came);
    }
    if (sources[2].revents != 0) {
        for (const char key : keyboard->Read()) {
            HandleKey(key);
        }
    }
    if (sources[3].revents != 0) {
        journal->Look();
    }
    if (sources[4].revents != 0) {
        reporter.LookAtHook();
    }
    HandleNotifications();
    if (sources[5].revents != 0) {
        LookAtTrace();
    }
    if (state == State::Judging && Clock::now() >= judgeUntil) {
        FileFailed("");
    }
    if (state == State::Digesting && digest->Step(kDigestStep)) {
        FileSaved(digest->Text());
    }
    if (Clock::now() >= nextTick && state != State::Done) {
        Tick();
    }
}

void RecordSession::HandleNotifications() {
    MainQueue::Dispatch();
    for (const Notification& notification : notifications->Take()) {
        if (const auto* done = std::get_if<OperationDone>(&notification)) {
            HandleOperation(done->operation);
        } else if (const auto* moved = std::get_if<PositionMoved>(&notification)) {
            HandlePosition(moved->seconds);
        } else if (const auto* message = std::get_if<MessageCame>(&notification)) {
            HandleMessage(*message);
        }
    }
}

void RecordSession::HandleOperation(VrRecOperation operation) {
    switch (operation) {
        case VrRecOperationDeviceStarted:
            DeviceStarted();
            break;
        case VrRecOperationStopped:
            if (state == State::Stopping) {
                BeginSave();
            } else if (state == State::Restarting) {
                StartOver();
            }
            break;
        case VrRecOperationSaveFinished:
            if (state == State::Saving) {
                JudgeFile();
            }
            break;
        case VrRecOperationRecordStarted:
            break;
    }
}

void RecordSession::HandlePosition(double seconds) {
    position = seconds;
    lastMove = Clock::now();
    stallSaid = false;
    if (taken) {
        reporter.Position(TakePosition());
    }
    movesUntilPause = std::max(movesUntilPause - 1, 0);
    if (state == State::Armed && record.preRoll && seconds >= *record.preRoll + kArmedSeconds) {
        Enter(State::Restarting);
        std::ignore = Vorrel_Stop(false);
        return;
    }
    if (!taken || (state != State::Starting && state != State::Recording)) {
        return;
    }
    if (stopAfter) {
        const auto tenths = static_cast<std::uint64_t>(std::llround(seconds * 10.0));
        if (tenths * format.rateHz >= (takeStart + *stopAfter) * 10) {
            RequestStop();
            return;
        }
    }
    if (pausePending && movesUntilPause == 0) {
        PauseNow();
    }
}

void RecordSession::HandleMessage(const MessageCame& message) {
    const bool saving =
        state == State::Saving || state == State::Judging || state == State::Digesting;
    switch (message.kind) {
        case VrMessageDeviceError:
            if (saving) {
                break;  // the recording is over, the recorder may go
            }
            if (state == State::Waiting || state == State::Armed || state == State::Restarting) {
                MissRecorder();
                break;
            }
            if (deviceFailed && state != State::Starting) {
                break;
            }
            deviceFailed = true;
            if (deviceStarted) {
                Fail(Failure(ExitCode::Device,
                             "the recorder is lost; what was recorded will be saved"));
                RequestStop();
            } else {
                Fail(Failure(ExitCode::Device, "the recorder could not be started"));
                // A stop that was asked for meanwhile is still answered.
                if (state == State::Starting) {
                    Enter(State::Done);
                }
            }
            break;
        case VrMessageBufferOverflow:
            if (!overflowSaid) {
                overflowSaid = buffersLost = status.lostBuffers = true;
                reporter.Lost(TakePosition());
                reporter.Warning("the storage is too slow: parts of the recording are missing");
            }
            break;
        case VrMessageRecordWriteFailed:
        case VrMessageTempDirectoryMissing:
            if (saving) {
                if (state == State::Judging) {
                    FileFailed("");
                }
                break;
            }
            if (!storageFailed) {
                storageFailed = true;
                Fail(Failure(ExitCode::Storage,
                             message.kind == VrMessageRecordWriteFailed
                                 ? "the recording cannot be stored any longer in " +
                                       spillDirectory->Path() + WhyNotStored() + "; it ends here"
                                 : "the temporary directory " + spillDirectory->Path() +
                                       " is gone; the recording ends here"));
                RequestStop();
            }
            break;
        case VrMessageSaveFailed:
            if (state == State::Judging && message.text == current->StagingPath()) {
                FileFailed("");
            }
            break;
        case VrMessageFileSkipped:
            currentSkipped = currentSkipped || (current && message.text == current->StagingPath());
            break;
    }
}

void RecordSession::HandleSignal(const SignalCame& came) {
    switch (came.number) {
        case SIGTSTP:
            // The terminal goes back to the shell in the state in which it came.
            keyboard->Suspend();
            reporter.ClearScreen();
            ::kill(::getpid(), SIGSTOP);
            keyboard->Resume();
            return;
        case SIGCONT:
            keyboard->Resume();
            return;
        case SIGUSR1:
            HandleKey(taken ? 'm' : 'r');
            return;
        case SIGHUP:
            // A terminal that closes says so twice, by its shell and by itself, and nobody has
            // decided anything: it stops, and never abandons.
            if (!FilesAreSafe()) {
                RequestStop();
            }
            return;
        default:
            break;
    }
    if (requests.Hear(came.when)) {
        HandleRequest(came.number);
        requests.Handled(Clock::now());
    }
}

/// Somebody wants the end, for the first time or further times.
void RecordSession::HandleRequest(int number) {
    if (FilesAreSafe()) {
        // Nothing of the recording can be given up any more, only the picture of it.
        pictureUnwanted = pictureUnwanted || requests.Count() > 1;
        return;
    }
    if (abandonedBy != 0) {
        LeaveAtOnce(number);
    }
    if (requests.Count() > 1) {
        Abandon(number);
        return;
    }
    reporter.Info(state == State::Saving || state == State::Judging || state == State::Digesting
                      ? "saving; a second signal abandons it"
                      : "stopping and saving; a second signal abandons it");
    RequestStop();
}

void RecordSession::HandleKey(char key) {
    switch (key) {
        case ' ':
            TogglePause();
            break;
        case 'm':
        case 'M':
            AddMark();
            break;
        case 'r':
        case 'R':
            BeginTake();
            break;
        case 'q':
        case 'Q':
            RequestStop();
            break;
        default:
            break;
    }
}

void RecordSession::Tick() {
    const auto now = Clock::now();
    nextTick = now + kTickPeriod;
    keyboard->Resume();  // the job may have come to the foreground, of which not every shell tells
    journal->Look();
    if (record.startAt && !taken && !takeAsked && std::time(nullptr) >= *record.startAt) {
        BeginTake();
    }
    if (state == State::Waiting && recorderGone && now >= nextRecorderLook) {
        LookForRecorder();
    }
    const bool running =
        state == State::Recording || state == State::Paused || state == State::Armed;
    if (running && now >= nextDiskLook) {
        nextDiskLook = now + kDiskPeriod;
        growthPerLook = position - positionAtLook;
        positionAtLook = position;
        LookAtDisks();
        WarnOfLostPlaces();
        if (const std::string reason = spillSync->TakeFailure(); !reason.empty()) {
            reporter.Warning("what is stored of the recording in " + spillDirectory->Path() +
                             " would not outlive a power failure: " + reason);
        }
    }
    if (state == State::Recording && !stallSaid && now - lastMove >= kStallPeriod) {
        stallSaid = true;
        reporter.Warning("the recorder has delivered nothing for five seconds");
    }
    reporter.LookAtHook();
    if (!reporter.HasLiveAudience()) {
        return;
    }
    if (running) {
        MeasureLevels();
    }
    ShowStatus();
}

void RecordSession::LookAtDisks() {
    const Room room = MeasureRoom();
    status.diskSecondsLeft = room.seconds;
    status.takeSecondsLeft = room.takeSeconds;
    status.saveSecondsLeft = room.saveSeconds;
    if (room.seconds <= 0.0 && !storageFailed) {
        // Now, while the files still find room.
        storageFailed = true;
        Fail(Failure(ExitCode::Storage,
                     "the disk is full (" + room.fullest + "); the recording ends here"));
        RequestStop();
    }
}

// ---- What the handlers decide

const char* RecordSession::StateName(State state) {
    constexpr std::array kNames = {"waiting",   "starting", "armed",    "armed",
                                   "recording", "paused",   "stopping", "saving",
                                   "saving",    "saving",   "done"};
    static_assert(kNames.size() == static_cast<std::size_t>(State::Done) + 1);
    return kNames[static_cast<std::size_t>(state)];
}

void RecordSession::Enter(State next) {
    const std::string before = StateName(state);
    state = next;
    const std::string name = StateName(next);
    if (name != before && next != State::Done) {
        reporter.State(name);
        journal->State(name, TakePosition());
    }
    lastMove = Clock::now();
}

VrError RecordSession::StartEngine() {
    state = State::Starting;
    deviceStarted = false;
    // Without a wait for a key, whatever comes is the take.
    taken = taken || !IsArming();
    return record.preRecord ? Vorrel_StartPreRecording() : Vorrel_Start();
}

void RecordSession::DeviceStarted() {
    deviceStarted = true;
    if (state != State::Starting) {
        return;
    }
    Enter(taken ? State::Recording : State::Armed);
    if (takeAsked) {
        BeginTake();
    }
}

void RecordSession::BeginTake() {
    if (taken) {
        return;
    }
    if (state == State::Waiting) {
        StartFromWaiting();
        return;
    }
    if (state == State::Starting || state == State::Restarting) {
        takeAsked = true;  // as soon as the recorder runs
        return;
    }
    if (state != State::Armed) {
        return;
    }
    if (record.preRecord) {
        if (const VrError error = Vorrel_Start(); error != VrSuccess) {
            Fail(Failure(ExitCode::Device, "the recording does not begin: " + ErrorText(error),
                         error));
            return;
        }
        movesUntilPause = kMovesAfterResume;
    } else {
        const std::uint64_t stored = StoredFrames();
        const std::uint64_t wish = FrameAt(*record.preRoll, format);
        takeStart = (stored - std::min(stored, wish)) / format.FrameStep() * format.FrameStep();
        journal->Start(takeStart);
        reporter.Info("the recording begins " +
                      ClockText(SecondsOfFrame(stored - takeStart, format.rateHz)) + " before");
    }
    taken = true;
    if (lastGap && *lastGap >= SecondsOfFrame(takeStart, format.rateHz) && !record.preRecord) {
        TellGap(*lastGap);  // in the pre-roll
    }
    Enter(State::Recording);
}

/// After the stop of what was stored while armed.
void RecordSession::StartOver() {
    journal->Restart();
    position = positionAtLook = 0.0;
    lastGap.reset();
    previewSeen = 0;
    movesUntilPause = 1;
    if (!recorderGone) {
        StartAgain();
        return;
    }
    std::ignore = Vorrel_New();  // gives it back, for the wait may be long
    Enter(State::Waiting);
    if (takeAsked) {
        BeginTake();
    }
}

void RecordSession::AddMark() {
    if (!taken || (state != State::Recording && state != State::Paused)) {
        return;
    }
    if (record.out.empty()) {
        reporter.Info("a mark cuts the whole recording, which has no file here");
        return;
    }
    if (!HasRoomForNumber(wanted.front().path)) {
        reporter.Info("no mark: the name of the file is too long for a number");
        return;
    }
    const std::uint64_t stored = StoredFrames();
    const std::optional<Tracks::Cut> cut = tracks->Add(stored - std::min(stored, takeStart));
    if (!cut) {
        reporter.Info("there is a mark already");
        return;
    }
    journal->Mark(cut->frame);
    const double seconds = static_cast<double>(cut->frame) / static_cast<double>(format.rateHz);
    reporter.Info("mark " + std::to_string(tracks->Count()) + " at " + ClockText(seconds) +
                  MovedText(*cut, format));
    reporter.Marked(tracks->Count(), seconds);
}

void RecordSession::TogglePause() {
    if (state == State::Paused) {
        HandleNotifications();  // positions from before the pause say nothing of what follows it
        if (state == State::Paused && Vorrel_Resume() == VrSuccess) {
            ++stretches;
            movesUntilPause = kMovesAfterResume;
            Enter(State::Recording);
        }
    } else if (state == State::Recording) {
        if (movesUntilPause == 0 && !pausePending) {
            PauseNow();
        } else {
            // To the engine a stretch of no length is one that is still open: a pause at the very
            // frame of the start would not take place. So it waits until something is recorded.
            pausePending = !pausePending;
        }
    }
}

void RecordSession::PauseNow() {
    pausePending = false;
    if (Vorrel_Pause() == VrSuccess) {
        Enter(State::Paused);
    }
}

void RecordSession::RequestStop() {
    if (state == State::Waiting) {
        BeginSave();
        return;
    }
    if (state == State::Restarting) {
        Enter(State::Stopping);  // a stop is under way
        return;
    }
    if (state != State::Starting && state != State::Armed && state != State::Recording &&
        state != State::Paused) {
        return;
    }
    Enter(State::Stopping);
    if (Vorrel_Stop(false) == VrSuccess) {
        return;
    }
    // Nothing runs: the start has failed, and its message is on the way or was just taken.
    HandleNotifications();
    if (state == State::Stopping) {
        BeginSave();
    }
}

/// Whether every file has its name, and what is told of the last one is all that is missing.
bool RecordSession::FilesAreSafe() const {
    return state == State::Done || (state == State::Digesting && queue.size() == 1);
}

void RecordSession::Abandon(int number) {
    abandonedBy = number;
    reporter.Warning("abandoned; a further signal ends at once");
    if (state == State::Saving) {
        // The engine's deletion would also remove a directory that is empty after it, and that is
        // the user's. Where a guard cannot be put there, a file that is to be kept is also
        // given up in the middle at PCM; at DSD it is completed first. The staged file goes with
        // its owner.
        const bool guarded = current && current->GuardDirectory();
        std::ignore = Vorrel_SaveFileCancel(guarded);
    } else if (state == State::Judging) {
        Enter(State::Done);
    } else if (state == State::Digesting) {
        FileSaved("");  // it has its name; the others are given up
    } else {
        RequestStop();
    }
}

void RecordSession::LeaveAtOnce(int number) {
    Signals::EndWith(kSignalExit + number);
    reporter.DropHook();  // one that hangs would be waited for
    keyboard->Suspend();
    if (current) {
        current->Discard();
    }
    spares.Release(0);
    journal.reset();
    spillDirectory->Remove();
    std::ignore = reporter.Finish(kSignalExit + number);
    ::_exit(kSignalExit + number);
}

void RecordSession::Fail(const Failure& failure) {
    reporter.Error(failure);
}

}  // namespace vorrel::cli
