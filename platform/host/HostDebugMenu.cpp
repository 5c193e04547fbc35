// Host debug-menu library: records which tags are stopped, in this process.
#include "debug_menu.h"

#include "HostControl.h"
#include "HostTags.h"

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
    if (tag == nullptr || *tag == '\0' || SettingListContains(EHostSetting::DLOG_REFUSE, tag)) {
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

}  // namespace cimhost

extern "C" int startdlogtagbydefault(const char* tag) {
    return cimhost::Switch(tag, false);
}

extern "C" int stopdlogtagbydefault(const char* tag) {
    return cimhost::Switch(tag, true);
}
