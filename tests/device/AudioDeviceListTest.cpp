#include "device/AudioDeviceList.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "device/backend/SupportedDevice.h"

namespace vorrel {
namespace {

FoundDeviceInfo Device(const std::string& name, const std::string& uid = "uid",
                       std::int32_t vendorId = kSupportedVendorId,
                       std::int32_t productId = kSupportedProductId) {
    return {name, uid, "model", 7, vendorId, productId, 0};
}

TEST(AudioDeviceListTest, PassesTheSupportedModelAndMarksItsRatesAndItsControlInterface) {
    FoundDeviceInfo record = Device("KD-WV770");

    const bool passed = AudioDeviceList().FilterDevice(record);

    EXPECT_TRUE(passed);
    EXPECT_EQ(record.excludedRateMask, 65'543U);
}

TEST(AudioDeviceListTest, RefusesANameWithAnythingBeforeOrAfterTheModelNameEvenWithTheRightIds) {
    for (const char* name : {"KD-WV770 ", " KD-WV770", "KD-WV770 2", "KD-WV7702", "KD-WV770\n",
                             "\nKD-WV770", "My KD-WV770", "kd-wv770", "KD-WV77", "KD_WV770", ""}) {
        FoundDeviceInfo record = Device(name);

        EXPECT_FALSE(AudioDeviceList().FilterDevice(record)) << '"' << name << '"';
        EXPECT_EQ(record.excludedRateMask, 0U) << '"' << name << '"';
    }
}

TEST(AudioDeviceListTest, RefusesTheRightNameWithAnotherProductId) {
    FoundDeviceInfo record = Device("KD-WV770", "uid", kSupportedVendorId, kSupportedProductId + 1);

    EXPECT_FALSE(AudioDeviceList().FilterDevice(record));
    EXPECT_EQ(record.excludedRateMask, 0U);
}

TEST(AudioDeviceListTest, RefusesTheRightNameWithAnotherVendorId) {
    FoundDeviceInfo record = Device("KD-WV770", "uid", kSupportedVendorId - 1, kSupportedProductId);

    EXPECT_FALSE(AudioDeviceList().FilterDevice(record));
}

TEST(AudioDeviceListTest, RefusesADeviceThatTheRegistryDoesNotKnow) {
    FoundDeviceInfo record = Device("KD-WV770", "uid", -1, -1);

    EXPECT_FALSE(AudioDeviceList().FilterDevice(record));
}

TEST(AudioDeviceListTest, KeepsTwoDevicesOfTheSupportedModelInDiscoveryOrder) {
    std::vector<FoundDeviceInfo> list = {Device("Speaker", "a"), Device("KD-WV770", "z"),
                                         Device("KD-WV770 ", "c"), Device("KD-WV770", "b"),
                                         Device("KD-WV770", "e", -1, -1)};

    AudioDeviceList().FilterDevices(list);

    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(list[0].uid, "z");
    EXPECT_EQ(list[1].uid, "b");
    EXPECT_EQ(list[0].excludedRateMask, 65'543U);
    EXPECT_EQ(list[1].excludedRateMask, 65'543U);
}

TEST(AudioDeviceListTest, LeavesAnEmptyListEmpty) {
    std::vector<FoundDeviceInfo> list;

    AudioDeviceList().FilterDevices(list);

    EXPECT_TRUE(list.empty());
}

}  // namespace
}  // namespace vorrel
