// Asks the platform to start another application with key-value parameters.
#ifndef CIMCORE_APPLICATIONLAUNCHER_H
#define CIMCORE_APPLICATIONLAUNCHER_H

#include <cimcore/Export.h>
// The platform's application-control handle, declared as the platform does.
typedef struct app_control_s* app_control_h;

namespace CIM {

// Wraps one application-control handle, created with the launcher. The
// parameters collect in the handle and are sent with every launch, so one
// launcher may launch several times. A launch only reports whether the
// platform accepted the request; it does not wait for the application.
//
// Not thread-safe: one thread at a time per launcher. Nothing throws.
class CIM_EXPORT ApplicationLauncher {
public:
    ApplicationLauncher();
    virtual ~ApplicationLauncher();

    ApplicationLauncher(const ApplicationLauncher&) = delete;
    ApplicationLauncher& operator=(const ApplicationLauncher&) = delete;

    // A later value for the same key replaces the earlier one.
    bool AddParameter(const char* key, const char* value);
    bool LaunchApplication(const char* appId) const;

private:
    app_control_h m_service;
    bool m_serviceSet;
};

}  // namespace CIM

#endif
