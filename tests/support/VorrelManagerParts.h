#pragma once

#include "manager/VorrelManager.h"

namespace vorrel {

/// What tests see of a manager's inside.
struct VorrelManagerParts {
    static ReadWriteMutex& TurnLock(VorrelManager& manager) { return manager.recordData.TurnLock(); }
    static AsioDataQueue& Queue(VorrelManager& manager) { return manager.dataQueue; }
    static RecordData& Record(VorrelManager& manager) { return manager.recordData; }
    static SaveThread& Saver(VorrelManager& manager) { return manager.saveThread; }
    static PreviewData& Preview(VorrelManager& manager) { return manager.previewData; }
    static SerialQueue& HelperQueue(VorrelManager& manager) { return manager.helperQueue; }
    static RealtimeTask& MessageTask(VorrelManager& manager, VrMessageKind kind) {
        return *manager.messageTasks[static_cast<std::size_t>(kind)];
    }
    /// Describes the selected device as one with that record.
    static VrError Describe(VorrelManager& manager, const FoundDeviceInfo& record) {
        return manager.GetAudioDeviceInfo(record);
    }
    static RecordRangeManager& Ranges(VorrelManager& manager) { return manager.rangeManager; }
};

}  // namespace vorrel
