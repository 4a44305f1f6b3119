#include "vorrel/Vorrel.h"

#include <exception>
#include <utility>

#include "manager/VorrelManager.h"
#include "platform/Trace.h"

namespace {

/// The one manager: made when the library is loaded, gone when the process ends.
vorrel::VorrelManager manager;

/// Runs one operation; no exception leaves an exported function.
template <class Operation>
VrError Forward(Operation&& operation) noexcept {
    try {
        return operation();
    } catch (const std::exception& error) {
        vorrel::Trace(__FILE__, __LINE__, "%s", error.what());
        return VrErrorFailed;
    } catch (...) {
        return VrErrorFailed;
    }
}

}  // namespace

VrError Vorrel_Init(std::shared_ptr<IVorrelDelegate> delegate) noexcept {
    return Forward([&] { return manager.Init(std::move(delegate)); });
}

VrError Vorrel_New() noexcept {
    return Forward([] { return manager.New(); });
}

VrError Vorrel_GetAudioDevices(std::vector<std::string>* names) noexcept {
    return Forward([&] { return manager.GetAudioDevices(names); });
}

VrError Vorrel_SetAudioDevice(const char* name) noexcept {
    return Forward([&] { return manager.SetAudioDevice(name); });
}

VrError Vorrel_GetAudioDeviceInfo(std::shared_ptr<VrAudioDeviceInfo>* info) noexcept {
    return Forward([&] { return manager.GetAudioDeviceInfo(info); });
}

VrError Vorrel_SetRecordSetting(const VrRecordSetting* setting) noexcept {
    return Forward([&] { return manager.SetRecordSetting(setting); });
}

VrError Vorrel_GetRecordSetting(std::shared_ptr<VrRecordSetting>* setting) noexcept {
    return Forward([&] { return manager.GetRecordSetting(setting); });
}

VrError Vorrel_StartPreRecording() noexcept {
    return Forward([] { return manager.StartPreRecording(); });
}

VrError Vorrel_Start() noexcept {
    return Forward([] { return manager.Start(); });
}

VrError Vorrel_Stop(bool wait) noexcept {
    return Forward([&] { return manager.Stop(wait); });
}

VrError Vorrel_Pause() noexcept {
    return Forward([] { return manager.Pause(); });
}

VrError Vorrel_Resume() noexcept {
    return Forward([] { return manager.Resume(); });
}

VrError Vorrel_EnableLoopback(bool enable) noexcept {
    return Forward([&] { return manager.EnableLoopback(enable); });
}

VrError Vorrel_StartPlay(double position) noexcept {
    return Forward([&] { return manager.StartPlay(position); });
}

VrError Vorrel_GetPreviewData(std::uint64_t start, std::uint64_t end,
                              std::int16_t* samples) noexcept {
    return Forward([&] { return manager.GetPreviewData(start, end, samples, true); });
}

VrError Vorrel_GetRecordingPreviewData(std::uint64_t start, std::uint64_t end,
                                       std::int16_t* samples) noexcept {
    return Forward([&] { return manager.GetPreviewData(start, end, samples, false); });
}

VrError Vorrel_GetPreviewDataLength(std::uint64_t* length) noexcept {
    return Forward([&] { return manager.GetPreviewDataLength(length, true); });
}

VrError Vorrel_GetRecordingPreviewDataLength(std::uint64_t* length) noexcept {
    return Forward([&] { return manager.GetPreviewDataLength(length, false); });
}

VrError Vorrel_SaveFile(const std::vector<VrSaveSetting>* settings) noexcept {
    return Forward([&] { return manager.SaveFile(settings); });
}

VrError Vorrel_SaveFileProgress(std::int32_t* file, std::int32_t* total) noexcept {
    return Forward([&] { return manager.SaveFileProgress(file, total); });
}

VrError Vorrel_SaveFileCancel(bool deleteFile) noexcept {
    return Forward([&] { return manager.SaveFileCancel(deleteFile); });
}

VrError Vorrel_SetTempDirectory(const char* path) noexcept {
    return Forward([&] { return manager.SetTempDirectory(path); });
}
