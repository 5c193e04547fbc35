#include <cimcore/CIMThreadDebug.h>

#include <gtest/gtest.h>

#include "TestSupport.h"

#include <sys/prctl.h>

#include <string>
#include <thread>
#include <vector>

namespace {

using CIM::TCCIMThreadDebug;

// Names a fresh thread and returns the name the kernel then shows.
std::string NameOnOtherThread(const std::string& name) {
    std::string seen;
    std::thread([&] {
        TCCIMThreadDebug::SetThisThreadName(name);
        seen = cimtest::ThreadName();
    }).join();
    return seen;
}

TEST(CIMThreadDebugTest, LongNamesAreCutAndOnlyTheRegisteredMainThreadIsRefused) {
    cimtest::LogCapture log;
    const std::string savedName = cimtest::ThreadName();
    EXPECT_EQ("abcdefghijklmno", NameOnOtherThread("abcdefghijklmnopqrst"));
    TCCIMThreadDebug::SetThisThreadName("unregistered");
    EXPECT_EQ("unregistered", cimtest::ThreadName());

    TCCIMThreadDebug::MAIN_THREAD_ID = pthread_self();
    TCCIMThreadDebug::SetThisThreadName("renamed");
    EXPECT_EQ("unregistered", cimtest::ThreadName());
    EXPECT_EQ("other-thread", NameOnOtherThread("other-thread"));
    EXPECT_EQ(log.Messages(), std::vector<std::string>{"CIMThreadDebug.cpp: SetThisThreadName(45) "
                                                       "> Cannot change name of the main thread"});
    TCCIMThreadDebug::MAIN_THREAD_ID = 0;
    prctl(PR_SET_NAME, savedName.c_str(), 0, 0, 0);
}

}  // namespace
