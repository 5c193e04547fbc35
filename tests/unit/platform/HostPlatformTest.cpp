// The host platform seam: log line format and destinations, tag switching,
// refusal injection, and the library's one logging helper on top of it.
#include "dlog.h"
#include "debug_menu.h"
#include "cim_api.h"

#include <cimcore/internal/CIMLog.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const std::regex kLine(
    R"(^\d\d-\d\d \d\d:\d\d:\d\d\.\d\d\d ([VDIWEF?])/([^(]+)\((\d+):(\d+)\): (.*)$)");

TEST(HostLog, WritesOneFormattedLinePerCallWithPriorityLetterAndIds) {
    cimtest::LogCapture log;
    const int priorities[] = {DLOG_VERBOSE, DLOG_DEBUG, DLOG_INFO, DLOG_WARN,
                              DLOG_ERROR,   DLOG_FATAL, 0,         42};
    for (int priority : priorities) {
        EXPECT_GT(__dlog_print(LOG_ID_MAIN, priority, "T_TAG", "value %d of %s", priority, "x"), 0);
    }
    // One trailing line feed is dropped, an inner one stays.
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_TAG", "ends with line feed\n");

    const std::vector<std::string> lines = log.Lines();
    ASSERT_EQ(lines.size(), 9u);
    const std::string letters = "VDIWEF??";
    for (size_t i = 0; i < 8; ++i) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(lines[i], match, kLine)) << lines[i];
        EXPECT_EQ(match[1].str()[0], letters[i]);
        EXPECT_EQ(match[2].str(), "T_TAG");
        EXPECT_EQ(std::stol(match[3].str()), long(::getpid()));
        EXPECT_EQ(std::stol(match[4].str()), long(::gettid()));
        EXPECT_EQ(match[5].str(), "value " + std::to_string(priorities[i]) + " of x");
    }
    EXPECT_NE(lines[8].find("): ends with line feed"), std::string::npos);
    EXPECT_EQ(lines[8].back(), 'd');

    struct stat info;
    ASSERT_EQ(::stat(log.Path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);

    // A forked child's lines carry its own ids, not the parent's.
    log.Clear();
    const pid_t child = ::fork();
    if (child == 0) {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_TAG", "from the child");
        ::_exit(0);
    }
    ASSERT_GT(child, 0);
    ::waitpid(child, nullptr, 0);
    std::smatch match;
    const std::vector<std::string> childLines = log.Lines();
    ASSERT_EQ(childLines.size(), 1u);
    ASSERT_TRUE(std::regex_match(childLines[0], match, kLine)) << childLines[0];
    EXPECT_EQ(std::stol(match[3].str()), long(child));
    EXPECT_EQ(std::stol(match[4].str()), long(child));
}

TEST(HostLog, ConcurrentLinesNeverInterleave) {
    cimtest::LogCapture log;
    constexpr int kThreads = 4;
    constexpr int kLines = 400;
    const std::string payload(300, 'p');
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &payload] {
            for (int i = 0; i < kLines; ++i) {
                __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_MT", "%d:%d:%s", t, i, payload.c_str());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::vector<std::string> lines = log.Lines();
    ASSERT_EQ(lines.size(), size_t(kThreads * kLines));
    std::vector<int> next(kThreads, 0);
    const std::regex message(R"(^(\d+):(\d+):p{300}$)");
    for (const std::string& line : lines) {
        std::smatch outer;
        ASSERT_TRUE(std::regex_match(line, outer, kLine)) << line;
        const std::string text = outer[5].str();
        std::smatch inner;
        ASSERT_TRUE(std::regex_match(text, inner, message)) << line;
        const int t = std::stoi(inner[1].str());
        EXPECT_EQ(std::stoi(inner[2].str()), next[t]++);  // each thread's lines in order
    }
}

TEST(HostLog, DestinationIsReadAtEachLine) {
    cimtest::LogCapture log;
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_DEST", "first");
    ::setenv("CIM_LOG_OUTPUT", "none", 1);
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_DEST", "dropped");
    ::setenv("CIM_LOG_OUTPUT", ("file:" + log.Path()).c_str(), 1);
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_DEST", "second");
    const std::vector<std::string> messages = log.Messages();
    EXPECT_EQ(messages, (std::vector<std::string>{"first", "second"}));

    cimtest::TempDir dir;
    ::setenv("CIM_LOG_OUTPUT", ("file:" + dir.File("missing/log")).c_str(), 1);
    EXPECT_LT(__dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_DEST", "nowhere"), 0);
}

TEST(HostDebugMenu, StoppedTagIsDroppedUntilStartedAgainAndRefusalsFail) {
    cimtest::LogCapture log;
    EXPECT_EQ(stopdlogtagbydefault("T_MENU"), 0);
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "T_MENU", "while stopped");
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "T_OTHER", "other tag");
    EXPECT_EQ(startdlogtagbydefault("T_MENU"), 0);
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "T_MENU", "after start");
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{"other tag", "after start"}));

    EXPECT_EQ(startdlogtagbydefault(nullptr), -1);
    EXPECT_EQ(stopdlogtagbydefault(""), -1);

    ::setenv("CIM_DLOG_REFUSE", "T_A,T_MENU", 1);
    EXPECT_EQ(stopdlogtagbydefault("T_MENU"), -1);
    EXPECT_EQ(startdlogtagbydefault("T_A"), -1);
    EXPECT_EQ(stopdlogtagbydefault("T_MEN"), 0);  // a prefix of a listed tag is not listed
    EXPECT_EQ(startdlogtagbydefault("T_MEN"), 0);
    ::unsetenv("CIM_DLOG_REFUSE");
    // The refused stop left the tag running.
    log.Clear();
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "T_MENU", "still running");
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{"still running"}));
}

TEST(LogHelper, PrefixesSourceFunctionAndLineUnderTheCoreTag) {
    cimtest::LogCapture log;
    CIM::Log::Info("Some.cpp", "Func", 12, "value %d", 7);
    CIM::Log::Error("Other.cpp", "~Other", 3, "%s", "");
    CIM::Log::Write(5, "W.cpp", "Warn", 1, "warned");
    const std::vector<std::string> lines = log.Lines();
    ASSERT_EQ(lines.size(), 3u);
    std::smatch match;
    ASSERT_TRUE(std::regex_match(lines[0], match, kLine));
    EXPECT_EQ(match[1].str(), "I");
    EXPECT_EQ(match[2].str(), "CI_CORE");
    EXPECT_EQ(match[5].str(), "Some.cpp: Func(12) > value 7");
    ASSERT_TRUE(std::regex_match(lines[1], match, kLine));
    EXPECT_EQ(match[1].str(), "E");
    EXPECT_EQ(match[5].str(), "Other.cpp: ~Other(3) > ");
    ASSERT_TRUE(std::regex_match(lines[2], match, kLine));
    EXPECT_EQ(match[1].str(), "W");

    // Long messages are not cut.
    log.Clear();
    const std::string longText(5000, 'x');
    CIM::Log::Info("Long.cpp", "Long", 1, "%s", longText.c_str());
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{"Long.cpp: Long(1) > " + longText}));

    EXPECT_EQ(CIM::ToString(true), "true");
    EXPECT_EQ(CIM::ToString(false), "false");
}

}  // namespace
