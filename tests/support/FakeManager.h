#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "manager/IVorrelManager.h"
#include "platform/Mutex.h"

namespace vorrel::test {

/// A small working manager for workers and stores: answers what the test sets, keeps what it was
/// told. Thread-safe; a test waits for something to have been told instead of sleeping.
class FakeManager final : public IVorrelManager {
public:
    using Message = std::pair<int, std::string>;

    explicit FakeManager(std::string directory = {}) : tempDirectory(std::move(directory)) {}

    std::atomic<bool> tempDirectoryExists{true};
    // Set before any thread starts; called on the reporting thread, without a lock.
    std::function<void()> onAddDataNotify;
    std::function<void()> onStreamPosition;
    std::function<void(VrRecOperation)> onOperation;  // after it was kept
    std::function<void(int, const char*)> onMessage;  // after it was kept

    void ConvertThread_AddDataNotify() override {
        if (onAddDataNotify) {
            onAddDataNotify();
        }
        const MutexLock lock(mutex);
        ++dataNotifications;
        condition.NotifyAll();
    }
    void NotifyOperationProc(VrRecOperation operation) override {
        {
            const MutexLock lock(mutex);
            operations.push_back(operation);
            log.push_back("operation " + std::to_string(operation));
            condition.NotifyAll();
        }
        if (onOperation) {
            onOperation(operation);
        }
    }
    void NotifyStreamPosProc(double seconds) override {
        if (onStreamPosition) {
            onStreamPosition();
        }
        const MutexLock lock(mutex);
        streamPositions.push_back(seconds);
        condition.NotifyAll();
    }
    void NotifyConvertPosProc(double seconds) override {
        const MutexLock lock(mutex);
        convertPositions.push_back(seconds);
        condition.NotifyAll();
    }
    void NotifyErrorMessageProc(int kind, const char* message) override {
        {
            const MutexLock lock(mutex);
            messages.emplace_back(kind, message == nullptr ? "" : message);
            log.push_back("message " + std::to_string(kind));
            condition.NotifyAll();
        }
        if (onMessage) {
            onMessage(kind, message);
        }
    }
    const char* GetTempDirectory() override { return tempDirectory.c_str(); }
    bool IsTempDirectoryExists() override { return tempDirectoryExists; }

    // Copies, taken under the lock.
    std::vector<VrRecOperation> Operations() const { return Copy(operations); }
    std::vector<double> StreamPositions() const { return Copy(streamPositions); }
    std::vector<double> ConvertPositions() const { return Copy(convertPositions); }
    std::vector<Message> Messages() const { return Copy(messages); }
    /// Operations and messages in the order in which they came.
    std::vector<std::string> Log() const { return Copy(log); }
    int DataNotifications() const {
        const MutexLock lock(mutex);
        return dataNotifications;
    }

    /// Waits until `condition` holds (asked again after every call to this manager).
    /// @return false after a minute.
    bool WaitUntil(const std::function<bool()>& holds) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        while (!holds()) {
            const MutexLock lock(mutex);
            // Short, because `holds` may look at more than what this manager is told.
            condition.WaitFor(mutex, std::chrono::milliseconds(2));
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
        }
        return true;
    }

private:
    template <class T>
    std::vector<T> Copy(const std::vector<T>& values) const {
        const MutexLock lock(mutex);
        return values;
    }

    const std::string tempDirectory;
    mutable Mutex mutex;
    ConditionVariable condition;
    std::vector<VrRecOperation> operations;
    std::vector<double> streamPositions;
    std::vector<double> convertPositions;
    std::vector<Message> messages;
    std::vector<std::string> log;
    int dataNotifications = 0;
};

}  // namespace vorrel::test
