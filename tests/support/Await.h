#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace vorrel::test {

/// Waits until a condition holds that nobody tells of; the main queue's notifications stay where
/// they are. Fails the test after a minute.
inline void Await(const std::function<bool()>& holds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    std::mutex mutex;
    std::condition_variable nobody;
    while (!holds()) {
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "waited in vain";
            return;
        }
        std::unique_lock lock(mutex);
        nobody.wait_for(lock, std::chrono::milliseconds(1));
    }
}

}  // namespace vorrel::test
