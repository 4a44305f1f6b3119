#include "manager/VorrelManager.h"

#include <exception>
#include <new>
#include <tuple>
#include <utility>

#include "convert/SampleTypeInfo.h"
#include "platform/GuardedTask.h"
#include "platform/Trace.h"

namespace vorrel {
namespace {

constexpr char kHelperQueueLabel[] = "RecHelperQueue";
// The device delivers buffers of 50 ms where its range allows it.
constexpr std::uint64_t kBufferMilliseconds = 50;
// A preview frame stands for this many one-bit samples.
constexpr std::uint64_t kDsdBitsPerPreviewFrame = 64;
// Past any device's; keeps the frames of a buffer a 32-bit number.
constexpr double kMaxRateHz = 4e9;
// One 16-bit word of the device carries this many one-bit samples.
constexpr std::size_t kDsdWordBytes = 2;

/// One task for each code from 0 on, which calls `notify` with it.
template <class Tasks, class Notify>
Tasks MakeReserve(const Notify& notify) {
    Tasks tasks;
    int code = 0;
    for (std::unique_ptr<RealtimeTask>& task : tasks) {
        task = std::make_unique<RealtimeTask>([notify, code] { notify(code); });
        ++code;
    }
    return tasks;
}

template <std::size_t Count>
RealtimeTask* ReserveOf(const std::array<std::unique_ptr<RealtimeTask>, Count>& tasks, int code) {
    const auto index = static_cast<std::size_t>(code);  // a negative one lies past the end
    return index < Count ? tasks[index].get() : nullptr;
}

}  // namespace

VorrelManager::VorrelManager(BackendProvider provider)
    : saveSettings(std::make_shared<const std::vector<VrSaveSettingInternal>>()),
      helperQueue(kHelperQueueLabel),
      previewData(*this),
      recordData(*this),
      saveThread(*this),
      convertThread(*this),
      recThread(*this),
      audioManager(std::move(provider)) {}

VorrelManager::~VorrelManager() {
    // Queued start and stop work uses every member; none may go before it has run.
    helperQueue.Close();
}

VrError VorrelManager::Init(std::shared_ptr<IVorrelDelegate> newDelegate) {
    if (!newDelegate) {
        return VrErrorInvalidParameter;
    }
    if (State() != ManagerState::Uninitialized) {
        return VrErrorAlreadyInitialized;
    }
    // All, or nothing of it: memory may run out between two.
    auto operations = MakeReserve<decltype(operationTasks)>([receiver = newDelegate](int code) {
        receiver->Vorrel_NotifyOperationProc(static_cast<VrRecOperation>(code));
    });
    auto messages = MakeReserve<decltype(messageTasks)>([receiver = newDelegate](int code) {
        receiver->Vorrel_NotifyErrorMessageProc(static_cast<VrMessageKind>(code), "");
    });
    operationTasks = std::move(operations);
    messageTasks = std::move(messages);
    delegate = std::move(newDelegate);
    state = ManagerState::Initialized;
    return VrSuccess;
}

VrError VorrelManager::New() {
    if (State() == ManagerState::Uninitialized) {
        return VrErrorNotInitialized;
    }
    if (State() > ManagerState::Ready) {
        return VrErrorInvalidState;
    }
    // A store that cannot get its small buffers is empty all the same.
    std::ignore = previewData.TemporaryClear();
    std::ignore = recordData.TemporaryClear();
    rangeManager.Reset();
    return VrSuccess;
}

VrError VorrelManager::StartPreRecording() {
    if (State() == ManagerState::Uninitialized) {
        return VrErrorNotInitialized;
    }
    if (State() != ManagerState::Ready) {
        return VrErrorInvalidState;
    }
    return RequestStart(true);
}

VrError VorrelManager::Start() {
    switch (State()) {
        case ManagerState::Uninitialized:
            return VrErrorNotInitialized;
        case ManagerState::Ready:
            return RequestStart(false);
        case ManagerState::Paused:
            // Kept: an ordinary pause, too, is left with a record event and a record-started
            // notification (VorrelManagerTest.StartInAPauseSendsRecordStarted).
            AddRecordEvent(kRecordEventRecord);
            state = ManagerState::Recording;
            recordStartPending = true;
            return VrSuccess;
        default:
            return VrErrorInvalidState;
    }
}

VrError VorrelManager::RequestStart(bool preRecording) {
    state = ManagerState::Starting;
    overflowReported = false;
    try {
        helperQueue.Async([this, preRecording] { RecStartImpl(preRecording); });
    } catch (const std::exception& error) {
        // No memory or no thread: nothing has been queued.
        Trace(__FILE__, __LINE__, "start refused: %s", error.what());
        state = ManagerState::Ready;
        return VrErrorFailed;
    }
    return VrSuccess;
}

VrError VorrelManager::Stop(bool wait) {
    switch (State()) {
        case ManagerState::Uninitialized:
            return VrErrorNotInitialized;
        case ManagerState::Starting:
        case ManagerState::Recording:
        case ManagerState::Paused:
            break;
        case ManagerState::Playing:
            return VrErrorNotSupported;
        default:
            return VrErrorInvalidState;
    }
    // All that can fail comes first: a stop event cannot be taken back, and what a take goes on to
    // capture behind one would not count as recorded.
    SerialQueue::Prepared stop;
    try {
        stop = helperQueue.Prepare([this] { RecStopImpl(); });
    } catch (const std::exception& error) {
        // No memory: nothing has changed, and the host may try again.
        Trace(__FILE__, __LINE__, "stop refused: %s", error.what());
        return VrErrorFailed;
    }
    ++pendingStops;
    recordStartPending = false;
    state = ManagerState::Stopping;
    AddRecordEvent(kRecordEventStop);
    // The queue is serial: a start that has not run yet runs first.
    if (wait) {
        helperQueue.Sync(std::move(stop));
    } else {
        helperQueue.Async(std::move(stop));
    }
    return VrSuccess;
}

VrError VorrelManager::Pause() {
    if (State() == ManagerState::Uninitialized) {
        return VrErrorNotInitialized;
    }
    if (State() != ManagerState::Recording) {
        return VrErrorInvalidState;
    }
    AddRecordEvent(kRecordEventPause);
    state = ManagerState::Paused;
    return VrSuccess;
}

VrError VorrelManager::Resume() {
    if (State() == ManagerState::Uninitialized) {
        return VrErrorNotInitialized;
    }
    if (State() != ManagerState::Paused) {
        return VrErrorInvalidState;
    }
    AddRecordEvent(kRecordEventResume);
    state = ManagerState::Recording;
    return VrSuccess;
}

VrError VorrelManager::EnableLoopback(bool) {
    return VrErrorNotSupported;
}

VrError VorrelManager::StartPlay(double) {
    return VrErrorNotSupported;
}

void VorrelManager::AddRecordEvent(int kind) {
    const ExclusiveLock turn(recordData.TurnLock());
    std::uint64_t position = recordData.GetLength(false);
    const SampleTypeInfo* sampleType = recordData.GetSampleTypeInfo();
    if (sampleType != nullptr && sampleType->isDsd != 0) {
        // Kept: the log counts preview frames at DSD, while the record store applies it to its
        // frames of 16 bits (RecordDataTest pins the store's side).
        position /= kDsdBitsPerPreviewFrame;
    }
    rangeManager.AddRecordEvent(position, kind);
}

void VorrelManager::RecStartImpl(bool preRecording) {
    bool recThreadStarted = false;
    bool convertThreadStarted = false;

    const auto startAll = [&]() -> VrError {
        if (const VrError error = previewData.TemporaryClear(); error != VrSuccess) {
            return error;
        }
        if (const VrError error = recordData.TemporaryClear(); error != VrSuccess) {
            return error;
        }
        rangeManager.Reset();

        double deviceRate = 0.0;
        if (const VrError error = audioManager.GetSampleRate(deviceRate); error != VrSuccess) {
            return error;
        }
        if (!(deviceRate >= 1.0 && deviceRate <= kMaxRateHz)) {
            return VrErrorFailed;
        }
        const auto rate = static_cast<std::uint64_t>(deviceRate);
        std::int64_t type = 0;
        if (const VrError error = audioManager.GetSampleType(type); error != VrSuccess) {
            return error;
        }
        const SampleTypeInfo* sampleType = GetSampleTypeInfo(type);
        if (sampleType == nullptr) {
            return VrErrorFailed;
        }
        const bool isDsd = sampleType->isDsd != 0;

        // Kept: at DSD the one-bit rate counts as it is, sixteen times the word rate; the device
        // clamps it (VorrelManagerTest.AsksForFiftyMillisecondsOfTheDsdRate).
        auto frames = static_cast<std::uint32_t>(rate * kBufferMilliseconds / 1000);
        if (const VrError error = audioManager.SetBufferSize(frames); error != VrSuccess) {
            return error;
        }
        std::uint16_t channels = 0;
        std::uint16_t outputs = 0;
        if (const VrError error = audioManager.GetChannels(channels, outputs); error != VrSuccess) {
            return error;
        }

        if (const VrError error = dataQueue.Init(channels); error != VrSuccess) {
            return error;
        }
        captureBlocks = std::vector<Block>(channels);
        dataQueue.ReserveBlocks(frames * (isDsd ? kDsdWordBytes : sizeof(float)));
        if (const VrError error = recordData.Init(channels, rate, sampleType, &rangeManager);
            error != VrSuccess) {
            return error;
        }
        const std::uint64_t previewRate = isDsd ? rate / kDsdBitsPerPreviewFrame : rate;
        if (const VrError error = previewData.Init(channels, previewRate, &rangeManager);
            error != VrSuccess) {
            return error;
        }

        if (const VrError error = recThread.Start(&dataQueue, &recordData, channels);
            error != VrSuccess) {
            return error;
        }
        recThreadStarted = true;
        if (const VrError error = convertThread.Start(&recordData, &previewData);
            error != VrSuccess) {
            return error;
        }
        convertThreadStarted = true;
        captureGate.Open();
        return audioManager.Start();
    };

    VrError result = VrErrorFailed;
    try {
        result = startAll();
        if (result == VrSuccess && !preRecording) {
            // Before the state that lets the host log its own events.
            AddRecordEvent(kRecordEventRecord);
        }
    } catch (const std::exception& error) {
        Trace(__FILE__, __LINE__, "start failed: %s", error.what());
        result = VrErrorFailed;
    } catch (...) {
        Trace(__FILE__, __LINE__, "start failed with something unknown");
        result = VrErrorFailed;
    }

    if (result != VrSuccess) {
        StopDevice();  // runs only if what came after its start failed
        if (convertThreadStarted) {
            convertThread.Stop();
        }
        if (recThreadStarted) {
            recThread.Stop();
        }
        state = ManagerState::Ready;
        NotifyErrorMessageProc(VrMessageDeviceError, nullptr);
        return;
    }
    state = preRecording ? ManagerState::Paused : ManagerState::Recording;
    NotifyOperationProc(VrRecOperationDeviceStarted);
}

void VorrelManager::StopDevice() noexcept {
    // A start that failed leaves nothing to stop, and a device that is gone cannot be: both are no
    // error here. What a back end throws goes no further, for the workers are still to be stopped
    // and the host is to be told.
    RunGuarded([this] { std::ignore = audioManager.Stop(); }, kHelperQueueLabel);
    // A device whose stop fails may go on: it must not come to what the next start makes anew.
    captureGate.Close();
}

void VorrelManager::RecStopImpl() {
    // The device first: after it, no callback wakes a worker that has ended.
    StopDevice();
    recThread.Stop();
    convertThread.Stop();
    recordStartPending = false;
    state = ManagerState::Ready;
    --pendingStops;
    NotifyOperationProc(VrRecOperationStopped);
}

void VorrelManager::ConvertThread_AddDataNotify() {
    convertThread.AddDataNotify();
}

template <class Notification>
void VorrelManager::Notify(Notification notification, RealtimeTask* reserve) noexcept {
    try {
        PostToMainQueue([receiver = delegate, notification = std::move(notification)] {
            notification(*receiver);
        });
    } catch (const std::exception& error) {
        if (reserve == nullptr || !reserve->Post()) {
            Trace(__FILE__, __LINE__, "notification lost: %s", error.what());
        }
    }
}

void VorrelManager::NotifyOperationProc(VrRecOperation operation) {
    Notify(
        [operation](IVorrelDelegate& receiver) { receiver.Vorrel_NotifyOperationProc(operation); },
        ReserveOf(operationTasks, operation));
}

void VorrelManager::NotifyStreamPosProc(double seconds) {
    Notify([seconds](IVorrelDelegate& receiver) { receiver.Vorrel_NotifyStreamPosProc(seconds); });
}

void VorrelManager::NotifyConvertPosProc(double seconds) {
    Notify([seconds](IVorrelDelegate& receiver) { receiver.Vorrel_NotifyConvertPosProc(seconds); });
}

void VorrelManager::NotifyErrorMessageProc(int kind, const char* message) {
    const auto shared = [&] {
        try {
            return std::make_shared<const std::string>(message == nullptr ? "" : message);
        } catch (const std::bad_alloc&) {
            return std::shared_ptr<const std::string>();  // the kind alone still tells
        }
    }();
    Notify(
        [kind, shared](IVorrelDelegate& receiver) {
            receiver.Vorrel_NotifyErrorMessageProc(static_cast<VrMessageKind>(kind),
                                                   shared ? *shared : std::string());
        },
        ReserveOf(messageTasks, kind));
}

void VorrelManager::AudioDevice_ProcessorOverload() {}

void VorrelManager::AudioDevice_DeviceIsAliveChanged() {
    // The recording is left as it is: the host decides, what is stored stays.
    NotifyErrorMessageProc(VrMessageDeviceError, nullptr);
}

}  // namespace vorrel
