// A stand-in for the engine that does what a test can hardly make the real one do: FAKE_ENGINE in
// the environment, pairs of key=value with commas between, sets it up.
//
//   devices=0            no recorder            busy=1          the recorder is refused
//   start=fail           the start fails        stop=hang       a stop never completes
//   lose=SECONDS         the recorder is lost   overflow=SECONDS  a buffer is lost
//   store=SECONDS        storing fails          gone=SECONDS    the temporary directory is gone
//   save=fail:TEXT       a save fails for paths with TEXT in them, half-way
//   save=skip:TEXT       ... is skipped         save=hang:TEXT  ... goes on until it is cancelled
//   appear=1             the target comes into being while it is saved
//
// It records two channels of 24-bit counter samples at 48 kHz, 0.1 s of it every 5 ms.
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
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

constexpr std::uint64_t kRate = 48'000;
constexpr std::uint32_t kChannels = 2;
constexpr std::uint64_t kStepFrames = kRate / 10;
constexpr auto kStepTime = std::chrono::milliseconds(5);
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
        std::ignore = Vorrel_SaveFileCancel(false);
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
        delivered.notify_all();
        return tasks.size();
    }

    std::string Text(const std::string& key) const {
        const auto found = setup.find(key);
        return found == setup.end() ? "" : found->second;
    }
    /// Frames after which something is to happen, far away when it is not.
    std::uint64_t Due(const std::string& key) const {
        const std::string text = Text(key);
        return text.empty() ? ~std::uint64_t{0}
                            : static_cast<std::uint64_t>(std::stod(text) * double{kRate});
    }
    bool Applies(const std::string& mode, const std::string& path) const {
        const std::string text = Text("save");
        return text.rfind(mode + ":", 0) == 0 &&
               path.find(text.substr(mode.size() + 1)) != std::string::npos;
    }

    void Run() {
        std::unique_lock lock(mutex);
        while (!wake.wait_for(lock, kStepTime, [this] { return ending; })) {
            raw += kStepFrames;
            if (paused || stalled) {
                continue;
            }
            for (std::uint64_t frame = raw - kStepFrames; frame < raw; ++frame) {
                recorded.push_back(static_cast<std::uint32_t>(frame));
            }
            grown = true;
            const std::uint64_t length = recorded.size();
            lock.unlock();
            const double seconds = static_cast<double>(length / kStepFrames) * 0.1;
            Post([seconds](IVorrelDelegate& host) { host.Vorrel_NotifyStreamPosProc(seconds); });
            const auto reached = [&](const char* key) {
                const std::uint64_t due = Due(key);
                return length >= due && length - kStepFrames < due;
            };
            if (reached("lose")) {
                Message(VrMessageDeviceError, "");
            }
            if (reached("overflow")) {
                Message(VrMessageBufferOverflow, "");
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
        const auto frame = [](double seconds) {
            return static_cast<std::uint64_t>(seconds * double{kRate});
        };
        const std::uint64_t start = frame(setting.start);
        const std::uint64_t end = std::min<std::uint64_t>(frame(setting.end), recorded.size());
        if (Applies("skip", setting.path)) {
            Message(VrMessageFileSkipped, setting.path);
            return Operation(VrRecOperationSaveFinished);
        }
        std::FILE* file = std::fopen(setting.path.c_str(), "wb");
        const auto number = [file](std::uint64_t value, int width) {
            for (int index = 0; index < width; ++index) {
                std::fputc(static_cast<int>(value >> (8 * index) & 0xFF), file);
            }
        };
        const std::uint64_t dataSize = (end - start) * kChannels * 3;
        std::fputs("RIFF", file);
        number(dataSize + 36, 4);
        std::fputs("WAVEfmt ", file);
        number(16, 4);
        number(1, 2);
        number(kChannels, 2);
        number(kRate, 4);
        number(kRate * kChannels * 3, 4);
        number(kChannels * 3, 2);
        number(24, 2);
        std::fputs("data", file);
        number(dataSize, 4);
        std::fflush(file);
        const bool fails = Applies("fail", setting.path);
        if (Applies("hang", setting.path)) {
            progress = 250;
            std::unique_lock lock(mutex);
            wake.wait(lock, [this] { return cancelled.load(); });
        }
        for (std::uint64_t index = start; index < end && !fails && !cancelled; ++index) {
            for (std::uint32_t channel = 0; channel < kChannels; ++channel) {
                number(std::uint64_t{recorded[index]} * kChannels + channel, 3);
            }
        }
        std::fclose(file);
        if (Text("appear") == "1") {
            std::string target = setting.path;
            target.erase(target.find("/.") + 1, 1);
            target.erase(target.find(".partial-"));
            std::fclose(std::fopen(target.c_str(), "wb"));
        }
        progress = 1000;
        Operation(VrRecOperationSaveFinished);
        if (fails) {
            // The message comes after the end, and no sooner than the host has met the end.
            std::unique_lock lock(mutex);
            delivered.wait(lock, [this] { return queue.empty(); });
            lock.unlock();
            Message(VrMessageSaveFailed, setting.path);
        }
    }

    const int descriptor;
    std::map<std::string, std::string> setup;
    std::shared_ptr<IVorrelDelegate> delegate;
    std::mutex mutex;
    std::condition_variable wake, delivered;
    std::deque<std::function<void(IVorrelDelegate&)>> queue;
    std::thread device, saver;
    std::vector<std::uint32_t> recorded;  // the device's frame of each recorded one
    std::uint64_t raw = 0;
    std::atomic<int> progress{0};
    std::atomic<bool> paused{false}, stalled{false}, grown{false}, cancelled{false};
    bool ending = false, selected = false, running = false;
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
    return Engine().running ? VrErrorInvalidState : VrSuccess;
}

VrError Vorrel_GetAudioDevices(std::vector<std::string>* names) noexcept {
    names->clear();
    if (Engine().Text("devices") != "0") {
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
    (*info)->i_ch = kChannels;
    (*info)->PCM_supported_freq = {kRate};
    return VrSuccess;
}

VrError Vorrel_SetRecordSetting(const VrRecordSetting*) noexcept {
    return VrSuccess;
}

VrError Vorrel_Start() noexcept {
    FakeEngine& engine = Engine();
    if (engine.Text("start") == "fail") {
        engine.Message(VrMessageDeviceError, "");
        return VrSuccess;
    }
    engine.running = true;
    engine.Operation(VrRecOperationDeviceStarted);
    engine.device = std::thread([&engine] { engine.Run(); });
    return VrSuccess;
}

VrError Vorrel_Stop(bool) noexcept {
    FakeEngine& engine = Engine();
    if (!engine.running) {
        return VrErrorInvalidState;
    }
    engine.EndDevice();
    if (engine.Text("stop") == "hang") {
        return VrSuccess;
    }
    engine.running = false;
    engine.Operation(VrRecOperationStopped);
    return VrSuccess;
}

VrError Vorrel_Pause() noexcept {
    if (!Engine().grown) {
        std::_Exit(kMisused);  // the engine would read the empty stretch as one that is still open
    }
    Engine().paused = true;
    return VrSuccess;
}

VrError Vorrel_Resume() noexcept {
    Engine().grown = false;
    Engine().paused = false;
    return VrSuccess;
}

VrError Vorrel_GetRecordingPreviewData(std::uint64_t start, std::uint64_t end,
                                       std::int16_t* samples) noexcept {
    std::fill_n(samples, (end - start) * kChannels, std::int16_t{16384});
    return VrSuccess;
}

VrError Vorrel_GetPreviewDataLength(std::uint64_t* length) noexcept {
    const std::lock_guard lock(Engine().mutex);
    *length = Engine().recorded.size();
    return VrSuccess;
}

VrError Vorrel_GetRecordingPreviewDataLength(std::uint64_t* length) noexcept {
    const std::lock_guard lock(Engine().mutex);
    *length = Engine().raw;
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
    if (deleteFile) {
        std::_Exit(
            kMisused);  // the engine would delete the user's directory, too, once it is empty
    }
    {
        const std::lock_guard lock(Engine().mutex);
        Engine().cancelled = true;
    }
    Engine().wake.notify_all();
    return VrSuccess;
}

VrError Vorrel_SetTempDirectory(const char*) noexcept {
    return VrSuccess;
}
