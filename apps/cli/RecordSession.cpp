#include "RecordSession.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <utility>

#include "Volumes.h"
#include "vorrel/Vorrel.h"

namespace vorrel::cli {
namespace {

using namespace std::chrono_literals;

constexpr auto kTickPeriod = 100ms;  // ten redraws a second
constexpr auto kDiskPeriod = 500ms;
constexpr auto kWithoutDescriptor = 20ms;  // when the engine's queue cannot be polled
constexpr std::uint64_t kMeterShare = 10;  // a meter looks at the newest tenth of a second
// The first may have been on its way when the pause ended.
constexpr int kMovesAfterResume = 2;

// The engine's memory holds five seconds of every channel before it spills them at once.
constexpr double kSpillStepSeconds = 6.0;
// What a target may still have to take after the look that found it full.
constexpr double kTargetReserveSeconds = 2.0;
constexpr double kReserveLooks = 4.0;
constexpr double kTargetReserveBytes = 64.0 * 1024.0;  // a few blocks of the file system
// To write one file: itself, what names its volume, tables of text encodings, its directory.
constexpr std::size_t kDescriptorsToSave = 8;
constexpr double kNoLimit = std::numeric_limits<double>::max();
constexpr auto kStallPeriod = 5s;  // the text of the warning names it

std::string ShortestText(const TakeFormat& format) {
    return format.dsd ? "eight one-bit samples, which are a byte" : "one sample";
}

}  // namespace

RecordSession::RecordSession(const Options& options, Reporter& teller)
    : common(options.common), record(options.record), reporter(teller) {}

int RecordSession::Run() {
    CheckTargets();
    OpenTemporary();
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

void RecordSession::OpenTemporary() {
    std::error_code error;
    startDirectory = std::filesystem::current_path(error).string();
    temporaryBase = TemporaryBase(record.tempDirectory);
    for (const Leftover& leftover : PrivateDirectory::FindLeftovers(temporaryBase)) {
        reporter.Warning("a recording that was killed has left " + SizeText(leftover.bytes) +
                         " in " + leftover.path + "; delete it when it is not needed");
    }
    spillDirectory.emplace(temporaryBase);
}

void RecordSession::OpenDevice() {
    notifications = OpenEngine(common);
    Require(Vorrel_SetTempDirectory(spillDirectory->Path().c_str()), ExitCode::Storage,
            "the temporary directory is not accepted");
    const std::shared_ptr<VrAudioDeviceInfo> info = SelectDevice(common.device);

    VrRecordSetting setting;
    setting.rec_type = record.dsd ? 1 : 0;
    setting.freq = ChooseRate(record.dsd ? info->DSD_supported_freq : info->PCM_supported_freq,
                              record.rateHz, record.dsd);
    setting.bits = static_cast<std::uint16_t>(record.dsd ? 1 : record.bits);
    Require(Vorrel_SetRecordSetting(&setting), ExitCode::Device,
            info->device_name + " does not take the setting");
    format.rateHz = setting.freq;
    format.dsd = record.dsd;
    format.bits = record.bits;
    format.channels = info->i_ch;
    if (format.channels == 0) {
        throw Failure(ExitCode::Device, info->device_name + " has no inputs");
    }
    // As many as the spill files will take are tried, too.
    spares.Reserve(kDescriptorsToSave + format.channels + 1);
    spares.Release(kDescriptorsToSave);

    // Times become frames as soon as the rate is known.
    if (record.duration) {
        stopAfter = FrameAt(*record.duration, format);
        if (*stopAfter == 0) {
            throw Failure(ExitCode::Usage, "--duration is shorter than " + ShortestText(format));
        }
    }
    const std::size_t firstRange = wanted.size() - record.ranges.size();
    for (std::size_t index = 0; index < wanted.size(); ++index) {
        WantedFile& wish = wanted[index];
        wish.end = stopAfter;
        if (index >= firstRange) {
            const Range& range = record.ranges[index - firstRange];
            wish.start = FrameAt(range.start, format);
            if (range.end) {
                wish.end = FrameAt(*range.end, format);
            }
            if (wish.end && *wish.end <= wish.start) {
                throw Failure(ExitCode::Usage,
                              range.file + ": the range is shorter than " + ShortestText(format));
            }
        }
    }
    if (IsSimulated() && !common.simulate) {
        reporter.Warning(kSimulatedWarning);
    }
    reporter.Start(info->device_name, IsSimulated(), format);
}

void RecordSession::CheckSpace() {
    std::string fullest;
    const double left = MeasureSecondsLeft(fullest);
    if (left <= 0.0) {
        throw Failure(ExitCode::Storage, "there is no space left for a recording in " + fullest);
    }
    if (record.duration && left < *record.duration) {
        reporter.Warning("the space left in " + fullest + " is enough for " + ClockText(left) +
                         " only");
    }
}

void RecordSession::WarnOfLimits() {
    if (format.dsd) {
        return;  // the sizes in a DSF file have 64 bits
    }
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
        FileFailed("");
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
    lastMove = Clock::now();
    stallSaid = false;
    reporter.Position(seconds);
    movesUntilPause = std::max(movesUntilPause - 1, 0);
    if (state != State::Starting && state != State::Recording) {
        return;
    }
    if (stopAfter) {
        const auto tenths = static_cast<std::uint64_t>(std::llround(seconds * 10.0));
        if (tenths * format.rateHz >= *stopAfter * 10) {
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
    if (stopSignals > 1) {
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
        growthPerLook = position - positionAtLook;
        positionAtLook = position;
        std::string fullest;
        status.diskSecondsLeft = MeasureSecondsLeft(fullest);
        if (*status.diskSecondsLeft <= 0.0 && !storageFailed) {
            // Now, while the files still find room.
            storageFailed = true;
            Fail(Failure(ExitCode::Storage,
                         "the disk is full (" + fullest + "); the recording ends here"));
            RequestStop();
        }
    }
    if (state == State::Recording && !stallSaid && now - lastMove >= kStallPeriod) {
        stallSaid = true;
        reporter.Warning("the recorder has delivered nothing for five seconds");
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
    lastMove = Clock::now();
    if (next == State::Recording || next == State::Paused) {
        status.state = name;
    }
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
        // The engine's deletion would also remove a directory that is empty after it, and that is
        // the user's. Where a guard cannot be put there, a file that is to be kept is also
        // given up in the middle at PCM; at DSD it is completed first. The staged file goes with
        // its owner.
        const bool guarded = current && current->GuardDirectory();
        std::ignore = Vorrel_SaveFileCancel(guarded);
    } else if (state == State::Judging) {
        Enter(State::Done);
    } else {
        RequestStop();
    }
}

void RecordSession::LeaveAtOnce(int number) {
    keyboard->Suspend();
    if (current) {
        current->Discard();
    }
    spares.Release(0);
    spillDirectory->Remove();
    std::ignore = reporter.Finish(kSignalExit + number);
    ::_exit(kSignalExit + number);
}

void RecordSession::Fail(const Failure& failure) {
    reporter.Error(failure);
}

// ---- What is looked at

std::vector<RecordSession::Volume> RecordSession::MeasureVolumes() const {
    std::vector<Volume> volumes;
    std::vector<std::optional<dev_t>> known;
    const auto volumeOf = [&](const std::string& directory) -> VolumeState& {
        const std::optional<dev_t> number = VolumeOf(directory);
        const auto found = std::find(known.begin(), known.end(), number);
        if (found != known.end()) {
            return volumes[static_cast<std::size_t>(found - known.begin())].state;
        }
        known.push_back(number);
        Volume volume;
        volume.directory = directory;
        volume.state.free = FreeBytes(directory).value_or(kNoLimit);
        return volumes.emplace_back(std::move(volume)).state;
    };
    const double ahead = kReserveLooks * growthPerLook;

    VolumeState& spill = volumeOf(spillDirectory->Path());
    spill.rate = format.SpillRate();
    spill.reserve = std::max(kSpillStepSeconds, ahead) * format.SpillRate();
    const auto recorded =
        static_cast<std::uint64_t>(std::llround(position * static_cast<double>(format.rateHz)));
    const double extra =
        static_cast<double>(FileBytes(format, 0, TagBytesBound(record.tags))) + kTargetReserveBytes;
    for (const WantedFile& wish : wanted) {
        VolumeState& target = volumeOf(DirectoryOf(wish.path));
        target.reserve += extra;
        const std::uint64_t end = std::min(recorded, wish.end.value_or(recorded));
        if (end > wish.start) {
            target.needed += static_cast<double>(format.PayloadBytes(end - wish.start));
        }
        if (recorded >= wish.start && (!wish.end || recorded < *wish.end)) {
            target.rate += format.FileRate();
            target.reserve += std::max(kTargetReserveSeconds, ahead) * format.FileRate();
        }
    }
    return volumes;
}

double RecordSession::MeasureSecondsLeft(std::string& fullest) const {
    double least = std::numeric_limits<double>::infinity();
    for (const Volume& volume : MeasureVolumes()) {
        const double left = SecondsLeft({volume.state});
        if (left < least || fullest.empty()) {
            least = left;
            fullest = volume.directory;
        }
    }
    return least;
}

std::string RecordSession::WhyNotStored() const {
    const double block = format.SpillRate() * kSpillStepSeconds;
    std::string reason = WhyNotWritten(spillDirectory->Path() + "/", block);
    if (reason.empty() && LargestFile(spillDirectory->Path()) < kNoLimit) {
        reason = std::strerror(EFBIG);
    }
    return reason.empty() ? "" : ": " + reason;
}

void RecordSession::MeasureLevels() {
    std::uint64_t length = 0;
    if (Vorrel_GetRecordingPreviewDataLength(&length) != VrSuccess || length == previewSeen) {
        return;
    }
    previewSeen = length;
    const std::uint64_t frames = std::min(length, format.PreviewRateHz() / kMeterShare);
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
