// The smallest host: records three seconds from the first recorder and saves them.
//   minimal OUT.wav SPILL-DIRECTORY      (of its own: the engine clears it of files named tmp*)
#include <vorrel/Vorrel.h>

#include <chrono>
#include <filesystem>
#include <iostream>
#include <stdexcept>

namespace {

struct Delegate final : IVorrelDelegate {
    double seconds = 0.0;
    bool failed = false, saveFinished = false;

    void Vorrel_NotifyOperationProc(VrRecOperation operation) override {
        saveFinished = operation == VrRecOperationSaveFinished;
    }
    void Vorrel_NotifyStreamPosProc(double position) override { seconds = position; }
    void Vorrel_NotifyConvertPosProc(double) override {}
    void Vorrel_NotifyErrorMessageProc(VrMessageKind kind, const std::string& text) override {
        std::cerr << "message " << kind << ' ' << text << '\n';
        failed = failed || kind != VrMessageBufferOverflow;
    }
};

void Require(VrError error, const char* what) {
    if (error != VrSuccess) {
        throw std::runtime_error(std::string(what) + " failed with " + std::to_string(error));
    }
}

/// The notifications come in here, on this thread, and nowhere else.
template <typename Condition>
void DispatchUntil(Condition reached) {
    while (!reached()) {
        vorrel::MainQueue::Wait(std::chrono::milliseconds(-1));
        vorrel::MainQueue::Dispatch();
    }
}

void Record(const std::filesystem::path& out, const char* spillDirectory) {
    const auto delegate = std::make_shared<Delegate>();
    Require(Vorrel_Init(delegate), "Vorrel_Init");
    Require(Vorrel_SetTempDirectory(spillDirectory), "Vorrel_SetTempDirectory");
    std::vector<std::string> names;
    Require(Vorrel_GetAudioDevices(&names), "Vorrel_GetAudioDevices");
    Require(Vorrel_SetAudioDevice(names.empty() ? "" : names.front().c_str()), "a recorder");
    std::shared_ptr<VrAudioDeviceInfo> info;
    Require(Vorrel_GetAudioDeviceInfo(&info), "Vorrel_GetAudioDeviceInfo");
    const VrRecordSetting setting{.rec_type = 0, .freq = 48'000, .bits = 24};
    Require(Vorrel_SetRecordSetting(&setting), "Vorrel_SetRecordSetting");

    Require(Vorrel_Start(), "Vorrel_Start");
    DispatchUntil([&] { return delegate->seconds >= 3.0 || delegate->failed; });
    Require(Vorrel_Stop(true), "Vorrel_Stop");

    std::uint64_t frames = 0;  // at PCM, a preview frame is a frame
    Require(Vorrel_GetPreviewDataLength(&frames), "Vorrel_GetPreviewDataLength");
    VrSaveSetting file;
    file.path = out.string();
    // The engine cuts fractions off; the middle of a frame cannot become its neighbour.
    file.end = (static_cast<double>(frames) + 0.5) / static_cast<double>(setting.freq);
    const std::vector<VrSaveSetting> request{file};
    Require(Vorrel_SaveFile(&request), "Vorrel_SaveFile");
    DispatchUntil([&] { return delegate->saveFinished; });

    // What a failure has left is shorter than a header of 44 bytes and all samples.
    if (std::filesystem::file_size(out) != 44 + frames * info->i_ch * (setting.bits / 8)) {
        throw std::runtime_error("the file is not complete");
    }
    std::cout << out.string() << ": " << frames << " frames\n";
}

}  // namespace

int main(int count, char** arguments) {
    try {
        if (count != 3) {
            throw std::runtime_error("usage: minimal OUT.wav SPILL-DIRECTORY");
        }
        // Absolute: the engine takes a path only with a directory in front.
        Record(std::filesystem::absolute(arguments[1]), arguments[2]);
        return 0;
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << '\n';
        return 1;
    }
}
