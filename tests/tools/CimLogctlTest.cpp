// cim-logctl run as a user would: the built binary on a file of the test's.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

class LogctlTest : public ::testing::Test {
protected:
    LogctlTest() {
        // Without CIM_LOG_OUTPUT the tool keeps the library's log quiet.
        ::unsetenv("CIM_LOG_OUTPUT");
    }

    Result Run(const std::string& arguments) {
        const std::string out = m_dir.File("stdout");
        const std::string err = m_dir.File("stderr");
        const std::string command =
            std::string(CIM_LOGCTL_PATH) + " " + arguments + " >" + out + " 2>" + err;
        const int status = std::system(command.c_str());
        Result result;
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        result.out = cimtest::ReadFile(out);
        result.err = cimtest::ReadFile(err);
        return result;
    }

    Result RunOnFile(const std::string& arguments) { return Run("--file " + m_file + " " + arguments); }

    std::string File() const { return cimtest::ReadFile(m_file); }
    bool FileExists() const { return ::access(m_file.c_str(), F_OK) == 0; }

    cimtest::TempDir m_dir;
    const std::string m_file = m_dir.File("ci_log_configuration_data.txt");
};

TEST_F(LogctlTest, ListShowsEveryTagAndItsLevelWithoutWriting) {
    Result result = RunOnFile("list");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(Lines(result.out).size(), 9u);
    EXPECT_FALSE(FileExists());

    cimtest::WriteFile(m_file, "CI_CORE CI_API");
    result = RunOnFile("list");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
              "CI_API          ON\n"
              "CI_APPLICATION  OFF\n"
              "CI_CAM          OFF\n"
              "CI_CAM_IMPL     OFF\n"
              "CI_CORE         ON\n"
              "CI_DAEMON       OFF\n"
              "CI_MODULE       OFF\n"
              "CI_PVRCIP       OFF\n"
              "CI_TRUST_APP    OFF\n");
    EXPECT_EQ(File(), "CI_CORE CI_API");
}

TEST_F(LogctlTest, SwitchesSingleTagsAndSavesEachChange) {
    struct Step {
        const char* arguments;
        int status;
        const char* file;
        const char* out;
    };
    const Step steps[] = {
        {"on CI_MODULE", 0, "CI_MODULE", "CI_MODULE       OFF -> ON\n"},
        {"on CI_MODULE", 1, "CI_MODULE", "nothing changed\n"},
        {"toggle CI_API", 0, "CI_API CI_MODULE", "CI_API          OFF -> ON\n"},
        {"off CI_MODULE", 0, "CI_API", "CI_MODULE       ON -> OFF\n"},
        {"off CI_MODULE", 1, "CI_API", "nothing changed\n"},
        {"toggle CI_API", 0, "", "CI_API          ON -> OFF\n"},
    };
    for (const Step& step : steps) {
        const Result result = RunOnFile(step.arguments);
        EXPECT_EQ(result.status, step.status) << step.arguments;
        EXPECT_EQ(result.out, step.out) << step.arguments;
        EXPECT_EQ(result.err, "") << step.arguments;
        EXPECT_EQ(File(), step.file) << step.arguments;
    }

    // --verbose lets the library's own lines through to standard error.
    const Result verbose = RunOnFile("--verbose on CI_CORE");
    EXPECT_EQ(verbose.status, 0);
    EXPECT_NE(verbose.err.find("start dlog tag [CI_CORE]. result[0]."), std::string::npos)
        << verbose.err;
    EXPECT_EQ(File(), "CI_CORE");
}

TEST_F(LogctlTest, SwitchesAllTagsTogether) {
    const std::string all =
        "CI_API CI_APPLICATION CI_CAM CI_CAM_IMPL CI_CORE CI_DAEMON CI_MODULE CI_PVRCIP "
        "CI_TRUST_APP";
    cimtest::WriteFile(m_file, "CI_CAM");
    Result result = RunOnFile("all on");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(Lines(result.out).size(), 8u);
    EXPECT_EQ(File(), all);
    EXPECT_EQ(RunOnFile("all on").status, 1);
    EXPECT_EQ(File(), all);

    // The first tag in order decides: "CI_API" on, so everything goes off.
    EXPECT_EQ(RunOnFile("toggle-all").status, 0);
    EXPECT_EQ(File(), "");
    cimtest::WriteFile(m_file, "CI_CORE CI_DAEMON");
    EXPECT_EQ(RunOnFile("toggle-all").status, 0);
    EXPECT_EQ(File(), all);
    EXPECT_EQ(RunOnFile("all off").status, 0);
    EXPECT_EQ(File(), "");
    EXPECT_EQ(RunOnFile("all off").status, 1);
}

TEST_F(LogctlTest, UsageErrorsExitWithTwoAndOneLineOnStandardError) {
    cimtest::WriteFile(m_file, "CI_API");
    const char* bad[] = {"on CI_NOPE", "toggle ci_api", "all maybe", "frob", "on",
                         "list extra", "--bogus list", "", "toggle-all now", "--file"};
    for (const char* arguments : bad) {
        const Result result = RunOnFile(arguments);
        EXPECT_EQ(result.status, 2) << arguments;
        EXPECT_EQ(result.out, "") << arguments;
        EXPECT_EQ(Lines(result.err).size(), 1u) << arguments << ": " << result.err;
        EXPECT_EQ(result.err.compare(0, 12, "cim-logctl: "), 0) << result.err;
        EXPECT_EQ(File(), "CI_API") << arguments;
    }
    EXPECT_NE(RunOnFile("on CI_NOPE").err.find("unknown tag 'CI_NOPE'"), std::string::npos);

    const Result help = Run("--help");
    EXPECT_EQ(help.status, 0);
    const std::vector<std::string> lines = Lines(help.out);
    EXPECT_GE(lines.size(), 10u);
    EXPECT_LE(lines.size(), 24u);
    for (const std::string& line : lines) {
        EXPECT_LE(line.size(), 80u) << line;
    }
}

TEST_F(LogctlTest, UnwritableFileIsReportedAsNotChanged) {
    cimtest::WriteFile(m_dir.File("plain"), "x");
    const Result result = Run("--file " + m_dir.File("plain/config.txt") + " on CI_API");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(Lines(result.err).size(), 1u);
    EXPECT_NE(result.err.find("could not write"), std::string::npos) << result.err;
}

}  // namespace
