#include "platform/SystemHelpers.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <optional>
#include <string>
#include <utility>

namespace vorrel {
namespace {

/// Sets the environment's time zone while it lives; tells nobody.
class ZoneInEnvironment {
public:
    explicit ZoneInEnvironment(const char* zone) {
        if (const char* const before = std::getenv("TZ")) {
            saved = before;
        }
        ::setenv("TZ", zone, 1);
    }
    ~ZoneInEnvironment() {
        if (saved) {
            ::setenv("TZ", saved->c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
    }
    ZoneInEnvironment(const ZoneInEnvironment&) = delete;
    ZoneInEnvironment& operator=(const ZoneInEnvironment&) = delete;

private:
    std::optional<std::string> saved;
};

TEST(LocalTimeTest, LocaltimeFillsTheWholeRecordWithZone) {
    // Five and a half hours ahead, no daylight saving.
    const ZoneInEnvironment zone("XYZ-05:30");
    const std::time_t time = 86'400 + 2;
    std::tm result;
    std::memset(&result, 0x55, sizeof(result));

    EXPECT_EQ(localtime_s(&result, &time), 0);

    EXPECT_EQ(result.tm_year, 70);
    EXPECT_EQ(result.tm_mon, 0);
    EXPECT_EQ(result.tm_mday, 2);
    EXPECT_EQ(result.tm_hour, 5);
    EXPECT_EQ(result.tm_min, 30);
    EXPECT_EQ(result.tm_sec, 2);
    EXPECT_EQ(result.tm_wday, 5);  // a Friday
    EXPECT_EQ(result.tm_yday, 1);
    EXPECT_EQ(result.tm_isdst, 0);
    EXPECT_EQ(result.tm_gmtoff, 19'800);
    EXPECT_STREQ(result.tm_zone, "XYZ");
}

TEST(LocalTimeTest, LocaltimeSeesAZoneThatChanged) {
    const std::time_t time = 0;
    std::tm result{};
    for (const auto& [name, offset] :
         {std::pair("ABC-01", 3'600), std::pair("DEF+02", -7'200), std::pair("GHI-03", 10'800)}) {
        const ZoneInEnvironment zone(name);

        EXPECT_EQ(localtime_s(&result, &time), 0);

        EXPECT_EQ(result.tm_gmtoff, offset) << name;
        EXPECT_EQ(std::string(result.tm_zone), std::string(name, 3));
    }
}

TEST(LocalTimeTest, LocaltimeGivesAnEmptyRecordForATimePastTheCalendar) {
    // 2^63 - 1 seconds are the year 292,277,026,596, for which tm_year has no room.
    const std::time_t time = std::numeric_limits<std::time_t>::max();
    std::tm result;
    std::memset(&result, 0x55, sizeof(result));

    EXPECT_EQ(localtime_s(&result, &time), 0);

    EXPECT_EQ(result.tm_year, 0);
    EXPECT_EQ(result.tm_mday, 0);
    EXPECT_EQ(result.tm_hour, 0);
    EXPECT_EQ(result.tm_gmtoff, 0);
    EXPECT_EQ(result.tm_zone, nullptr);
}

}  // namespace
}  // namespace vorrel
