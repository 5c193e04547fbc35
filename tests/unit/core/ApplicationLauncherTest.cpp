// Launches through the host application-control service: a desktop entry
// under a temporary XDG_DATA_HOME runs a shell script that writes what it
// received into a file of its own, which the test waits for.
#include <cimcore/ApplicationLauncher.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const std::string kFirstLine = "ApplicationLauncher.cpp: LaunchApplication(86) > ";
const std::string kSuccess =
    "ApplicationLauncher.cpp: LaunchApplication(97) > Launching was successful";

class LauncherTest : public ::testing::Test {
protected:
    LauncherTest() {
        for (const std::string& dir :
             {m_home, m_home + "/applications", m_system, m_system + "/applications", m_outDir}) {
            ::mkdir(dir.c_str(), 0755);
        }
        // The first lines list what it got; the last two tell its parent and
        // session, which must not be ours.
        cimtest::WriteFile(m_script,
                           "#!/bin/sh\n"
                           "out=\"" +
                               m_outDir +
                               "/$$\"\n"
                               "{\n"
                               "  for a in \"$@\"; do printf 'arg=%s\\n' \"$a\"; done\n"
                               "  env | grep '^CIM_APP' | sort\n"
                               "  printf 'stdin=%s\\n' \"$(readlink /proc/$$/fd/0)\"\n"
                               "  printf 'parent=%s\\n' \"$PPID\"\n"
                               "  printf 'session=%s\\n' \"$(cut -d' ' -f6 /proc/$$/stat)\"\n"
                               "} > \"$out.tmp\"\n"
                               "mv \"$out.tmp\" \"$out\"\n");
        ::chmod(m_script.c_str(), 0755);
    }

    void WriteEntry(const std::string& root, const std::string& appId, const std::string& exec) {
        cimtest::WriteFile(root + "/applications/" + appId + ".desktop",
                           "[Desktop Entry]\nType=Application\nName=" + appId + "\nExec=" + exec +
                               "\n\n[Desktop Action other]\nExec=/bin/false\n");
    }

    // The reports of the finished runs.
    std::vector<std::string> Reports() const {
        std::vector<std::string> reports;
        if (DIR* dir = ::opendir(m_outDir.c_str())) {
            while (const dirent* entry = ::readdir(dir)) {
                const std::string name = entry->d_name;
                if (name[0] != '.' && name.find(".tmp") == std::string::npos) {
                    reports.push_back(cimtest::ReadFile(m_outDir + "/" + name));
                }
            }
            ::closedir(dir);
        }
        return reports;
    }

    // Polls, bounded: the launched program is nobody's child here, and one
    // that went wrong never reports.
    std::vector<std::string> WaitForRuns(size_t count) const {
        const auto deadline =
            std::chrono::steady_clock::now() + cimtest::Scaled(std::chrono::seconds(10));
        std::vector<std::string> reports = Reports();
        while (reports.size() < count && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            reports = Reports();
        }
        return reports;
    }

    cimtest::TempDir m_dir;
    cimtest::LogCapture m_log;
    const std::string m_home = m_dir.File("home");
    const std::string m_system = m_dir.File("system");
    const std::string m_outDir = m_dir.File("out");
    const std::string m_script = m_dir.File("launched.sh");
    const cimtest::ScopedEnv m_dataHome{"XDG_DATA_HOME", m_home};
    const cimtest::ScopedEnv m_dataDirs{"XDG_DATA_DIRS", m_system};
};

TEST_F(LauncherTest, LaunchRunsTheEntrysProgramDetachedWithItsParameters) {
    // Four backslashes and \" in the file: a backslash and a quote in the
    // argument, after the string escapes and then the quoting rules.
    WriteEntry(m_home, "cim.test.app",
               m_script + " %U \"two words\" 100%% --opt=%f \"q\\\\\\\\\\\"\"");
    const cimtest::ScopedEnv stale("CIM_APP_EXTRA_STALE", "from the parent");
    {
        CIM::ApplicationLauncher launcher;
        EXPECT_TRUE(launcher.AddParameter("KEY", "first"));
        EXPECT_TRUE(launcher.AddParameter("OTHER", "x y"));
        EXPECT_TRUE(launcher.AddParameter("KEY", "second"));
        ASSERT_TRUE(launcher.LaunchApplication("cim.test.app"));
        ASSERT_TRUE(launcher.LaunchApplication("cim.test.app"));  // the same request again
    }
    const std::vector<std::string> runs = WaitForRuns(2);
    ASSERT_EQ(runs.size(), 2u);
    for (const std::string& run : runs) {
        const std::string received = run.substr(0, run.find("parent="));
        EXPECT_EQ(received,
                  "arg=two words\narg=100%\narg=--opt=\narg=q\\\"\n"
                  "CIM_APP_EXTRA_KEY=second\nCIM_APP_EXTRA_OTHER=x y\nCIM_APP_ID=cim.test.app\n"
                  "stdin=/dev/null\n");
        EXPECT_EQ(run.find("parent=" + std::to_string(::getpid()) + "\n"), std::string::npos);
        EXPECT_EQ(run.find("session=" + std::to_string(::getsid(0)) + "\n"), std::string::npos);
        EXPECT_NE(run.find("session="), std::string::npos);
    }
    EXPECT_EQ(m_log.Messages(), (std::vector<std::string>{kFirstLine + "cim.test.app", kSuccess,
                                                          kFirstLine + "cim.test.app", kSuccess}));
}

TEST_F(LauncherTest, EntriesAreFoundInDataHomeFirstThenDataDirs) {
    WriteEntry(m_system, "only.system", m_script + " system");
    WriteEntry(m_system, "both", m_script + " system");
    WriteEntry(m_home, "both", m_script + " home");
    CIM::ApplicationLauncher launcher;
    ASSERT_TRUE(launcher.LaunchApplication("only.system"));
    ASSERT_EQ(WaitForRuns(1).size(), 1u);
    ASSERT_TRUE(launcher.LaunchApplication("both"));
    std::vector<std::string> runs = WaitForRuns(2);
    ASSERT_EQ(runs.size(), 2u);
    std::sort(runs.begin(), runs.end());
    // No parameters: the id alone.
    EXPECT_EQ(runs[0].substr(0, runs[0].find("stdin=")), "arg=home\nCIM_APP_ID=both\n");
    EXPECT_EQ(runs[1].substr(0, runs[1].find("stdin=")), "arg=system\nCIM_APP_ID=only.system\n");
}

TEST_F(LauncherTest, RefusedLaunchesReturnFalseAndLogOnlyTheFirstLine) {
    const std::string notExecutable = m_dir.File("plain.sh");
    cimtest::WriteFile(notExecutable, "#!/bin/sh\n");
    ::chmod(notExecutable.c_str(), 0644);
    WriteEntry(m_home, "missing.program", m_dir.File("does-not-exist"));
    WriteEntry(m_home, "not.executable", notExecutable);
    WriteEntry(m_home, "only.codes", "%U %f");
    cimtest::WriteFile(m_home + "/applications/no.exec.desktop",
                       "[Desktop Entry]\nName=x\n[Other]\nExec=" + m_script + "\n");
    for (const std::string appId :
         {"no-such-app", "missing.program", "not.executable", "only.codes", "no.exec"}) {
        m_log.Clear();
        CIM::ApplicationLauncher launcher;
        EXPECT_TRUE(launcher.AddParameter("KEY", "value"));
        EXPECT_FALSE(launcher.LaunchApplication(appId.c_str())) << appId;
        EXPECT_EQ(m_log.Messages(), std::vector<std::string>{kFirstLine + appId});
    }
    EXPECT_TRUE(Reports().empty());
}

TEST_F(LauncherTest, InjectedPlatformFailuresGiveTheDocumentedResults) {
    WriteEntry(m_home, "cim.test.app", m_script);
    const std::string prefix = "ApplicationLauncher.cpp: ";
    const std::string first = kFirstLine + "cim.test.app";
    const std::string notSet = " > service is not set";
    struct Case {
        const char* fail;
        bool added;
        bool launched;
        std::vector<std::string> lines;  // level letter, then the message
    };
    const Case cases[] = {
        {"create",
         false,
         false,
         {"E " + prefix + "AddParameter(76)" + notSet, "I " + first,
          "E " + prefix + "LaunchApplication(101)" + notSet,
          "E " + prefix + "~ApplicationLauncher(56)" + notSet}},
        {"add", false, true, {"I " + first, "I " + kSuccess}},
        {"appid", true, false, {"I " + first}},
        {"send", true, false, {"I " + first}},
        {"destroy",
         true,
         true,
         {"I " + first, "I " + kSuccess,
          "E " + prefix + "~ApplicationLauncher(51) > Error during destroying service data"}},
    };
    size_t runs = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fail);
        m_log.Clear();
        {
            const cimtest::ScopedEnv fail("CIM_APPCONTROL_FAIL", std::string("unused,") + c.fail);
            CIM::ApplicationLauncher launcher;
            EXPECT_EQ(launcher.AddParameter("KEY", "value"), c.added);
            EXPECT_EQ(launcher.LaunchApplication("cim.test.app"), c.launched);
        }
        std::vector<std::string> lines = m_log.Lines();
        const std::vector<std::string> messages = m_log.Messages();
        for (size_t i = 0; i < lines.size(); ++i) {
            const size_t tag = lines[i].find("/CI_CORE(");
            lines[i] =
                (tag == std::string::npos ? "?" : lines[i].substr(tag - 1, 1)) + " " + messages[i];
        }
        EXPECT_EQ(lines, c.lines);
        runs += c.launched ? 1 : 0;
        EXPECT_EQ(WaitForRuns(runs).size(), runs);
    }
}

}  // namespace
