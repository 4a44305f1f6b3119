#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "device/AudioDeviceList.h"
#include "device/BackendTable.h"
#include "device/CoreAudioManager.h"
#include "device/IAudioDeviceNotify.h"
#include "manager/CaptureGate.h"
#include "manager/IVorrelManager.h"
#include "pipeline/AsioDataQueue.h"
#include "pipeline/ConvertThread.h"
#include "pipeline/RecThread.h"
#include "platform/MainQueueTasks.h"
#include "platform/Realtime.h"
#include "platform/SerialQueue.h"
#include "store/PreviewData.h"
#include "store/RecordData.h"
#include "store/RecordRangeManager.h"
#include "vorrel/IVorrelDelegate.h"
#include "vorrel/VrError.h"
#include "vorrel/VrRecords.h"
#include "writer/SaveThread.h"

namespace vorrel {

/// What the manager is doing. 7 is reserved and never entered.
enum class ManagerState : std::int32_t {
    Uninitialized = 0,  ///< No delegate yet.
    Initialized = 1,    ///< Delegate set, no device selected.
    Ready = 2,          ///< A device is selected; no recording runs.
    Starting = 3,       ///< A start request is queued or running.
    Recording = 4,      ///< The device runs and what it delivers counts as recorded.
    Stopping = 5,       ///< A stop request has been accepted and has not finished.
    Paused = 6,         ///< The device runs; what it delivers is kept but counts as paused.
    Playing = 8,        ///< Reserved for playback, never entered.
};

/// Owns every part of a recording and decides: the state machine behind the exported functions
/// (`include/vorrel/Vorrel.h` is the contract of the operations of the same names), the device's
/// callback, and the notifications to the host.
///
/// Threads: the exported operations come from the host's thread; start and stop work runs on the
/// serial queue "RecHelperQueue"; `AudioDevice_IOProc` on the device's real-time thread; the
/// other device events on a notification thread; the operations of `IVorrelManager` on any.
class VorrelManager final : public IVorrelManager, public IAudioDeviceNotify {
public:
    /// @param provider  Gives the back ends at the first device call.
    explicit VorrelManager(BackendProvider provider = SelectBackends);
    /// Finishes queued start and stop work, then releases the parts in reverse order.
    ~VorrelManager();
    VorrelManager(const VorrelManager&) = delete;
    VorrelManager& operator=(const VorrelManager&) = delete;

    // Recording control (VorrelManager.cpp)
    VrError Init(std::shared_ptr<IVorrelDelegate> newDelegate);
    VrError New();
    VrError StartPreRecording();
    VrError Start();
    VrError Stop(bool wait);
    VrError Pause();
    VrError Resume();
    VrError EnableLoopback(bool enable);
    VrError StartPlay(double position);

    // Device selection and settings (VorrelManagerDevice.cpp)
    VrError GetAudioDevices(std::vector<std::string>* names);
    VrError SetAudioDevice(const char* name);
    VrError GetAudioDeviceInfo(std::shared_ptr<VrAudioDeviceInfo>* info);
    VrError SetRecordSetting(const VrRecordSetting* setting);
    VrError GetRecordSetting(std::shared_ptr<VrRecordSetting>* setting);

    // Saving, preview, temporary directory (VorrelManagerSave.cpp)
    VrError SaveFile(const std::vector<VrSaveSetting>* settings);
    VrError SaveFileProgress(std::int32_t* fileProgress, std::int32_t* totalProgress);
    VrError SaveFileCancel(bool deleteFile);
    /// @param available  true reads the recorded ranges, false everything captured.
    VrError GetPreviewData(std::uint64_t start, std::uint64_t end, std::int16_t* buffer,
                           bool available);
    VrError GetPreviewDataLength(std::uint64_t* length, bool available);
    VrError SetTempDirectory(const char* path);

    // IVorrelManager
    void ConvertThread_AddDataNotify() override;
    void NotifyOperationProc(VrRecOperation operation) override;
    void NotifyStreamPosProc(double seconds) override;
    void NotifyConvertPosProc(double seconds) override;
    void NotifyErrorMessageProc(int kind, const char* message) override;
    const char* GetTempDirectory() override;
    bool IsTempDirectoryExists() override;

    // IAudioDeviceNotify (AudioDevice_IOProc: VorrelManagerCapture.cpp)
    void AudioDevice_ProcessorOverload() override;
    void AudioDevice_DeviceIsAliveChanged() override;
    VORREL_REALTIME void AudioDevice_IOProc(const AudioBufferList* input,
                                            AudioBufferList* output) override;

    /// Converts `count` float words that carry DSD to 16-bit words of 16 one-bit samples: times
    /// 32768, saturated. Exact for what the device delivers, multiples of 1/32768.
    VORREL_REALTIME static void Float_To_DSD16(std::int16_t* dst, const float* src,
                                               std::size_t count);

    /// What the host may be told: `Stopping` from the moment a stop is accepted until it has
    /// finished, whatever a start that runs before it sets meanwhile.
    ManagerState State() const {
        return pendingStops.load() > 0 ? ManagerState::Stopping : state.load();
    }

private:
    friend struct VorrelManagerParts;  // a test's way to hold a lock as a slow disk would

    /// Queues start work.
    VrError RequestStart(bool preRecording);
    /// Start work, on the helper queue.
    void RecStartImpl(bool preRecording);
    /// Stop work, on the helper queue.
    void RecStopImpl();
    /// Stops a device that runs. Whatever comes of it, no callback is under way afterwards.
    void StopDevice() noexcept;
    /// Submits a notification.
    /// @param notification  Called with the delegate.
    /// @param reserve       What is submitted when there is no memory for it. Without one, it is
    ///                      traced and lost.
    template <class Notification>
    void Notify(Notification notification, RealtimeTask* reserve = nullptr) noexcept;
    /// Logs a record event at the present raw length, between two turns of the record worker.
    void AddRecordEvent(int kind);

    struct Lanes;
    /// Queues one block of every channel of every buffer, filled by `fill(blocks, lanes)`, and
    /// wakes the record worker.
    template <class Fill>
    VORREL_REALTIME void QueueBlocks(const AudioBufferList* input, std::size_t bytesPerFrame,
                                     const Fill& fill);
    VORREL_REALTIME void IOProc_PCM(const AudioBufferList* input, AudioBufferList* output);
    VORREL_REALTIME void IOProc_DSD16(const AudioBufferList* input, AudioBufferList* output);
    /// Queues the blocks of one device buffer; the first that a full queue refuses in a recording
    /// is reported.
    VORREL_REALTIME VrError Enqueue(std::span<Block> blocks);
    /// Tells the host of a lost buffer, once per recording.
    VORREL_REALTIME void ReportOverflow();

    VrError FindDevices(std::vector<FoundDeviceInfo>& list);
    /// Builds `deviceInfo`; leaves the device configured for PCM.
    VrError GetAudioDeviceInfo(const FoundDeviceInfo& record);
    /// Deletes spill files that an earlier run left in the temporary directory.
    void DeleteLeftoverSpillFiles();
    /// A text of `path` that stays as long as the manager. @throws std::bad_alloc
    const std::string& KeepTempDirectory(const char* path);

    // Built in this order and released in the reverse one: the device goes first, then the
    // workers that it feeds, then what they work on.
    std::shared_ptr<VrAudioDeviceInfo> deviceInfo;
    AudioDeviceList deviceList;
    std::shared_ptr<IVorrelDelegate> delegate;  // set once, before any other thread exists
    // One of each operation and of each message without its text, made with the delegate: what the
    // device's thread sends, and what is sent when memory is short. A host waits for them.
    std::array<std::unique_ptr<RealtimeTask>, VrRecOperationSaveFinished + 1> operationTasks;
    std::array<std::unique_ptr<RealtimeTask>, VrMessageTempDirectoryMissing + 1> messageTasks;
    SaveList saveSettings;
    std::atomic<bool> recordStartPending{false};  // set by Start, cleared by the callback
    // Every directory that was ever set stays, so that a text handed to a worker stays valid. One
    // may stand here that was refused afterwards.
    std::deque<std::string> tempDirectories;
    std::atomic<const std::string*> tempDirectory{nullptr};
    std::atomic<bool> overflowReported{false};  // cleared by a start, set by the callback
    SerialQueue helperQueue;
    RecordRangeManager rangeManager;
    PreviewData previewData;
    RecordData recordData;
    AsioDataQueue dataQueue;
    CaptureGate captureGate;  // open from just before the device starts until it has stopped
    // One block of each channel, empty between two callbacks; sized while the gate is closed.
    std::vector<Block> captureBlocks;
    SaveThread saveThread;
    ConvertThread convertThread;
    RecThread recThread;
    CoreAudioManager audioManager;
    std::atomic<ManagerState> state{ManagerState::Uninitialized};
    std::atomic<int> pendingStops{0};    // accepted and not finished
    std::uint32_t excludedRateMask = 0;  // of the selected device; kept until the next selection
};

}  // namespace vorrel
