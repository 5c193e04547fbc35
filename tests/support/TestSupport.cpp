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

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

std::string ThreadName() {
    const long tid = ::syscall(SYS_gettid);
    const std::string comm = ReadFile("/proc/self/task/" + std::to_string(tid) + "/comm");
    return comm.substr(0, comm.find('\n'));
}

ScopedEnv::ScopedEnv(const char* name, const std::string& value) : m_name(name) {
    const char* previous = std::getenv(name);
    m_had = previous != nullptr;
    m_previous = m_had ? previous : "";
    ::setenv(name, value.c_str(), 1);
}

ScopedEnv::~ScopedEnv() {
    m_had ? ::setenv(m_name, m_previous.c_str(), 1) : ::unsetenv(m_name);
}

ScopedHostSetting::ScopedHostSetting(cimhost::EHostSetting setting, const std::string& value)
    : m_setting(setting), m_previous(cimhost::GetSetting(setting)) {
    cimhost::SetSetting(setting, value);
}

LogCapture::LogCapture()
    : m_path(m_dir.File("log.txt")),
      m_output(cimhost::EHostSetting::LOG_OUTPUT, "file:" + m_path) {}

std::vector<std::string> LogCapture::Messages() const {
    std::vector<std::string> messages = Lines();
    std::transform(messages.begin(), messages.end(), messages.begin(), MessageOf);
    return messages;
}

size_t LogCapture::Count(const std::string& text) const {
    const std::vector<std::string> lines = Lines();
    return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.find(text) != std::string::npos;
    });
}

AssertRecorder::AssertRecorder()
    : m_hook([this](const char* expression, const char* path, unsigned long) {
          // The path first: a report counts once its expression is there.
          m_paths.Add(path ? path : "");
          m_expressions.Add(expression ? expression : "");
      }) {}

}  // namespace cimtest
