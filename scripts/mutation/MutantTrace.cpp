// Linked into the test programs by scripts/mutate.py. With VORREL_MUTANT_TRACE=FILE it writes a
// line for each test: its name, its milliseconds, and the mutants that it came by.
#include <gtest/gtest.h>

#include <cstdio>

#include "MutantSwitch.h"

namespace {

class Trace final : public testing::EmptyTestEventListener {
public:
    explicit Trace(const char* path) : file(std::fopen(path, "w")) {}

private:
    void OnTestStart(const testing::TestInfo&) override {
        for (int number = 0; number < mutant::kMost; ++number) {
            mutant::reached[number] = 0;
        }
    }
    void OnTestEnd(const testing::TestInfo& test) override {
        std::fprintf(file, "%s.%s %d %lld", test.test_suite_name(), test.name(),
                     test.result()->Passed() && !test.result()->Skipped() ? 1 : 0,
                     static_cast<long long>(test.result()->elapsed_time()));
        for (int number = 0; number < mutant::kMost; ++number) {
            if (mutant::reached[number] != 0) {
                std::fprintf(file, " %d", number);
            }
        }
        std::fprintf(file, "\n");
        std::fflush(file);
    }

    std::FILE* file;
};

[[maybe_unused]] const bool appended = [] {
    if (const char* const path = std::getenv("VORREL_MUTANT_TRACE")) {
        testing::UnitTest::GetInstance()->listeners().Append(new Trace(path));
    }
    return true;
}();

}  // namespace
