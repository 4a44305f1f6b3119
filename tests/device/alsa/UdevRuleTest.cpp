#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "device/backend/SupportedDevice.h"
#include "support/Tool.h"

namespace vorrel {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr char kRuleFile[] = VORREL_UDEV_RULE;

/// The rule without its comments.
std::string Rule() {
    std::ifstream file(kRuleFile);
    std::string rule;
    for (std::string line; std::getline(file, line);) {
        rule += line.starts_with('#') ? std::string() : line + "\n";
    }
    return rule;
}

/// An id as sysfs writes it.
std::string Digits(std::int32_t id) {
    char text[16];
    std::snprintf(text, sizeof text, "%04x", static_cast<unsigned>(id));
    return text;
}

TEST(UdevRuleTest, GrantsSeatAndGroupTheNodeOfTheSupportedRecorder) {
    const std::string rule = Rule();

    EXPECT_THAT(rule, HasSubstr("SUBSYSTEM==\"usb\""));
    EXPECT_THAT(rule, HasSubstr("ENV{DEVTYPE}==\"usb_device\""));
    EXPECT_THAT(rule, HasSubstr("ATTR{idVendor}==\"" + Digits(kSupportedVendorId) + "\""));
    EXPECT_THAT(rule, HasSubstr("ATTR{idProduct}==\"" + Digits(kSupportedProductId) + "\""));
    EXPECT_THAT(rule, HasSubstr("TAG+=\"uaccess\""));
    EXPECT_THAT(rule, HasSubstr("GROUP=\"audio\", MODE=\"0664\""));
    EXPECT_THAT(rule, Not(HasSubstr("@")));
}

TEST(UdevRuleTest, IsOneLineOfMatchesAndAssignments) {
    std::istringstream parts(Rule());
    int count = 0;
    for (std::string part; std::getline(parts, part, ',');) {
        EXPECT_THAT(part,
                    ::testing::MatchesRegex(" ?[A-Z]+([{][A-Za-z]+[}])?[!=+]?=\"[^\"]+\"\n?"));
        ++count;
    }

    EXPECT_EQ(count, 8);
}

TEST(UdevRuleTest, TheDeviceManagerUnderstandsIt) {
    VORREL_NEEDS_TOOL("udevadm");
    if (test::RunTool("udevadm verify --help >/dev/null 2>&1").exitCode != 0) {
        GTEST_SKIP() << "this udevadm cannot verify rules";
    }

    const test::ToolResult result =
        test::RunTool("udevadm verify " + test::Quoted(kRuleFile) + " 2>&1");

    EXPECT_EQ(result.exitCode, 0) << result.output;
}

}  // namespace
}  // namespace vorrel
