// Fuzzes the configuration text reader: the tokenizer with any delimiter, and
// loading any text. Input: the first byte is the delimiter, the rest the text.
#include <cimcore/CIMDebugLog.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <list>
#include <set>
#include <string>

namespace {

void Check(bool condition) {
    if (!condition) {
        __builtin_trap();
    }
}

// Split gives back the text, less one trailing delimiter, and no piece holds
// the delimiter.
void CheckSplit(const CIM::TCCIMDebugLog& debugLog, const std::string& text, char delimiter) {
    const std::list<std::string> pieces = debugLog.m_Split(text, delimiter);
    Check(text.empty() == pieces.empty());
    std::string joined;
    for (const std::string& piece : pieces) {
        Check(piece.find(delimiter) == std::string::npos);
        joined += (&piece == &pieces.front() ? "" : std::string(1, delimiter)) + piece;
    }
    const bool trailing = !text.empty() && text.back() == delimiter;
    Check(joined == text.substr(0, text.size() - (trailing ? 1 : 0)));
}

// Loading keeps exactly the supported tags, on where a token names one; what
// is saved has the file's shape and reads back the same.
void CheckLoad(CIM::TCCIMDebugLog& debugLog, const std::string& text) {
    Check(debugLog.m_LoadFromString(text));
    const std::list<std::string> tokens = debugLog.m_Split(text, ' ');
    const std::set<std::string> named(tokens.begin(), tokens.end());
    const auto levels = debugLog.GetLevels();
    const std::list<std::string> supported = CIM::GetSupportedCILogTags();
    Check(levels.size() == supported.size());
    for (const std::string& tag : supported) {
        const auto found = levels.find(tag);
        Check(found != levels.end() &&
              found->second == (named.count(tag) != 0 ? CIM::ECIMLogLevel::LOG_LVL_ON
                                                      : CIM::ECIMLogLevel::LOG_LVL_OFF));
    }
    const std::string saved = debugLog.m_ToString();
    Check(saved.find("  ") == std::string::npos);
    Check(saved.empty() || (saved.front() != ' ' && saved.back() != ' '));
    Check(debugLog.m_LoadFromString(saved) && debugLog.GetLevels() == levels);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The reader logs each text it loads; that would only slow the run.
    ::setenv("CIM_LOG_OUTPUT", "none", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // An empty path: the constructor finds no file and nothing is ever saved.
    static CIM::TCCIMDebugLog debugLog(std::string(), {});
    if (size == 0) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    CheckSplit(debugLog, text, char(data[0]));
    CheckLoad(debugLog, text);
    return 0;
}
