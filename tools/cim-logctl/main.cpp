// cim-logctl: the debug menu on a command line. Lists the stack's log tags
// and switches them, one or all, through the library's log configuration.
#include <cimcore/CIMDebugLog.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kChanged = 0;
constexpr int kUnchanged = 1;
constexpr int kUsage = 2;

void Help() {
    std::printf(
        "usage: cim-logctl [--file PATH] [--verbose] COMMAND\n"
        "\n"
        "Shows and switches the CI stack's log tags. The tags that are on are kept in\n"
        "the configuration file, by default\n"
        "  %s\n"
        "\n"
        "commands:\n"
        "  list          each tag and its level\n"
        "  on TAG        switch TAG on\n"
        "  off TAG       switch TAG off\n"
        "  toggle TAG    switch TAG to the other level\n"
        "  all on|off    switch every tag on or off\n"
        "  toggle-all    switch every tag to the opposite of the first tag's level\n"
        "\n"
        "options:\n"
        "  --file PATH   use another configuration file\n"
        "  --verbose     show the library's log lines on standard error\n"
        "  --help        this text\n"
        "\n"
        "exit status: 0 something changed (or list), 1 nothing changed or the file\n"
        "could not be written, 2 usage error (bad argument, unknown tag).\n",
        CIM::kDefaultLogConfigurationPath);
}

int UsageError(const std::string& message) {
    std::fprintf(stderr, "cim-logctl: %s (try --help)\n", message.c_str());
    return kUsage;
}

void PrintLevels(const std::map<std::string, CIM::ECIMLogLevel>& levels) {
    for (const auto& entry : levels) {
        std::printf("%-15s %s\n", entry.first.c_str(), CIM::LogLevelToString(entry.second).c_str());
    }
}

// The library does not report a failed save, so read the file back.
bool FileHolds(const std::string& path, const std::string& expected) {
    std::ifstream in(path, std::ios::binary);
    if (!in.is_open()) {
        return false;
    }
    const std::string content((std::istreambuf_iterator<char>(in)),
                              std::istreambuf_iterator<char>());
    return content == expected;
}

// Holds an advisory lock on the configuration file from the load to the
// read-back, so that runs on one file take turns: the class rewrites the file
// in place without a lock, and two runs at once would mix their texts and
// lose each other's changes. Only files are locked; anything else is left to
// fail in the class.
class ConfigurationLock {
public:
    ConfigurationLock(const std::string& path, bool exclusive) {
        // A change creates the file it locks; an empty file reads as a
        // missing one. A listing creates nothing.
        const int flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC | (exclusive ? O_CREAT : 0);
        do {
            m_fd = ::open(path.c_str(), flags, 0666);
        } while (m_fd < 0 && errno == EINTR);
        struct stat info;
        if (m_fd >= 0 && (::fstat(m_fd, &info) != 0 || !S_ISREG(info.st_mode))) {
            ::close(m_fd);
            m_fd = -1;
        }
        while (m_fd >= 0 && ::flock(m_fd, exclusive ? LOCK_EX : LOCK_SH) != 0 && errno == EINTR) {
        }
    }
    ~ConfigurationLock() {
        if (m_fd >= 0) {
            ::close(m_fd);  // releases the lock
        }
    }
    ConfigurationLock(const ConfigurationLock&) = delete;
    ConfigurationLock& operator=(const ConfigurationLock&) = delete;

private:
    int m_fd = -1;
};

bool IsSupportedTag(const std::string& tag) {
    for (const std::string& supported : CIM::GetSupportedCILogTags()) {
        if (supported == tag) {
            return true;
        }
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    std::string file = CIM::kDefaultLogConfigurationPath;
    bool verbose = false;
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            Help();
            return kChanged;
        } else if (arg == "--file") {
            if (i + 1 >= argc || argv[i + 1][0] == '\0') {
                return UsageError("--file needs a path");
            }
            file = argv[++i];
        } else if (arg.compare(0, 7, "--file=") == 0 && arg.size() > 7) {
            file = arg.substr(7);
        } else if (arg == "--verbose" || arg == "-v") {
            verbose = true;
        } else if (arg.size() > 1 && arg[0] == '-') {
            return UsageError("unknown option '" + arg + "'");
        } else {
            words.push_back(arg);
        }
    }
    if (words.empty()) {
        return UsageError("no command given");
    }
    // The library logs every step; a user of the tool wants only its answer.
    if (!verbose && std::getenv("CIM_LOG_OUTPUT") == nullptr) {
        ::setenv("CIM_LOG_OUTPUT", "none", 1);
    }

    const std::string& command = words[0];
    const size_t expectedWords = command == "list" || command == "toggle-all" ? 1 : 2;
    if (command != "list" && command != "toggle-all" && command != "on" && command != "off" &&
        command != "toggle" && command != "all") {
        return UsageError("unknown command '" + command + "'");
    }
    if (words.size() != expectedWords) {
        return UsageError("'" + command + "' takes " +
                          (expectedWords == 1 ? "no argument" : "one argument"));
    }

    if (command == "all" && words[1] != "on" && words[1] != "off") {
        return UsageError("'all' takes on or off, not '" + words[1] + "'");
    }
    // An unknown tag would be a broken contract inside the library. The file
    // can only name supported tags, so they are all there is.
    if (command != "list" && command != "all" && command != "toggle-all" &&
        !IsSupportedTag(words[1])) {
        return UsageError("unknown tag '" + words[1] + "'");
    }

    const ConfigurationLock lock(file, command != "list");
    CIM::TCCIMDebugLog debugLog(file, CIM::GetSupportedCILogTags());
    const std::map<std::string, CIM::ECIMLogLevel> before = debugLog.GetLevels();
    if (command == "list") {
        PrintLevels(before);
        return kChanged;
    }

    if (command == "all") {
        debugLog.ChangeLevel(words[1] == "on" ? CIM::ECIMLogLevel::LOG_LVL_ON
                                              : CIM::ECIMLogLevel::LOG_LVL_OFF);
    } else if (command == "toggle-all") {
        debugLog.ToggleLog();
    } else {
        if (command == "toggle") {
            debugLog.ToggleTag(words[1]);
        } else {
            debugLog.ChangeLevel(words[1], command == "on" ? CIM::ECIMLogLevel::LOG_LVL_ON
                                                           : CIM::ECIMLogLevel::LOG_LVL_OFF);
        }
    }

    const std::map<std::string, CIM::ECIMLogLevel> after = debugLog.GetLevels();
    bool changed = false;
    for (const auto& entry : after) {
        const CIM::ECIMLogLevel old = before.at(entry.first);
        if (old != entry.second) {
            std::printf("%-15s %s -> %s\n", entry.first.c_str(), CIM::LogLevelToString(old).c_str(),
                        CIM::LogLevelToString(entry.second).c_str());
            changed = true;
        }
    }
    if (!changed) {
        std::printf("nothing changed\n");
        return kUnchanged;
    }
    if (!FileHolds(file, debugLog.m_ToString())) {
        std::fprintf(stderr, "cim-logctl: could not write %s\n", file.c_str());
        return kUnchanged;
    }
    return kChanged;
}
