#include "platform/Trace.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <functional>
#include <string>
#include <tuple>
#include <utility>

#include "platform/Mutex.h"
#include "platform/TraceSink.h"

namespace vorrel {

namespace {

struct SinkHolder {
    Mutex mutex;
    std::function<void(const std::string&)> sink VORREL_GUARDED_BY(mutex);
    // Since the last line that was written whole.
    std::uint64_t lostLines VORREL_GUARDED_BY(mutex) = 0;
    bool cutLine VORREL_GUARDED_BY(mutex) = false;  // the first of them was begun
};

SinkHolder& TheSink() {
    // Never destroyed: a thread may trace while the process ends.
    static SinkHolder& holder = *new SinkHolder;
    return holder;
}

/// Whether standard error takes a line at once: a terminal that is held and a pipe that nobody
/// reads must not hold up the thread that traces, which may be the one that records.
bool IsWritable() {
    pollfd target{STDERR_FILENO, POLLOUT, 0};
    // Where it cannot be asked, the write tells.
    return ::poll(&target, 1, 0) != 0;
}

/// @return How many bytes of it were not written.
std::size_t WriteToStandardError(const std::string& line) {
    // One write for one line, so that lines of different threads do not mix. What is longer than a
    // pipe takes for sure goes in pieces.
    const char* rest = line.data();
    std::size_t length = line.size();
    while (length > 0) {
        if (!IsWritable()) {
            return length;
        }
        const ssize_t written =
            ::write(STDERR_FILENO, rest, std::min<std::size_t>(length, PIPE_BUF));
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return length;  // nobody is there to be told
        }
        rest += written;
        length -= static_cast<std::size_t>(written);
    }
    return 0;
}

void Emit(std::string line) {
    // An entry is one line, so that the log can be read line by line.
    line.erase(line.find_last_not_of("\r\n") + 1);
    for (char& character : line) {
        if (character == '\n' || character == '\r') {
            character = ' ';
        }
    }
    SinkHolder& holder = TheSink();
    const MutexLock lock(holder.mutex);
    if (holder.sink) {
        holder.sink(line);
        return;
    }
    line += '\n';
    if (holder.lostLines > 0) {
        line.insert(0, (holder.cutLine ? "\n(" : "(") + std::to_string(holder.lostLines) +
                           " lines lost: standard error took none)\n");
    }
    const std::size_t unwritten = WriteToStandardError(line);
    holder.cutLine = unwritten > 0 && (unwritten < line.size() || holder.cutLine);
    holder.lostLines = unwritten > 0 ? holder.lostLines + 1 : 0;
}

__attribute__((format(printf, 1, 0))) std::string Formatted(const char* format,
                                                            std::va_list arguments) {
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0) {
        return format;  // what cannot be converted is better seen raw than lost
    }
    std::string text(static_cast<std::size_t>(length), '\0');
    std::ignore = std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

/// A trace never changes what the code around it sees: no exception, the same `errno`.
template <class Body>
void Quietly(const Body& body) {
    const int savedErrno = errno;
    try {
        body();
    } catch (const std::exception&) {
        // No memory for a line: it is lost.
    }
    errno = savedErrno;
}

}  // namespace

void Trace(const char* file, int line, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    Quietly([&] {
        Emit(std::string(file == nullptr ? "" : file) + '(' + std::to_string(line) +
             "): " + (format == nullptr ? std::string() : Formatted(format, arguments)));
    });
    va_end(arguments);
}

void OutputDebugString(const char* text) {
    if (text != nullptr) {
        Quietly([&] { Emit(text); });
    }
}

void SetTraceSink(std::function<void(const std::string&)> sink) {
    SinkHolder& holder = TheSink();
    const MutexLock lock(holder.mutex);
    holder.sink = std::move(sink);
}

}  // namespace vorrel
