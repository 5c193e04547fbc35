// The host platform's settings: taken from the environment at first use,
// changed afterwards only through SetSetting, never by reading the
// environment again (getenv racing a setenv of another thread is undefined).
#include "HostControl.h"

#include "HostTags.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

namespace cimhost {
namespace {

constexpr int kSettings = 3;

const char* VariableOf(EHostSetting setting) {
    switch (setting) {
        case EHostSetting::LOG_OUTPUT:
            return "CIM_LOG_OUTPUT";
        case EHostSetting::DLOG_REFUSE:
            return "CIM_DLOG_REFUSE";
        case EHostSetting::APPCONTROL_FAIL:
            break;
    }
    return "CIM_APPCONTROL_FAIL";
}

class Settings {
public:
    std::shared_ptr<const std::string> Get(EHostSetting setting) {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::shared_ptr<const std::string>& value = m_values[int(setting)];
        if (!value) {
            const char* text = std::getenv(VariableOf(setting));
            value = std::make_shared<const std::string>(text ? text : "");
        }
        return value;
    }

    void Set(EHostSetting setting, const std::string& value) {
        auto fresh = std::make_shared<const std::string>(value);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_values[int(setting)] = std::move(fresh);
    }

private:
    std::mutex m_mutex;
    std::shared_ptr<const std::string> m_values[kSettings];  // guarded by m_mutex
};

Settings& TheSettings() {
    static Settings* settings = new Settings;  // never destroyed: threads may log during exit
    return *settings;
}

}  // namespace

std::shared_ptr<const std::string> SharedSetting(EHostSetting setting) {
    return TheSettings().Get(setting);
}

std::string GetSetting(EHostSetting setting) {
    return *TheSettings().Get(setting);
}

void SetSetting(EHostSetting setting, const std::string& value) {
    TheSettings().Set(setting, value);
    if (setting == EHostSetting::LOG_OUTPUT) {
        RefreshLogSwitches();  // the next line must see "none" come and go
    }
}

bool SettingListContains(EHostSetting setting, const char* name) {
    if (name == nullptr) {
        return false;
    }
    const std::shared_ptr<const std::string> list = TheSettings().Get(setting);
    const size_t length = std::strlen(name);
    for (size_t start = 0; start <= list->size();) {
        size_t end = list->find(',', start);
        if (end == std::string::npos) {
            end = list->size();
        }
        if (end - start == length && list->compare(start, length, name) == 0) {
            return true;
        }
        start = end + 1;
    }
    return false;
}

}  // namespace cimhost
