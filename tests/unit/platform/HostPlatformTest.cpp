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

// "MM-DD HH:MM:SS.mmm " before "P/TAG(PID:TID): message".
const std::regex kStamp(R"(^\d\d-\d\d \d\d:\d\d:\d\d\.\d\d\d )");
constexpr size_t kStampLength = 19;

std::string Ids(long pid, long tid) {
    return "(" + std::to_string(pid) + ":" + std::to_string(tid) + "): ";
}

TEST(HostLog, WritesOneFormattedLinePerCallWithPriorityLetterAndIds) {
    cimtest::LogCapture log;
    const int priorities[] = {DLOG_VERBOSE, DLOG_DEBUG, DLOG_INFO, DLOG_WARN,
                              DLOG_ERROR,   DLOG_FATAL, 0,         42};
    for (int priority : priorities) {
        EXPECT_GT(__dlog_print(LOG_ID_MAIN, priority, "T_TAG", "value %d", priority), 0);
    }
    // One trailing line feed is dropped.
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_TAG", "ends with line feed\n");

    const std::vector<std::string> lines = log.Lines();
    ASSERT_EQ(lines.size(), 9u);
    const std::string letters = "VDIWEF??";
    const std::string ids = Ids(::getpid(), ::gettid());
    for (size_t i = 0; i < lines.size(); ++i) {
        ASSERT_TRUE(std::regex_search(lines[i], kStamp)) << lines[i];
        const std::string message =
            i < 8 ? "value " + std::to_string(priorities[i]) : "ends with line feed";
        EXPECT_EQ(lines[i].substr(kStampLength),
                  std::string(1, i < 8 ? letters[i] : 'I') + "/T_TAG" + ids + message);
    }
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
    ASSERT_EQ(log.Lines().size(), 1u);
    EXPECT_EQ(log.Lines()[0].substr(kStampLength),
              "I/T_TAG" + Ids(child, child) + "from the child");
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
    const std::vector<std::string> messages = log.Messages();
    ASSERT_EQ(messages.size(), size_t(kThreads * kLines));
    std::vector<int> next(kThreads, 0);
    const std::regex message(R"(^(\d+):(\d+):p{300}$)");
    for (const std::string& text : messages) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(text, match, message)) << text;
        EXPECT_EQ(std::stoi(match[2].str()), next[std::stoi(match[1].str())]++);  // in order
    }
}

TEST(HostLog, DestinationIsReadAtEachLineAndStoppedTagsAreDropped) {
    cimtest::LogCapture log;
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_DEST", "first");
    ::setenv("CIM_LOG_OUTPUT", "none", 1);
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_DEST", "dropped");
    ::setenv("CIM_LOG_OUTPUT", ("file:" + log.Path()).c_str(), 1);
    EXPECT_EQ(stopdlogtagbydefault("T_DEST"), 0);
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "T_DEST", "while stopped");
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "T_OTHER", "other tag");
    EXPECT_EQ(startdlogtagbydefault("T_DEST"), 0);
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "T_DEST", "after start");
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{"first", "other tag", "after start"}));

    cimtest::TempDir dir;
    ::setenv("CIM_LOG_OUTPUT", ("file:" + dir.File("missing/log")).c_str(), 1);
    EXPECT_LT(__dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_DEST", "nowhere"), 0);
}

TEST(HostDebugMenu, RefusedCallsFailAndChangeNothing) {
    cimtest::LogCapture log;
    EXPECT_EQ(startdlogtagbydefault(nullptr), -1);
    EXPECT_EQ(stopdlogtagbydefault(""), -1);
    {
        cimtest::ScopedEnv refuse("CIM_DLOG_REFUSE", "T_A,T_MENU");
        EXPECT_EQ(stopdlogtagbydefault("T_MENU"), -1);
        EXPECT_EQ(startdlogtagbydefault("T_A"), -1);
        EXPECT_EQ(stopdlogtagbydefault("T_MEN"), 0);  // a prefix of a listed tag is not listed
        EXPECT_EQ(startdlogtagbydefault("T_MEN"), 0);
    }
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "T_MENU", "still running");
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{"still running"}));
}

TEST(LogHelper, PrefixesSourceFunctionAndLineUnderTheCoreTag) {
    cimtest::LogCapture log;
    CIM::Log::Info("Some.cpp", "Func", 12, "value %d", 7);
    CIM::Log::Error("Other.cpp", "~Other", 3, "%s", "");
    const std::string longText(5000, 'x');  // longer than any buffer: not cut
    CIM::Log::Write(5, "Long.cpp", "Long", 1, "%s", longText.c_str());
    const std::vector<std::string> lines = log.Lines();
    ASSERT_EQ(lines.size(), 3u);
    const std::string ids = Ids(::getpid(), ::gettid());
    EXPECT_EQ(lines[0].substr(kStampLength), "I/CI_CORE" + ids + "Some.cpp: Func(12) > value 7");
    EXPECT_EQ(lines[1].substr(kStampLength), "E/CI_CORE" + ids + "Other.cpp: ~Other(3) > ");
    EXPECT_EQ(lines[2].substr(kStampLength), "W/CI_CORE" + ids + "Long.cpp: Long(1) > " + longText);

    EXPECT_EQ(CIM::ToString(true), "true");
    EXPECT_EQ(CIM::ToString(false), "false");
}

}  // namespace
