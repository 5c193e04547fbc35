// Fuzzes the configuration text reader: the tokenizer with any delimiter, and
// loading any text. Input: the first byte is the delimiter, the rest the text.
#include <cimcore/CIMDebugLog.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <list>
#include <map>
#include <set>
#include <string>

#define CIM_FUZZ_CHECK(condition) ((condition) ? void() : __builtin_trap())

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
    const char delimiter = static_cast<char>(data[0]);
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);

    // Split gives back the text, less one trailing delimiter, and no piece
    // holds the delimiter.
    const std::list<std::string> pieces = debugLog.m_Split(text, delimiter);
    CIM_FUZZ_CHECK(text.empty() == pieces.empty());
    std::string joined;
    for (const std::string& piece : pieces) {
        CIM_FUZZ_CHECK(piece.find(delimiter) == std::string::npos);
        joined += (&piece == &pieces.front() ? "" : std::string(1, delimiter)) + piece;
    }
    const bool trailing = !text.empty() && text.back() == delimiter;
    CIM_FUZZ_CHECK(joined == text.substr(0, text.size() - (trailing ? 1 : 0)));

    // Loading keeps exactly the supported tags, on where a token names one;
    // what is saved reads back the same.
    CIM_FUZZ_CHECK(debugLog.m_LoadFromString(text));
    const std::list<std::string> tokens = debugLog.m_Split(text, ' ');
    const std::set<std::string> named(tokens.begin(), tokens.end());
    std::map<std::string, CIM::ECIMLogLevel> expected;
    for (const std::string& tag : CIM::GetSupportedCILogTags()) {
        expected[tag] =
            named.count(tag) != 0 ? CIM::ECIMLogLevel::LOG_LVL_ON : CIM::ECIMLogLevel::LOG_LVL_OFF;
    }
    CIM_FUZZ_CHECK(debugLog.GetLevels() == expected);
    CIM_FUZZ_CHECK(debugLog.m_LoadFromString(debugLog.m_ToString()));
    CIM_FUZZ_CHECK(debugLog.GetLevels() == expected);
    return 0;
}
