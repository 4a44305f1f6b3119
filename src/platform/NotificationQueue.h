#pragma once

#include <semaphore.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "platform/Mutex.h"
#include "platform/Realtime.h"

namespace vorrel {

/// Takes notifications from many threads and delivers them, in order of submission, on the thread
/// that dispatches. What waits belongs to whoever made it until it is delivered; what is never
/// dispatched stays where it is.
///
/// To post is one atomic exchange and one non-blocking system call: no lock, no allocation, so that
/// the device's thread may post too.
class NotificationQueue {
public:
    /// One notification. Waits in at most one queue at a time.
    class Node {
    public:
        Node(const Node&) = delete;
        Node& operator=(const Node&) = delete;

    protected:
        Node() = default;
        virtual ~Node() = default;

    private:
        friend class NotificationQueue;
        /// Called once after each post, when the queue is done with the node: runs the task, and
        /// may destroy the node or post it again.
        virtual void Deliver() noexcept = 0;

        std::atomic<Node*> older{nullptr};  // what was posted before it; itself while linking
        Node* newer = nullptr;              // among what the consumer has taken over
        std::uint64_t number = 0;           // counted by the consumer, from 1
    };

    /// @param withDescriptor  false: no descriptor is made, as if the process could open no more.
    explicit NotificationQueue(bool withDescriptor = true) noexcept;
    /// Nobody may post, dispatch or wait any more. What still waits is not delivered.
    ~NotificationQueue();
    NotificationQueue(const NotificationQueue&) = delete;
    NotificationQueue& operator=(const NotificationQueue&) = delete;

    /// Submits `node`, which does not wait in a queue. Any thread.
    VORREL_REALTIME void Post(Node& node) noexcept;

    /// @return A descriptor that is readable while something waits, or -1. It can be readable once
    ///         too often, when a dispatch overtakes a post between its two steps; the dispatch that
    ///         follows finds nothing and ends that.
    int Descriptor() const noexcept { return descriptor; }

    /// Delivers, in order of submission, what waited when it was called. From within a
    /// notification it delivers what came after it. Calls from several threads share the work, and
    /// no lock is held while a notification runs.
    /// @return How many this call delivered.
    std::size_t Dispatch() noexcept VORREL_EXCLUDES(mutex);

    /// Waits until something is there to be dispatched.
    /// @param timeout  Longest wait; negative waits without limit.
    /// @return false after the time-out.
    bool Wait(std::chrono::milliseconds timeout) noexcept VORREL_EXCLUDES(mutex);

private:
    using Deadline = std::optional<std::chrono::steady_clock::time_point>;

    VORREL_REALTIME void Signal() noexcept;
    void ClearSignal() noexcept;
    void WaitForSignal(const Deadline& deadline) noexcept;

    bool HasWaiting() noexcept VORREL_EXCLUDES(mutex);
    void TakeOver() noexcept VORREL_REQUIRES(mutex);
    void SettleSignal() noexcept VORREL_REQUIRES(mutex);
    Node* TakeFirst(std::uint64_t highestNumber) noexcept VORREL_EXCLUDES(mutex);

    int descriptor = -1;
    sem_t semaphore{};  // in the descriptor's place where there is none

    std::atomic<Node*> newest{nullptr};  // posted and not taken over, the newest first

    Mutex mutex;  // of the consumers: held to move nodes, never while a notification runs
    Node* first VORREL_GUARDED_BY(mutex) = nullptr;  // taken over, the oldest first
    Node* last VORREL_GUARDED_BY(mutex) = nullptr;
    std::uint64_t taken VORREL_GUARDED_BY(mutex) = 0;  // number of the last one taken over
};

}  // namespace vorrel
