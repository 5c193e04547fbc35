// cim-logctl run as a user would: the built binary on a file of the test's.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include <sys/wait.h>

namespace {

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

class LogctlTest : public ::testing::Test {
protected:
    // Without CIM_LOG_OUTPUT the tool keeps the library's log quiet.
    LogctlTest() { ::unsetenv("CIM_LOG_OUTPUT"); }

    Result Run(const std::string& arguments) {
        const std::string out = m_dir.File("stdout");
        const std::string err = m_dir.File("stderr");
        const int status = std::system(
            (std::string(CIM_LOGCTL_PATH) + " " + arguments + " >" + out + " 2>" + err).c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, cimtest::ReadFile(out),
                cimtest::ReadFile(err)};
    }

    cimtest::TempDir m_dir;
    const std::string m_file = m_dir.File("ci_log_configuration_data.txt");
};

TEST_F(LogctlTest, EachCommandChangesAndSavesWhatItSays) {
    const std::string all =
        "CI_API CI_APPLICATION CI_CAM CI_CAM_IMPL CI_CORE CI_DAEMON CI_MODULE CI_PVRCIP "
        "CI_TRUST_APP";
    struct Step {
        std::string arguments;
        int status;
        std::string file;  // afterwards
        std::string out;   // "*": not compared
    };
    const Step steps[] = {
        {"on CI_MODULE", 0, "CI_MODULE", "CI_MODULE       OFF -> ON\n"},
        {"on CI_MODULE", 1, "CI_MODULE", "nothing changed\n"},
        {"toggle CI_API", 0, "CI_API CI_MODULE", "CI_API          OFF -> ON\n"},
        {"off CI_MODULE", 0, "CI_API", "CI_MODULE       ON -> OFF\n"},
        {"off CI_MODULE", 1, "CI_API", "nothing changed\n"},
        {"list", 0, "CI_API",
         "CI_API          ON\nCI_APPLICATION  OFF\nCI_CAM          OFF\nCI_CAM_IMPL     OFF\n"
         "CI_CORE         OFF\nCI_DAEMON       OFF\nCI_MODULE       OFF\nCI_PVRCIP       OFF\n"
         "CI_TRUST_APP    OFF\n"},
        {"toggle CI_API", 0, "", "CI_API          ON -> OFF\n"},
        {"all on", 0, all, "*"},
        {"all on", 1, all, "nothing changed\n"},
        // The first tag decides: "CI_API" on, so everything goes off.
        {"toggle-all", 0, "", "*"},
        {"on CI_CORE", 0, "CI_CORE", "*"},
        {"toggle-all", 0, all, "*"},
        {"all off", 0, "", "*"},
        {"all off", 1, "", "nothing changed\n"},
    };
    EXPECT_EQ(Run("--file " + m_file + " list").status, 0);
    EXPECT_FALSE(cimtest::Exists(m_file)) << "list writes nothing";
    for (const Step& step : steps) {
        SCOPED_TRACE(step.arguments);
        const Result result = Run("--file " + m_file + " " + step.arguments);
        EXPECT_EQ(result.status, step.status);
        if (step.out != "*") {
            EXPECT_EQ(result.out, step.out);
        }
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(cimtest::ReadFile(m_file), step.file);
    }

    // --verbose lets the library's own lines through to standard error.
    const Result verbose = Run("--file " + m_file + " --verbose on CI_CORE");
    EXPECT_EQ(verbose.status, 0);
    EXPECT_NE(verbose.err.find("start dlog tag [CI_CORE]. result[0]."), std::string::npos);
}

TEST_F(LogctlTest, UsageErrorsExitWithTwoAndOneLineOnStandardError) {
    cimtest::WriteFile(m_file, "CI_API");
    for (const char* arguments : {"on CI_NOPE", "toggle ci_api", "all maybe", "frob", "on",
                                  "list extra", "--bogus list", "", "toggle-all now", "--file"}) {
        SCOPED_TRACE(arguments);
        const Result result = Run("--file " + m_file + " " + arguments);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err.rfind("cim-logctl: ", 0), 0u) << result.err;
        EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
        EXPECT_EQ(cimtest::ReadFile(m_file), "CI_API");
    }
    EXPECT_NE(Run("--file " + m_file + " on CI_NOPE").err.find("unknown tag 'CI_NOPE'"),
              std::string::npos);

    // An unwritable file: nothing changed, and one line says why.
    cimtest::WriteFile(m_dir.File("plain"), "x");
    const Result unwritable = Run("--file " + m_dir.File("plain/config.txt") + " on CI_API");
    EXPECT_EQ(unwritable.status, 1);
    EXPECT_EQ(unwritable.err.find('\n'), unwritable.err.size() - 1) << unwritable.err;
    EXPECT_NE(unwritable.err.find("could not write"), std::string::npos) << unwritable.err;

    // --help fits on one screen.
    const Result help = Run("--help");
    EXPECT_EQ(help.status, 0);
    size_t lines = 0;
    for (size_t start = 0, end; (end = help.out.find('\n', start)) != std::string::npos;
         start = end + 1, ++lines) {
        EXPECT_LE(end - start, 80u);
    }
    EXPECT_GE(lines, 10u);
    EXPECT_LE(lines, 24u);
}

}  // namespace
