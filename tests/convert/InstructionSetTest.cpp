#include "convert/InstructionSet.h"

#include <gtest/gtest.h>

namespace vorrel {
namespace {

TEST(InstructionSetTest, TheBaselineIsAlwaysSupported) {
    ASSERT_FALSE(SupportedInstructionSets().empty());
    EXPECT_EQ(SupportedInstructionSets().front(), InstructionSet::kBaseline);
}

TEST(InstructionSetTest, TheWidestSupportedSetIsTheActiveOne) {
    EXPECT_EQ(&ActiveKernels(), &KernelsFor(SupportedInstructionSets().back()));
    EXPECT_EQ(&ActiveKernels(), &ActiveKernels());
}

TEST(InstructionSetTest, EverySetHasKernelsOfItsOwn) {
    for (const InstructionSet one : SupportedInstructionSets()) {
        for (const InstructionSet other : SupportedInstructionSets()) {
            EXPECT_EQ(&KernelsFor(one) == &KernelsFor(other), one == other);
        }
    }
}

}  // namespace
}  // namespace vorrel
