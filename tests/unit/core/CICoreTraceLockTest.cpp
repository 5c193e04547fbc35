// The traced lock: when it logs, and its trace text.
#include <cimcore/CICoreTraceLock.h>

#include <cimcore/CIMTime.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <thread>

namespace {

const std::regex kAutolock(
    R"(^CICoreTraceLock\.cpp: ~TCCICoreTraceLock\(50\) > AUTOLOCK ERROR: (.*) diff1\((\d+)\) diff2\((\d+)\) \((\d+):(\d+):(\d+)\) $)");

TEST(CICoreTraceLock, LogsOnlyWhenHeldOrAwaitedTooLong) {
    cimtest::LogCapture log;
    std::recursive_mutex mutex;
    {
        CIM::TCCICoreTraceLock lock(mutex, 10, "a.cpp", "quick");
        CIM::TCCIMTime::Sleep(100);
    }

    {
        CIM::TCCICoreTraceLock lock(mutex, 20, "a.cpp", "held");
        CIM::TCCIMTime::Sleep(400);
    }
    // Awaited too long, even when released at once.
    mutex.lock();
    std::thread waiter([&mutex] { CIM::TCCICoreTraceLock lock(mutex, 30, "b.cpp", "waiter"); });
    CIM::TCCIMTime::Sleep(250);
    mutex.unlock();
    waiter.join();

    const std::vector<std::string> messages = log.Messages();
    ASSERT_EQ(messages.size(), 2u);
    const char* const traces[] = {"held:a.cpp:20", "waiter:b.cpp:30"};
    unsigned long n[2][5];  // diff1 (held), diff2 (awaited), three ticks
    for (size_t i = 0; i < 2; ++i) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(messages[i], match, kAutolock)) << messages[i];
        EXPECT_EQ(match[1].str(), traces[i]);
        std::transform(match.begin() + 2, match.end(), n[i], [](auto& m) { return std::stoul(m); });
        EXPECT_EQ(n[i][0], CIM::TickDiff(n[i][2], n[i][3]));
        EXPECT_EQ(n[i][1], CIM::TickDiff(n[i][4], n[i][3]));
    }
    EXPECT_GE(n[0][0], 390u);
    EXPECT_LE(n[0][1], 10u);
    EXPECT_GE(n[1][1], 60u);
    EXPECT_LE(n[1][0] - n[1][1], 20u);
}

}  // namespace
