// cim-logctl run as a user would: the built binary on a file of the test's.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include <sys/wait.h>

namespace {

struct Result {
    int status;
    std::string out, err;
};

class LogctlTest : public ::testing::Test {
protected:
    // Without CIM_LOG_OUTPUT the tool keeps the library's log quiet.
    LogctlTest() { ::unsetenv("CIM_LOG_OUTPUT"); }

    // The exit status is -1 when the tool did not exit (killed, aborted).
    Result Run(const std::string& arguments, const std::string& file = "") {
        const std::string out = m_dir.File("stdout"), err = m_dir.File("stderr");
        const int status = std::system((std::string(CIM_LOGCTL_PATH) + " --file " +
                                        (file.empty() ? m_file : file) + " " + arguments + " >" +
                                        out + " 2>" + err)
                                           .c_str());
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
    // The file afterwards, and standard output unless "*"; a usage error (2)
    // writes one line to standard error instead, and changes nothing.
    struct Step {
        std::string arguments;
        int status;
        std::string file, out;
    };
    const Step steps[] = {
        {"on CI_MODULE", 0, "CI_MODULE", "CI_MODULE       OFF -> ON\n"},
        {"on CI_MODULE", 1, "CI_MODULE", "nothing changed\n"},
        {"toggle CI_API", 0, "CI_API CI_MODULE", "CI_API          OFF -> ON\n"},
        {"off CI_MODULE", 0, "CI_API", "CI_MODULE       ON -> OFF\n"},
        {"on CI_NOPE", 2, "CI_API", "cim-logctl: unknown tag 'CI_NOPE' (try --help)\n"},
        {"all maybe", 2, "CI_API", "cim-logctl: 'all' takes on or off, not 'maybe' (try --help)\n"},
        {"frob", 2, "CI_API", "cim-logctl: unknown command 'frob' (try --help)\n"},
        {"on", 2, "CI_API", "cim-logctl: 'on' takes one argument (try --help)\n"},
        {"--bogus list", 2, "CI_API", "cim-logctl: unknown option '--bogus' (try --help)\n"},
        {"list", 0, "CI_API",
         "CI_API          ON\nCI_APPLICATION  OFF\nCI_CAM          OFF\nCI_CAM_IMPL     OFF\n"
         "CI_CORE         OFF\nCI_DAEMON       OFF\nCI_MODULE       OFF\nCI_PVRCIP       OFF\n"
         "CI_TRUST_APP    OFF\n"},
        {"all off", 0, "", "*"},
        {"all on", 0, all, "*"},
        {"off CI_API", 0, all.substr(7), "*"},
        {"toggle-all", 0, all, "*"},  // "CI_API" alone decides
        {"toggle-all", 0, "", "*"},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.arguments);
        const Result result = Run(step.arguments);
        EXPECT_EQ(result.status, step.status);
        if (step.out != "*") {
            EXPECT_EQ(step.status == 2 ? result.err : result.out, step.out);
        }
        EXPECT_EQ(step.status == 2 ? result.out : result.err, "");
        EXPECT_EQ(cimtest::ReadFile(m_file), step.file);
    }
}

// Four runs at once on one file, switching different tags: every run sees a
// whole configuration and reports its own change, and the file ends with all
// four changes and nothing else. A folder given as the file lists all off.
TEST_F(LogctlTest, ConcurrentRunsTakeTurnsAndUnreadablePathsListAllOff) {
    const char* tags[] = {"CI_APPLICATION", "CI_CAM", "CI_CAM_IMPL", "CI_API"};
    for (int round = 0; round < 12; ++round) {
        SCOPED_TRACE(round);
        const bool on = round % 2 == 0;
        // Through the shell: the tool's path may carry an emulator in front.
        std::string command;
        for (const char* tag : tags) {
            command += std::string(CIM_LOGCTL_PATH) + " --file " + m_file +
                       (on ? " on " : " off ") + tag + " >/dev/null & runs=\"$runs $!\"; ";
        }
        command += "for run in $runs; do wait $run || exit 1; done";
        EXPECT_EQ(std::system(command.c_str()), 0) << "a run failed";
        EXPECT_EQ(cimtest::ReadFile(m_file), on ? "CI_API CI_APPLICATION CI_CAM CI_CAM_IMPL" : "");
    }

    const Result folder = Run("list", m_dir.Path());
    EXPECT_EQ(folder.status, 0);
    EXPECT_EQ(std::count(folder.out.begin(), folder.out.end(), '\n'), 9) << folder.out;
    EXPECT_EQ(folder.out.find(" ON\n"), std::string::npos) << folder.out;
}

}  // namespace
