// Run-time control of the host platform, for tests and tools.
//
// Each setting starts from its environment variable, read once, at its first
// use: CIM_LOG_OUTPUT (where log lines go), CIM_DLOG_REFUSE (tags whose
// debug-menu calls fail) and CIM_APPCONTROL_FAIL (application-control calls
// that fail). Changing the environment after that has no effect; a program
// that wants another value while threads run calls SetSetting, which is safe
// to call at any time from any thread.
#ifndef CIMCORE_PLATFORM_HOST_CONTROL_H
#define CIMCORE_PLATFORM_HOST_CONTROL_H

#include <memory>
#include <string>

// Exported from the shared library, whatever its default visibility: tools
// and benchmarks that link only the library use these.
#define CIMHOST_EXPORT __attribute__((visibility("default")))

namespace cimhost {

enum class EHostSetting {
    LOG_OUTPUT,       // "", "stderr", "file:PATH", "syslog" or "none"
    DLOG_REFUSE,      // comma list of tags
    APPCONTROL_FAIL,  // comma list of create, add, appid, send, destroy
};

// The current value; "" when the variable was unset and nothing was set.
CIMHOST_EXPORT std::string GetSetting(EHostSetting setting);
CIMHOST_EXPORT void SetSetting(EHostSetting setting, const std::string& value);

// True when `name` is one of the comma-separated entries of the setting.
bool SettingListContains(EHostSetting setting, const char* name);

// For the log's hot path: the value without a copy of the text.
std::shared_ptr<const std::string> SharedSetting(EHostSetting setting);

}  // namespace cimhost

#endif
