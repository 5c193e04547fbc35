// Tag state shared by the host log and the host debug-menu library.
#ifndef CIMCORE_PLATFORM_HOST_TAGS_H
#define CIMCORE_PLATFORM_HOST_TAGS_H

#include <string>

namespace cimhost {

// True while the tag has been stopped and not started again.
bool IsTagStopped(const char* tag);
void SetTagStopped(const std::string& tag, bool stopped);

// Recomputes every word handed out by cim_dlog_tag_switch; called after the
// log's destination changed.
void RefreshLogSwitches();

}  // namespace cimhost

#endif
