#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "vorrel/IVorrelDelegate.h"
#include "vorrel/MainQueue.h"

namespace vorrel::test {

/// A host's delegate that keeps what it is told. Lives on the test's thread, which dispatches.
class RecordingDelegate final : public IVorrelDelegate {
public:
    using Message = std::pair<VrMessageKind, std::string>;

    std::vector<VrRecOperation> operations;
    std::vector<double> streamPositions;
    std::vector<double> convertPositions;
    std::vector<Message> messages;
    /// Operations and messages as they came: "operation 1", "message 0 ".
    std::vector<std::string> log;
    /// Called from within the notification, after it has been kept.
    std::function<void(VrRecOperation)> onOperation;

    void Vorrel_NotifyOperationProc(VrRecOperation operation) override {
        operations.push_back(operation);
        log.push_back("operation " + std::to_string(operation));
        if (onOperation) {
            onOperation(operation);
        }
    }
    void Vorrel_NotifyStreamPosProc(double seconds) override { streamPositions.push_back(seconds); }
    void Vorrel_NotifyConvertPosProc(double seconds) override {
        convertPositions.push_back(seconds);
    }
    void Vorrel_NotifyErrorMessageProc(VrMessageKind kind, const std::string& message) override {
        messages.emplace_back(kind, message);
        log.push_back("message " + std::to_string(kind) + " " + message);
    }

    bool Has(VrRecOperation operation) const {
        return std::ranges::find(operations, operation) != operations.end();
    }
    bool Has(VrMessageKind kind) const {
        return std::ranges::find(messages, kind, &Message::first) != messages.end();
    }
    std::size_t Count(VrRecOperation operation) const {
        return static_cast<std::size_t>(std::ranges::count(operations, operation));
    }
    std::size_t Count(VrMessageKind kind) const {
        return static_cast<std::size_t>(std::ranges::count(messages, kind, &Message::first));
    }
};

/// Dispatches notifications until `holds`. @return false after two minutes.
inline bool DispatchUntil(const std::function<bool()>& holds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    while (!holds()) {
        // Bounded, because `holds` may look at more than what notifications tell.
        MainQueue::Wait(std::chrono::milliseconds(2));
        MainQueue::Dispatch();
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
    }
    return true;
}

}  // namespace vorrel::test
