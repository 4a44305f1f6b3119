#include "platform/NotificationQueue.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <thread>
#include <tuple>

namespace vorrel {

namespace {

using std::chrono::steady_clock;

/// A wait of more than this has no limit: the clock's arithmetic would not hold it.
constexpr std::chrono::hours kLongestWait{24 * 365};

timespec ToTimespec(std::chrono::nanoseconds duration) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
    timespec result{};
    result.tv_sec = seconds.count();
    result.tv_nsec = (duration - seconds).count();
    return result;
}

/// Waits for a poster that is between its exchange and the link, two instructions apart. When it
/// lost the processor there, it needs ours, and a mere yield may not reach a thread of lower class.
void PauseForLink(unsigned round) {
    constexpr unsigned kSpins = 64;
    constexpr unsigned kYields = 128;
    if (round < kSpins) {
        return;
    }
    if (round < kYields) {
        std::this_thread::yield();
    } else {
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
}

}  // namespace

NotificationQueue::NotificationQueue(bool withDescriptor) noexcept {
    ::sem_init(&semaphore, 0, 0);
    if (withDescriptor) {
        descriptor = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    }
}

NotificationQueue::~NotificationQueue() {
    if (descriptor >= 0) {
        ::close(descriptor);
    }
    ::sem_destroy(&semaphore);
}

void NotificationQueue::Post(Node& node) noexcept {
    node.older.store(&node, std::memory_order_relaxed);
    Node* const before = newest.exchange(&node, std::memory_order_acq_rel);
    // From here on the consumer may take the node, and after this store it may destroy it.
    node.older.store(before, std::memory_order_release);
    // After the node is there, so that whoever clears an earlier signal sees the node.
    Signal();
}

std::size_t NotificationQueue::Dispatch() noexcept {
    std::uint64_t highestNumber = 0;
    {
        const MutexLock lock(mutex);
        TakeOver();
        highestNumber = taken;
        if (first == nullptr) {
            SettleSignal();
        }
    }
    std::size_t delivered = 0;
    while (Node* const node = TakeFirst(highestNumber)) {
        node->Deliver();
        ++delivered;
    }
    return delivered;
}

bool NotificationQueue::Wait(std::chrono::milliseconds timeout) noexcept {
    Deadline deadline;
    if (timeout >= timeout.zero() && timeout < kLongestWait) {
        deadline = steady_clock::now() + timeout;
    }
    for (;;) {
        if (HasWaiting()) {
            return true;
        }
        if (deadline && steady_clock::now() >= *deadline) {
            return false;
        }
        {
            // Ends a signal whose node was dispatched already: it would wake us for nothing, again
            // and again.
            const MutexLock lock(mutex);
            if (first == nullptr) {
                SettleSignal();
            }
        }
        WaitForSignal(deadline);
    }
}

void NotificationQueue::Signal() noexcept {
    if (descriptor < 0) {
        ::sem_post(&semaphore);
        return;
    }
    // Fails only when the counter is full, and then the descriptor is readable all the same.
    const std::uint64_t one = 1;
    std::ignore = ::write(descriptor, &one, sizeof(one));
}

void NotificationQueue::ClearSignal() noexcept {
    if (descriptor < 0) {
        while (::sem_trywait(&semaphore) == 0) {
        }
        return;
    }
    std::uint64_t count = 0;
    std::ignore = ::read(descriptor, &count, sizeof(count));
}

/// Returns with a signal, at the deadline, or earlier: the caller looks for itself.
void NotificationQueue::WaitForSignal(const Deadline& deadline) noexcept {
    if (descriptor < 0) {
        int result = 0;
        if (deadline) {
            const timespec until = ToTimespec(deadline->time_since_epoch());
            result = ::sem_clockwait(&semaphore, CLOCK_MONOTONIC, &until);
        } else {
            result = ::sem_wait(&semaphore);
        }
        if (result == 0) {
            Signal();  // like the descriptor, it stays signalled until it is cleared
        }
        return;
    }
    pollfd polled{};
    polled.fd = descriptor;
    polled.events = POLLIN;
    if (deadline) {
        const timespec left =
            ToTimespec(std::max<std::chrono::nanoseconds>(*deadline - steady_clock::now(), {}));
        ::ppoll(&polled, 1, &left, nullptr);
    } else {
        ::ppoll(&polled, 1, nullptr, nullptr);
    }
}

bool NotificationQueue::HasWaiting() noexcept {
    if (newest.load(std::memory_order_acquire) != nullptr) {
        return true;
    }
    const MutexLock lock(mutex);
    return first != nullptr || newest.load(std::memory_order_acquire) != nullptr;
}

/// Moves what was posted behind what was taken over before, the oldest first.
void NotificationQueue::TakeOver() noexcept {
    Node* const youngest = newest.exchange(nullptr, std::memory_order_acq_rel);
    Node* oldest = nullptr;
    for (Node* node = youngest; node != nullptr;) {
        Node* older = node->older.load(std::memory_order_acquire);
        for (unsigned round = 0; older == node; ++round) {
            PauseForLink(round);
            older = node->older.load(std::memory_order_acquire);
        }
        node->newer = oldest;
        oldest = node;
        node = older;
    }
    if (oldest == nullptr) {
        return;
    }
    for (Node* node = oldest; node != nullptr; node = node->newer) {
        node->number = ++taken;
    }
    if (last == nullptr) {
        first = oldest;
    } else {
        last->newer = oldest;
    }
    last = youngest;
}

/// Makes the signal fit when nothing is left that was taken over. Whoever posts does so before it
/// signals: a node that is not seen here is still to be signalled, after the clearing.
void NotificationQueue::SettleSignal() noexcept {
    ClearSignal();
    if (newest.load(std::memory_order_acquire) != nullptr) {
        Signal();
    }
}

NotificationQueue::Node* NotificationQueue::TakeFirst(std::uint64_t highestNumber) noexcept {
    const MutexLock lock(mutex);
    Node* const node = first;
    if (node == nullptr || node->number > highestNumber) {
        return nullptr;
    }
    first = node->newer;
    if (first == nullptr) {
        last = nullptr;
        SettleSignal();
    }
    return node;
}

}  // namespace vorrel
