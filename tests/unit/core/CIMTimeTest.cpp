// Time values, their text forms, the tick clock, Sleep and the scope timer.
#include <cimcore/CIMTime.h>

#include "TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <regex>
#include <stdexcept>
#include <tuple>

#include <unistd.h>

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class CIMTime : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        // mktime normalises in the local zone; UTC keeps hours where they are.
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }
};

tm MakeTm(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
    tm t = {};
    std::tie(t.tm_year, t.tm_mon, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec) =
        std::make_tuple(year - 1900, month - 1, day, hour, minute, second);
    return t;
}

std::string ExceptionText(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "no exception";
}

TEST_F(CIMTime, ConstructionNormalisationAndTextForms) {
    const CIM::TSCIMTime sample(CIM::TSDateTimeComponents{2024, 3, 5, 7, 4, 9});
    EXPECT_EQ(sample.SecondsSinceEpoch(), 1709622249);
    EXPECT_EQ(CIM::TSCIMTime().SecondsSinceEpoch(), 0);
    EXPECT_EQ(CIM::ToString(sample.DateTimeComponents()), "[2024-3-5] [7:4:9]");

    // Components go through mktime first; a tm is taken as it is, with an
    // out-of-range or negative time of day added to the date.
    const std::pair<CIM::TSCIMTime, const char*> texts[] = {
        {CIM::TSCIMTime(), "[1970-1-1] [0:0:0]"},
        {-1L, "[1969-12-31] [23:59:59]"},
        {sample, "[2024-3-5] [7:4:9]"},
        {CIM::TSDateTimeComponents{2023, 2, 29, 0, 0, 0}, "[2023-3-1] [0:0:0]"},
        {CIM::TSDateTimeComponents{2023, 13, 1, 0, 0, 0}, "[2024-1-1] [0:0:0]"},
        {CIM::TSDateTimeComponents{2023, 6, 1, 23, 59, 61}, "[2023-6-2] [0:0:1]"},
        {MakeTm(2024, 1, 31, 25, 0, 0), "[2024-2-1] [1:0:0]"},
        {MakeTm(2024, 1, 31, 1, -30, 0), "[2024-1-30] [22:30:0]"}};
    for (const auto& [time, text] : texts) {
        EXPECT_EQ(CIM::ToString(time), text);
    }

    // mktime normalises only what time_t can hold: with a 32-bit time_t
    // (armhf) components past 2038 reach the checks as they were given.
    std::string beyond;
    const std::string error = ExceptionText([&] {
        beyond = CIM::ToString(CIM::TSCIMTime(CIM::TSDateTimeComponents{2100, 13, 1, 0, 0, 0}));
    });
    if (sizeof(time_t) >= 8) {
        EXPECT_EQ(beyond, "[2101-1-1] [0:0:0]") << error;
    } else {
        EXPECT_EQ(error, "Month number is out of range 1..12");
    }
}

TEST_F(CIMTime, BadFieldsThrowTheDateLibraryErrorsInCheckOrder) {
    // Day first, then month, then year, then the day's validity.
    const std::pair<tm, const char*> bad[] = {
        {MakeTm(1300, 13, 0), "Day of month value is out of range 1..31"},
        {MakeTm(1300, 14, 1), "Month number is out of range 1..12"},
        {MakeTm(1300, 2, 30), "Year is out of valid range: 1400..9999"},
        {MakeTm(2023, 2, 29), "Day of month is not valid for year"}};
    for (const auto& [fields, text] : bad) {
        EXPECT_EQ(ExceptionText([&] { CIM::TSCIMTime{fields}; }), text);
    }
    EXPECT_EQ(ExceptionText([] {
                  CIM::TSCIMTime(CIM::TSDateTimeComponents{1399, 6, 1, 0, 0, 0});
              }),
              "Year is out of valid range: 1400..9999");

    CIM::TSCIMTime special;
    special.m_time = boost::posix_time::ptime(boost::posix_time::not_a_date_time);
    EXPECT_THAT(ExceptionText([&] { special.DateTimeComponents(); }),
                StartsWith("tm unable to handle"));
}

// The comparisons that hold, so that a failure names the operator.
std::string Relations(const CIM::TSCIMTime& x, const CIM::TSCIMTime& y) {
    return std::string(x == y ? "==" : "") + (x < y ? " <" : "") + (x <= y ? " <=" : "") +
           (x > y ? " >" : "") + (x >= y ? " >=" : "");
}

TEST_F(CIMTime, ComparisonsWorkOnWholeSecondsTruncatedTowardZero) {
    using boost::posix_time::milliseconds;
    CIM::TSCIMTime a(100L);
    CIM::TSCIMTime b(100L);
    a.m_time += milliseconds(100);
    b.m_time += milliseconds(600);
    EXPECT_EQ(Relations(a, b), "== <= >=");
    EXPECT_EQ(Relations(b, a), "== <= >=");
    const CIM::TSCIMTime c(101L);
    EXPECT_EQ(Relations(a, c), " < <=");
    EXPECT_EQ(Relations(c, a), " > >=");

    CIM::TSCIMTime justBefore;
    justBefore.m_time -= milliseconds(500);
    EXPECT_EQ(Relations(justBefore, CIM::TSCIMTime()), "== <= >=");
}

TEST_F(CIMTime, TickCountsWholeClockStepsAndWrapSafeDifferences) {
    const unsigned long step = 1000 / ::sysconf(_SC_CLK_TCK);
    const unsigned long first = CIM::TCCIMTime::Tick();
    EXPECT_LE(first, 0xFFFFFFFFul);

    const auto start = std::chrono::steady_clock::now();
    CIM::TCCIMTime::Sleep(60);
    const auto slept = std::chrono::steady_clock::now() - start;
    const unsigned long second = CIM::TCCIMTime::Tick();
    EXPECT_GE(slept, std::chrono::milliseconds(60));  // never returns early
    const unsigned long diff = CIM::TickDiff(second, first);
    EXPECT_EQ(diff % step, 0u);
    EXPECT_GE(diff, 60 - step);
    EXPECT_LE(diff,
              static_cast<unsigned long>(cimtest::Scaled(std::chrono::milliseconds(1000)).count()));

    EXPECT_EQ(CIM::TickDiff(5, 0xFFFFFFFBul), 10u);
    EXPECT_EQ(CIM::TickDiff(20, 10), 10u);
}

TEST_F(CIMTime, ScopeTimerLogsOnlyPastItsThreshold) {
    cimtest::LogCapture log;
    { CIM::TCAutoTimeoutDebug timer("quick", 1000); }
    EXPECT_TRUE(log.Lines().empty());

    {
        CIM::TCAutoTimeoutDebug timer("slow block", 0);
        CIM::TCCIMTime::Sleep(40);
    }
    const std::vector<std::string> messages = log.Messages();
    ASSERT_EQ(messages.size(), 1u);
    std::smatch match;
    const std::regex line(
        R"(^CIMTime\.cpp: ~TCAutoTimeoutDebug\(234\) > slow block endTime\((\d+)\) - startTime\((\d+)\) diff\((\d+)\) > m_threshold\(0\)$)");
    ASSERT_TRUE(std::regex_match(messages[0], match, line)) << messages[0];
    const unsigned long end = std::stoul(match[1].str());
    const unsigned long start = std::stoul(match[2].str());
    EXPECT_EQ(std::stoul(match[3].str()), CIM::TickDiff(end, start));
    EXPECT_GE(std::stoul(match[3].str()), 30u);
    EXPECT_THAT(log.Lines()[0], HasSubstr(" E/CI_CORE("));
}

}  // namespace
