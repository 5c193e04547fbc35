#include "TestSupport.h"

#include <cimcore/testing.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <ftw.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace cimtest {

double TimeScale() {
    const char* text = std::getenv("CIM_TEST_TIME_SCALE");
    const double scale = text ? std::atof(text) : 1.0;
    return scale >= 1.0 ? scale : 1.0;
}

std::chrono::milliseconds Scaled(std::chrono::milliseconds bound) {
    return std::chrono::milliseconds(static_cast<long long>(bound.count() * TimeScale()));
}

TempDir::TempDir() {
    char pattern[] = "/tmp/cimcore-test-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    m_path = pattern;
}

TempDir::~TempDir() {
    ::nftw(
        m_path.c_str(),
        [](const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); }, 16,
        FTW_DEPTH | FTW_PHYS);
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

bool Exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

std::string ThreadName() {
    const long tid = ::syscall(SYS_gettid);
    std::string comm = ReadFile("/proc/self/task/" + std::to_string(tid) + "/comm");
    if (!comm.empty() && comm.back() == '\n') {
        comm.pop_back();
    }
    return comm;
}

ScopedEnv::ScopedEnv(const char* name, const std::string& value) : m_name(name) {
    const char* previous = std::getenv(name);
    m_had = previous != nullptr;
    m_previous = m_had ? previous : "";
    ::setenv(name, value.c_str(), 1);
}

ScopedEnv::~ScopedEnv() {
    if (m_had) {
        ::setenv(m_name, m_previous.c_str(), 1);
    } else {
        ::unsetenv(m_name);
    }
}

ScopedHostSetting::ScopedHostSetting(cimhost::EHostSetting setting, const std::string& value)
    : m_setting(setting), m_previous(cimhost::GetSetting(setting)) {
    cimhost::SetSetting(setting, value);
}

ScopedHostSetting::~ScopedHostSetting() {
    cimhost::SetSetting(m_setting, m_previous);
}

LogCapture::LogCapture()
    : m_path(m_dir.File("log.txt")),
      m_output(cimhost::EHostSetting::LOG_OUTPUT, "file:" + m_path) {}

std::vector<std::string> LogCapture::Lines() const {
    std::vector<std::string> lines;
    std::istringstream in(ReadFile(m_path));
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> LogCapture::Messages() const {
    std::vector<std::string> messages;
    for (const std::string& line : Lines()) {
        const size_t start = line.find("): ");
        messages.push_back(start == std::string::npos ? line : line.substr(start + 3));
    }
    return messages;
}

size_t LogCapture::Count(const std::string& text) const {
    size_t count = 0;
    for (const std::string& line : Lines()) {
        if (line.find(text) != std::string::npos) {
            ++count;
        }
    }
    return count;
}

void LogCapture::Clear() {
    WriteFile(m_path, "");
}

AssertRecorder::AssertRecorder()
    : m_hook([this](const char* expression, const char* path, unsigned long) {
          std::lock_guard<std::mutex> lock(m_mutex);
          m_expressions.emplace_back(expression ? expression : "");
          m_paths.emplace_back(path ? path : "");
      }) {}

std::vector<std::string> AssertRecorder::Expressions() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_expressions;
}

std::vector<std::string> AssertRecorder::Paths() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_paths;
}

size_t AssertRecorder::Count() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_expressions.size();
}

}  // namespace cimtest
