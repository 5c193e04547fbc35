#include <cimcore/CIMDebugLog.h>

#include <cimcore/internal/CIMLog.h>

#include "debug_menu.h"

#include <cerrno>
#include <ostream>
#include <sstream>

#include <ext/stdio_filebuf.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace CIM {
namespace {

constexpr const char* kSource = "CIMDebugLog.cpp";
constexpr const char* kSourcePath = "src/debuglog/CIMDebugLog";

// Reads the whole file into `content`. Only a regular file counts: a
// directory, a FIFO (which would block) or a device is as unreadable as a
// missing file, and so is a read error half-way.
bool ReadRegularFile(const std::string& path, std::string& content) {
    int fd;
    do {
        fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        return false;
    }
    struct stat info;
    bool ok = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    char chunk[4096];
    while (ok) {
        const ssize_t got = ::read(fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            ok = got == 0;
            break;
        }
        content.append(chunk, size_t(got));
    }
    ::close(fd);
    return ok;
}

// Opens the file truncated for writing, created with the process's default
// permissions, or gives -1. Never waits: a FIFO without a reader fails to
// open instead of blocking until one comes.
int OpenForWritingWithoutWaiting(const std::string& path) {
    int fd;
    do {
        fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC, 0666);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

}  // namespace

std::string LogLevelToString(ECIMLogLevel level) {
    switch (level) {
        case ECIMLogLevel::LOG_LVL_OFF:
            return "OFF";
        case ECIMLogLevel::LOG_LVL_ON:
            return "ON";
        default:
            return "NULL";
    }
}

std::list<std::string> GetSupportedCILogTags() {
    return {"CI_API",    "CI_CORE",      "CI_MODULE", "CI_DAEMON",  "CI_APPLICATION",
            "CI_PVRCIP", "CI_TRUST_APP", "CI_CAM",    "CI_CAM_IMPL"};
}

TCCIMDebugLog::TCCIMDebugLog() noexcept
    : TCCIMDebugLog(kDefaultLogConfigurationPath, GetSupportedCILogTags()) {}

TCCIMDebugLog::TCCIMDebugLog(const std::string& filePath,
                             const std::list<std::string>& tags) noexcept
    : m_filePath(filePath) {
    m_Load();
    for (const std::string& tag : tags) {
        // emplace keeps a level the file already set
        m_debugLevels.emplace(tag, ECIMLogLevel::LOG_LVL_OFF);
    }
}

TCCIMDebugLog::~TCCIMDebugLog() noexcept = default;

std::map<std::string, ECIMLogLevel> TCCIMDebugLog::GetLevels() const noexcept {
    return m_debugLevels;
}

ECIMLogLevel TCCIMDebugLog::GetLevel(const std::string& tag) const noexcept {
    const auto found = m_debugLevels.find(tag);
    return found == m_debugLevels.end() ? ECIMLogLevel::LOG_LVL_INVALID : found->second;
}

bool TCCIMDebugLog::ChangeLevel(const std::string& tag, ECIMLogLevel level) noexcept {
    if (!m_ChangeLevel(tag, level)) {
        return false;
    }
    m_Save();
    return true;
}

bool TCCIMDebugLog::ChangeLevel(ECIMLogLevel level) noexcept {
    CIM_LOG_INFO_HERE(kSource, __func__, "level[%s]", LogLevelToString(level).c_str());
    if (level == ECIMLogLevel::LOG_LVL_INVALID) {
        Log::AssertFailed("level != ECIMLogLevel::LOG_LVL_INVALID", kSourcePath, __LINE__,
                          __func__);
        return false;
    }
    for (const auto& entry : m_debugLevels) {
        // Tags already at the level or refused by the platform keep theirs;
        // the file is written for the others all the same.
        const std::string tag = entry.first;
        m_ChangeLevel(tag, level);
    }
    m_Save();
    return true;
}

bool TCCIMDebugLog::ToggleTag(const std::string& tag) noexcept {
    switch (GetLevel(tag)) {
        case ECIMLogLevel::LOG_LVL_OFF:
            return ChangeLevel(tag, ECIMLogLevel::LOG_LVL_ON);
        case ECIMLogLevel::LOG_LVL_ON:
            return ChangeLevel(tag, ECIMLogLevel::LOG_LVL_OFF);
        default:
            CIM_LOG_INFO_HERE(kSource, __func__, "Tag not exists or INVALID level.");
            return false;
    }
}

ECIMLogLevel TCCIMDebugLog::ToggleLog() noexcept {
    // The first tag alone decides, so a mixed configuration ends all equal.
    // An empty map counts as "not on".
    const bool firstOn =
        !m_debugLevels.empty() && m_debugLevels.begin()->second == ECIMLogLevel::LOG_LVL_ON;
    const ECIMLogLevel level = firstOn ? ECIMLogLevel::LOG_LVL_OFF : ECIMLogLevel::LOG_LVL_ON;
    CIM_LOG_INFO_HERE(kSource, __func__, "Toggle changed to [%s] ",
                      LogLevelToString(level).c_str());
    ChangeLevel(level);
    return level;
}

bool TCCIMDebugLog::m_ChangeLevel(const std::string& tag, ECIMLogLevel level) {
    CIM_LOG_INFO_HERE(kSource, __func__, "tag[%s], level[%s]", tag.c_str(),
                      LogLevelToString(level).c_str());
    const auto found = m_debugLevels.find(tag);
    if (found == m_debugLevels.end()) {
        Log::AssertFailed("m_debugLevels.find( tag ) != m_debugLevels.end( )", kSourcePath,
                          __LINE__, __func__);
        return false;
    }
    if (level == ECIMLogLevel::LOG_LVL_INVALID) {
        Log::AssertFailed("level != ECIMLogLevel::LOG_LVL_INVALID", kSourcePath, __LINE__,
                          __func__);
        return false;
    }
    if (found->second == level) {
        CIM_LOG_INFO_HERE(kSource, __func__, "The same level.");
        return false;
    }
    // Any value but off counts as on, so a stray value starts the tag and is
    // then stored as given.
    const int result =
        level != ECIMLogLevel::LOG_LVL_OFF ? m_StartDlogTag(tag) : m_StopDlogTag(tag);
    if (result < 0) {
        CIM_LOG_ERROR_HERE(kSource, __func__, "Change level failed!");
        return false;
    }
    found->second = level;
    return true;
}

int TCCIMDebugLog::m_StartDlogTag(const std::string& tag) {
    const int result = startdlogtagbydefault(tag.c_str());
    CIM_LOG_INFO_HERE(kSource, __func__, "start dlog tag [%s]. result[%d].", tag.c_str(), result);
    return result;
}

int TCCIMDebugLog::m_StopDlogTag(const std::string& tag) {
    const int result = stopdlogtagbydefault(tag.c_str());
    CIM_LOG_INFO_HERE(kSource, __func__, "stop dlog tag [%s] result[%d].", tag.c_str(), result);
    return result;
}

void TCCIMDebugLog::m_Load() {
    std::string content;
    if (!ReadRegularFile(m_filePath, content)) {
        return;
    }
    m_LoadFromString(content);
}

bool TCCIMDebugLog::m_LoadFromString(const std::string& s) {
    const std::list<std::string> tokens = m_Split(s, ' ');
    CIM_LOG_INFO_HERE(kSource, __func__, "s(%s) tags size(%zu)", s.c_str(), tokens.size());
    m_ResetConfiguration();
    for (const std::string& token : tokens) {
        const auto found = m_debugLevels.find(token);
        if (found != m_debugLevels.end()) {
            found->second = ECIMLogLevel::LOG_LVL_ON;
        }
    }
    return true;
}

std::list<std::string> TCCIMDebugLog::m_Split(const std::string& s, char delimiter) const {
    std::list<std::string> pieces;
    std::istringstream stream(s);
    for (std::string piece; std::getline(stream, piece, delimiter);) {
        pieces.push_back(piece);
    }
    return pieces;
}

void TCCIMDebugLog::m_ResetConfiguration() {
    m_debugLevels.clear();
    for (const std::string& tag : GetSupportedCILogTags()) {
        m_debugLevels.emplace(tag, ECIMLogLevel::LOG_LVL_OFF);
    }
}

std::string TCCIMDebugLog::m_ToString() const {
    std::string text;
    bool first = true;
    for (const auto& entry : m_debugLevels) {
        if (entry.second != ECIMLogLevel::LOG_LVL_ON) {
            continue;
        }
        if (!first) {
            text += ' ';
        }
        text += entry.first;
        first = false;
    }
    return text;
}

void TCCIMDebugLog::m_Save() {
    // SHARP-EDGE: rewritten in place without a lock; concurrent writers must serialise.
    const int fd = OpenForWritingWithoutWaiting(m_filePath);
    if (fd < 0) {
        return;  // deliberately silent: the caller is not told either
    }
    __gnu_cxx::stdio_filebuf<char> file(fd, std::ios::out | std::ios::binary);  // closes fd
    std::ostream out(&file);
    out << m_ToString();
    bool failed = true;
    if (!out) {
        CIM_LOG_INFO_HERE(kSource, __func__, "Write failed!");
    } else if (!out.flush()) {
        CIM_LOG_INFO_HERE(kSource, __func__, "Flush failed!");
    } else if (file.close() == nullptr) {
        CIM_LOG_INFO_HERE(kSource, __func__, "Close failed!");
    } else {
        failed = false;
    }
    if (failed) {
        CIM_LOG_ERROR_HERE(kSource, __func__, "Error while writing to the file %s",
                           m_filePath.c_str());
    }
    // Logged after a failure too: the error line just before it tells.
    CIM_LOG_INFO_HERE(kSource, __func__, "Current configuration saved.");
}

}  // namespace CIM
