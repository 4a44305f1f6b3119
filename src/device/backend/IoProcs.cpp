#include "device/backend/IoProcs.h"

#include <algorithm>
#include <tuple>

namespace vorrel {
namespace {

std::uintptr_t Number(AudioDeviceIOProcID id) {
    return reinterpret_cast<std::uintptr_t>(id);
}

}  // namespace

std::vector<IoProcs::Client>::iterator IoProcs::Find(AudioDeviceIOProcID id) {
    return std::find_if(clients.begin(), clients.end(),
                        [id](const Client& client) { return client.id == id; });
}

AudioDeviceIOProcID IoProcs::Create(AudioDeviceIOProc proc, void* clientData) {
    const MutexLock lock(mutex);
    // A handle that is never called: the same proc can be registered for several clients.
    // NOLINTNEXTLINE(performance-no-int-to-ptr): it is compared, never followed
    const auto id = reinterpret_cast<AudioDeviceIOProcID>(++lastId);
    clients.push_back({id, proc, clientData, nullptr});
    return id;
}

bool IoProcs::Destroy(AudioDeviceIOProcID id) {
    const MutexLock lock(mutex);
    const auto client = Find(id);
    const bool known = client != clients.end();
    if (known) {
        clients.erase(client);
    }
    return known;
}

bool IoProcs::Start(AudioDeviceIOProcID id, RunToken run) {
    const MutexLock lock(mutex);
    const auto client = Find(id);
    const bool known = client != clients.end();
    if (known) {
        client->run = run;
    }
    return known;
}

bool IoProcs::Stop(AudioDeviceIOProcID id) {
    const MutexLock lock(mutex);
    const auto client = Find(id);
    const bool started = client != clients.end() && client->run != nullptr;
    if (started) {
        client->run = nullptr;
    }
    return started;
}

void IoProcs::StopAll() {
    const MutexLock lock(mutex);
    for (Client& client : clients) {
        client.run = nullptr;
    }
}

void IoProcs::Drop() {
    const MutexLock lock(mutex);
    clients.clear();
}

bool IoProcs::Has(AudioDeviceIOProcID id) {
    const MutexLock lock(mutex);
    return Find(id) != clients.end();
}

bool IoProcs::AnyStarted() {
    const MutexLock lock(mutex);
    return std::any_of(clients.begin(), clients.end(),
                       [](const Client& client) { return client.run != nullptr; });
}

std::size_t IoProcs::Count() {
    const MutexLock lock(mutex);
    return clients.size();
}

VORREL_REALTIME bool IoProcs::BeginCycle() {
    const MutexLock lock(mutex);
    if (inCycle) {
        return false;
    }
    inCycle = true;
    cycleThread = std::this_thread::get_id();
    return true;
}

VORREL_REALTIME bool IoProcs::Call(RunToken run, AudioObjectID device,
                                   const AudioBufferList& list) {
    AudioBufferList output{};  // the device has no output
    // By id: a proc may create, destroy, start and stop procs.
    AudioDeviceIOProcID called = nullptr;
    for (;;) {
        Client next{};
        {
            const MutexLock lock(mutex);
            const auto client =
                std::find_if(clients.begin(), clients.end(), [&](const Client& other) {
                    return Number(other.id) > Number(called) && other.run == run;
                });
            if (client == clients.end()) {
                return called != nullptr;
            }
            next = *client;
        }
        called = next.id;
        std::ignore = next.proc(device, nullptr, &list, nullptr, &output, nullptr, next.clientData);
    }
}

VORREL_REALTIME void IoProcs::EndCycle() {
    const MutexLock lock(mutex);
    inCycle = false;
    ++cycle;
    cycleEnded.NotifyAll();
}

void IoProcs::WaitForCycle() {
    const MutexLock lock(mutex);
    const std::uint64_t current = cycle;
    while (inCycle && cycle == current && cycleThread != std::this_thread::get_id()) {
        cycleEnded.Wait(mutex);
    }
}

bool IoProcs::IsInCycle() {
    const MutexLock lock(mutex);
    return inCycle;
}

}  // namespace vorrel
