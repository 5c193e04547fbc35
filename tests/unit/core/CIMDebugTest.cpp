// The assertion report: log lines, call stack, console text and the crash;
// with the test hook, the same log lines and a normal return.
#include <cimcore/CIMDebug.h>

#include <cimcore/internal/CIMLog.h>
#include <cimcore/testing.h>

#include "TestSupport.h"

#include <gmock/gmock.h>

#include <csignal>
#include <optional>
#include <regex>

#include <sys/prctl.h>

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

// Checks the log of one report of "x == 1" at src/a.cpp:42 and returns the
// number of stack lines logged.
size_t CheckReportLog(const cimtest::LogCapture& log) {
    const std::vector<std::string> messages = log.Messages();  // at() throws, and fails, if short
    EXPECT_EQ(messages.at(0), "CIMDebug.cpp: _TCCIMAssert(44) > src/a.cpp::42: x == 1");
    EXPECT_EQ(messages.at(1), "CIMDebug.cpp: _TCCIMAssert(47) > src/a.cpp::42: x == 1");
    const std::vector<std::string> lines = log.Lines();
    for (size_t i = 0; i < messages.size(); ++i) {
        EXPECT_THAT(lines[i], HasSubstr(" E/CI_CORE("));
        EXPECT_THAT(messages[i], StartsWith(i == 0 ? "CIMDebug.cpp: _TCCIMAssert(44) > "
                                                   : "CIMDebug.cpp: _TCCIMAssert(47) > "));
    }
    return messages.size() - 2;
}

TEST(CIMDebugDeathTest, ReportLogsWritesTheConsoleAndDiesOrWithTheHookReturns) {
    // The child must share the parent's log and console files, which the
    // re-executing style would create anew: fork at the statement instead.
    GTEST_FLAG_SET(death_test_style, "fast");
    cimtest::LogCapture log;
    cimtest::TempDir dir;
    const std::string console = dir.File("console");
    std::optional<cimtest::ScopedEnv> consolePath(std::in_place, "CIM_CONSOLE_PATH", console);
    EXPECT_EXIT(
        {
            ::prctl(PR_SET_NAME, "asserter", 0, 0, 0);
            CIM::_TCCIMAssert("x == 1", "src/a.cpp", 42, "extra %d text", 7);
        },
        ::testing::KilledBySignal(SIGSEGV), "extra 7 text");

    EXPECT_GE(CheckReportLog(log), 2u);  // at least the report's frame and its caller

    const std::vector<std::string> lines = cimtest::SplitLines(cimtest::ReadFile(console));
    ASSERT_GE(lines.size(), 6u);
    EXPECT_EQ(lines[0],
              "This sentence is redirected to a serial output."
              "Assertion failed: src/a.cpp (42) - x == 1");
    EXPECT_EQ(lines[1], "Debug information:");
    EXPECT_TRUE(std::regex_match(lines[2], std::regex("Posix Thread ID: [0-9a-f]+"))) << lines[2];
    EXPECT_TRUE(std::regex_match(lines[3], std::regex(R"(Linux Thread ID: \d+ \(asserter\))")))
        << lines[3];
    EXPECT_EQ(lines[4], "Callstack:");
    // The console stack leaves out the report's own frame.
    EXPECT_LT(lines.size() - 5, CheckReportLog(log));

    // With the test hook: the same log lines, the hook called, no console
    // text, and a normal return.
    log.Clear();
    const std::string quiet = dir.File("quiet");
    consolePath.emplace("CIM_CONSOLE_PATH", quiet);
    std::vector<std::string> seen;
    {
        CIM::testing::ScopedAssertHook hook(
            [&](const char* expression, const char* file, unsigned long line) {
                seen.push_back(std::string(expression) + "@" + file + ":" + std::to_string(line));
            });
        ::testing::internal::CaptureStdout();
        CIM::Log::AssertFailed("x == 1", "src/a.cpp", 42, "Caller");
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), "ASSERT!, Func:Caller\n");
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"x == 1@src/a.cpp:42"}));
    EXPECT_GE(CheckReportLog(log), 2u);
    EXPECT_EQ(cimtest::ReadFile(quiet), "");
}

}  // namespace
