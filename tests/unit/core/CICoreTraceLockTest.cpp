// The traced lock: when it logs, and its trace text.
#include <cimcore/CICoreTraceLock.h>

#include <cimcore/CIMTime.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <future>
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
    EXPECT_TRUE(log.Lines().empty());

    {
        CIM::TCCICoreTraceLock lock(mutex, 20, "a.cpp", "held");
        CIM::TCCIMTime::Sleep(400);
    }
    // Awaited too long, even when released at once.
    std::promise<void> locked;
    std::thread holder([&] {
        std::lock_guard<std::recursive_mutex> hold(mutex);
        locked.set_value();
        CIM::TCCIMTime::Sleep(250);
    });
    locked.get_future().wait();
    { CIM::TCCICoreTraceLock lock(mutex, 30, "b.cpp", "waiter"); }
    holder.join();

    const std::vector<std::string> messages = log.Messages();
    ASSERT_EQ(messages.size(), 2u);
    const char* const traces[] = {"held:a.cpp:20", "waiter:b.cpp:30"};
    unsigned long n[2][5];  // diff1 (held), diff2 (awaited), three ticks
    for (size_t i = 0; i < 2; ++i) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(messages[i], match, kAutolock)) << messages[i];
        EXPECT_EQ(match[1].str(), traces[i]);
        for (size_t k = 0; k < 5; ++k) {
            n[i][k] = std::stoul(match[k + 2].str());
        }
        EXPECT_EQ(n[i][0], CIM::TickDiff(n[i][2], n[i][3]));
        EXPECT_EQ(n[i][1], CIM::TickDiff(n[i][4], n[i][3]));
    }
    EXPECT_GE(n[0][0], 390u);
    EXPECT_LE(n[0][1], 10u);
    EXPECT_GE(n[1][1], 60u);
    EXPECT_LE(n[1][0] - n[1][1], 20u);
}

}  // namespace
