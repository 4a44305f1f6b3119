#pragma once

#include "manager/VorrelManager.h"

namespace vorrel {

/// What tests see of a manager's inside.
struct VorrelManagerParts {
    static Mutex& TurnLock(VorrelManager& manager) { return manager.recordData.TurnLock(); }
    static AsioDataQueue& Queue(VorrelManager& manager) { return manager.dataQueue; }
    static RecordData& Record(VorrelManager& manager) { return manager.recordData; }
    static SaveThread& Saver(VorrelManager& manager) { return manager.saveThread; }
    static RecordRangeManager& Ranges(VorrelManager& manager) { return manager.rangeManager; }
};

}  // namespace vorrel
