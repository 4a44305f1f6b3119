#include "device/BackendTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <tuple>

#include "support/TraceCapture.h"

namespace vorrel {
namespace {

TEST(BackendTableTest, MakesNewBackEndsByName) {
    ::unsetenv("VORREL_SIMULATED");

    const DeviceBackends first = MakeBackends("simulated");
    const DeviceBackends second = MakeBackends("simulated");

    ASSERT_NE(first.audio, nullptr);
    ASSERT_NE(first.registry, nullptr);
    EXPECT_NE(first.audio, second.audio);
}

TEST(BackendTableTest, AnUnknownNameGivesNone) {
    for (const char* name : {"nothing", "Simulated", "simulated ", ""}) {
        const DeviceBackends backends = MakeBackends(name);

        EXPECT_EQ(backends.audio, nullptr) << name;
        EXPECT_EQ(backends.registry, nullptr) << name;
    }
    EXPECT_EQ(MakeBackends(nullptr).audio, nullptr);
}

TEST(BackendTableTest, AnUnknownNameIsTracedByItsName) {
    test::TraceCapture trace;

    std::ignore = MakeBackends("fairy");

    EXPECT_THAT(trace.Lines(),
                testing::ElementsAre(testing::HasSubstr("no device back end is called \"fairy\"")));
}

// The choice is made once in a process: each of these asks in a process of its own, which ends
// with 0 when all is as expected.

enum class Expected { some, none };

[[noreturn]] void SelectAndExit(const char* name, Expected expected) {
    ::unsetenv("VORREL_SIMULATED");
    if (name == nullptr) {
        ::unsetenv("VORREL_BACKEND");
    } else {
        ::setenv("VORREL_BACKEND", name, 1);
    }
    const DeviceBackends first = SelectBackends();
    ::setenv("VORREL_BACKEND", name == nullptr ? "nothing" : "simulated", 1);
    const DeviceBackends second = SelectBackends();
    const bool same = first.audio == second.audio && first.registry == second.registry;
    const bool some = first.audio != nullptr && first.registry != nullptr;
    const bool none = first.audio == nullptr && first.registry == nullptr;
    std::_Exit(same && (expected == Expected::some ? some : none) ? 0 : 1);
}

TEST(BackendTableDeathTest, TheEnvironmentNamesTheBackEnd) {
    EXPECT_EXIT(SelectAndExit("simulated", Expected::some), testing::ExitedWithCode(0), "");
}

TEST(BackendTableDeathTest, TheFirstOfTheTableIsTheDefault) {
    EXPECT_EXIT(SelectAndExit(nullptr, Expected::some), testing::ExitedWithCode(0), "");
}

/// Ends with 0 when the default back ends list a device, as the simulated ones do anywhere.
[[noreturn]] void ListDefaultDevicesAndExit() {
    ::unsetenv("VORREL_SIMULATED");
    ::unsetenv("VORREL_BACKEND");
    AudioDeviceID id = 0;
    UInt32 size = sizeof id;
    const AudioObjectPropertyAddress devices = {kAudioHardwarePropertyDevices,
                                                kAudioObjectPropertyScopeGlobal,
                                                kAudioObjectPropertyElementMain};
    const bool listed = SelectBackends().audio->GetPropertyData(kAudioObjectSystemObject, devices,
                                                                &size, &id) == 0 &&
                        size == sizeof id;
    // A real card may be plugged in here; the simulated recorder is never the default then.
    const AudioObjectPropertyAddress uid = {kAudioDevicePropertyDeviceUID,
                                            kAudioObjectPropertyScopeGlobal,
                                            kAudioObjectPropertyElementMain};
    std::string text;
    const bool simulated = listed &&
                           SelectBackends().audio->GetPropertyString(id, uid, &text) == 0 &&
                           text.rfind("Simulated:", 0) == 0;
    std::_Exit(simulated ? 0 : 1);
}

#ifdef VORREL_ALSA
TEST(BackendTableDeathTest, TheDefaultIsNotTheSimulatedRecorderWhereRealOnesCanBe) {
    EXPECT_EXIT(ListDefaultDevicesAndExit(), testing::ExitedWithCode(1), "");
}
#else
TEST(BackendTableDeathTest, TheDefaultIsTheSimulatedRecorderWhereThereIsNoOther) {
    EXPECT_EXIT(ListDefaultDevicesAndExit(), testing::ExitedWithCode(0), "");
}
#endif

TEST(BackendTableDeathTest, AnEmptyNameIsTheDefault) {
    EXPECT_EXIT(SelectAndExit("", Expected::some), testing::ExitedWithCode(0), "");
}

TEST(BackendTableDeathTest, AnUnknownNameGivesNoneForGoodAndIsTraced) {
    // The trace log goes to the standard error of that process.
    EXPECT_EXIT(SelectAndExit("nothing", Expected::none), testing::ExitedWithCode(0),
                "no device back end is called \"nothing\"");
}

}  // namespace
}  // namespace vorrel
