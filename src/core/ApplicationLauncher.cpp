#include <cimcore/ApplicationLauncher.h>

#include <cimcore/internal/CIMLog.h>

#include "app_control.h"

namespace CIM {
namespace {

constexpr const char* kSource = "ApplicationLauncher.cpp";

}  // namespace

ApplicationLauncher::ApplicationLauncher()
    : m_service(nullptr), m_serviceSet(app_control_create(&m_service) == APP_CONTROL_ERROR_NONE) {}

ApplicationLauncher::~ApplicationLauncher() {
    if (!m_serviceSet) {
        Log::Error(kSource, "~ApplicationLauncher", 56, "service is not set");
        return;
    }
    if (m_service != nullptr && app_control_destroy(m_service) != APP_CONTROL_ERROR_NONE) {
        Log::Error(kSource, "~ApplicationLauncher", 51, "Error during destroying service data");
    }
}

bool ApplicationLauncher::AddParameter(const char* key, const char* value) {
    if (!m_serviceSet) {
        Log::Error(kSource, "AddParameter", 76, "service is not set");
        return false;
    }
    return app_control_add_extra_data(m_service, key, value) == APP_CONTROL_ERROR_NONE;
}

bool ApplicationLauncher::LaunchApplication(const char* appId) const {
    Log::Info(kSource, "LaunchApplication", 86, "%s", appId != nullptr ? appId : "(null)");
    if (!m_serviceSet) {
        Log::Error(kSource, "LaunchApplication", 101, "service is not set");
        return false;
    }
    // Result ignored on purpose: a request without an id is refused anyway.
    app_control_set_app_id(m_service, appId);
    if (app_control_send_launch_request(m_service, nullptr, nullptr) != APP_CONTROL_ERROR_NONE) {
        return false;  // deliberately silent
    }
    Log::Info(kSource, "LaunchApplication", 97, "Launching was successful");
    return true;
}

}  // namespace CIM
