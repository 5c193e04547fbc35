// The parts of a freedesktop desktop entry that a launch needs.
#ifndef CIMCORE_PLATFORM_HOST_DESKTOPENTRY_H
#define CIMCORE_PLATFORM_HOST_DESKTOPENTRY_H

#include <string>
#include <vector>

namespace cimhost {

// The raw value of Exec= in the [Desktop Entry] group, empty if absent.
std::string ReadExecValue(const std::string& path);

// Splits a raw Exec value into arguments: the value's escapes first, then
// blanks separate, double quotes group (with \" \` \$ \\ escaped inside),
// "%%" is a percent sign and every other field code is dropped; an argument
// that was only a field code disappears.
std::vector<std::string> SplitExecCommand(const std::string& rawValue);

}  // namespace cimhost

#endif
