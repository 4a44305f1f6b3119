#include "pipeline/DSDStreamProcessingThread.h"

#include <tuple>

namespace vorrel {

DSDStreamProcessingThread::DSDStreamProcessingThread() : ThreadBase(2) {}

DSDStreamProcessingThread::~DSDStreamProcessingThread() {
    Stop();
}

VrError DSDStreamProcessingThread::Start(std::int32_t rate, std::int32_t bitOrder, float gain) {
    if (Joinable()) {
        return VrErrorFailed;
    }
    ResetEvent(kWorkReady);
    ResetEvent(kWorkDone);
    stop = false;
    // What an earlier run was stopped with is none of this one's.
    busy = false;
    pending = nullptr;
    pendingLength = 0;
    sampleRate = rate;
    lsbFirst = bitOrder;
    decibels = gain;
    std::ignore = processing.Init(sampleRate, lsbFirst);
    std::ignore = processing.SetGain(decibels);
    return Create(PriorityHigh) ? VrSuccess : VrErrorFailed;
}

void DSDStreamProcessingThread::RunProcess(std::uint8_t* bytes, std::uint32_t length) {
    if (!Joinable() || busy || processing.PassesThrough()) {
        return;
    }
    pending = bytes;
    pendingLength = length;
    SetEvent(kWorkReady);
    busy = true;
}

void DSDStreamProcessingThread::WaitProcess() {
    if (!Joinable() || !busy) {
        return;
    }
    WaitEvent(kWorkDone);
    busy = false;
}

void DSDStreamProcessingThread::Stop() {
    if (!Joinable()) {
        return;
    }
    stop.store(true, std::memory_order_release);
    SetEvent(kWorkReady);
    Join();
}

void DSDStreamProcessingThread::ThreadImpl() {
    while (!stop.load(std::memory_order_acquire)) {
        WaitEvent(kWorkReady);
        if (stop.load(std::memory_order_acquire)) {
            break;
        }
        if (pending != nullptr && pendingLength != 0) {
            std::ignore = processing.Process(pending, pendingLength);
        }
        pending = nullptr;
        pendingLength = 0;
        SetEvent(kWorkDone);
    }
}

}  // namespace vorrel
