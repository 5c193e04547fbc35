// Debug-log configuration: tags switched singly and all together, the saved
// file after each step, a switched-off tag really silenced; then the launch of
// a small desktop application with parameters.
#include "Demo.h"

#include <cimcore/ApplicationLauncher.h>
#include <cimcore/CIMDebugLog.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

namespace cimdemo {
namespace {

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void WriteAll(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

void ShowFile(const Context& context, const char* step) {
    Say("%-34s -> file \"%s\"", step, ReadAll(context.logConfigPath).c_str());
}

// Lines written to the log since `mark` that contain `text`.
size_t CountSince(const Context& context, size_t mark, const std::string& text) {
    std::ifstream in(context.logPath);
    in.seekg(std::streamoff(mark));
    size_t count = 0;
    for (std::string line; std::getline(in, line);) {
        count += line.find(text) != std::string::npos ? 1 : 0;
    }
    return count;
}

bool ShowTags(Context& context) {
    using CIM::ECIMLogLevel;
    bool ok = true;
    Say("configuration file: %s", context.logConfigPath.c_str());
    CIM::TCCIMDebugLog debugLog(context.logConfigPath, CIM::GetSupportedCILogTags());
    std::string levels;
    for (const auto& entry : debugLog.GetLevels()) {
        levels += entry.first + "=" + CIM::LogLevelToString(entry.second) + " ";
    }
    Say("loaded: %s", levels.c_str());

    debugLog.ChangeLevel(ECIMLogLevel::LOG_LVL_OFF);
    ShowFile(context, "ChangeLevel(OFF)");
    ok = debugLog.ToggleTag("CI_MODULE") && ok;
    ShowFile(context, "ToggleTag(\"CI_MODULE\")");
    ok = debugLog.ChangeLevel("CI_API", ECIMLogLevel::LOG_LVL_ON) && ok;
    ShowFile(context, "ChangeLevel(\"CI_API\", ON)");
    const bool again = debugLog.ChangeLevel("CI_API", ECIMLogLevel::LOG_LVL_ON);
    Say("%-34s -> %s (\"The same level.\", nothing saved)", "ChangeLevel(\"CI_API\", ON) again",
        again ? "true" : "false");
    ok = !again && ok;
    ECIMLogLevel level = debugLog.ToggleLog();
    Say("ToggleLog(): \"CI_API\" is on, so all go %s", CIM::LogLevelToString(level).c_str());
    ShowFile(context, "after ToggleLog()");
    ok = ReadAll(context.logConfigPath).empty() && ok;
    level = debugLog.ToggleLog();
    ShowFile(context, ("ToggleLog() -> " + CIM::LogLevelToString(level)).c_str());

    if (context.logPath.empty()) {
        Say("(the log does not go to a file: skipping the silenced-tag check)");
        return ok;
    }
    // The library logs under "CI_CORE"; switched off, even its own lines stop.
    size_t mark = LogMark(context);
    debugLog.ChangeLevel("CI_CORE", ECIMLogLevel::LOG_LVL_OFF);
    debugLog.ToggleTag("CI_DAEMON");
    const size_t silenced = CountSince(context, mark, "CI_DAEMON");
    Say("\"CI_CORE\" switched off, then ToggleTag(\"CI_DAEMON\"): %zu log lines about it",
        silenced);
    ShowLog(context, mark, "CI_CORE");
    mark = LogMark(context);
    debugLog.ToggleTag("CI_CORE");
    debugLog.ToggleTag("CI_DAEMON");
    const size_t back = CountSince(context, mark, "CI_DAEMON");
    Say("\"CI_CORE\" on again, ToggleTag(\"CI_DAEMON\") logs again:");
    ShowLog(context, mark, "CI_DAEMON");
    ShowFile(context, "now");
    return ok && silenced == 0 && back > 0;
}

bool LaunchViewer(Context& context) {
    bool ok = true;
    const std::string dataHome = context.workDir + "/xdg";
    const std::string program = context.workDir + "/viewer.sh";
    const std::string received = context.workDir + "/viewer-received.txt";
    ::mkdir(dataHome.c_str(), 0755);
    ::mkdir((dataHome + "/applications").c_str(), 0755);
    WriteAll(dataHome + "/applications/cim-demo-viewer.desktop",
             "[Desktop Entry]\nType=Application\nName=CI demo viewer\nExec=" + program +
                 " --from-demo %U\n");
    WriteAll(program,
             "#!/bin/sh\n"
             "{ echo \"arguments: $*\"; env | grep '^CIM_APP' | sort; } > \"" +
                 received +
                 ".tmp\"\n"
                 "mv \"" +
                 received + ".tmp\" \"" + received + "\"\n");
    ::chmod(program.c_str(), 0755);

    const char* previous = std::getenv("XDG_DATA_HOME");
    const std::string saved = previous != nullptr ? previous : "";
    ::setenv("XDG_DATA_HOME", dataHome.c_str(), 1);
    Say("desktop entry %s/applications/cim-demo-viewer.desktop", dataHome.c_str());

    const size_t mark = LogMark(context);
    {
        CIM::ApplicationLauncher launcher;
        launcher.AddParameter("CHANNEL", "42");
        launcher.AddParameter("MODE", "pip");
        launcher.AddParameter("CHANNEL", "7");  // replaces 42
        const bool launched = launcher.LaunchApplication("cim-demo-viewer");
        Say("LaunchApplication(\"cim-demo-viewer\") with CHANNEL=42, MODE=pip, CHANNEL=7 -> %s",
            launched ? "true" : "false");
        const bool missing = launcher.LaunchApplication("cim-demo-missing");
        Say("LaunchApplication(\"cim-demo-missing\") -> %s (no desktop entry)",
            missing ? "true" : "false");
        ok = launched && !missing;
    }
    ShowLog(context, mark, "ApplicationLauncher");
    if (previous != nullptr) {
        ::setenv("XDG_DATA_HOME", saved.c_str(), 1);
    } else {
        ::unsetenv("XDG_DATA_HOME");
    }

    // The viewer runs detached: wait a bounded while for what it wrote.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (ok && ::access(received.c_str(), F_OK) != 0 &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const std::string text = ReadAll(received);
    if (text.empty()) {
        Say("the viewer wrote nothing to %s", received.c_str());
        return false;
    }
    Say("the viewer received (%s):", received.c_str());
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        Say("  %s", line.c_str());
    }
    return ok && text.find("CIM_APP_EXTRA_CHANNEL=7") != std::string::npos;
}

bool RunDebugLog(Context& context) {
    const bool tags = ShowTags(context);
    const bool launch = LaunchViewer(context);
    return tags && launch;
}

const SectionRegistrar kRegistrar(50, "Debug-log configuration and application launch",
                                  RunDebugLog);

}  // namespace
}  // namespace cimdemo
