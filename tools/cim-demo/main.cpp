// cim-demo: shows, in under a minute and without set-up, that every part of
// cimcore works on this machine, the way the stack uses it.
#include "Demo.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cimdemo {

std::vector<Section>& Sections() {
    static std::vector<Section> sections;
    return sections;
}

SectionRegistrar::SectionRegistrar(int order, const char* title, SectionFunction function) {
    Sections().push_back(Section{order, title, function});
}

void Say(const char* format, ...) {
    std::fputs("  ", stdout);
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

size_t LogMark(const Context& context) {
    struct stat info;
    if (context.logPath.empty() || ::stat(context.logPath.c_str(), &info) != 0) {
        return 0;
    }
    return size_t(info.st_size);
}

void ShowLog(const Context& context, size_t mark, const std::string& filter) {
    if (context.logPath.empty()) {
        Say("(the log does not go to a file, so its lines are not shown here)");
        return;
    }
    std::ifstream in(context.logPath);
    in.seekg(std::streamoff(mark));
    for (std::string line; std::getline(in, line);) {
        if (filter.empty() || line.find(filter) != std::string::npos) {
            std::printf("    log| %s\n", line.c_str());
        }
    }
    std::fflush(stdout);
}

}  // namespace cimdemo

namespace {

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    return ::remove(path);
}

bool RemoveTree(const std::string& path) {
    return ::nftw(path.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS) == 0;
}

void Usage() {
    std::puts(
        "usage: cim-demo [--keep] [--log-config PATH]\n"
        "Runs every part of cimcore once and prints what happened.\n"
        "The library's log goes where CIM_LOG_OUTPUT says; by default to a file\n"
        "in the demo's temporary folder, which is removed at the end unless\n"
        "--keep is given.");
}

}  // namespace

int main(int argc, char** argv) {
    using namespace cimdemo;
    Context context;
    bool keep = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--keep") == 0) {
            keep = true;
        } else if (std::strcmp(argv[i], "--log-config") == 0 && i + 1 < argc) {
            context.logConfigPath = argv[++i];
        } else if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            Usage();
            return 0;
        } else {
            std::fprintf(stderr, "cim-demo: unknown argument '%s'\n", argv[i]);
            Usage();
            return 2;
        }
    }

    char dir[] = "/tmp/cim-demo-XXXXXX";
    if (::mkdtemp(dir) == nullptr) {
        std::perror("cim-demo: mkdtemp");
        return 1;
    }
    context.workDir = dir;
    if (context.logConfigPath.empty()) {
        context.logConfigPath = context.workDir + "/ci_log_configuration_data.txt";
    }
    const char* output = std::getenv("CIM_LOG_OUTPUT");
    if (output == nullptr) {
        context.logPath = context.workDir + "/cimcore.log";
        ::setenv("CIM_LOG_OUTPUT", ("file:" + context.logPath).c_str(), 1);
    } else if (std::strncmp(output, "file:", 5) == 0) {
        context.logPath = output + 5;
    }

    std::vector<Section> sections = Sections();
    std::stable_sort(sections.begin(), sections.end(),
                     [](const Section& a, const Section& b) { return a.order < b.order; });

    struct Result {
        const char* title;
        bool ok;
        double ms;
    };
    std::vector<Result> results;
    for (const Section& section : sections) {
        std::printf("\n== %s ==\n", section.title);
        std::fflush(stdout);
        const auto start = std::chrono::steady_clock::now();
        const bool ok = section.function(context);
        const auto end = std::chrono::steady_clock::now();
        results.push_back(Result{section.title, ok,
                                 std::chrono::duration<double, std::milli>(end - start).count()});
    }

    int width = 7;
    for (const Result& result : results) {
        width = std::max(width, int(std::strlen(result.title)));
    }
    std::printf("\n== Summary ==\n");
    std::printf("  %-*s  %-6s %10s\n", width, "section", "result", "time (ms)");
    bool allOk = true;
    for (const Result& result : results) {
        std::printf("  %-*s  %-6s %10.1f\n", width, result.title, result.ok ? "ok" : "FAILED",
                    result.ms);
        allOk = allOk && result.ok;
    }
    if (!context.logPath.empty()) {
        std::printf("\nThe library's log lines are in %s\n", context.logPath.c_str());
    } else {
        std::printf("\nThe library's log went to CIM_LOG_OUTPUT=%s\n", output);
    }
    if (keep) {
        std::printf("The demo's files are in %s\n", context.workDir.c_str());
    } else if (RemoveTree(context.workDir)) {
        std::printf("The demo's files in %s were removed (--keep keeps them)\n",
                    context.workDir.c_str());
    } else {
        std::printf("Could not remove all of %s\n", context.workDir.c_str());
        allOk = false;
    }
    return allOk ? 0 : 1;
}
