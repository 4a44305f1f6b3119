// The smallest host: records three seconds from the first recorder and saves them.
//   minimal OUT.wav SPILL-DIRECTORY      (of its own: the engine clears it of files named tmp*)
#include <vorrel/Vorrel.h>

#include <filesystem>
#include <iostream>

struct Delegate final : IVorrelDelegate {
    double seconds = 0.0;
    bool failed = false, saveFinished = false;

    void Vorrel_NotifyOperationProc(VrRecOperation operation) override {
        saveFinished = operation == VrRecOperationSaveFinished;
    }
    void Vorrel_NotifyStreamPosProc(double position) override { seconds = position; }
    void Vorrel_NotifyConvertPosProc(double) override {}
    void Vorrel_NotifyErrorMessageProc(VrMessageKind kind, const std::string&) override {
        failed = failed || kind != VrMessageBufferOverflow;
    }
};

int main(int count, char** arguments) {
    const auto delegate = std::make_shared<Delegate>();
    // The notifications come in here, on this thread, and nowhere else.
    const auto dispatchUntil = [](auto reached) {
        for (; !reached(); vorrel::MainQueue::Dispatch()) {
            vorrel::MainQueue::Wait(std::chrono::milliseconds(-1));
        }
        return true;
    };
    std::vector<std::string> names;
    std::shared_ptr<VrAudioDeviceInfo> info;
    const VrRecordSetting setting{.rec_type = 0, .freq = 48'000, .bits = 24};
    const bool recorded =
        count == 3 && Vorrel_Init(delegate) == VrSuccess &&
        Vorrel_SetTempDirectory(arguments[2]) == VrSuccess &&
        Vorrel_GetAudioDevices(&names) == VrSuccess && !names.empty() &&
        Vorrel_SetAudioDevice(names.front().c_str()) == VrSuccess &&
        Vorrel_GetAudioDeviceInfo(&info) == VrSuccess &&
        Vorrel_SetRecordSetting(&setting) == VrSuccess && Vorrel_Start() == VrSuccess &&
        dispatchUntil([&] { return delegate->seconds >= 3.0 || delegate->failed; }) &&
        Vorrel_Stop(true) == VrSuccess;
    std::uint64_t frames = 0;  // at PCM, a preview frame is a frame
    if (!recorded || Vorrel_GetPreviewDataLength(&frames) != VrSuccess) {
        std::cerr << "no recording; usage: minimal OUT.wav SPILL-DIRECTORY\n";
        return 1;
    }
    std::vector<VrSaveSetting> files(1);
    files[0].path = std::filesystem::absolute(arguments[1]);  // the engine takes no bare name
    // It cuts fractions off; the middle of a frame cannot become its neighbour.
    files[0].end = (static_cast<double>(frames) + 0.5) / static_cast<double>(setting.freq);
    std::error_code missing;
    const bool saved =
        Vorrel_SaveFile(&files) == VrSuccess &&
        dispatchUntil([&] { return delegate->saveFinished; }) &&
        // A failure leaves less than a header of 44 bytes and all samples.
        std::filesystem::file_size(files[0].path, missing) == 44 + frames * info->i_ch * 3;
    std::cout << files[0].path << (saved ? " is saved\n" : " is not complete\n");
    return saved ? 0 : 1;
}
