// Host debug-menu library: records which tags are stopped, in this process,
// and keeps one switch word per asked-about tag that the log's callers read
// without a lock.
#include "debug_menu.h"
#include "dlog_switch.h"

#include "HostControl.h"
#include "HostTags.h"

#include <atomic>
#include <deque>
#include <mutex>
#include <set>

namespace cimhost {
namespace {

struct TagSwitch {
    std::string tag;
    int open;  // written under TagMutex(), read with relaxed atomic loads
};

std::mutex& TagMutex() {
    static std::mutex* mutex = new std::mutex;  // never destroyed: threads may log during exit
    return *mutex;
}

std::set<std::string>& StoppedTags() {  // guarded by TagMutex()
    static std::set<std::string>* tags = new std::set<std::string>;
    return *tags;
}

// A deque never moves its elements: the words stay where they were handed out.
std::deque<TagSwitch>& Switches() {  // guarded by TagMutex()
    static std::deque<TagSwitch>* switches = new std::deque<TagSwitch>;
    return *switches;
}

// Lets IsTagStopped skip the lock while no tag is stopped, the usual case.
std::atomic<size_t> gStoppedCount(0);

// requires TagMutex() held
void Refresh(TagSwitch& entry, bool outputNone) {
    const int open = !outputNone && StoppedTags().count(entry.tag) == 0;
    __atomic_store_n(&entry.open, open, __ATOMIC_RELAXED);
}

bool IsOutputNone() {
    return *SharedSetting(EHostSetting::LOG_OUTPUT) == "none";
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
    if (gStoppedCount.load(std::memory_order_acquire) == 0) {
        return false;
    }
    std::lock_guard<std::mutex> lock(TagMutex());
    return tag != nullptr && StoppedTags().count(tag) != 0;
}

void SetTagStopped(const std::string& tag, bool stopped) {
    std::lock_guard<std::mutex> lock(TagMutex());
    std::set<std::string>& tags = StoppedTags();
    if (stopped) {
        tags.insert(tag);
    } else {
        tags.erase(tag);
    }
    gStoppedCount.store(tags.size(), std::memory_order_release);
    for (TagSwitch& entry : Switches()) {
        if (entry.tag == tag) {
            // Asked here, not before: the destination is read at the first line.
            Refresh(entry, IsOutputNone());
        }
    }
}

// Reads the destination while holding TagMutex(): of two refreshes racing
// two changes, the later one sees the later value.
void RefreshLogSwitches() {
    std::lock_guard<std::mutex> lock(TagMutex());
    const bool none = IsOutputNone();
    for (TagSwitch& entry : Switches()) {
        Refresh(entry, none);
    }
}

}  // namespace cimhost

extern "C" int startdlogtagbydefault(const char* tag) {
    return cimhost::Switch(tag, false);
}

extern "C" int stopdlogtagbydefault(const char* tag) {
    return cimhost::Switch(tag, true);
}

// One word per tag text, made at the first question and kept for good: the
// library asks once per tag, so the set stays as small as the set of tags.
extern "C" const int* cim_dlog_tag_switch(const char* tag) {
    using namespace cimhost;
    static const int kClosed = 0;
    if (tag == nullptr) {
        return &kClosed;
    }
    std::lock_guard<std::mutex> lock(TagMutex());
    for (TagSwitch& entry : Switches()) {
        if (entry.tag == tag) {
            return &entry.open;
        }
    }
    Switches().push_back(TagSwitch{tag, 0});
    TagSwitch& entry = Switches().back();
    Refresh(entry, IsOutputNone());
    return &entry.open;
}
