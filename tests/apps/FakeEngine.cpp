// A stand-in for the engine that does what a test can hardly make the real one do: FAKE_ENGINE in
// the environment, pairs of key=value with commas between, sets it up.
//
//   devices=0            no recorder            busy=1          the recorder is refused
//   start=fail           the start fails        stop=hang       a stop never ends: it goes on
//   preview=fail         that of the whole recording cannot be read
//   preview=late         there is none before the recording has stopped
//   preview=signal       SIGINT comes while it is read; preview=signals: and SIGTERM
//   late=signal          SIGINT comes as soon as the host has met the end of a save;
//                        late=signals: and SIGTERM
//   lose=SECONDS         the recorder is lost   overflow=SECONDS  a buffer is lost
//   gap=SECONDS          the recorder says that sound is missing; gap=paused: at a pause;
//                        gaps=SECONDS: from then on at every step
//   abort=SECONDS        it says so and aborts
//   chatter=1            the engine says as much on standard error as it may take
//   away=LOOKS           the recorder goes as soon as it is set up, or with lose=, and is back
//   after
//                        so many looks at the list: a new one, to be selected and set up
//   store=SECONDS        storing fails          gone=SECONDS    the temporary directory is gone
//   save=fail:TEXT+TEXT  a save fails for paths with a TEXT in them, half-way
//   save=skip:TEXT       ... is skipped         save=hang:TEXT  ... goes on until it is cancelled
//   save=worked:TEXT     ... fails with gain or tags
//   save=slow:TEXT       ... takes more than a second
//   appear=1             the target comes into being while it is saved
//   channels=N           how many it has
//
// It records two channels of 24-bit counter samples at 48 kHz, or of counter bytes at the DSD rate
// of 2.8224 MHz, 0.1 s of it every 5 ms. As the engine does, it looks for room before it writes,
// skips what cannot be opened, and fails a DSD range that passes the end or a byte's bounds. Its
// DSD preview grows by a frame too many with every stretch of recording, the most that the engine's
// can.
#include <sys/eventfd.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <mutex>
#include <sstream>
#include <thread>
#include <tuple>
#include <utility>

#include "vorrel/Vorrel.h"

namespace {

constexpr std::uint64_t kPcmRate = 48'000;
constexpr std::uint64_t kDsdRate = 2'822'400;
constexpr auto kStepTime = std::chrono::milliseconds(5);
constexpr auto kSlowSave = std::chrono::milliseconds(1100);
constexpr int kMisused = 99;  // exit code when a call comes that the program should not make

class FakeEngine {
public:
    FakeEngine() : descriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
        const char* text = std::getenv("FAKE_ENGINE");
        std::istringstream pairs(text == nullptr ? "" : text);
        for (std::string pair; std::getline(pairs, pair, ',');) {
            const std::size_t equals = pair.find('=');
            setup[pair.substr(0, equals)] = pair.substr(equals + 1);
        }
    }
    ~FakeEngine() {
        EndDevice();
        DropStore();
        std::ignore = Vorrel_SaveFileCancel(true);
        if (saver.joinable()) {
            saver.join();
        }
    }

    void Post(std::function<void(IVorrelDelegate&)> task) {
        const std::lock_guard lock(mutex);
        queue.push_back(std::move(task));
        const std::uint64_t one = 1;
        std::ignore = ::write(descriptor, &one, sizeof one);
    }
    void Operation(VrRecOperation operation) {
        Post([operation](IVorrelDelegate& host) { host.Vorrel_NotifyOperationProc(operation); });
    }
    void Message(VrMessageKind kind, const std::string& text) {
        Post([=](IVorrelDelegate& host) { host.Vorrel_NotifyErrorMessageProc(kind, text); });
    }
    std::size_t Dispatch() {
        std::deque<std::function<void(IVorrelDelegate&)>> tasks;
        {
            const std::lock_guard lock(mutex);
            tasks.swap(queue);
            std::uint64_t count = 0;
            std::ignore = ::read(descriptor, &count, sizeof count);
        }
        for (const auto& task : tasks) {
            task(*delegate);
        }
        if (saveTold) {
            saveTold = false;
            RaiseSignals(Text("late"));
        }
        delivered.notify_all();
        return tasks.size();
    }

    static void RaiseSignals(const std::string& which) {
        if (which == "signal" || which == "signals") {
            std::raise(SIGINT);
        }
        if (which == "signals") {
            std::raise(SIGTERM);
        }
    }

    // A unit is what the store counts: a PCM frame, eight one-bit samples.
    std::uint64_t UnitFrames() const { return dsd ? 8 : 1; }
    std::uint64_t Rate() const { return dsd ? kDsdRate : kPcmRate; }
    std::uint64_t StepUnits() const { return Rate() / UnitFrames() / 10; }
    std::uint32_t Channels() const {
        const std::string text = Text("channels");
        return text.empty() ? 2 : static_cast<std::uint32_t>(std::stoul(text));
    }
    std::string StorePath() const { return tempDirectory + "/tmpSTORE1"; }
    void MakeStore() const {
        if (std::FILE* file = std::fopen(StorePath().c_str(), "wb"); file != nullptr) {
            std::fputs("samples", file);
            std::fclose(file);
        }
    }
    void DropStore() const {
        if (!tempDirectory.empty()) {
            ::unlink(StorePath().c_str());
        }
    }

    std::string Text(const std::string& key) const {
        const auto found = setup.find(key);
        return found == setup.end() ? "" : found->second;
    }
    /// Units after which something is to happen, far away when it is not.
    std::uint64_t Due(const std::string& key) const {
        const std::string text = Text(key);
        return text.find_first_of("0123456789") == std::string::npos
                   ? ~std::uint64_t{0}
                   : static_cast<std::uint64_t>(std::stod(text) *
                                                static_cast<double>(StepUnits() * 10));
    }
    bool Applies(const std::string& mode, const std::string& path) const {
        const std::string text = Text("save");
        if (text.rfind(mode + ":", 0) != 0) {
            return false;
        }
        std::istringstream parts(text.substr(mode.size() + 1));
        std::string part;
        bool any = false;
        for (; std::getline(parts, part, '+'); any = true) {
            if (path.find(part) != std::string::npos) {
                return true;
            }
        }
        return !any;  // no text at all stands in every path
    }

    void Run() {
        std::unique_lock lock(mutex);
        while (!wake.wait_for(lock, kStepTime, [this] { return ending; })) {
            raw += StepUnits();
            if (paused || stalled) {
                continue;
            }
            for (std::uint64_t frame = raw - StepUnits(); frame < raw; ++frame) {
                recorded.push_back(static_cast<std::uint32_t>(frame));
            }
            grown = true;
            const std::uint64_t length = recorded.size();
            lock.unlock();
            const double seconds = static_cast<double>(length / StepUnits()) * 0.1;
            Post([seconds](IVorrelDelegate& host) { host.Vorrel_NotifyStreamPosProc(seconds); });
            const auto reached = [&](const char* key) {
                const std::uint64_t due = Due(key);
                return length >= due && length - StepUnits() < due;
            };
            if (reached("lose")) {
                Lose();
            }
            if (reached("overflow")) {
                Message(VrMessageBufferOverflow, "");
            }
            if (reached("gap") || length >= Due("gaps")) {
                SayGap();
            }
            if (reached("abort")) {
                Say("this is the end");
                std::abort();
            }
            if (Text("chatter") == "1") {
                Say(std::string(4000, 'c'));
            }
            if (reached("store")) {
                stalled = true;
                Message(VrMessageRecordWriteFailed, "");
            }
            if (reached("gone")) {
                stalled = true;
                Message(VrMessageTempDirectoryMissing, "");
            }
            lock.lock();
        }
    }
    static void SayGap() {
        Say("src/device/CoreAudioManager.cpp(1): the recorder reports an overload: the recording "
            "has a gap");
    }
    static void Say(const std::string& line) {
        std::ignore = ::write(STDERR_FILENO, (line + "\n").data(), line.size() + 1);
    }
    void Lose() {
        if (!Text("away").empty()) {
            if (lost.exchange(true)) {
                return;
            }
            away = std::stoi(Text("away"));
            selected = ready = false;
            stalled = true;
        }
        Message(VrMessageDeviceError, "");
    }
    void StartDevice() {
        EndDevice();
        stalled = false;
        recorded.clear();
        raw = 0;
        running = true;
        ending = false;
        MakeStore();
        Operation(VrRecOperationDeviceStarted);
        device = std::thread([this] { Run(); });
    }
    void EndDevice() {
        {
            const std::lock_guard lock(mutex);
            ending = true;
        }
        wake.notify_all();
        if (device.joinable()) {
            device.join();
        }
    }

    void Save(const VrSaveSetting& setting) {
        const auto frame = [this](double seconds) {
            return static_cast<std::uint64_t>(seconds * static_cast<double>(Rate()));
        };
        const std::uint64_t start = frame(setting.start);
        std::uint64_t end = frame(setting.end);
        const std::uint64_t available = recorded.size() * UnitFrames();
        bool fails =
            Applies("fail", setting.path) ||
            (Applies("worked", setting.path) && (setting.gain != 0.0 || !setting.tags.empty()));
        if (dsd) {
            fails = fails || end > available || start % 8 != 0 || end % 8 != 0;
        } else {
            end = std::min(end, available);
        }
        const std::vector<std::uint8_t> bytes = dsd ? DsfFile(start, end) : WavFile(start, end);
        const std::string directory = setting.path.substr(0, setting.path.rfind('/') + 1);
        struct statvfs volume {};
        if (::statvfs(directory.c_str(), &volume) != 0 ||
            volume.f_bavail * volume.f_frsize < bytes.size()) {
            return Finish(setting, true);
        }
        std::FILE* file =
            Applies("skip", setting.path) ? nullptr : std::fopen(setting.path.c_str(), "wb");
        if (file == nullptr) {
            Message(VrMessageFileSkipped, setting.path);
            return Finish(setting, false);
        }
        std::fwrite(bytes.data(), dsd ? 92 : 44, 1, file);
        std::fflush(file);
        if (Applies("slow", setting.path)) {
            progress = 250;
            std::unique_lock lock(mutex);
            wake.wait_for(lock, kSlowSave, [this] { return cancelled.load(); });
        }
        if (Applies("hang", setting.path)) {
            progress = 250;
            std::unique_lock lock(mutex);
            // A DSD file that is to be kept is completed, and here that takes for ever.
            wake.wait(lock, [this] { return dsd ? deletes.load() : cancelled.load(); });
        }
        if (!fails && !cancelled) {
            const std::size_t head = dsd ? 92 : 44;
            fails = std::fwrite(bytes.data() + head, 1, bytes.size() - head, file) !=
                    bytes.size() - head;
        }
        fails = std::fclose(file) != 0 || fails;
        if (cancelled && deletes) {
            ::unlink(setting.path.c_str());
            ::rmdir(directory.c_str());  // where nothing else is in it
        }
        if (Text("appear") == "1") {
            std::string target = setting.path;
            target.erase(target.find("/.") + 1, 1);
            target.erase(target.find(".partial-"));
            std::fclose(std::fopen(target.c_str(), "wb"));
        }
        Finish(setting, fails);
    }

    void Finish(const VrSaveSetting& setting, bool failed) {
        progress = 1000;
        Post([this](IVorrelDelegate& host) {
            host.Vorrel_NotifyOperationProc(VrRecOperationSaveFinished);
            saveTold = true;
        });
        if (failed) {
            // The message comes after the end, and no sooner than the host has met the end.
            std::unique_lock lock(mutex);
            delivered.wait(lock, [this] { return queue.empty(); });
            lock.unlock();
            Message(VrMessageSaveFailed, setting.path);
        }
    }

    static void Put(std::vector<std::uint8_t>& bytes, std::uint64_t value, int width) {
        for (int index = 0; index < width; ++index) {
            bytes.push_back(static_cast<std::uint8_t>(value >> (8 * index)));
        }
    }
    static void Put(std::vector<std::uint8_t>& bytes, const char* id) {
        for (; *id != '\0'; ++id) {
            bytes.push_back(static_cast<std::uint8_t>(*id));
        }
    }

    std::vector<std::uint8_t> WavFile(std::uint64_t start, std::uint64_t end) const {
        const std::uint32_t channels = Channels();
        const std::uint64_t dataSize = (end - start) * channels * 3;
        std::vector<std::uint8_t> bytes;
        bytes.reserve(static_cast<std::size_t>(dataSize + 44));
        Put(bytes, "RIFF");
        Put(bytes, dataSize + 36, 4);
        Put(bytes, "WAVE");
        Put(bytes, "fmt ");
        Put(bytes, 16, 4);
        Put(bytes, 1, 2);
        Put(bytes, channels, 2);
        Put(bytes, kPcmRate, 4);
        Put(bytes, kPcmRate * channels * 3, 4);
        Put(bytes, std::uint64_t{channels} * 3, 2);
        Put(bytes, 24, 2);
        Put(bytes, "data");
        Put(bytes, dataSize, 4);
        for (std::uint64_t index = start; index < end; ++index) {
            for (std::uint32_t channel = 0; channel < channels; ++channel) {
                Put(bytes, std::uint64_t{recorded[index]} * channels + channel, 3);
            }
        }
        return bytes;
    }

    /// Byte u of channel c holds u + 100 x c.
    std::vector<std::uint8_t> DsfFile(std::uint64_t start, std::uint64_t end) const {
        constexpr std::uint64_t kBlock = 4096;
        const std::uint32_t channels = Channels();
        const std::uint64_t blocks = ((end - start) / 8 + kBlock - 1) / kBlock;
        const std::uint64_t payload = blocks * kBlock * channels;
        std::vector<std::uint8_t> bytes;
        bytes.reserve(static_cast<std::size_t>(payload + 92));
        Put(bytes, "DSD ");
        Put(bytes, 28, 8);
        Put(bytes, payload + 92, 8);
        Put(bytes, 0, 8);
        Put(bytes, "fmt ");
        Put(bytes, 52, 8);
        Put(bytes, 1, 4);
        Put(bytes, 0, 4);
        Put(bytes, channels, 4);
        Put(bytes, channels, 4);
        Put(bytes, kDsdRate, 4);
        Put(bytes, 1, 4);
        Put(bytes, end - start, 8);
        Put(bytes, kBlock, 4);
        Put(bytes, 0, 4);
        Put(bytes, "data");
        Put(bytes, payload + 12, 8);
        for (std::uint64_t block = 0; block < blocks; ++block) {
            for (std::uint32_t channel = 0; channel < channels; ++channel) {
                for (std::uint64_t unit = start / 8 + block * kBlock;
                     unit < start / 8 + (block + 1) * kBlock; ++unit) {
                    const bool inside = unit < end / 8 && unit < recorded.size();
                    Put(bytes, inside ? recorded[unit] + 100 * channel : 0, 1);
                }
            }
        }
        return bytes;
    }

    const int descriptor;
    std::map<std::string, std::string> setup;
    std::shared_ptr<IVorrelDelegate> delegate;
    std::mutex mutex;
    std::condition_variable wake, delivered;
    std::deque<std::function<void(IVorrelDelegate&)>> queue;
    std::thread device, saver;
    std::vector<std::uint32_t> recorded;  // the device's unit of each recorded one
    std::uint64_t raw = 0;
    std::atomic<int> progress{0};
    std::atomic<int> away{0};  // looks at the list that do not find the recorder
    std::atomic<bool> selected{false}, ready{false}, lost{false};
    std::atomic<bool> paused{false}, stalled{false}, grown{false}, cancelled{false}, deletes{false};
    std::string tempDirectory;
    std::uint64_t resumes = 0;
    bool saveTold = false;  // main thread
    bool ending = false, running = false, dsd = false;
};

FakeEngine& Engine() {
    static FakeEngine engine;
    return engine;
}

}  // namespace

namespace vorrel {

int MainQueue::Descriptor() noexcept {
    return Engine().descriptor;
}
std::size_t MainQueue::Dispatch() noexcept {
    return Engine().Dispatch();
}

}  // namespace vorrel

VrError Vorrel_Init(std::shared_ptr<IVorrelDelegate> delegate) noexcept {
    Engine().delegate = std::move(delegate);
    return VrSuccess;
}

VrError Vorrel_New() noexcept {
    Engine().DropStore();
    return Engine().running ? VrErrorInvalidState : VrSuccess;
}

VrError Vorrel_GetAudioDevices(std::vector<std::string>* names) noexcept {
    names->clear();
    if (Engine().away > 0) {
        --Engine().away;
    } else if (Engine().Text("devices") != "0") {
        names->assign({"KD-WV770"});
    }
    return VrSuccess;
}

VrError Vorrel_SetAudioDevice(const char*) noexcept {
    if (Engine().Text("busy") == "1") {
        return VrErrorFailed;
    }
    Engine().selected = true;
    return VrSuccess;
}

VrError Vorrel_GetAudioDeviceInfo(std::shared_ptr<VrAudioDeviceInfo>* info) noexcept {
    if (!Engine().selected) {
        return VrErrorInvalidState;
    }
    *info = std::make_shared<VrAudioDeviceInfo>();
    (*info)->device_name = "KD-WV770";
    (*info)->i_ch = static_cast<std::uint16_t>(Engine().Channels());
    (*info)->PCM_supported_freq = {kPcmRate};
    (*info)->DSD_supported_freq = {kDsdRate};
    return VrSuccess;
}

VrError Vorrel_SetRecordSetting(const VrRecordSetting* setting) noexcept {
    Engine().dsd = setting->rec_type == 1;
    if (setting->freq != Engine().Rate()) {
        return VrErrorInvalidParameter;
    }
    Engine().ready = Engine().selected.load();
    if (!Engine().Text("away").empty() && Engine().Text("lose").empty()) {
        Engine().Lose();
    }
    return VrSuccess;
}

VrError Vorrel_Start() noexcept {
    FakeEngine& engine = Engine();
    if (engine.Text("start") == "fail" || !engine.ready) {
        engine.Message(VrMessageDeviceError, "");
        return VrSuccess;
    }
    if (engine.running) {
        if (!engine.paused) {
            return VrErrorInvalidState;
        }
        engine.grown = false;
        engine.paused = false;
        engine.Operation(VrRecOperationRecordStarted);
        return VrSuccess;
    }
    engine.StartDevice();
    return VrSuccess;
}

VrError Vorrel_StartPreRecording() noexcept {
    if (Engine().running) {
        return VrErrorInvalidState;
    }
    if (!Engine().ready) {
        Engine().Message(VrMessageDeviceError, "");
        return VrSuccess;
    }
    Engine().paused = true;
    Engine().StartDevice();
    return VrSuccess;
}

VrError Vorrel_Stop(bool) noexcept {
    FakeEngine& engine = Engine();
    if (!engine.running) {
        return VrErrorInvalidState;
    }
    if (engine.Text("stop") == "hang") {
        return VrSuccess;
    }
    engine.EndDevice();
    engine.running = false;
    engine.Operation(VrRecOperationStopped);
    return VrSuccess;
}

VrError Vorrel_Pause() noexcept {
    if (!Engine().grown) {
        std::_Exit(kMisused);  // the engine would read the empty stretch as one that is still open
    }
    Engine().paused = true;
    if (Engine().Text("gap") == "paused") {
        FakeEngine::SayGap();
    }
    return VrSuccess;
}

VrError Vorrel_Resume() noexcept {
    Engine().grown = false;
    ++Engine().resumes;
    Engine().paused = false;
    return VrSuccess;
}

VrError Vorrel_GetRecordingPreviewData(std::uint64_t start, std::uint64_t end,
                                       std::int16_t* samples) noexcept {
    std::fill_n(samples, (end - start) * Engine().Channels(), std::int16_t{16384});
    return VrSuccess;
}

VrError Vorrel_GetPreviewData(std::uint64_t start, std::uint64_t end,
                              std::int16_t* samples) noexcept {
    FakeEngine::RaiseSignals(Engine().Text("preview"));
    return Engine().Text("preview") == "fail" ? VrErrorFailed
                                              : Vorrel_GetRecordingPreviewData(start, end, samples);
}

VrError Vorrel_GetPreviewDataLength(std::uint64_t* length) noexcept {
    const std::lock_guard lock(Engine().mutex);
    const FakeEngine& engine = Engine();
    *length = engine.dsd ? engine.recorded.size() / 8 + engine.resumes + 1 : engine.recorded.size();
    if (engine.Text("preview") == "late" && engine.running) {
        *length = 0;
    }
    return VrSuccess;
}

VrError Vorrel_GetRecordingPreviewDataLength(std::uint64_t* length) noexcept {
    const std::lock_guard lock(Engine().mutex);
    *length = Engine().dsd ? Engine().raw / 8 : Engine().raw;
    return VrSuccess;
}

VrError Vorrel_SaveFile(const std::vector<VrSaveSetting>* settings) noexcept {
    FakeEngine& engine = Engine();
    if (engine.saver.joinable()) {
        engine.saver.join();
    }
    engine.cancelled = false;
    engine.saver = std::thread([&engine, setting = settings->front()] { engine.Save(setting); });
    return VrSuccess;
}

VrError Vorrel_SaveFileProgress(std::int32_t* file, std::int32_t* total) noexcept {
    *file = *total = Engine().progress;
    return VrSuccess;
}

VrError Vorrel_SaveFileCancel(bool deleteFile) noexcept {
    {
        const std::lock_guard lock(Engine().mutex);
        Engine().deletes = Engine().deletes || deleteFile;
        Engine().cancelled = true;
    }
    Engine().wake.notify_all();
    return VrSuccess;
}

VrError Vorrel_SetTempDirectory(const char* path) noexcept {
    Engine().tempDirectory = path;
    return VrSuccess;
}
