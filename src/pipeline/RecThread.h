#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "manager/IVorrelManager.h"
#include "pipeline/AsioDataQueue.h"
#include "pipeline/ThreadBase.h"
#include "store/RecordData.h"

namespace vorrel {

/// The record worker: moves captured blocks, one channel after the other, from the queue into the
/// record store, reports the recorded length in tenths of a second and wakes the convert worker.
/// A block that cannot be stored ends the worker, with message `VrMessageRecordWriteFailed` or,
/// where the temporary directory is gone, `VrMessageTempDirectoryMissing`; `Stop` then joins it.
/// The rest of that turn, taken from the queue with the block that failed, is dropped: no later one
/// could be stored in step with it. What still waits in the queue stays there.
class RecThread final : public ThreadBase {
public:
    explicit RecThread(IVorrelManager& manager);
    ~RecThread() override;  // stops
    RecThread(const RecThread&) = delete;
    RecThread& operator=(const RecThread&) = delete;

    /// Starts the worker. Queue and store are not owned and stay until `Stop`; both have been
    /// initialised for `channels`.
    /// @return `VrErrorInvalidParameter` (no queue, no store, 0 channels); `VrErrorFailed` (not
    ///         stopped since the last start, or no thread or memory to be had).
    VrError Start(AsioDataQueue* queue, RecordData* data, std::uint16_t channels);
    /// Wakes the worker, after every device buffer; nothing while it is not started.
    VORREL_REALTIME void AddDataNotify();
    /// Ends the worker and waits for it. Every device buffer queued before has then reached the
    /// store, unless storing failed; what has no fellow in another channel stays in the queue. The
    /// device is stopped first. Nothing while it is not started.
    void Stop();

private:
    /// One block of every channel, of which the first `collected` are here.
    struct Turn {
        std::vector<Block> blocks;
        std::uint16_t collected = 0;
    };

    void ThreadImpl() override;
    bool Drain(std::uint64_t& lastTenths);
    bool StoreCollected();
    void ReportPosition(std::uint64_t& lastTenths);

    IVorrelManager& manager;
    std::atomic<bool> stopRequested{false};  // set by Stop before SetEvent, read by the worker
    std::uint64_t sampleRate = 0;
    AsioDataQueue* queue = nullptr;
    RecordData* recordData = nullptr;
    std::uint16_t channels = 0;
    Turn turn;  // kept across wake-ups: a pass may end between two channels of one device buffer
};

}  // namespace vorrel
