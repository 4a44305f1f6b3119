#pragma once

#include <string>
#include <vector>

#include "platform/Mutex.h"
#include "platform/TraceSink.h"

namespace vorrel::test {

/// Takes the trace log for the life of a scope and keeps its lines.
class TraceCapture {
public:
    TraceCapture() {
        SetTraceSink([this](const std::string& line) {
            const MutexLock lock(mutex);
            lines.push_back(line);
        });
    }
    ~TraceCapture() { SetTraceSink({}); }
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    /// A copy, taken under the lock.
    std::vector<std::string> Lines() {
        const MutexLock lock(mutex);
        return lines;
    }

private:
    Mutex mutex;
    std::vector<std::string> lines VORREL_GUARDED_BY(mutex);
};

}  // namespace vorrel::test
