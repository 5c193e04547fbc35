#include "TestSupport.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include <ftw.h>

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

TempDir::TempDir() : m_path("/tmp/cimcore-test-XXXXXX") {
    if (::mkdtemp(m_path.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    m_undo = [path = m_path] {
        ::nftw(
            path.c_str(),
            [](const char* file, const struct stat*, int, FTW*) { return ::remove(file); }, 16,
            FTW_DEPTH | FTW_PHYS);
    };
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
    const std::string comm = ReadFile("/proc/thread-self/comm");
    return comm.substr(0, comm.find('\n'));
}

ScopedEnv::ScopedEnv(const char* name, const std::string& value) {
    const char* previous = std::getenv(name);
    m_undo = [name, had = previous != nullptr, old = std::string(previous ? previous : "")] {
        had ? ::setenv(name, old.c_str(), 1) : ::unsetenv(name);
    };
    ::setenv(name, value.c_str(), 1);
}

ScopedHostSetting::ScopedHostSetting(cimhost::EHostSetting setting, const std::string& value) {
    m_undo = [setting, old = cimhost::GetSetting(setting)] { cimhost::SetSetting(setting, old); };
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
