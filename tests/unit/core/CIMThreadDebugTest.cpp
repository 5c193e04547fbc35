#include <cimcore/CIMThreadDebug.h>

#include <gtest/gtest.h>

#include "TestSupport.h"

#include <sys/prctl.h>

#include <string>
#include <thread>

namespace {

using CIM::TCCIMThreadDebug;

std::string ThisThreadName() {
    char name[16] = {};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    return name;
}

// Restores the test thread's name and the main-thread registration.
class CIMThreadDebugTest : public ::testing::Test {
protected:
    void SetUp() override { m_savedName = ThisThreadName(); }
    void TearDown() override {
        TCCIMThreadDebug::MAIN_THREAD_ID = 0;
        prctl(PR_SET_NAME, m_savedName.c_str(), 0, 0, 0);
    }

    cimtest::LogCapture m_log;
    std::string m_savedName;
};

TEST_F(CIMThreadDebugTest, NamesTheCallingThreadCutByTheKernel) {
    std::string seen;
    std::thread worker([&] {
        TCCIMThreadDebug::SetThisThreadName("abcdefghijklmnopqrst");
        seen = ThisThreadName();
    });
    worker.join();
    EXPECT_EQ("abcdefghijklmno", seen);
    EXPECT_TRUE(m_log.Lines().empty()) << "a long name is not an error";
}

TEST_F(CIMThreadDebugTest, ProtectsOnlyTheRegisteredMainThread) {
    // Nothing registered: the test's own thread renames itself.
    TCCIMThreadDebug::SetThisThreadName("unregistered");
    EXPECT_EQ("unregistered", ThisThreadName());
    EXPECT_TRUE(m_log.Lines().empty());

    TCCIMThreadDebug::MAIN_THREAD_ID = pthread_self();
    TCCIMThreadDebug::SetThisThreadName("renamed");
    EXPECT_EQ("unregistered", ThisThreadName());
    ASSERT_EQ(1u, m_log.Lines().size());
    EXPECT_NE(std::string::npos, m_log.Lines()[0].find(" E/CI_CORE("));
    EXPECT_EQ("CIMThreadDebug.cpp: SetThisThreadName(45) > Cannot change name of the main thread",
              m_log.Messages()[0]);

    // Another thread is still free to name itself.
    std::string seen;
    std::thread worker([&] {
        TCCIMThreadDebug::SetThisThreadName("other-thread");
        seen = ThisThreadName();
    });
    worker.join();
    EXPECT_EQ("other-thread", seen);
    EXPECT_EQ(1u, m_log.Lines().size());
}

}  // namespace
