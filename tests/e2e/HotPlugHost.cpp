// A host that runs before the recorder is there: waits until there is none, then until there is
// one, records a second of it, saves, and begins again.
//   hot-plug-host DIRECTORY TAKES
// Says "waiting N" and "recorded N" on stdout; the takes are DIRECTORY/hot-plug-N.wav. Exit code 0:
// all takes have been saved.
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "vorrel/IVorrelDelegate.h"
#include "vorrel/MainQueue.h"
#include "vorrel/Vorrel.h"

namespace {

constexpr std::uint64_t kRateHz = 96'000;
constexpr double kSeconds = 1.0;

class Delegate final : public IVorrelDelegate {
public:
    void Vorrel_NotifyOperationProc(VrRecOperation operation) override {
        saved = saved || operation == VrRecOperationSaveFinished;
    }
    void Vorrel_NotifyStreamPosProc(double position) override { seconds = position; }
    void Vorrel_NotifyConvertPosProc(double) override {}
    void Vorrel_NotifyErrorMessageProc(VrMessageKind kind, const std::string& message) override {
        std::printf("message %d %s\n", static_cast<int>(kind), message.c_str());
    }

    double seconds = 0.0;
    bool saved = false;
};

/// Runs the main queue until something holds, which is asked ten times a second; a minute at most.
bool Await(const std::function<bool()>& holds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!holds()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        vorrel::MainQueue::Wait(std::chrono::milliseconds(100));
        vorrel::MainQueue::Dispatch();
    }
    return true;
}

bool Take(Delegate& delegate, const std::string& path, int number) {
    std::vector<std::string> names;
    const auto listed = [&names](std::size_t count) {
        return [&names, count] {
            return Vorrel_GetAudioDevices(&names) == VrSuccess && names.size() == count;
        };
    };
    if (!Await(listed(0))) {
        return false;
    }
    std::printf("waiting %d\n", number);
    // A recorder that has just been found may still be on its way: the next moment will do.
    if (!Await([&] {
            return listed(1)() && Vorrel_SetAudioDevice(names.front().c_str()) == VrSuccess;
        })) {
        return false;
    }
    const VrRecordSetting setting{.rec_type = 0, .freq = kRateHz, .bits = 32};
    delegate.seconds = 0.0;
    delegate.saved = false;
    VrSaveSetting file;
    file.path = path;
    file.end = kSeconds;
    const std::vector<VrSaveSetting> files = {file};
    const bool saved = Vorrel_SetRecordSetting(&setting) == VrSuccess &&
                       Vorrel_Start() == VrSuccess &&
                       Await([&] { return delegate.seconds >= kSeconds + 0.1; }) &&
                       Vorrel_Stop(true) == VrSuccess && Vorrel_SaveFile(&files) == VrSuccess &&
                       Await([&] { return delegate.saved; });
    if (saved) {
        std::printf("recorded %d\n", number);
    }
    return saved;
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::fputs("hot-plug-host DIRECTORY TAKES\n", stderr);
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // each line as it comes
    const std::string directory = arguments[1];
    const int takes = std::stoi(arguments[2]);
    const auto delegate = std::make_shared<Delegate>();
    if (Vorrel_Init(delegate) != VrSuccess ||
        Vorrel_SetTempDirectory(directory.c_str()) != VrSuccess) {
        return 1;
    }
    for (int take = 1; take <= takes; ++take) {
        if (!Take(*delegate, directory + "/hot-plug-" + std::to_string(take) + ".wav", take)) {
            std::printf("take %d failed\n", take);
            return 1;
        }
    }
    return 0;
}
