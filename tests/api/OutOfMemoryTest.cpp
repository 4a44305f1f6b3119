#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "support/AllocationLimit.h"
#include "support/RecordingDelegate.h"
#include "support/TempDirectory.h"
#include "vorrel/Vorrel.h"

// The exported functions when there is no memory at all. Of the library as it is shipped: what
// left a function of it as an exception would end the process.

namespace {

using vorrel::test::AllocationLimit;
using vorrel::test::RecordingDelegate;
using vorrel::test::TempDirectory;

class OutOfMemoryApiTest : public testing::Test {
protected:
    OutOfMemoryApiTest() {
        ::setenv("VORREL_BACKEND", "simulated", 1);
        ::setenv("VORREL_SIMULATED", "source=counter,channels=2,speed=20", 1);
    }
    void SetUp() override { ASSERT_EQ(Vorrel_Init(delegate), VrSuccess); }

    template <class Operation>
    static VrError WithoutMemory(const Operation& operation) {
        const AllocationLimit none(1);
        return operation();
    }

    TempDirectory directory;
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    std::vector<std::string> names;
};

TEST_F(OutOfMemoryApiTest, TheListOfDevicesFailsIsEmptyAndIsThereTheNextTime) {
    names = {"left over"};

    EXPECT_EQ(WithoutMemory([&] { return Vorrel_GetAudioDevices(&names); }), VrErrorFailed);

    EXPECT_TRUE(names.empty());
    EXPECT_EQ(Vorrel_GetAudioDevices(&names), VrSuccess);
    EXPECT_EQ(names, std::vector<std::string>{"KD-WV770"});
}

TEST_F(OutOfMemoryApiTest, ASelectionFailsLeavesNoDeviceAndCanBeRepeated) {
    ASSERT_EQ(Vorrel_SetAudioDevice("KD-WV770"), VrSuccess);

    EXPECT_EQ(WithoutMemory([] { return Vorrel_SetAudioDevice("KD-WV770"); }), VrErrorFailed);

    std::shared_ptr<VrAudioDeviceInfo> info;
    EXPECT_EQ(Vorrel_GetAudioDeviceInfo(&info), VrErrorInvalidState);
    EXPECT_EQ(Vorrel_SetAudioDevice("KD-WV770"), VrSuccess);
}

TEST_F(OutOfMemoryApiTest, ASaveRequestIsRefused) {
    const std::vector<VrSaveSetting> settings(1);

    EXPECT_EQ(WithoutMemory([&] { return Vorrel_SaveFile(&settings); }), VrErrorFailed);
}

}  // namespace
