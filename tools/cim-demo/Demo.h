// The demo's sections register themselves here; main runs them in order and
// prints a summary with their timings.
#ifndef CIMCORE_TOOLS_DEMO_H
#define CIMCORE_TOOLS_DEMO_H

#include <cstdio>
#include <string>
#include <vector>

namespace cimdemo {

struct Context {
    std::string logPath;        // where the library's log goes, empty if not a file
    std::string logConfigPath;  // --log-config, or a file under workDir
    std::string workDir;        // a temporary folder for the demo's files
};

// Runs one section; returns false if something did not work as it should.
using SectionFunction = bool (*)(Context& context);

struct SectionRegistrar {
    SectionRegistrar(int order, const char* title, SectionFunction function);
};

struct Section {
    int order;
    const char* title;
    SectionFunction function;
};
std::vector<Section>& Sections();

// Prints an indented line of the demo's own output.
void Say(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Remembers the log's current end; ShowLog prints the library lines written
// since then that contain `filter` (all when empty).
size_t LogMark(const Context& context);
void ShowLog(const Context& context, size_t mark, const std::string& filter = std::string());

}  // namespace cimdemo

#endif
