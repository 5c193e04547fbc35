// Runs the built cim-demo with its log sent to a file.
#include "TestSupport.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <regex>
#include <string>

#include <sys/wait.h>

namespace {

using ::testing::HasSubstr;

TEST(CimDemo, RunsEverySectionLogsOnlyWellFormedLinesAndCleansUp) {
    cimtest::TempDir dir;
    const std::string logPath = dir.File("demo.log");
    const std::string outPath = dir.File("demo.out");
    const std::string command = "CIM_LOG_OUTPUT=file:" + logPath +
                                " " CIM_DEMO_PATH " --log-config " + dir.File("config.txt") +
                                " > " + outPath + " 2>&1";
    const int status = std::system(command.c_str());
    const std::string output = cimtest::ReadFile(outPath);
    ASSERT_TRUE(WIFEXITED(status)) << output;
    EXPECT_EQ(WEXITSTATUS(status), 0) << output;
    EXPECT_EQ(output.find("FAILED"), std::string::npos) << output;
    EXPECT_THAT(output, HasSubstr(logPath));
    // Without --keep the demo leaves no temporary folder behind.
    std::smatch removed;
    ASSERT_TRUE(std::regex_search(output, removed, std::regex("files in (\\S+) were removed")))
        << output;
    EXPECT_FALSE(cimtest::Exists(removed[1].str())) << removed[1].str();

    const std::regex line(R"(^\d\d-\d\d \d\d:\d\d:\d\d\.\d\d\d [VDIWEF?]/[A-Z_]+\(\d+:\d+\): .*$)");
    const std::string log = cimtest::ReadFile(logPath);
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(), '\n') << "unterminated last line";
    for (const std::string& text : cimtest::SplitLines(log)) {
        EXPECT_TRUE(std::regex_match(text, line)) << text;
    }
    EXPECT_THAT(log, HasSubstr("AUTOLOCK ERROR"));
    // The watchdog named the demo's deadlock and stall, and their ends, once each.
    for (const char* report :
         {"> deadlock: dl-", "> deadlock ended: dl-", "> task loop stalled: demo-stall ",
          "> task loop recovered: demo-stall,"}) {
        size_t count = 0;
        for (size_t at = log.find(report); at != std::string::npos; at = log.find(report, at + 1)) {
            ++count;
        }
        EXPECT_EQ(count, 1u) << report;
    }
}

}  // namespace
