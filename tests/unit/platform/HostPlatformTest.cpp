// The host platform seam: log line format and destinations, tag switching,
// refusal injection, and the library's one logging helper on top of it.
#include "dlog.h"
#include "debug_menu.h"
#include "cim_api.h"

#include <cimcore/internal/CIMLog.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
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

TEST(HostLog, DestinationChangesOnlyThroughTheControlAndStoppedTagsAreDropped) {
    cimtest::LogCapture log;
    using cimhost::EHostSetting;
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_DEST", "first");
    // Read once: a later change of the environment is not looked at.
    cimtest::ScopedEnv ignored("CIM_LOG_OUTPUT", "none");
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_DEST", "environment ignored");
    cimhost::SetSetting(EHostSetting::LOG_OUTPUT, "none");
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_DEST", "dropped");
    cimhost::SetSetting(EHostSetting::LOG_OUTPUT, "file:" + log.Path());
    EXPECT_EQ(stopdlogtagbydefault("T_DEST"), 0);
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "T_DEST", "while stopped");
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "T_OTHER", "other tag");
    EXPECT_EQ(startdlogtagbydefault("T_DEST"), 0);
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "T_DEST", "after start");
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{"first", "environment ignored", "other tag",
                                                        "after start"}));

    cimtest::TempDir dir;
    cimhost::SetSetting(EHostSetting::LOG_OUTPUT, "file:" + dir.File("missing/log"));
    EXPECT_LT(__dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_DEST", "nowhere"), 0);
}

// Threads log while the destination moves between two files and "none": no
// data race, and every line that lands is whole.
TEST(HostLog, DestinationSwitchedWhileThreadsLog) {
    cimtest::LogCapture first;
    cimtest::TempDir dir;
    const std::string second = dir.File("second.log");
    std::atomic<bool> stop(false);
    std::atomic<long> logged(0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([t, &stop, &logged] {
            for (int i = 0; !stop; ++i) {
                __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_SW", "%d:%d:end", t, i);
                ++logged;
            }
        });
    }
    const std::string outputs[] = {"file:" + second, "none", "file:" + first.Path()};
    for (int round = 0; round < 300; ++round) {
        cimhost::SetSetting(cimhost::EHostSetting::LOG_OUTPUT, outputs[round % 3]);
        // A few lines under each destination before the next switch.
        for (const long seen = logged; logged < seen + 3;) {
            std::this_thread::yield();
        }
    }
    stop = true;
    cimtest::JoinAll(threads);
    const std::regex whole(R"(^\d+:\d+:end$)");
    size_t lines = 0;
    for (const std::string& path : {first.Path(), second}) {
        for (const std::string& line : cimtest::SplitLines(cimtest::ReadFile(path))) {
            ASSERT_TRUE(std::regex_match(cimtest::MessageOf(line), whole)) << line;
            ++lines;
        }
    }
    EXPECT_GT(lines, 0u);
}

// Lines longer than a pipe's atomic write (4096 bytes) from several threads
// reach standard error whole and in each thread's order, and so do lines of
// 64 KiB.
TEST(HostLog, LongLinesOnAStandardErrorPipeStayWhole) {
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    const int savedStderr = ::dup(STDERR_FILENO);
    ASSERT_GE(savedStderr, 0);
    std::string received;
    std::thread reader([&received, fd = pipeFds[0]] {
        char chunk[65536];
        for (ssize_t got; (got = ::read(fd, chunk, sizeof chunk)) > 0;) {
            received.append(chunk, size_t(got));
        }
    });
    {
        cimtest::ScopedHostSetting toStderr(cimhost::EHostSetting::LOG_OUTPUT, "stderr");
        ::dup2(pipeFds[1], STDERR_FILENO);
        cimtest::RunThreads(8, [](int t) {
            const std::string payload(t < 6 ? 5000 : 65536, char('a' + t));
            for (int i = 0; i < (t < 6 ? 100 : 10); ++i) {
                __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_PIPE", "%d|%d|%s|", t, i, payload.c_str());
            }
        });
        ::dup2(savedStderr, STDERR_FILENO);
    }
    ::close(savedStderr);
    ::close(pipeFds[1]);
    reader.join();
    ::close(pipeFds[0]);
    const std::vector<std::string> lines = cimtest::SplitLines(received);
    EXPECT_EQ(lines.size(), 6u * 100 + 2 * 10);
    std::vector<int> next(8, 0);
    int bad = 0;
    for (const std::string& line : lines) {
        const std::string message = cimtest::MessageOf(line);
        const int t = message[0] - '0';
        const size_t size = t < 6 ? 5000 : 65536;
        bad += t < 0 || t > 7 ||
               message.substr(1) != "|" + std::to_string(next[size_t(t)]++) + "|" +
                                        std::string(size, char('a' + t)) + "|";
    }
    EXPECT_EQ(bad, 0) << "lines cut, mixed or out of order";
}

// Renaming the file away (log rotation) makes the log reopen PATH within
// about a second; every line lands once, in order, in one file or the other.
TEST(HostLog, RotatedFileIsReopenedWithoutLosingALine) {
    cimtest::LogCapture log;
    const std::string rotated = log.Path() + ".1";
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_ROT", "0");
    ASSERT_EQ(::rename(log.Path().c_str(), rotated.c_str()), 0);
    const auto deadline =
        std::chrono::steady_clock::now() + cimtest::Scaled(std::chrono::seconds(3));
    int next = 1;
    while (!cimtest::Exists(log.Path()) && std::chrono::steady_clock::now() < deadline) {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_ROT", "%d", next++);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));  // pacing, not a hand-over
    }
    ASSERT_TRUE(cimtest::Exists(log.Path())) << "still writing into the renamed file";
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_ROT", "%d", next++);
    std::vector<std::string> messages;
    for (const std::string& path : {rotated, log.Path()}) {
        for (const std::string& line : cimtest::SplitLines(cimtest::ReadFile(path))) {
            messages.push_back(cimtest::MessageOf(line));
        }
    }
    ASSERT_EQ(messages.size(), size_t(next));
    for (int i = 0; i < next; ++i) {
        EXPECT_EQ(messages[size_t(i)], std::to_string(i));
    }
}

TEST(HostDebugMenu, RefusedCallsFailAndChangeNothing) {
    cimtest::LogCapture log;
    EXPECT_EQ(startdlogtagbydefault(nullptr), -1);
    EXPECT_EQ(stopdlogtagbydefault(""), -1);
    {
        cimtest::ScopedHostSetting refuse(cimhost::EHostSetting::DLOG_REFUSE, "T_A,T_MENU");
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
