// The traced lock: its trace text and when it logs.
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

TEST(CICoreTraceLock, TraceNamesFunctionFileAndLineAndStopsAtANullText) {
    std::recursive_mutex mutex;
    CIM::TCCICoreTraceLock lock(mutex, 1, "t.cpp", "t");
    EXPECT_EQ(lock.m_GetTrace(7, "a.cpp", "f"), "f:a.cpp:7");
    EXPECT_EQ(lock.m_GetTrace(7, nullptr, "f"), "f:");
    EXPECT_EQ(lock.m_GetTrace(7, "a.cpp", nullptr), "");
}

TEST(CICoreTraceLock, LogsOnlyWhenHeldOrAwaitedTooLong) {
    cimtest::LogCapture log;
    std::recursive_mutex mutex;
    {
        CIM::TCCICoreTraceLock outer(mutex, 10, "a.cpp", "quick");
        CIM::TCCICoreTraceLock inner(mutex, 11, "a.cpp", "nested");  // recursive
        CIM::TCCIMTime::Sleep(100);
    }
    EXPECT_TRUE(log.Lines().empty());

    {
        CIM::TCCICoreTraceLock lock(mutex, 20, "a.cpp", "held");
        CIM::TCCIMTime::Sleep(400);
    }
    std::vector<std::string> messages = log.Messages();
    ASSERT_EQ(messages.size(), 1u);
    std::smatch match;
    ASSERT_TRUE(std::regex_match(messages[0], match, kAutolock)) << messages[0];
    EXPECT_EQ(match[1].str(), "held:a.cpp:20");
    EXPECT_GE(std::stoul(match[2].str()), 390u);
    EXPECT_LE(std::stoul(match[3].str()), 10u);
    EXPECT_EQ(std::stoul(match[2].str()),
              CIM::TickDiff(std::stoul(match[4].str()), std::stoul(match[5].str())));
    EXPECT_EQ(std::stoul(match[3].str()),
              CIM::TickDiff(std::stoul(match[6].str()), std::stoul(match[5].str())));
}

TEST(CICoreTraceLock, LogsAfterWaitingTooLongEvenWhenReleasedAtOnce) {
    cimtest::LogCapture log;
    std::recursive_mutex mutex;
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
    ASSERT_EQ(messages.size(), 1u);
    std::smatch match;
    ASSERT_TRUE(std::regex_match(messages[0], match, kAutolock)) << messages[0];
    EXPECT_EQ(match[1].str(), "waiter:b.cpp:30");
    EXPECT_GE(std::stoul(match[3].str()), 60u);
    EXPECT_LE(std::stoul(match[2].str()) - std::stoul(match[3].str()), 20u);
}

}  // namespace
