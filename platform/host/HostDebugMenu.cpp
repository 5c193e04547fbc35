// Host debug-menu library: records which tags are stopped, in this process.
#include "debug_menu.h"

#include "HostTags.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>

namespace cimhost {
namespace {

std::mutex& TagMutex() {
    static std::mutex mutex;
    return mutex;
}

std::set<std::string>& StoppedTags() {  // guarded by TagMutex()
    static std::set<std::string> tags;
    return tags;
}

int Switch(const char* tag, bool stopped) {
    if (tag == nullptr || *tag == '\0' || EnvListContains("CIM_DLOG_REFUSE", tag)) {
        return -1;
    }
    SetTagStopped(tag, stopped);
    return 0;
}

}  // namespace

bool IsTagStopped(const char* tag) {
    std::lock_guard<std::mutex> lock(TagMutex());
    const std::set<std::string>& tags = StoppedTags();
    return !tags.empty() && tag != nullptr && tags.count(tag) != 0;
}

void SetTagStopped(const std::string& tag, bool stopped) {
    std::lock_guard<std::mutex> lock(TagMutex());
    if (stopped) {
        StoppedTags().insert(tag);
    } else {
        StoppedTags().erase(tag);
    }
}

bool EnvListContains(const char* variable, const char* name) {
    const char* list = std::getenv(variable);
    if (list == nullptr || name == nullptr) {
        return false;
    }
    const size_t length = std::strlen(name);
    for (const char* entry = list;; ++entry) {
        const char* end = std::strchr(entry, ',');
        const size_t entryLength = end ? size_t(end - entry) : std::strlen(entry);
        if (entryLength == length && std::strncmp(entry, name, length) == 0) {
            return true;
        }
        if (end == nullptr) {
            return false;
        }
        entry = end;
    }
}

}  // namespace cimhost

extern "C" int startdlogtagbydefault(const char* tag) {
    return cimhost::Switch(tag, false);
}

extern "C" int stopdlogtagbydefault(const char* tag) {
    return cimhost::Switch(tag, true);
}
