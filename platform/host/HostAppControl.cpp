// Host application-control service: a launch request runs the program of the
// freedesktop desktop entry APPID.desktop, detached in a new session, with the
// request's extra data in its environment:
//
//   CIM_APP_ID=APPID and CIM_APP_EXTRA_<KEY>=<VALUE> for each key.
//
// CIM_APPCONTROL_FAIL=create|add|appid|send|destroy (a comma list, read once;
// see HostControl.h) makes those calls fail, for fault tests.
#include "app_control.h"

#include "DesktopEntry.h"
#include "HostControl.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

struct app_control_s {
    std::string appId;
    std::map<std::string, std::string> extraData;
};

namespace cimhost {
namespace {

constexpr const char* kExtraPrefix = "CIM_APP_EXTRA_";

bool Injected(const char* point) {
    return SettingListContains(EHostSetting::APPCONTROL_FAIL, point);
}

bool IsRegularFile(const std::string& path) {
    struct stat info;
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// The XDG base directories for data, most important first. Relative entries
// are invalid by the base-directory rules and skipped.
std::vector<std::string> DataDirectories() {
    std::vector<std::string> dirs;
    const char* home = std::getenv("XDG_DATA_HOME");
    if (home != nullptr && home[0] == '/') {
        dirs.push_back(home);
    } else if (home == nullptr || home[0] == '\0') {
        const char* userHome = std::getenv("HOME");
        if (userHome != nullptr && userHome[0] == '/') {
            dirs.push_back(std::string(userHome) + "/.local/share");
        }
    }
    const char* list = std::getenv("XDG_DATA_DIRS");
    std::istringstream entries(
        list != nullptr && list[0] != '\0' ? list : "/usr/local/share/:/usr/share/");
    for (std::string entry; std::getline(entries, entry, ':');) {
        if (!entry.empty() && entry[0] == '/') {
            dirs.push_back(entry);
        }
    }
    return dirs;
}

std::string FindDesktopEntry(const std::string& appId) {
    for (const std::string& dir : DataDirectories()) {
        const std::string path = dir + "/applications/" + appId + ".desktop";
        if (IsRegularFile(path)) {
            return path;
        }
    }
    return std::string();
}

// The program's path: as given if it names a path, else searched in PATH.
std::string ResolveProgram(const std::string& program) {
    if (program.find('/') != std::string::npos) {
        return program;
    }
    const char* path = std::getenv("PATH");
    std::istringstream dirs(path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin");
    for (std::string dir; std::getline(dirs, dir, ':');) {
        const std::string candidate = (dir.empty() ? "." : dir) + "/" + program;
        if (IsRegularFile(candidate) && ::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return std::string();
}

// The inherited environment without earlier launch data, then this request's.
std::vector<std::string> LaunchEnvironment(const app_control_s& request) {
    std::vector<std::string> environment;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        if (std::strncmp(*entry, "CIM_APP_ID=", 11) != 0 &&
            std::strncmp(*entry, kExtraPrefix, std::strlen(kExtraPrefix)) != 0) {
            environment.push_back(*entry);
        }
    }
    environment.push_back("CIM_APP_ID=" + request.appId);
    for (const auto& extra : request.extraData) {
        environment.push_back(kExtraPrefix + extra.first + "=" + extra.second);
    }
    return environment;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(&text[0]);
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Starts the program detached: an intermediate child opens a new session and
// forks the program, then exits, so the program is nobody's child here and no
// zombie stays behind. Returns 0, or the errno of the failed start.
int StartDetached(const std::string& program, std::vector<std::string> arguments,
                  std::vector<std::string> environment) {
    // Everything is prepared before fork: between fork and exec only
    // async-signal-safe calls are allowed in a threaded process.
    std::vector<char*> argv = Pointers(arguments);
    std::vector<char*> envp = Pointers(environment);
    int errorPipe[2];
    if (::pipe2(errorPipe, O_CLOEXEC) != 0) {
        return errno;
    }
    const pid_t intermediate = ::fork();
    if (intermediate < 0) {
        const int error = errno;
        ::close(errorPipe[0]);
        ::close(errorPipe[1]);
        return error;
    }
    if (intermediate == 0) {
        ::close(errorPipe[0]);
        ::setsid();
        const pid_t child = ::fork();
        if (child == 0) {
            const int null = ::open("/dev/null", O_RDWR);
            if (null >= 0) {
                ::dup2(null, STDIN_FILENO);
                ::dup2(null, STDOUT_FILENO);
                ::dup2(null, STDERR_FILENO);
                if (null > STDERR_FILENO) {
                    ::close(null);
                }
            }
            ::execve(program.c_str(), argv.data(), envp.data());
            const int error = errno;
            (void)!::write(errorPipe[1], &error, sizeof error);
            ::_exit(127);
        }
        if (child < 0) {
            const int error = errno;
            (void)!::write(errorPipe[1], &error, sizeof error);
        }
        ::_exit(0);
    }
    ::close(errorPipe[1]);
    int status = 0;
    while (::waitpid(intermediate, &status, 0) < 0 && errno == EINTR) {
    }
    // The write end closes on a successful exec (close-on-exec), so end of
    // file means the program runs; otherwise the child sent its errno.
    int error = 0;
    ssize_t got;
    do {
        got = ::read(errorPipe[0], &error, sizeof error);
    } while (got < 0 && errno == EINTR);
    ::close(errorPipe[0]);
    return got == ssize_t(sizeof error) ? error : 0;
}

}  // namespace
}  // namespace cimhost

extern "C" int app_control_create(app_control_h* app_control) {
    if (app_control == nullptr) {
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    }
    if (cimhost::Injected("create")) {
        return APP_CONTROL_ERROR_OUT_OF_MEMORY;
    }
    *app_control = new (std::nothrow) app_control_s();
    return *app_control != nullptr ? APP_CONTROL_ERROR_NONE : APP_CONTROL_ERROR_OUT_OF_MEMORY;
}

extern "C" int app_control_destroy(app_control_h app_control) {
    if (app_control == nullptr) {
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    }
    // An injected failure still frees the handle: the fault is only reported.
    delete app_control;
    return cimhost::Injected("destroy") ? APP_CONTROL_ERROR_INVALID_PARAMETER
                                        : APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_set_app_id(app_control_h app_control, const char* app_id) {
    // An id names a file in the applications folders, so it holds no slash.
    if (app_control == nullptr || app_id == nullptr || app_id[0] == '\0' ||
        std::strchr(app_id, '/') != nullptr || cimhost::Injected("appid")) {
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    }
    app_control->appId = app_id;
    return APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_add_extra_data(app_control_h app_control, const char* key,
                                          const char* value) {
    // The key becomes part of an environment variable's name.
    if (app_control == nullptr || key == nullptr || value == nullptr || key[0] == '\0' ||
        std::strchr(key, '=') != nullptr || cimhost::Injected("add")) {
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    }
    app_control->extraData[key] = value;
    return APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_send_launch_request(app_control_h app_control,
                                               app_control_reply_cb callback, void* user_data) {
    (void)callback;  // the host sends no replies
    (void)user_data;
    if (app_control == nullptr || app_control->appId.empty()) {
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    }
    if (cimhost::Injected("send")) {
        return APP_CONTROL_ERROR_LAUNCH_REJECTED;
    }
    const std::string entry = cimhost::FindDesktopEntry(app_control->appId);
    if (entry.empty()) {
        return APP_CONTROL_ERROR_APP_NOT_FOUND;
    }
    std::vector<std::string> arguments = cimhost::SplitExecCommand(cimhost::ReadExecValue(entry));
    if (arguments.empty()) {
        return APP_CONTROL_ERROR_LAUNCH_REJECTED;
    }
    const std::string program = cimhost::ResolveProgram(arguments.front());
    if (program.empty()) {
        return APP_CONTROL_ERROR_LAUNCH_REJECTED;
    }
    const int error = cimhost::StartDetached(program, std::move(arguments),
                                             cimhost::LaunchEnvironment(*app_control));
    return error == 0 ? APP_CONTROL_ERROR_NONE : APP_CONTROL_ERROR_LAUNCH_REJECTED;
}
