#include "Output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>
#include <tuple>
#include <utility>

namespace vorrel::cli {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kMostPassing = 16 << 10;  // bytes; some seconds of positions and levels
constexpr std::size_t kMostLasting = 1 << 20;
constexpr auto kLastWait = 200ms;

/// Writes all of it. @return 0 or an errno.
int WriteAll(int descriptor, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = ::write(descriptor, text.data() + done, text.size() - done);
        if (count >= 0) {
            done += static_cast<std::size_t>(count);
        } else if (errno == EAGAIN) {
            // Somebody who shares it has made it so; it is not ours to change.
            pollfd target{descriptor, POLLOUT, 0};
            std::ignore = ::poll(&target, 1, -1);
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

}  // namespace

struct Output::Shared {
    explicit Shared(int target, int known) : descriptor(target), error(known) {}

    void Run() {
        std::unique_lock lock(mutex);
        for (;;) {
            queued.wait(lock, [this] { return ending || !texts.empty(); });
            if (texts.empty()) {
                return;
            }
            // Stays in the queue until it is written: an empty queue means that nothing is left.
            const std::string& text = texts.front();
            lock.unlock();
            const int result = WriteAll(descriptor, text);
            lock.lock();
            bytes -= text.size();
            texts.pop_front();
            if (result != 0) {
                error = result;
                texts.clear();
                bytes = 0;
            }
            if (texts.empty()) {
                written.notify_all();
            }
        }
    }

    const int descriptor;
    std::mutex mutex;  // never held across a write
    std::condition_variable queued, written;
    std::deque<std::string> texts;
    std::size_t bytes = 0;
    int error;
    bool started = false;
    bool ending = false;
};

Output::Output(int descriptor, int error) : shared(std::make_shared<Shared>(descriptor, error)) {}

Output::~Output() {
    std::ignore = Flush(kLastWait);
    const std::lock_guard lock(shared->mutex);
    shared->ending = true;
    shared->queued.notify_all();
}

void Output::Write(std::string text, Kind kind) {
    const std::lock_guard lock(shared->mutex);
    const std::size_t most = kind == Kind::Passing ? kMostPassing : kMostLasting;
    if (shared->error != 0 || shared->bytes + text.size() > most) {
        return;
    }
    if (!shared->started) {
        try {
            std::thread([kept = shared] { kept->Run(); }).detach();
        } catch (const std::system_error&) {
            // No thread to be had: a message that may have to wait is better than none.
            shared->error = WriteAll(shared->descriptor, text);
            return;
        }
        shared->started = true;
    }
    shared->bytes += text.size();
    shared->texts.push_back(std::move(text));
    shared->queued.notify_all();
}

bool Output::Idle() const {
    const std::lock_guard lock(shared->mutex);
    return shared->texts.empty();
}

bool Output::Flush(std::optional<std::chrono::milliseconds> limit) {
    std::unique_lock lock(shared->mutex);
    const auto done = [this] { return shared->texts.empty(); };
    if (!limit) {
        shared->written.wait(lock, done);
    } else if (!shared->written.wait_for(lock, *limit, done)) {
        return false;
    }
    return shared->error == 0;
}

int Output::Error() const {
    const std::lock_guard lock(shared->mutex);
    return shared->error;
}

}  // namespace vorrel::cli
