#include "TestSupport.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include <ftw.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace cimtest {

std::chrono::milliseconds Scaled(std::chrono::milliseconds bound) {
    const char* text = std::getenv("CIM_TEST_TIME_SCALE");
    const double scale = std::max(text ? std::atof(text) : 1.0, 1.0);
    return std::chrono::milliseconds(static_cast<long long>(bound.count() * scale));
}

void RunThreads(int count, const std::function<void(int)>& body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back(body, i);
    }
    JoinAll(threads);
}

void JoinAll(std::vector<std::thread>& threads) {
    for (std::thread& thread : threads) {
        thread.join();
    }
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
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string MessageOf(const std::string& line) {
    const size_t start = line.find("): ");
    return start == std::string::npos ? line : line.substr(start + 3);
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
    return SplitLines(ReadFile(m_path));
}

std::vector<std::string> LogCapture::Messages() const {
    std::vector<std::string> messages = Lines();
    for (std::string& line : messages) {
        line = MessageOf(line);
    }
    return messages;
}

size_t LogCapture::Count(const std::string& text) const {
    const std::vector<std::string> lines = Lines();
    return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.find(text) != std::string::npos;
    });
}

void LogCapture::Clear() {
    WriteFile(m_path, "");
}

AssertRecorder::AssertRecorder()
    : m_hook([this](const char* expression, const char* path, unsigned long) {
          m_reports.Add({expression ? expression : "", path ? path : ""});
      }) {}

std::vector<std::string> AssertRecorder::Expressions() const {
    std::vector<std::string> expressions;
    for (const auto& report : m_reports.All()) {
        expressions.push_back(report.first);
    }
    return expressions;
}

std::vector<std::string> AssertRecorder::Paths() const {
    std::vector<std::string> paths;
    for (const auto& report : m_reports.All()) {
        paths.push_back(report.second);
    }
    return paths;
}

}  // namespace cimtest
