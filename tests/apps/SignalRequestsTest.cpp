// Which signals are one request.
#include "SignalRequests.h"

#include <gtest/gtest.h>

namespace vorrel::cli {
namespace {

using namespace std::chrono_literals;

constexpr SignalRequests::Clock::time_point kStart{100s};

TEST(SignalRequestsTest, TheFirstSignalIsARequest) {
    SignalRequests requests;

    EXPECT_TRUE(requests.Hear(kStart));

    EXPECT_EQ(requests.Count(), 1);
}

TEST(SignalRequestsTest, ASignalWithinASecondBelongsToTheOneBefore) {
    SignalRequests requests;
    requests.Hear(kStart);
    requests.Handled(kStart + 1ms);

    EXPECT_FALSE(requests.Hear(kStart));
    EXPECT_FALSE(requests.Hear(kStart + 1ms));
    EXPECT_FALSE(requests.Hear(kStart + 1000ms));

    EXPECT_EQ(requests.Count(), 1);
}

TEST(SignalRequestsTest, ASignalASecondLaterIsAFurtherRequest) {
    SignalRequests requests;
    requests.Hear(kStart);
    requests.Handled(kStart + 1ms);

    EXPECT_TRUE(requests.Hear(kStart + 1001ms));

    EXPECT_EQ(requests.Count(), 2);
}

TEST(SignalRequestsTest, TheSecondIsCountedFromTheRequestAndNotFromItsRepeats) {
    SignalRequests requests;
    requests.Hear(kStart);
    requests.Handled(kStart);
    for (const auto later : {300ms, 600ms, 900ms}) {
        EXPECT_FALSE(requests.Hear(kStart + later));
    }

    EXPECT_TRUE(requests.Hear(kStart + 1000ms));
}

TEST(SignalRequestsTest, WhatCameWhileARequestWasHandledBelongsToItHoweverLongThatTook) {
    SignalRequests requests;
    requests.Hear(kStart);
    requests.Handled(kStart + 5s);

    EXPECT_FALSE(requests.Hear(kStart + 3s));
    EXPECT_FALSE(requests.Hear(kStart + 5900ms));
    EXPECT_TRUE(requests.Hear(kStart + 6s));
}

TEST(SignalRequestsTest, AFurtherRequestMayComeTwiceToo) {
    SignalRequests requests;
    for (const auto when : {0s, 2s, 4s}) {
        EXPECT_TRUE(requests.Hear(kStart + when));
        requests.Handled(kStart + when);
        EXPECT_FALSE(requests.Hear(kStart + when));
    }

    EXPECT_EQ(requests.Count(), 3);
}

}  // namespace
}  // namespace vorrel::cli
