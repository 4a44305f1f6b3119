#include "faults/Tally.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <limits>
#include <map>
#include <utility>

#include "support/Holdings.h"

namespace vorrel::test {
namespace {

struct Count {
    std::uint64_t injected = 0;
    std::uint64_t survived = 0;
};
using Table = std::map<std::pair<std::string, std::string>, Count>;

Table& TheTable() {
    static Table table;
    return table;
}

std::string Kind(const Fault& fault) {
    std::string kind = NameOf(fault.call);
    if (fault.action && !fault.failsToo) {
        return kind + ", something happens";
    }
    if (fault.isShort) {
        kind += ", short";
    }
    if (!fault.isShort || fault.forGood) {
        const bool isRefused = fault.call == Call::Memory || fault.call == Call::Thread;
        kind += std::string(", ") + (isRefused ? "refused" : ::strerrorname_np(fault.error));
    }
    if (fault.action) {
        kind += ", something happens";
    }
    return fault.forGood ? kind + " from there on" : kind;
}

/// Prints what was injected when all tests have run.
class Printer final : public ::testing::Environment {
public:
    void TearDown() override {
        Count all;
        std::printf("%-34s %-34s %9s %9s\n", "operation", "fault", "injected", "survived");
        for (const auto& [key, count] : TheTable()) {
            std::printf("%-34s %-34s %9llu %9llu\n", key.first.c_str(), key.second.c_str(),
                        static_cast<unsigned long long>(count.injected),
                        static_cast<unsigned long long>(count.survived));
            all.injected += count.injected;
            all.survived += count.survived;
        }
        std::printf("faults injected: %llu, survived: %llu\n",
                    static_cast<unsigned long long>(all.injected),
                    static_cast<unsigned long long>(all.survived));
    }
};
const ::testing::Environment* const printer = ::testing::AddGlobalTestEnvironment(new Printer);

void ExpectNothingMoreHeld(const Holdings& before) {
    const Holdings after = Holdings::BackTo(before);
    EXPECT_LE(after.threads, before.threads) << HeldNow();
    EXPECT_LE(after.descriptors, before.descriptors) << HeldNow();
}

/// @return whether the fault was met and everything was as it has to be.
bool Run(const std::string& operation, const Fault& fault,
         const std::function<std::uint64_t(const Fault&)>& scenario) {
    SCOPED_TRACE(operation + ": " + Kind(fault) + ", call " + std::to_string(fault.nth));
    const Holdings before = Holdings::Now();
    const std::uint64_t met = scenario(fault);
    ExpectNothingMoreHeld(before);
    Count& count = TheTable()[{operation, Kind(fault)}];
    count.injected += met;
    if (::testing::Test::HasFailure()) {
        return false;
    }
    count.survived += met;
    return met > 0;
}

}  // namespace

void Sweep(const std::string& operation, Fault fault,
           const std::function<std::uint64_t(const Fault&)>& scenario) {
    // Without a fault first: what is made once and then kept is there when counting begins.
    fault.nth = std::numeric_limits<std::uint64_t>::max();
    {
        SCOPED_TRACE(operation + ", without a fault");
        EXPECT_EQ(scenario(fault), 0U);
    }
    for (fault.nth = 1; Run(operation, fault, scenario); ++fault.nth) {
    }
    if (!::testing::Test::HasFailure()) {
        EXPECT_GT(fault.nth, 1U) << operation << " never met " << Kind(fault);
    }
}

void Once(const std::string& operation, const Fault& fault,
          const std::function<std::uint64_t(const Fault&)>& scenario) {
    if (!Run(operation, fault, scenario) && !::testing::Test::HasFailure()) {
        ADD_FAILURE() << operation << " never met " << Kind(fault);
    }
}

}  // namespace vorrel::test
