#include "RecordSession.h"

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <utility>

#include "vorrel/Vorrel.h"

namespace vorrel::cli {
namespace {

using namespace std::chrono_literals;

constexpr auto kTickPeriod = 100ms;  // ten redraws a second
constexpr auto kDiskPeriod = 500ms;
constexpr auto kWithoutDescriptor = 20ms;  // when the engine's queue cannot be polled
// How long a failed save's message may come after the save's end.
constexpr auto kJudgePeriod = 2s;
constexpr std::uint64_t kMeterShare = 10;  // a meter looks at the newest tenth of a second
// The first may have been on its way when the pause ended.
constexpr int kMovesAfterResume = 2;
constexpr int kSignalExit = 128;

/// Free bytes for this user on the volume of `path`; none when it cannot be told.
std::optional<double> FreeBytes(const std::string& path) {
    struct statvfs volume {};
    if (::statvfs(path.c_str(), &volume) != 0) {
        return std::nullopt;
    }
    return static_cast<double>(volume.f_bavail) * static_cast<double>(volume.f_frsize);
}

bool SameVolume(const std::string& one, const std::string& other) {
    struct stat first {};
    struct stat second {};
    return ::stat(one.c_str(), &first) == 0 && ::stat(other.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev;
}

}  // namespace

RecordSession::RecordSession(const Options& options, Reporter& teller)
    : common(options.common), record(options.record), reporter(teller) {}

int RecordSession::Run() {
    CheckTargets();
    spillDirectory.emplace(record.tempDirectory);
    OpenDevice();
    CheckSpace();
    WarnOfLimits();
    keyboard.emplace(STDIN_FILENO);
    if (keyboard->Descriptor() >= 0) {
        reporter.Info("space: pause and resume; q: stop and save");
    } else if (!record.duration) {
        reporter.Info("SIGINT or SIGTERM: stop and save");
    }

    Require(Vorrel_Start(), ExitCode::Device, "the recording does not start");
    reporter.State("starting");
    nextTick = nextDiskLook = Clock::now();
    while (state != State::Done) {
        WaitForEvents();
    }
    return Finish();
}

// ---- Before the recording

void RecordSession::CheckTargets() {
    std::vector<std::pair<std::string, bool>> asked;  // name as given, whole recording
    if (!record.out.empty()) {
        asked.emplace_back(record.out, true);
    }
    for (const Range& range : record.ranges) {
        asked.emplace_back(range.file, false);
    }
    for (const auto& [name, whole] : asked) {
        const std::string path = ResolveTarget(name);
        for (const WantedFile& other : wanted) {
            if (other.path == path) {
                throw Failure(ExitCode::Usage, name + " would be written twice");
            }
        }
        OutputFile(path, record.force).Check();
        WantedFile wish;
        wish.path = path;
        wish.whole = whole;
        wanted.push_back(wish);
    }
}

void RecordSession::OpenDevice() {
    notifications = OpenEngine(common);
    Require(Vorrel_SetTempDirectory(spillDirectory->Path().c_str()), ExitCode::Storage,
            "the temporary directory is not accepted");
    const std::shared_ptr<VrAudioDeviceInfo> info = SelectDevice(common.device);

    VrRecordSetting setting;
    setting.rec_type = 0;
    setting.freq = ChooseRate(info->PCM_supported_freq, record.rateHz);
    setting.bits = static_cast<std::uint16_t>(record.bits);
    Require(Vorrel_SetRecordSetting(&setting), ExitCode::Device,
            info->device_name + " does not take the setting");
    format.rateHz = setting.freq;
    format.bits = record.bits;
    format.channels = info->i_ch;
    if (format.channels == 0) {
        throw Failure(ExitCode::Device, info->device_name + " has no inputs");
    }

    // Times become frames as soon as the rate is known.
    std::optional<std::uint64_t> wholeEnd;
    if (record.duration) {
        wholeEnd = FrameAt(*record.duration, format.rateHz);
        if (*wholeEnd == 0) {
            throw Failure(ExitCode::Usage, "--duration is shorter than one sample");
        }
    }
    const std::size_t firstRange = wanted.size() - record.ranges.size();
    for (std::size_t index = 0; index < wanted.size(); ++index) {
        WantedFile& wish = wanted[index];
        wish.end = wholeEnd;
        if (index >= firstRange) {
            const Range& range = record.ranges[index - firstRange];
            wish.start = FrameAt(range.start, format.rateHz);
            if (range.end) {
                wish.end = FrameAt(*range.end, format.rateHz);
            }
            if (wish.end && *wish.end <= wish.start) {
                throw Failure(ExitCode::Usage,
                              range.file + ": the range is shorter than one sample");
            }
        }
    }
    reporter.Start(info->device_name, format);
}

void RecordSession::CheckSpace() {
    const double left = SecondsLeft(MeasureDisk());
    if (left <= 0.0) {
        throw Failure(ExitCode::Storage, "there is no space left for a recording in " +
                                             spillDirectory->Path() + " and " + TargetDirectory());
    }
    if (record.duration && left < *record.duration) {
        reporter.Warning("the space left is enough for " + ClockText(left) + " only");
    }
}

void RecordSession::WarnOfLimits() {
    const std::string longest =
        ClockText(SecondsOfFrame(MostFrames(format, 0), format.rateHz)) + " at this format";
    for (const WantedFile& wish : wanted) {
        if (!wish.end || *wish.end - wish.start <= MostFrames(format, TagBytesBound(record.tags))) {
            continue;
        }
        reporter.Warning(wish.path + " would pass the 4 GiB that a WAV file can hold (" + longest +
                         (wish.whole ? "); it will be saved in parts" : "); it will be skipped"));
    }
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
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(until - now);
    std::array<pollfd, 3> sources = {{{engine, POLLIN, 0},
                                      {signals.Descriptor(), POLLIN, 0},
                                      {keyboard->Descriptor(), POLLIN, 0}}};
    // An interrupted wait is a signal, and that is in the pipe.
    std::ignore = ::poll(sources.data(), sources.size(),
                         static_cast<int>(std::max<std::int64_t>(wait.count(), 0)));

    for (const int number : signals.Take()) {
        HandleSignal(number);
    }
    if (sources[2].revents != 0) {
        for (const char key : keyboard->Read()) {
            HandleKey(key);
        }
    }
    HandleNotifications();
    if (state == State::Judging && Clock::now() >= judgeUntil) {
        FileFailed();
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
            deviceStarted = true;
            if (state == State::Starting) {
                Enter(State::Recording);
            }
            break;
        case VrRecOperationStopped:
            if (state == State::Stopping) {
                BeginSave();
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
    reporter.Position(seconds);
    movesUntilPause = std::max(movesUntilPause - 1, 0);
    if (state != State::Starting && state != State::Recording) {
        return;
    }
    if (record.duration) {
        const auto tenths = static_cast<std::uint64_t>(std::llround(seconds * 10.0));
        if (tenths * format.rateHz >= FrameAt(*record.duration, format.rateHz) * 10) {
            RequestStop();
            return;
        }
    }
    if (pausePending && movesUntilPause == 0) {
        PauseNow();
    }
}

void RecordSession::HandleMessage(const MessageCame& message) {
    const bool saving = state == State::Saving || state == State::Judging;
    switch (message.kind) {
        case VrMessageDeviceError:
            if (saving) {
                break;  // the recording is over, the recorder may go
            }
            if (deviceFailed) {
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
            if (!buffersLost) {
                buffersLost = status.lostBuffers = true;
                reporter.Warning("the storage is too slow: parts of the recording are missing");
            }
            break;
        case VrMessageRecordWriteFailed:
        case VrMessageTempDirectoryMissing:
            if (saving) {
                if (state == State::Judging) {
                    FileFailed();
                }
                break;
            }
            if (!storageFailed) {
                storageFailed = true;
                Fail(Failure(ExitCode::Storage,
                             message.kind == VrMessageRecordWriteFailed
                                 ? "the recording cannot be stored any longer (" +
                                       spillDirectory->Path() + "); it ends here"
                                 : "the temporary directory " + spillDirectory->Path() +
                                       " is gone; the recording ends here"));
                RequestStop();
            }
            break;
        case VrMessageSaveFailed:
            if (state == State::Judging && message.text == current->StagingPath()) {
                FileFailed();
            }
            break;
        case VrMessageFileSkipped:
            currentSkipped = currentSkipped || (current && message.text == current->StagingPath());
            break;
    }
}

void RecordSession::HandleSignal(int number) {
    switch (number) {
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
        default:
            break;
    }
    if (abandonedBy != 0) {
        LeaveAtOnce(number);
    }
    ++stopSignals;
    if (stopSignals > 1 || number == SIGQUIT) {
        Abandon(number);
        return;
    }
    reporter.Info(state == State::Saving || state == State::Judging
                      ? "saving; a second signal abandons it"
                      : "stopping and saving; a second signal abandons it");
    RequestStop();
}

void RecordSession::HandleKey(char key) {
    if (key == ' ') {
        TogglePause();
    } else if (key == 'q' || key == 'Q') {
        RequestStop();
    }
}

void RecordSession::Tick() {
    const auto now = Clock::now();
    nextTick = now + kTickPeriod;
    const bool running = state == State::Recording || state == State::Paused;
    if (running && now >= nextDiskLook) {
        nextDiskLook = now + kDiskPeriod;
        status.diskSecondsLeft = SecondsLeft(MeasureDisk());
        if (*status.diskSecondsLeft <= 0.0 && !storageFailed) {
            // Now, while the files still find room.
            storageFailed = true;
            Fail(Failure(ExitCode::Storage, "the disk is full; the recording ends here"));
            RequestStop();
        }
    }
    if (!reporter.HasLiveAudience()) {
        return;
    }
    if (running) {
        MeasureLevels();
    }
    ShowStatus();
}

// ---- What the handlers decide

void RecordSession::Enter(State next) {
    constexpr std::array kNames = {"starting", "recording", "paused", "stopping",
                                   "saving",   "saving",    "done"};
    static_assert(kNames.size() == static_cast<std::size_t>(State::Done) + 1);
    const std::string before = kNames[static_cast<std::size_t>(state)];
    state = next;
    const std::string name = kNames[static_cast<std::size_t>(next)];
    if (name != before && next != State::Done) {
        reporter.State(name);
    }
    if (next == State::Recording || next == State::Paused) {
        status.state = name;
    }
}

void RecordSession::TogglePause() {
    if (state == State::Paused) {
        HandleNotifications();  // positions from before the pause say nothing of what follows it
        if (state == State::Paused && Vorrel_Resume() == VrSuccess) {
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
    if (state != State::Starting && state != State::Recording && state != State::Paused) {
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

void RecordSession::Abandon(int number) {
    abandonedBy = number;
    reporter.Warning("abandoned; a further signal ends at once");
    if (state == State::Saving) {
        // Keeping the file: the engine's deletion would also remove a directory that is empty
        // after it, and that is the user's. The staged file goes with its owner.
        std::ignore = Vorrel_SaveFileCancel(false);
    } else if (state == State::Judging) {
        Enter(State::Done);
    } else {
        RequestStop();
    }
}

void RecordSession::LeaveAtOnce(int number) {
    keyboard->Suspend();
    reporter.ClearScreen();
    if (current) {
        ::unlink(current->StagingPath().c_str());
    }
    spillDirectory->Remove();
    ::_exit(kSignalExit + number);
}

void RecordSession::Fail(const Failure& failure) {
    reporter.Error(failure);
}

void RecordSession::BeginSave() {
    if (abandonedBy != 0) {
        Enter(State::Done);
        return;
    }
    SavePlan plan = MakeSavePlan(wanted, format, RecordedFrames(), TagBytesBound(record.tags));
    const bool nothing = RecordedFrames() == 0;
    for (const WantedFile& wish : plan.missed) {
        filesSkipped = true;
        reporter.Skipped(wish.path,
                         nothing ? "nothing was recorded" : "the recording ended before it begins");
    }
    for (const PlannedFile& file : plan.files) {
        framesToSave += file.end - file.start;
        if (file.shortened && !wanted[file.wanted].whole) {
            reporter.Warning(file.path + " is shorter than wanted: the recording ended at " +
                             ClockText(SecondsOfFrame(file.end, format.rateHz)));
        }
        if (file.tooLarge) {
            reporter.Warning(file.path + " would pass the 4 GiB that a WAV file can hold");
        } else if (file.part == 1) {
            reporter.Info(wanted[file.wanted].path +
                          " would pass the 4 GiB that a WAV file can hold; saving it in parts");
        }
    }
    queue.assign(plan.files.begin(), plan.files.end());
    Enter(State::Saving);
    status.state = "saving";
    status.levels.clear();
    status.diskSecondsLeft.reset();
    SaveNext();
}

void RecordSession::SaveNext() {
    current.reset();
    if (queue.empty() || abandonedBy != 0) {
        Enter(State::Done);
        return;
    }
    // One request a file, so that a file that fails takes no other with it.
    const PlannedFile& file = queue.front();
    current.emplace(file.path, record.force);
    currentSkipped = false;
    VrSaveSetting setting;
    setting.path = current->StagingPath();
    setting.start = SecondsOfFrame(file.start, format.rateHz);
    // A bit past the end where all is wanted: the engine knows the exact length.
    setting.end = SecondsOfFrame(file.end + (file.toEnd ? format.rateHz : 0), format.rateHz);
    setting.gain = record.gain;
    setting.tags = record.tags;
    const std::vector<VrSaveSetting> request = {setting};
    Enter(State::Saving);
    if (Vorrel_SaveFile(&request) != VrSuccess) {
        FileFailed();
    }
}

void RecordSession::JudgeFile() {
    if (abandonedBy != 0) {
        current.reset();
        Enter(State::Done);
        return;
    }
    const PlannedFile file = queue.front();
    if (currentSkipped) {
        filesSkipped = true;
        reporter.Skipped(file.path, file.tooLarge
                                        ? "it would pass the 4 GiB that a WAV file can hold"
                                        : "it could not be made, or is too large for its volume");
        framesSaved += file.end - file.start;
        queue.pop_front();
        SaveNext();
        return;
    }
    const WavSummary summary = SummarizeWav(current->StagingPath());
    if (!summary.complete) {
        Enter(State::Judging);  // the failure's message follows the end of the save
        judgeUntil = Clock::now() + kJudgePeriod;
        return;
    }
    try {
        const std::string name = current->Commit();
        if (name != file.path) {
            storageFailed = true;
            Fail(Failure(ExitCode::Storage,
                         file.path + " has come into being meanwhile; saved as " + name));
        }
        framesSaved += file.end - file.start;
        reporter.Progress(name, 100.0);
        reporter.Saved(name, summary.bytes, summary.frames,
                       static_cast<double>(summary.frames) / static_cast<double>(format.rateHz));
    } catch (const Failure& failure) {
        storageFailed = true;
        Fail(failure);
    }
    queue.pop_front();
    SaveNext();
}

void RecordSession::FileFailed() {
    const PlannedFile file = queue.front();
    storageFailed = true;
    const std::optional<double> room = FreeBytes(TargetDirectory());
    const double needed = static_cast<double>((file.end - file.start) * format.FrameBytes());
    Fail(Failure(ExitCode::Storage,
                 file.path + " could not be saved" +
                     (room && *room < needed ? ": there is not enough space" : "")));
    queue.pop_front();
    SaveNext();
}

int RecordSession::Finish() {
    current.reset();
    // Gives the spill files back, so that the directory can go.
    std::ignore = Vorrel_New();
    spillDirectory->Remove();
    keyboard->Suspend();
    if (abandonedBy != 0) {
        return kSignalExit + abandonedBy;
    }
    ExitCode code = ExitCode::Done;
    if (storageFailed) {
        code = ExitCode::Storage;
    } else if (deviceFailed) {
        code = ExitCode::Device;
    } else if (filesSkipped) {
        code = ExitCode::Skipped;
    } else if (buffersLost) {
        code = ExitCode::Dropouts;
    }
    return static_cast<int>(code);
}

// ---- What is looked at

std::uint64_t RecordSession::RecordedFrames() const {
    // The preview has one frame a sample, and all of it once the engine has stopped.
    std::uint64_t frames = 0;
    if (Vorrel_GetPreviewDataLength(&frames) != VrSuccess) {
        frames = 0;
    }
    const auto told =
        static_cast<std::uint64_t>(std::llround(position * 10.0)) * format.rateHz / 10;
    return std::max(frames, told);
}

std::string RecordSession::TargetDirectory() const {
    const std::string& path = wanted.front().path;
    return path.substr(0, path.rfind('/') + 1);
}

DiskState RecordSession::MeasureDisk() const {
    constexpr double kNoLimit = std::numeric_limits<double>::max();
    const double rate = static_cast<double>(format.rateHz);
    const double frameBytes = static_cast<double>(format.FrameBytes());
    const double recorded = position * rate;
    DiskState disk;
    disk.spillFree = FreeBytes(spillDirectory->Path()).value_or(kNoLimit);
    disk.targetFree = FreeBytes(TargetDirectory()).value_or(kNoLimit);
    disk.sameVolume = SameVolume(spillDirectory->Path(), TargetDirectory());
    // Four bytes a sample as captured and two of preview.
    disk.spillRate = rate * format.channels * 6.0;
    for (const WantedFile& wish : wanted) {
        const double start = static_cast<double>(wish.start);
        const double end = wish.end ? static_cast<double>(*wish.end) : kNoLimit;
        disk.targetBytes += std::clamp(recorded - start, 0.0, end - start) * frameBytes;
        if (recorded >= start && recorded < end) {
            disk.targetRate += rate * frameBytes;
        }
    }
    return disk;
}

void RecordSession::MeasureLevels() {
    std::uint64_t length = 0;
    if (Vorrel_GetRecordingPreviewDataLength(&length) != VrSuccess || length == previewSeen) {
        return;
    }
    previewSeen = length;
    const std::uint64_t frames = std::min(length, format.rateHz / kMeterShare);
    std::vector<std::int16_t> samples(static_cast<std::size_t>(frames * format.channels));
    if (frames > 0 &&
        Vorrel_GetRecordingPreviewData(length - frames, length, samples.data()) == VrSuccess) {
        status.levels = cli::MeasureLevels(samples, format.channels);
    }
}

void RecordSession::ShowStatus() {
    status.position = position;
    if (state == State::Starting) {
        status.state = "starting";
    } else if (state == State::Stopping) {
        status.state = "stopping";
    } else if (state == State::Saving && !queue.empty()) {
        std::int32_t file = 0;
        std::int32_t total = 0;
        // Straight after a request the figures are still those of the one before it; its thousand
        // would be a lie, and our own is told when the file has its name.
        if (Vorrel_SaveFileProgress(&file, &total) == VrSuccess && file < 1000) {
            const PlannedFile& front = queue.front();
            reporter.Progress(front.path, file / 10.0);
            const double done = static_cast<double>(framesSaved) +
                                file / 1000.0 * static_cast<double>(front.end - front.start);
            status.savePercent = 100.0 * done / static_cast<double>(framesToSave);
        }
    }
    reporter.Status(status);
}

}  // namespace vorrel::cli
