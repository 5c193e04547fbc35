// Reading the Exec= command of a freedesktop desktop entry.
#include "DesktopEntry.h"

#include <cstring>
#include <fstream>

namespace cimhost {
namespace {

std::string Trim(const std::string& text) {
    const size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos) {
        return std::string();
    }
    return text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1);
}

// The escapes of a desktop-entry string value.
std::string UnescapeValue(const std::string& value) {
    std::string text;
    for (size_t i = 0; i < value.size(); ++i) {
        if (value[i] != '\\' || i + 1 == value.size()) {
            text += value[i];
            continue;
        }
        switch (value[++i]) {
            case 's':
                text += ' ';
                break;
            case 'n':
                text += '\n';
                break;
            case 't':
                text += '\t';
                break;
            case 'r':
                text += '\r';
                break;
            case '\\':
                text += '\\';
                break;
            default:
                text += '\\';
                text += value[i];
        }
    }
    return text;
}

}  // namespace

// The raw value of Exec= in the [Desktop Entry] group, empty if absent.
std::string ReadExecValue(const std::string& path) {
    std::ifstream in(path);
    bool inMainGroup = false;
    for (std::string line; std::getline(in, line);) {
        const std::string trimmed = Trim(line);
        if (trimmed.empty() || trimmed[0] == '#') {
            continue;
        }
        if (trimmed[0] == '[') {
            inMainGroup = trimmed == "[Desktop Entry]";
            continue;
        }
        const size_t equals = trimmed.find('=');
        if (inMainGroup && equals != std::string::npos &&
            Trim(trimmed.substr(0, equals)) == "Exec") {
            return Trim(trimmed.substr(equals + 1));
        }
    }
    return std::string();
}

// Splits an Exec command into arguments: blanks separate, double quotes group
// (with \" \` \$ \\ escaped inside), "%%" is a percent sign and every other
// field code is dropped; an argument that was only a field code disappears.
std::vector<std::string> SplitExecCommand(const std::string& rawValue) {
    const std::string command = UnescapeValue(rawValue);
    std::vector<std::string> arguments;
    std::string current;
    bool inArgument = false;
    bool quoted = false;
    bool hadText = false;  // quotes make an argument even when it is empty
    for (size_t i = 0; i < command.size(); ++i) {
        const char c = command[i];
        if (quoted) {
            if (c == '"') {
                quoted = false;
            } else if (c == '\\' && i + 1 < command.size() &&
                       std::strchr("\"`$\\", command[i + 1]) != nullptr) {
                current += command[++i];
            } else {
                current += c;
            }
            continue;
        }
        if (c == ' ' || c == '\t' || c == '\n') {
            if (inArgument && (hadText || !current.empty())) {
                arguments.push_back(current);
            }
            current.clear();
            inArgument = hadText = false;
            continue;
        }
        inArgument = true;
        if (c == '"') {
            quoted = hadText = true;
        } else if (c == '%' && i + 1 < command.size()) {
            if (command[++i] == '%') {
                current += '%';
                hadText = true;
            }
        } else {
            current += c;
            hadText = true;
        }
    }
    if (inArgument && (hadText || !current.empty())) {
        arguments.push_back(current);
    }
    return arguments;
}

}  // namespace cimhost
