// Launches through the host application-control service: a desktop entry
// under a temporary XDG_DATA_HOME runs a shell script that appends one line
// about what it received to a file, which the test polls.
#include <cimcore/ApplicationLauncher.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <regex>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const std::string kSource = "ApplicationLauncher.cpp: ";
const std::string kFirstLine = kSource + "LaunchApplication(86) > ";

class LauncherTest : public ::testing::Test {
protected:
    LauncherTest() {
        ::mkdir(m_apps.c_str(), 0755);
        // One write per run; the session id tells whether it was detached from ours.
        cimtest::WriteFile(m_script,
                           "#!/bin/sh\necho \"$(printf '[%s]' \"$@\") $(env | grep "
                           "'^CIM_APP' | sort | tr '\\n' ' ')session=$(cut -d' ' -f6 "
                           "/proc/$$/stat)\" >>" +
                               m_out + "\n");
        ::chmod(m_script.c_str(), 0755);
    }

    void WriteEntry(const std::string& appId, const std::string& exec) {
        cimtest::WriteFile(m_apps + "/" + appId + ".desktop",
                           "[Desktop Entry]\nType=Application\nExec=" + exec + "\n");
    }

    cimtest::TempDir m_dir;
    cimtest::LogCapture m_log;
    const std::string m_apps = m_dir.File("applications");
    const std::string m_out = m_dir.File("runs.txt");
    const std::string m_script = m_dir.File("launched.sh");
    const cimtest::ScopedEnv m_dataHome{"XDG_DATA_HOME", m_dir.Path()};
    const cimtest::ScopedEnv m_dataDirs{"XDG_DATA_DIRS", m_dir.File("none")};
};

TEST_F(LauncherTest, LaunchRunsTheEntrysProgramDetachedWithItsParameters) {
    WriteEntry("cim.test.app", m_script + " %U \"two words\" 100%% --opt=%f");
    const cimtest::ScopedEnv stale("CIM_APP_EXTRA_STALE", "from the parent");
    {
        CIM::ApplicationLauncher launcher;
        EXPECT_TRUE(launcher.AddParameter("KEY", "first"));
        EXPECT_TRUE(launcher.AddParameter("OTHER", "x y"));
        EXPECT_TRUE(launcher.AddParameter("KEY", "second"));
        ASSERT_TRUE(launcher.LaunchApplication("cim.test.app"));
        ASSERT_TRUE(launcher.LaunchApplication("cim.test.app"));  // the same request again
    }
    // Polled with a bound: the launched program is nobody's child here, and
    // one that went wrong never reports.
    std::vector<std::string> runs;
    cimtest::WaitUntil(
        [&] { return (runs = cimtest::SplitLines(cimtest::ReadFile(m_out))).size() >= 2; },
        std::chrono::seconds(10));
    ASSERT_EQ(runs.size(), 2u);
    for (const std::string& run : runs) {
        EXPECT_EQ(run.substr(0, run.find("session=")),
                  "[two words][100%][--opt=] CIM_APP_EXTRA_KEY=second CIM_APP_EXTRA_OTHER=x y "
                  "CIM_APP_ID=cim.test.app ");
        EXPECT_NE(run.substr(run.find("session=")), "session=" + std::to_string(::getsid(0)));
    }
}

// Refused launches and injected platform failures: the results and every log
// line (a refused launch logs nothing after its first line).
TEST_F(LauncherTest, FailuresGiveTheDocumentedResultsAndLines) {
    WriteEntry("cim.test.app", m_script);
    WriteEntry("missing.program", m_dir.File("does-not-exist"));
    // Expected lines: the level letter, then the message.
    const auto check = [&](const char* fail, const std::string& appId, bool added, bool launched,
                           const std::vector<std::string>& expected) {
        SCOPED_TRACE(std::string(fail) + " " + appId);
        m_log.Clear();
        {
            const cimtest::ScopedHostSetting failing(cimhost::EHostSetting::APPCONTROL_FAIL,
                                                     std::string("unused,") + fail);
            CIM::ApplicationLauncher launcher;
            EXPECT_EQ(launcher.AddParameter("KEY", "value"), added);
            EXPECT_EQ(launcher.LaunchApplication(appId.c_str()), launched);
        }
        std::vector<std::string> lines = m_log.Lines();
        for (std::string& line : lines) {
            line = std::regex_replace(line, std::regex(".* ([A-Z])/CI_CORE\\([^)]*\\): "), "$1 ");
        }
        EXPECT_EQ(lines, expected);
    };
    const std::string first = "I " + kFirstLine + "cim.test.app", at = "E " + kSource;
    const std::string ok = "I " + kSource + "LaunchApplication(97) > Launching was successful";
    const std::string notSet = " > service is not set";
    check("", "no-such-app", true, false, {"I " + kFirstLine + "no-such-app"});
    check("", "missing.program", true, false, {"I " + kFirstLine + "missing.program"});
    check("create", "cim.test.app", false, false,
          {at + "AddParameter(76)" + notSet, first, at + "LaunchApplication(101)" + notSet,
           at + "~ApplicationLauncher(56)" + notSet});
    check("add", "cim.test.app", false, true, {first, ok});
    check("send", "cim.test.app", true, false, {first});
    check("destroy", "cim.test.app", true, true,
          {first, ok, at + "~ApplicationLauncher(51) > Error during destroying service data"});
}

}  // namespace
