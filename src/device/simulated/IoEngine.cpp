#include "device/simulated/IoEngine.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "device/simulated/BufferListBuilder.h"
#include "platform/ThreadPriority.h"

namespace vorrel {
namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

/// One run of the device. Its source and buffers are touched by the delivering thread only.
struct IoEngine::Run {
    Run(const RunSetup& runSetup, std::unique_ptr<SampleSource> runSource)
        : setup(runSetup),
          source(std::move(runSource)),
          buffers(setup.channels, setup.bufferChannels, setup.frames) {}

    const RunSetup setup;
    const std::unique_ptr<SampleSource> source;
    BufferListBuilder buffers;
    const Clock::time_point begin = Clock::now();
    std::uint64_t frames = 0;  // delivered; changed under the engine's mutex
};

IoEngine::IoEngine(double speedFactor, bool manualDelivery, std::function<void()> onCountdownEnded)
    : speed(speedFactor), manual(manualDelivery), countdownEnded(std::move(onCountdownEnded)) {}

void IoEngine::Close() {
    Halt();
    std::thread ending;
    {
        const MutexLock lock(mutex);
        closing = true;
        countdownEnded = nullptr;
        ending = std::move(thread);
        threadWake.NotifyAll();
    }
    if (ending.get_id() == std::this_thread::get_id()) {
        ending.detach();  // it ends after this callback, and holds the engine until then
    } else if (ending.joinable()) {
        ending.join();
    }
}

std::vector<IoEngine::Client>::iterator IoEngine::Find(AudioDeviceIOProcID id) {
    return std::find_if(clients.begin(), clients.end(),
                        [id](const Client& client) { return client.id == id; });
}

AudioDeviceIOProcID IoEngine::Create(AudioDeviceIOProc proc, void* clientData) {
    const MutexLock lock(mutex);
    // A handle that is never called: the same proc can be registered for several clients.
    const auto id = reinterpret_cast<AudioDeviceIOProcID>(++lastId);
    clients.push_back({id, proc, clientData, nullptr});
    return id;
}

bool IoEngine::Destroy(AudioDeviceIOProcID id) {
    Stop(id);
    const MutexLock lock(mutex);
    const auto client = Find(id);
    if (client == clients.end()) {
        return false;
    }
    clients.erase(client);
    return true;
}

OSStatus IoEngine::Start(AudioDeviceIOProcID id, const RunSetup& setup,
                         const std::function<std::unique_ptr<SampleSource>()>& makeSource) {
    const MutexLock lock(mutex);
    const auto client = Find(id);
    if (client == clients.end() || closing) {
        return kAudioHardwareIllegalOperationError;
    }
    if (run == nullptr) {
        std::unique_ptr<SampleSource> source = makeSource();
        if (source == nullptr) {
            return kAudioHardwareUnspecifiedError;
        }
        run = std::make_shared<Run>(setup, std::move(source));
        deliveredBuffers = 0;
        deliveredFrames = 0;
        if (!manual && !thread.joinable()) {
            thread = std::thread([self = shared_from_this()] { self->ThreadBody(); });
        }
        threadWake.NotifyAll();
    }
    client->run = run.get();
    return kAudioHardwareNoError;
}

bool IoEngine::Stop(AudioDeviceIOProcID id) {
    const MutexLock lock(mutex);
    const auto client = Find(id);
    const bool started = client != clients.end() && client->run != nullptr;
    if (started) {
        client->run = nullptr;
        if (std::all_of(clients.begin(), clients.end(),
                        [](const Client& other) { return other.run == nullptr; })) {
            run.reset();
            threadWake.NotifyAll();
        }
    }
    // Also when another thread has just stopped it: its last call may still be under way.
    WaitForCycle();
    return started;
}

void IoEngine::Halt() {
    const MutexLock lock(mutex);
    for (Client& client : clients) {
        client.run = nullptr;
    }
    run.reset();
    threadWake.NotifyAll();
    WaitForCycle();
}

void IoEngine::WaitForCycle() {
    const std::uint64_t current = cycle;
    while (delivering && cycle == current && deliverer != std::this_thread::get_id()) {
        cycleEnded.Wait(mutex);
    }
}

bool IoEngine::Deliver() {
    return DeliverList(nullptr);
}

bool IoEngine::Deliver(const AudioBufferList& list) {
    return DeliverList(&list);
}

UInt32 IoEngine::NextFrames() const {
    return shortFrames > 0 ? std::min(shortFrames, run->setup.frames) : run->setup.frames;
}

bool IoEngine::DeliverList(const AudioBufferList* given) {
    std::shared_ptr<Run> current;
    UInt32 frames = 0;
    bool empty = false;
    bool last = false;
    {
        const MutexLock lock(mutex);
        if (run == nullptr || delivering) {
            return false;
        }
        current = run;
        frames = NextFrames();
        empty = emptyLists;
        // Counted at its beginning: a buffer that is under way is not one of a new countdown.
        last = countdown == 1;
        countdown -= countdown > 0 ? 1 : 0;
        delivering = true;
        deliverer = std::this_thread::get_id();
    }
    bool delivered = false;
    if (given != nullptr) {
        delivered = CallProcs(*current, *given);
    } else {
        current->source->Read(current->buffers.Interleaved(), frames);
        delivered = CallProcs(*current,
                              empty ? BufferListBuilder::Empty() : current->buffers.Build(frames));
    }
    std::function<void()> ended;
    {
        const MutexLock lock(mutex);
        current->frames += frames;
        if (delivered && (run == current || run == nullptr)) {
            ++deliveredBuffers;
            deliveredFrames += frames;
        }
        delivering = false;
        ++cycle;
        if (last) {
            ended = countdownEnded;
        }
        cycleEnded.NotifyAll();
    }
    if (ended) {
        ended();
    }
    return delivered;
}

bool IoEngine::CallProcs(const Run& current, const AudioBufferList& list) {
    AudioBufferList output{};  // the device has no output
    // By id: a proc may create, destroy, start and stop procs.
    AudioDeviceIOProcID called = nullptr;
    for (;;) {
        Client next{};
        {
            const MutexLock lock(mutex);
            // Ids ascend in the list.
            const auto client =
                std::find_if(clients.begin(), clients.end(), [&](const Client& other) {
                    return reinterpret_cast<std::uintptr_t>(other.id) >
                               reinterpret_cast<std::uintptr_t>(called) &&
                           other.run == &current;
                });
            if (client == clients.end()) {
                return called != nullptr;
            }
            next = *client;
        }
        called = next.id;
        std::ignore = next.proc(current.setup.device, nullptr, &list, nullptr, &output, nullptr,
                                next.clientData);
    }
}

bool IoEngine::WaitUntilDue() {
    const MutexLock lock(mutex);
    while (!closing) {
        if (run == nullptr) {
            threadWake.Wait(mutex);
            continue;
        }
        // From the beginning of the run each time, so that no error adds up.
        const std::chrono::duration<double> offset(static_cast<double>(run->frames + NextFrames()) /
                                                   (run->setup.rateHz * speed));
        const auto due = run->begin + std::chrono::duration_cast<Clock::duration>(offset);
        const auto remaining = due - Clock::now();
        if (remaining <= Clock::duration::zero()) {
            return true;
        }
        threadWake.WaitFor(mutex, remaining);
    }
    return false;
}

void IoEngine::ThreadBody() noexcept {
    // Faster than real time it may have no pause at all, and at a real-time priority would keep
    // everybody else from a processor.
    if (speed <= 1.0) {
        SetCurrentThreadPriority(1.0);
    }
    while (WaitUntilDue()) {
        DeliverList(nullptr);
    }
}

bool IoEngine::IsRunning() {
    const MutexLock lock(mutex);
    return run != nullptr;
}

void IoEngine::SetShortBuffers(UInt32 frames) {
    const MutexLock lock(mutex);
    shortFrames = frames;
}

void IoEngine::SetCountdown(std::uint64_t buffers) {
    const MutexLock lock(mutex);
    countdown = buffers;
}

void IoEngine::SetEmptyLists(bool empty) {
    const MutexLock lock(mutex);
    emptyLists = empty;
}

std::size_t IoEngine::ProcCount() {
    const MutexLock lock(mutex);
    return clients.size();
}

std::uint64_t IoEngine::DeliveredBuffers() {
    const MutexLock lock(mutex);
    return deliveredBuffers;
}

std::uint64_t IoEngine::DeliveredFrames() {
    const MutexLock lock(mutex);
    return deliveredFrames;
}

bool IoEngine::WaitForBuffers(std::uint64_t buffers, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    const MutexLock lock(mutex);
    while (deliveredBuffers < buffers) {
        const auto remaining = deadline - Clock::now();
        if (remaining <= Clock::duration::zero()) {
            return false;
        }
        cycleEnded.WaitFor(mutex, remaining);
    }
    return true;
}

}  // namespace vorrel
