// Fuzzes the reading of a desktop entry's Exec command, which comes from files
// that other packages install.
//
// Any input must split without a fault. And any list of arguments, written
// out the way a desktop entry quotes and escapes them, must split back into
// exactly that list.
#include "DesktopEntry.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

// Quotes one argument for an Exec command: inside double quotes only " ` $ \
// need a backslash.
std::string Quote(const std::string& argument) {
    std::string quoted = "\"";
    for (const char c : argument) {
        if (c == '"' || c == '`' || c == '$' || c == '\\') {
            quoted += '\\';
        }
        quoted += c;
    }
    return quoted + "\"";
}

// Escapes a command as a desktop-entry string value.
std::string EscapeValue(const std::string& command) {
    std::string value;
    for (const char c : command) {
        const char* const escaped = c == '\\'   ? "\\\\"
                                    : c == '\n' ? "\\n"
                                    : c == '\t' ? "\\t"
                                    : c == '\r' ? "\\r"
                                                : nullptr;
        value += escaped ? std::string(escaped) : std::string(1, c);
    }
    return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    (void)cimhost::SplitExecCommand(text);

    // The same bytes as arguments: split at NUL bytes, which a value never holds.
    std::vector<std::string> arguments(1);
    for (const char c : text) {
        if (c == '\0') {
            arguments.emplace_back();
        } else {
            arguments.back() += c;
        }
    }
    std::string command;
    for (const std::string& argument : arguments) {
        command += (command.empty() ? "" : " ") + Quote(argument);
    }
    if (cimhost::SplitExecCommand(EscapeValue(command)) != arguments) {
        std::abort();
    }
    return 0;
}
