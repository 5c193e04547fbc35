// Launches through the host application-control service: a desktop entry
// under a temporary XDG_DATA_HOME runs a shell script that writes what it
// received into a file of its own, which the test waits for.
#include <cimcore/ApplicationLauncher.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Restores an environment variable when the test ends.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const std::string& value) : m_name(name) {
        const char* previous = std::getenv(name);
        m_had = previous != nullptr;
        m_previous = m_had ? previous : "";
        ::setenv(name, value.c_str(), 1);
    }
    ~ScopedEnv() {
        if (m_had) {
            ::setenv(m_name, m_previous.c_str(), 1);
        } else {
            ::unsetenv(m_name);
        }
    }

private:
    const char* m_name;
    std::string m_previous;
    bool m_had;
};

// What one run of the launched script reported.
struct Received {
    std::vector<std::string> arguments;
    std::vector<std::string> environment;  // the CIM_APP* variables, sorted
    std::string standardInput;
    long parent = 0;
    long session = 0;
};

Received Parse(const std::string& text) {
    Received received;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        const size_t equals = line.find('=');
        const std::string key = line.substr(0, equals);
        const std::string value = line.substr(equals + 1);
        if (key == "arg") {
            received.arguments.push_back(value);
        } else if (key == "stdin") {
            received.standardInput = value;
        } else if (key == "stat") {
            // pid (comm) state ppid pgrp session ...
            std::istringstream fields(value.substr(value.rfind(')') + 2));
            std::string state;
            long group = 0;
            fields >> state >> received.parent >> group >> received.session;
        } else {
            received.environment.push_back(line);
        }
    }
    return received;
}

class LauncherTest : public ::testing::Test {
protected:
    LauncherTest()
        : m_home(m_dir.File("home")),
          m_system(m_dir.File("system")),
          m_outDir(m_dir.File("out")),
          m_script(m_dir.File("launched.sh")),
          m_dataHome("XDG_DATA_HOME", m_home),
          m_dataDirs("XDG_DATA_DIRS", m_system) {
        for (const std::string& dir :
             {m_home, m_home + "/applications", m_system, m_system + "/applications", m_outDir}) {
            ::mkdir(dir.c_str(), 0755);
        }
        cimtest::WriteFile(m_script,
                           "#!/bin/sh\n"
                           "out=\"" + m_outDir + "/$$\"\n"
                           "{\n"
                           "  for a in \"$@\"; do printf 'arg=%s\\n' \"$a\"; done\n"
                           "  env | grep '^CIM_APP' | sort\n"
                           "  printf 'stdin=%s\\n' \"$(readlink /proc/$$/fd/0)\"\n"
                           "  printf 'stat=%s\\n' \"$(cat /proc/$$/stat)\"\n"
                           "} > \"$out.tmp\"\n"
                           "mv \"$out.tmp\" \"$out\"\n");
        ::chmod(m_script.c_str(), 0755);
    }

    void WriteEntry(const std::string& root, const std::string& appId, const std::string& exec) {
        cimtest::WriteFile(root + "/applications/" + appId + ".desktop",
                           "[Desktop Entry]\nType=Application\nName=" + appId + "\nExec=" + exec +
                               "\n\n[Desktop Action other]\nExec=/bin/false\n");
    }

    // Waits for the reports of `count` runs in all; bounded, as a launch that
    // went wrong never writes one.
    std::vector<Received> WaitForRuns(size_t count) {
        const auto deadline = std::chrono::steady_clock::now() + cimtest::Scaled(std::chrono::seconds(10));
        std::vector<std::string> names;
        while (std::chrono::steady_clock::now() < deadline) {
            names = Reports();
            if (names.size() >= count) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        std::vector<Received> runs;
        for (const std::string& name : names) {
            runs.push_back(Parse(cimtest::ReadFile(m_outDir + "/" + name)));
        }
        return runs;
    }

    std::vector<std::string> Reports() const {
        std::vector<std::string> names;
        if (DIR* dir = ::opendir(m_outDir.c_str())) {
            while (const dirent* entry = ::readdir(dir)) {
                const std::string name = entry->d_name;
                if (name[0] != '.' && name.find(".tmp") == std::string::npos) {
                    names.push_back(name);
                }
            }
            ::closedir(dir);
        }
        return names;
    }

    cimtest::TempDir m_dir;
    cimtest::LogCapture m_log;
    const std::string m_home;
    const std::string m_system;
    const std::string m_outDir;
    const std::string m_script;
    ScopedEnv m_dataHome;
    ScopedEnv m_dataDirs;
};

TEST_F(LauncherTest, LaunchRunsTheEntrysProgramDetachedWithItsParameters) {
    // Four backslashes and \" in the file: a backslash and a quote in the
    // argument, after the string escapes and then the quoting rules.
    WriteEntry(m_home, "cim.test.app", m_script + " %U \"two words\" 100%% --opt=%f \"q\\\\\\\\\\\"\"");
    const ScopedEnv stale("CIM_APP_EXTRA_STALE", "from the parent");
    {
        CIM::ApplicationLauncher launcher;
        EXPECT_TRUE(launcher.AddParameter("KEY", "first"));
        EXPECT_TRUE(launcher.AddParameter("OTHER", "x y"));
        EXPECT_TRUE(launcher.AddParameter("KEY", "second"));
        ASSERT_TRUE(launcher.LaunchApplication("cim.test.app"));
        // The parameters stay in the handle: the same request again.
        ASSERT_TRUE(launcher.LaunchApplication("cim.test.app"));
    }
    const std::vector<Received> runs = WaitForRuns(2);
    ASSERT_EQ(runs.size(), 2u);
    for (const Received& run : runs) {
        EXPECT_EQ(run.arguments, (std::vector<std::string>{"two words", "100%", "--opt=", "q\\\""}));
        EXPECT_EQ(run.environment,
                  (std::vector<std::string>{"CIM_APP_EXTRA_KEY=second", "CIM_APP_EXTRA_OTHER=x y",
                                            "CIM_APP_ID=cim.test.app"}));
        EXPECT_EQ(run.standardInput, "/dev/null");
        EXPECT_NE(run.parent, long(::getpid()));
        EXPECT_NE(run.session, long(::getsid(0)));
    }
    const std::vector<std::string> messages = m_log.Messages();
    EXPECT_EQ(messages,
              (std::vector<std::string>{
                  "ApplicationLauncher.cpp: LaunchApplication(86) > cim.test.app",
                  "ApplicationLauncher.cpp: LaunchApplication(97) > Launching was successful",
                  "ApplicationLauncher.cpp: LaunchApplication(86) > cim.test.app",
                  "ApplicationLauncher.cpp: LaunchApplication(97) > Launching was successful"}));
}

TEST_F(LauncherTest, EntriesAreFoundInDataHomeFirstThenDataDirs) {
    WriteEntry(m_system, "only.system", m_script + " system");
    WriteEntry(m_system, "both", m_script + " system");
    WriteEntry(m_home, "both", m_script + " home");
    CIM::ApplicationLauncher launcher;
    ASSERT_TRUE(launcher.LaunchApplication("only.system"));
    std::vector<Received> runs = WaitForRuns(1);
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0].arguments, std::vector<std::string>{"system"});
    // No parameters: the id alone.
    EXPECT_EQ(runs[0].environment, std::vector<std::string>{"CIM_APP_ID=only.system"});

    ASSERT_TRUE(launcher.LaunchApplication("both"));
    runs = WaitForRuns(2);
    ASSERT_EQ(runs.size(), 2u);
    size_t fromHome = 0;
    for (const Received& run : runs) {
        fromHome += run.arguments == std::vector<std::string>{"home"} ? 1 : 0;
    }
    EXPECT_EQ(fromHome, 1u);
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

    for (const char* appId :
         {"no-such-app", "missing.program", "not.executable", "only.codes", "no.exec"}) {
        m_log.Clear();
        CIM::ApplicationLauncher launcher;
        EXPECT_TRUE(launcher.AddParameter("KEY", "value"));
        EXPECT_FALSE(launcher.LaunchApplication(appId)) << appId;
        EXPECT_EQ(m_log.Messages(),
                  std::vector<std::string>{std::string("ApplicationLauncher.cpp: "
                                                       "LaunchApplication(86) > ") + appId});
    }
    EXPECT_TRUE(Reports().empty());
}

TEST_F(LauncherTest, InjectedPlatformFailuresGiveTheDocumentedResults) {
    WriteEntry(m_home, "cim.test.app", m_script);
    struct Case {
        const char* fail;
        bool added;
        bool launched;
        std::vector<std::string> messages;
    };
    const std::string prefix = "ApplicationLauncher.cpp: ";
    const Case cases[] = {
        {"create", false, false,
         {prefix + "AddParameter(76) > service is not set",
          prefix + "LaunchApplication(86) > cim.test.app",
          prefix + "LaunchApplication(101) > service is not set",
          prefix + "~ApplicationLauncher(56) > service is not set"}},
        {"add", false, true,
         {prefix + "LaunchApplication(86) > cim.test.app",
          prefix + "LaunchApplication(97) > Launching was successful"}},
        {"appid", true, false, {prefix + "LaunchApplication(86) > cim.test.app"}},
        {"send", true, false, {prefix + "LaunchApplication(86) > cim.test.app"}},
        {"destroy", true, true,
         {prefix + "LaunchApplication(86) > cim.test.app",
          prefix + "LaunchApplication(97) > Launching was successful",
          prefix + "~ApplicationLauncher(51) > Error during destroying service data"}},
    };
    size_t expectedRuns = 0;
    for (const Case& c : cases) {
        m_log.Clear();
        {
            const ScopedEnv fail("CIM_APPCONTROL_FAIL", std::string("unused,") + c.fail);
            CIM::ApplicationLauncher launcher;
            EXPECT_EQ(launcher.AddParameter("KEY", "value"), c.added) << c.fail;
            EXPECT_EQ(launcher.LaunchApplication("cim.test.app"), c.launched) << c.fail;
        }
        EXPECT_EQ(m_log.Messages(), c.messages) << c.fail;
        if (c.launched) {
            const std::vector<Received> runs = WaitForRuns(++expectedRuns);
            ASSERT_EQ(runs.size(), expectedRuns) << c.fail;
        }
    }
    // Error lines at error level, the rest informational.
    m_log.Clear();
    {
        const ScopedEnv fail("CIM_APPCONTROL_FAIL", "create");
        CIM::ApplicationLauncher launcher;
        launcher.LaunchApplication("cim.test.app");
    }
    const std::vector<std::string> lines = m_log.Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find(" I/CI_CORE("), std::string::npos);
    EXPECT_NE(lines[1].find(" E/CI_CORE("), std::string::npos);
    EXPECT_NE(lines[2].find(" E/CI_CORE("), std::string::npos);
}

}  // namespace
