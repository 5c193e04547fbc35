// The host platform seam: log line format and destinations, tag switching,
// refusal injection, and the library's one logging helper on top of it.
#include "dlog.h"
#include "debug_menu.h"

#include <cimcore/internal/CIMLog.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <regex>

#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// "MM-DD HH:MM:SS.mmm " before "P/TAG(PID:TID): message".
constexpr size_t kStampLength = 19;

std::string Ids(long pid, long tid) {
    return "(" + std::to_string(pid) + ":" + std::to_string(tid) + "): ";
}

// "MM-DD HH:MM:SS.mmm" of a moment, written independently of the log.
std::string Stamp(const struct timeval& moment) {
    struct tm local;
    ::localtime_r(&moment.tv_sec, &local);
    char text[32];
    const size_t size = std::strftime(text, sizeof text, "%m-%d %H:%M:%S", &local);
    std::snprintf(text + size, sizeof text - size, ".%03ld", long(moment.tv_usec / 1000));
    return text;
}

// Every byte of the lines in a new file: the helper's short and long
// messages (across every buffer size inside), %-signs in arguments, negative
// line numbers, a dropped trailing line feed; the platform's own lines at
// every priority, and a forked child's with its ids.
TEST(LogHelper, LinesKeepTheirExactBytesInAFile) {
    const std::string longFile(800, 'f');
    std::vector<std::string> expected;  // after the stamp, with the line end
    const std::string ids = Ids(::getpid(), ::gettid());
    cimtest::LogCapture log;
    struct timeval before, after;
    ::gettimeofday(&before, nullptr);
    CIM::Log::Error("Other.cpp", "~Other", 3, "%s", "");
    expected.push_back("E/CI_CORE" + ids + "Other.cpp: ~Other(3) > \n");
    CIM::Log::Info("Pct.cpp", "Pct", -37, "100%% of [%s]", "%s%d%n%%");
    expected.push_back("I/CI_CORE" + ids + "Pct.cpp: Pct(-37) > 100% of [%s%d%n%%]\n");
    for (size_t size : {745, 746, 747, 748, 749, 893, 894, 895, 896, 897, 5000, 70000}) {
        const std::string text(size, char('a' + size % 26));
        CIM::Log::Write(5, "Long.cpp", "Long", 1, "%s", text.c_str());
        expected.push_back("W/CI_CORE" + ids + "Long.cpp: Long(1) > " + text + "\n");
    }
    CIM::Log::Info(longFile.c_str(), "F", 2, "%d%%", 50);
    expected.push_back("I/CI_CORE" + ids + longFile + ": F(2) > 50%\n");
    const int priorities[] = {DLOG_VERBOSE, DLOG_DEBUG, DLOG_INFO, DLOG_WARN,
                              DLOG_ERROR,   DLOG_FATAL, 0,         42};
    for (size_t i = 0; i < 8; ++i) {
        EXPECT_GT(__dlog_print(LOG_ID_MAIN, priorities[i], "T_TAG", "value %d", priorities[i]), 0);
        expected.push_back(std::string(1, "VDIWEF??"[i]) + "/T_TAG" + ids + "value " +
                           std::to_string(priorities[i]) + "\n");
    }
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_TAG", "ends with line feed\n");
    expected.push_back("I/T_TAG" + ids + "ends with line feed\n");
    const pid_t child = ::fork();
    if (child == 0) {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_TAG", "from the child");
        ::_exit(0);
    }
    ASSERT_GT(child, 0);
    ::waitpid(child, nullptr, 0);
    expected.push_back("I/T_TAG" + Ids(child, child) + "from the child\n");
    ::gettimeofday(&after, nullptr);
    const std::string content = cimtest::ReadFile(log.Path());
    const std::string first = Stamp(before), last = Stamp(after);
    size_t at = 0;
    for (const std::string& rest : expected) {
        ASSERT_LE(at + kStampLength + rest.size(), content.size()) << rest.substr(0, 60);
        const std::string stamp = content.substr(at, kStampLength - 1);
        EXPECT_LE(first, stamp);
        EXPECT_LE(stamp, last);
        EXPECT_EQ(content.substr(at + kStampLength, rest.size()), rest);
        at += kStampLength + rest.size();
    }
    EXPECT_EQ(at, content.size());
    struct stat info;
    ASSERT_EQ(::stat(log.Path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);
}

// The helper asks before it formats, and the platform drops what the helper
// would not write: with the tag stopped or the output "none" nothing lands.
// Every switch, either way, counts from the next line, also while other
// threads log; only the control changes the destination, not the environment.
TEST(LogHelper, StoppedTagOrNoOutputWritesNothingUntilSwitchedBack) {
    using cimhost::EHostSetting;
    cimtest::LogCapture log;
    const std::string toFile = "file:" + log.Path();
    int next = 0;
    std::vector<std::string> written;
    auto lineIf = [&](bool on) {
        if (on) {
            written.push_back("Gate.cpp: Gate(1) > " + std::to_string(next));
            written.push_back("raw " + std::to_string(next));
        }
        int formatted = -1;  // %n tells whether the message was formatted at all
        CIM::Log::Info("Gate.cpp", "Gate", 1, "%d%n", next, &formatted);
        EXPECT_EQ(formatted >= 0, on) << "line " << next;
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "CI_CORE", "raw %d", next++);
    };
    lineIf(true);
    const cimtest::ScopedEnv ignored("CIM_LOG_OUTPUT", "none");  // read once, at the first line
    lineIf(true);
    ASSERT_EQ(stopdlogtagbydefault("CI_CORE"), 0);
    lineIf(false);
    cimhost::SetSetting(EHostSetting::LOG_OUTPUT, "none");
    ASSERT_EQ(startdlogtagbydefault("CI_CORE"), 0);
    lineIf(false);  // still "none"
    cimhost::SetSetting(EHostSetting::LOG_OUTPUT, toFile);
    lineIf(true);
    {
        cimtest::ScopedHostSetting refuse(EHostSetting::DLOG_REFUSE, "T_A,CI_CORE");
        EXPECT_EQ(stopdlogtagbydefault("CI_CORE"), -1);  // refused: stays on
        EXPECT_EQ(stopdlogtagbydefault("CI_COR"), 0);    // a prefix of a listed tag is not listed
        lineIf(true);
    }
    EXPECT_EQ(log.Messages(), written);

    // Tag and destination (two files and "none") switched while threads log,
    // through the helper: no race, and only whole lines.
    log.Clear();
    const std::string second = log.Path() + ".2";
    std::atomic<bool> stop(false);
    std::atomic<long> logged(0);
    cimtest::RunThreads(4, [&](int t) {
        for (int i = 0; t < 3 && !stop; ++i, ++logged) {
            CIM::Log::Info("Gate.cpp", "Gate", 2, "%d:%d:end", t, i);
        }
        for (int round = 0; t == 3 && round < 300; ++round) {
            const int step = round % 5;  // ends on step 4: the first file, tag on
            if (step < 2) {
                (step == 0 ? stopdlogtagbydefault : startdlogtagbydefault)("CI_CORE");
            } else {
                cimhost::SetSetting(EHostSetting::LOG_OUTPUT, step == 2   ? "none"
                                                              : step == 3 ? "file:" + second
                                                                          : toFile);
            }
            // A few lines under each state before the next switch.
            for (const long seen = logged; logged < seen + 3;) {
                std::this_thread::yield();
            }
        }
        stop = stop || t == 3;
    });
    CIM::Log::Info("Gate.cpp", "Gate", 3, "last");
    std::vector<std::string> messages = log.Messages();
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages.back(), "Gate.cpp: Gate(3) > last");
    messages.pop_back();
    for (const std::string& line : cimtest::SplitLines(cimtest::ReadFile(second))) {
        messages.push_back(cimtest::MessageOf(line));
    }
    const std::regex whole(R"(^Gate\.cpp: Gate\(2\) > \d:\d+:end$)");
    for (const std::string& message : messages) {
        ASSERT_TRUE(std::regex_match(message, whole)) << message;
    }
}

// Lines of 64 KiB, far beyond a pipe's atomic write (4096 bytes), from several
// threads reach standard error whole and in each thread's order.
TEST(HostLog, LongLinesOnAStandardErrorPipeStayWhole) {
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    std::string received;
    std::thread reader([&received, fd = pipeFds[0]] {
        char chunk[65536];
        for (ssize_t got; (got = ::read(fd, chunk, sizeof chunk)) > 0;) {
            received.append(chunk, size_t(got));
        }
    });
    {
        cimtest::ScopedHostSetting toStderr(cimhost::EHostSetting::LOG_OUTPUT, "stderr");
        const int savedStderr = ::dup(STDERR_FILENO);
        ::dup2(pipeFds[1], STDERR_FILENO);
        cimtest::RunThreads(8, [](int t) {
            const std::string payload(65536, char('a' + t));
            for (int i = 0; i < 20; ++i) {
                __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_PIPE", "%d|%d|%s|", t, i, payload.c_str());
            }
        });
        ::dup2(savedStderr, STDERR_FILENO);
        ::close(savedStderr);
    }
    ::close(pipeFds[1]);
    reader.join();
    ::close(pipeFds[0]);
    const std::vector<std::string> lines = cimtest::SplitLines(received);
    EXPECT_EQ(lines.size(), 8u * 20);
    std::vector<int> next(8, 0);
    int bad = 0;
    for (const std::string& line : lines) {
        const std::string message = cimtest::MessageOf(line);
        const size_t t = size_t(message[0] - '0');
        bad += t > 7 || message.substr(1) != "|" + std::to_string(next[t]++) + "|" +
                                                 std::string(65536, char('a' + t)) + "|";
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
    int next = 1;
    ASSERT_TRUE(cimtest::WaitUntil(
        [&] {
            __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T_ROT", "%d", next++);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));  // pacing, not a hand-over
            return cimtest::Exists(log.Path());
        },
        std::chrono::seconds(3)))
        << "still writing into the renamed file";
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

}  // namespace
