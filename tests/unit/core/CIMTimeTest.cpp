// Time values, their text forms, the tick clock, Sleep and the scope timer.
#include <cimcore/CIMTime.h>

#include "TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <stdexcept>

#include <unistd.h>

namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

// mktime normalises in the local zone; UTC keeps hours where they are.
[[maybe_unused]] const bool kUtc = ::setenv("TZ", "UTC", 1) == 0 && (::tzset(), true);

tm MakeTm(int year, int month, int day, int hour = 0, int minute = 0) {
    tm t = {};
    t.tm_year = year - 1900, t.tm_mon = month - 1, t.tm_mday = day;
    t.tm_hour = hour, t.tm_min = minute;
    return t;
}

TEST(CIMTime, ConstructionNormalisationAndTextForms) {
    const CIM::TSCIMTime sample(CIM::TSDateTimeComponents{2024, 3, 5, 7, 4, 9});
    EXPECT_EQ(sample.SecondsSinceEpoch(), 1709622249);
    EXPECT_EQ(CIM::ToString(sample.DateTimeComponents()), "[2024-3-5] [7:4:9]");

    // Components go through mktime first; a tm is taken as it is, with an
    // out-of-range or negative time of day added to the date.
    const std::pair<CIM::TSCIMTime, const char*> texts[] = {
        {-1L, "[1969-12-31] [23:59:59]"},
        {CIM::TSDateTimeComponents{2023, 6, 1, 23, 59, 61}, "[2023-6-2] [0:0:1]"},
        {MakeTm(2024, 1, 31, 1, -30), "[2024-1-30] [22:30:0]"}};
    for (const auto& [time, text] : texts) {
        EXPECT_EQ(CIM::ToString(time), text);
    }

    // mktime normalises only what time_t can hold: with a 32-bit time_t
    // (armhf) components past 2038 reach the checks as they were given.
    const auto beyond = [] {
        return CIM::ToString(CIM::TSCIMTime(CIM::TSDateTimeComponents{2100, 13, 1, 0, 0, 0}));
    };
    if (sizeof(time_t) >= 8) {
        EXPECT_EQ(beyond(), "[2101-1-1] [0:0:0]");
    } else {
        EXPECT_THAT(beyond,
                    ThrowsMessage<std::out_of_range>(StrEq("Month number is out of range 1..12")));
    }
}

TEST(CIMTime, BadFieldsThrowTheDateLibraryErrorsInCheckOrder) {
    // Day first, then month, then year, then the day's validity.
    const std::pair<tm, const char*> bad[] = {
        {MakeTm(1300, 13, 0), "Day of month value is out of range 1..31"},
        {MakeTm(1300, 14, 1), "Month number is out of range 1..12"},
        {MakeTm(1300, 2, 30), "Year is out of valid range: 1400..9999"},
        {MakeTm(2023, 2, 29), "Day of month is not valid for year"}};
    for (const auto& [fields, text] : bad) {
        EXPECT_THAT([&] { CIM::TSCIMTime{fields}; }, ThrowsMessage<std::out_of_range>(StrEq(text)));
    }
}

// The comparisons that hold, so that a failure names the operator.
std::string Relations(const CIM::TSCIMTime& x, const CIM::TSCIMTime& y) {
    return std::string(x == y ? "==" : "") + (x < y ? " <" : "") + (x <= y ? " <=" : "") +
           (x > y ? " >" : "") + (x >= y ? " >=" : "");
}

CIM::TSCIMTime At(long seconds, long ms) {
    CIM::TSCIMTime time(seconds);
    time.m_time += boost::posix_time::milliseconds(ms);
    return time;
}

TEST(CIMTime, ComparisonsWorkOnWholeSecondsTruncatedTowardZero) {
    EXPECT_EQ(Relations(At(100, 100), At(100, 600)), "== <= >=");
    EXPECT_EQ(Relations(At(100, 100), At(101, 0)), " < <=");
    EXPECT_EQ(Relations(At(101, 0), At(100, 100)), " > >=");
    EXPECT_EQ(Relations(At(0, -500), At(0, 0)), "== <= >=");
}

// The scope timer logs only past its threshold, with the ticks it measured.
TEST(CIMTime, TickSleepAndTheScopeTimer) {
    cimtest::LogCapture log;
    { CIM::TCAutoTimeoutDebug timer("quick", 1000); }
    EXPECT_TRUE(log.Lines().empty());

    const unsigned long step = 1000 / ::sysconf(_SC_CLK_TCK);
    const unsigned long first = CIM::TCCIMTime::Tick();
    EXPECT_LE(first, 0xFFFFFFFFul);
    const auto start = std::chrono::steady_clock::now();
    {
        CIM::TCAutoTimeoutDebug timer("slow block", 0);
        CIM::TCCIMTime::Sleep(60);
        // never returns early
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));
    }
    const unsigned long diff = CIM::TickDiff(CIM::TCCIMTime::Tick(), first);
    EXPECT_EQ(diff % step, 0u);
    EXPECT_GE(diff, 60 - step);
    EXPECT_LE(diff,
              static_cast<unsigned long>(cimtest::Scaled(std::chrono::milliseconds(1000)).count()));
    EXPECT_EQ(CIM::TickDiff(5, 0xFFFFFFFBul), 10u);

    const std::vector<std::string> messages = log.Messages();
    ASSERT_EQ(messages.size(), 1u);
    std::smatch match;
    const std::regex line(
        R"(^CIMTime\.cpp: ~TCAutoTimeoutDebug\(234\) > slow block endTime\((\d+)\) - startTime\((\d+)\) diff\((\d+)\) > m_threshold\(0\)$)");
    ASSERT_TRUE(std::regex_match(messages[0], match, line)) << messages[0];
    const unsigned long measured = std::stoul(match[3].str());
    EXPECT_EQ(measured, CIM::TickDiff(std::stoul(match[1].str()), std::stoul(match[2].str())));
    EXPECT_GE(measured, 60 - step);
    EXPECT_THAT(log.Lines()[0], ::testing::HasSubstr(" E/CI_CORE("));
}

}  // namespace
