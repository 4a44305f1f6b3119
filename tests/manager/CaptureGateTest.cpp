#include "manager/CaptureGate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <thread>

namespace vorrel {
namespace {

bool IsAdmitted(CaptureGate& gate) {
    return CaptureGate::Entry(gate).Admitted();
}

TEST(CaptureGateTest, IsClosedAtFirstAndWheneverItIsNotOpened) {
    CaptureGate gate;
    EXPECT_FALSE(IsAdmitted(gate));

    gate.Open();
    EXPECT_TRUE(IsAdmitted(gate));
    EXPECT_TRUE(IsAdmitted(gate));

    gate.Close();
    EXPECT_FALSE(IsAdmitted(gate));
    gate.Close();
    EXPECT_FALSE(IsAdmitted(gate));

    gate.Open();
    EXPECT_TRUE(IsAdmitted(gate));
}

TEST(CaptureGateTest, ClosesAtOnceForNewOnesAndReturnsWhenTheLastHasLeft) {
    CaptureGate gate;
    gate.Open();
    std::optional<CaptureGate::Entry> inside(std::in_place, gate);
    ASSERT_TRUE(inside->Admitted());
    std::atomic<bool> left{false};
    std::atomic<bool> leftWhenClosed{false};

    std::thread closing([&] {
        gate.Close();
        leftWhenClosed = left.load();
    });
    // Refused ones come and go meanwhile.
    for (int refused = 0; refused < 10'000;) {
        refused += IsAdmitted(gate) ? 0 : 1;
    }
    left = true;
    inside.reset();
    closing.join();

    EXPECT_TRUE(leftWhenClosed);
}

}  // namespace
}  // namespace vorrel
