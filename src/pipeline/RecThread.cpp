#include "pipeline/RecThread.h"

#include <exception>
#include <new>

#include "pipeline/Tenths.h"
#include "platform/Trace.h"

namespace vorrel {

RecThread::RecThread(IVorrelManager& owner) : manager(owner) {}

RecThread::~RecThread() {
    Stop();
}

VrError RecThread::Start(AsioDataQueue* input, RecordData* data, std::uint16_t channelCount) {
    if (input == nullptr || data == nullptr || channelCount == 0) {
        return VrErrorInvalidParameter;
    }
    if (Joinable()) {
        return VrErrorFailed;
    }
    ResetEvent();
    stopRequested = false;
    sampleRate = data->GetSampleRate();
    queue = input;
    recordData = data;
    channels = channelCount;
    try {
        turn = Turn{std::vector<Block>(channels)};
    } catch (const std::bad_alloc&) {
        return VrErrorFailed;
    }
    return Create(PriorityHigh) ? VrSuccess : VrErrorFailed;
}

void RecThread::AddDataNotify() {
    if (Joinable()) {
        SetEvent();
    }
}

void RecThread::Stop() {
    if (!Joinable()) {
        return;
    }
    stopRequested.store(true, std::memory_order_release);
    SetEvent();
    Join();
}

void RecThread::ThreadImpl() {
    std::uint64_t lastTenths = 0;
    bool leave = false;
    while (!leave) {
        WaitEvent();
        // Read before the drain, so that a drain follows all that was queued before Stop: seen
        // only after it, the request could hide blocks that came in between.
        leave = stopRequested.load(std::memory_order_acquire);
        bool stored = false;
        try {
            stored = Drain(lastTenths);
            if (stored && leave) {
                // A full queue has lost blocks of some channels; those of the others count.
                stored = StoreCollected();
            }
        } catch (const std::exception& error) {
            // Memory is short: to the host, as to the take, a block that cannot be stored.
            Trace(__FILE__, __LINE__, "the record worker ends: %s", error.what());
            stored = false;
        }
        if (!stored) {
            manager.NotifyErrorMessageProc(manager.IsTempDirectoryExists()
                                               ? VrMessageRecordWriteFailed
                                               : VrMessageTempDirectoryMissing,
                                           nullptr);
            stopRequested = true;
            leave = true;
        }
        manager.ConvertThread_AddDataNotify();
    }
}

/// Stores turns until a channel has nothing more. @return false when a store failed.
bool RecThread::Drain(std::uint64_t& lastTenths) {
    for (;;) {
        // All of a turn is collected before any of it is stored: the callback may still be
        // queueing this device buffer, and the turn lock must not be held until it has.
        while (turn.collected < channels) {
            Block& block = turn.blocks[turn.collected];
            if (queue->Dequeue(turn.collected, block) != VrSuccess || block.empty()) {
                return true;  // the next pass starts with this channel: they stay in step
            }
            ++turn.collected;
        }
        if (!StoreCollected()) {
            return false;
        }
        ReportPosition(lastTenths);
    }
}

bool RecThread::StoreCollected() {
    const std::uint16_t count = turn.collected;
    turn.collected = 0;
    // No event falls between two channels of one device buffer: it would skew them for the rest
    // of the take.
    const ExclusiveLock lock(recordData->TurnLock());
    for (std::uint16_t channel = 0; channel < count; ++channel) {
        if (recordData->Add(channel, turn.blocks[channel]) != VrSuccess) {
            return false;
        }
    }
    return true;
}

void RecThread::ReportPosition(std::uint64_t& lastTenths) {
    const std::uint64_t tenths = Tenths(recordData->GetLength(true), sampleRate);
    if (tenths != lastTenths) {
        lastTenths = tenths;
        manager.NotifyStreamPosProc(SecondsOfTenths(tenths));
    }
}

}  // namespace vorrel
