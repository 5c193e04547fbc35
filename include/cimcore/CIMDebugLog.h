// The switchboard of the stack's log tags: one on/off level per tag, applied
// to the platform's debug-menu library and kept in a small text file.
#ifndef CIMCORE_CIMDEBUGLOG_H
#define CIMCORE_CIMDEBUGLOG_H

#include <cimcore/Export.h>
#include <cstdint>
#include <list>
#include <map>
#include <string>

namespace CIM {

enum class ECIMLogLevel : std::uint8_t { LOG_LVL_OFF = 0, LOG_LVL_ON = 1, LOG_LVL_INVALID = 255 };

// "OFF", "ON", and "NULL" for any other value.
CIM_EXPORT std::string LogLevelToString(ECIMLogLevel level);

// The nine tags of the stack, built fresh on each call, in the stack's order.
CIM_EXPORT std::list<std::string> GetSupportedCILogTags();

// The device's configuration file, which the default constructor uses. The
// doubled slash is part of the device's path as it has always been.
inline constexpr char kDefaultLogConfigurationPath[] =
    "/opt/data/ci-module/data//ci_log_configuration_data.txt";

// Keeps one level per tag in `m_debugLevels` (walked in the map's byte order
// of names) and the set of enabled tags in the file `m_filePath`.
//
// The file is read once, by the constructor, which neither writes it nor
// touches the platform. Every real change is applied to the platform first and
// then saved; a failed save is logged but not reported to the caller, so the
// levels in memory may be ahead of the file.
//
// Not thread-safe: calls on one object must be serialised by its users. The
// operations that are declared noexcept end the process on an exception.
class CIM_EXPORT TCCIMDebugLog {
public:
    // The supported tags and the device's configuration file.
    TCCIMDebugLog() noexcept;
    // Loads `filePath`, then adds each tag of `tags` that the file did not set,
    // switched off. A missing file leaves exactly `tags`.
    TCCIMDebugLog(const std::string& filePath, const std::list<std::string>& tags) noexcept;
    ~TCCIMDebugLog() noexcept;

    TCCIMDebugLog(const TCCIMDebugLog&) = delete;
    TCCIMDebugLog& operator=(const TCCIMDebugLog&) = delete;

    std::map<std::string, ECIMLogLevel> GetLevels() const noexcept;
    // LOG_LVL_INVALID for a tag that is not configured.
    ECIMLogLevel GetLevel(const std::string& tag) const noexcept;

    // One tag; saves and returns true only if the level really changed.
    bool ChangeLevel(const std::string& tag, ECIMLogLevel level) noexcept;
    // Every tag; saves once and returns true even if some tags were refused.
    bool ChangeLevel(ECIMLogLevel level) noexcept;
    // Flips one tag that is exactly on or off.
    bool ToggleTag(const std::string& tag) noexcept;
    // Flips all tags together, deciding by the first tag in map order alone;
    // returns the new level.
    ECIMLogLevel ToggleLog() noexcept;

    // The single-tag change and its platform calls.
    bool m_ChangeLevel(const std::string& tag, ECIMLogLevel level);
    int m_StartDlogTag(const std::string& tag);
    int m_StopDlogTag(const std::string& tag);

    // The configuration file: the names of the tags that are on, separated by
    // single blanks, in map order, without a line end.
    void m_Load();
    bool m_LoadFromString(const std::string& s);
    // Pieces as std::getline on a string stream gives them: empty pieces kept,
    // no empty last piece after a trailing delimiter, line feeds kept.
    std::list<std::string> m_Split(const std::string& s, char delimiter) const;
    void m_ResetConfiguration();
    std::string m_ToString() const;
    void m_Save();

private:
    std::map<std::string, ECIMLogLevel> m_debugLevels;
    std::string m_filePath;
};

}  // namespace CIM

#endif
