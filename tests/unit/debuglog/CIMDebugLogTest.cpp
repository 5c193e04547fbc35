// Log tags and levels, the configuration file, and the platform's tag state.
#include <cimcore/CIMDebugLog.h>

#include "debug_menu.h"
#include "dlog.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

using CIM::ECIMLogLevel;
using CIM::TCCIMDebugLog;

const ECIMLogLevel kOn = ECIMLogLevel::LOG_LVL_ON;
const ECIMLogLevel kOff = ECIMLogLevel::LOG_LVL_OFF;
const ECIMLogLevel kInvalid = ECIMLogLevel::LOG_LVL_INVALID;

const std::vector<std::string> kMapOrder = {"CI_API",    "CI_APPLICATION", "CI_CAM",
                                            "CI_CAM_IMPL", "CI_CORE",       "CI_DAEMON",
                                            "CI_MODULE", "CI_PVRCIP",      "CI_TRUST_APP"};

bool Exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

// Lines whose message (after the "file: function(line) > " prefix) is `text`.
size_t CountExact(const cimtest::LogCapture& log, const std::string& text) {
    size_t count = 0;
    for (const std::string& message : log.Messages()) {
        const size_t mark = message.find(" > ");
        if (mark != std::string::npos && message.compare(mark + 3, std::string::npos, text) == 0) {
            ++count;
        }
    }
    return count;
}

std::set<std::string> TagsOn(const TCCIMDebugLog& debugLog) {
    std::set<std::string> on;
    for (const auto& entry : debugLog.GetLevels()) {
        if (entry.second == kOn) {
            on.insert(entry.first);
        }
    }
    return on;
}

class DebugLogTest : public ::testing::Test {
protected:
    void TearDown() override {
        // The host platform keeps tag state per process: leave every tag on.
        ::unsetenv("CIM_DLOG_REFUSE");
        for (const std::string& tag : CIM::GetSupportedCILogTags()) {
            startdlogtagbydefault(tag.c_str());
        }
    }

    cimtest::TempDir m_dir;
    cimtest::LogCapture m_log;
    const std::string m_path = m_dir.File("ci_log_configuration_data.txt");
};

TEST_F(DebugLogTest, ConstructionFollowsTheFileAndNeverWritesIt) {
    const std::list<std::string> tags = {"CI_CORE", "X_EXTRA"};
    {
        // No file: exactly the given tags, off; nothing written or switched.
        const TCCIMDebugLog debugLog(m_path, tags);
        EXPECT_EQ(debugLog.GetLevels(),
                  (std::map<std::string, ECIMLogLevel>{{"CI_CORE", kOff}, {"X_EXTRA", kOff}}));
        const TCCIMDebugLog empty(m_path, {});
        EXPECT_TRUE(empty.GetLevels().empty());
    }
    EXPECT_FALSE(Exists(m_path));
    EXPECT_EQ(m_log.Count("dlog tag"), 0u);

    // A present file: the nine supported tags, on if listed, plus the given
    // tags it did not set, off.
    cimtest::WriteFile(m_path, "CI_API CI_CORE");
    {
        const TCCIMDebugLog debugLog(m_path, tags);
        const auto levels = debugLog.GetLevels();
        EXPECT_EQ(levels.size(), 10u);
        for (const std::string& tag : kMapOrder) {
            EXPECT_EQ(debugLog.GetLevel(tag), tag == "CI_API" || tag == "CI_CORE" ? kOn : kOff)
                << tag;
        }
        EXPECT_EQ(debugLog.GetLevel("X_EXTRA"), kOff);
    }
    EXPECT_EQ(cimtest::ReadFile(m_path), "CI_API CI_CORE");
    EXPECT_EQ(CountExact(m_log, "s(CI_API CI_CORE) tags size(2)"), 1u);
    EXPECT_EQ(m_log.Count("dlog tag"), 0u);

    // An empty file still means "present": the supported tags, all off.
    cimtest::WriteFile(m_path, "");
    const TCCIMDebugLog fromEmpty(m_path, {"X_EXTRA"});
    EXPECT_EQ(fromEmpty.GetLevels().size(), 10u);
    EXPECT_TRUE(TagsOn(fromEmpty).empty());
}

TEST_F(DebugLogTest, ReadsOnlyExactNamesSeparatedByBlanks) {
    struct Case {
        std::string content;
        size_t tokens;
        std::set<std::string> on;
    };
    const Case cases[] = {
        {"CI_API CI_CORE", 2, {"CI_API", "CI_CORE"}},
        {"CI_CORE\n", 1, {}},                          // the line feed is part of the token
        {"CI_CORE  CI_API", 3, {"CI_API", "CI_CORE"}},  // doubled blank: an empty token
        {"NOT_A_TAG", 1, {}},
        {"ci_core CI_API\r CI_DAEMON\tCI_CAM CI_MODULE", 4, {"CI_MODULE"}},
        {" CI_CAM CI_CAM ", 3, {"CI_CAM"}},  // a trailing blank gives no empty last token
        {"", 0, {}},
    };
    for (const Case& c : cases) {
        cimtest::WriteFile(m_path, c.content);
        m_log.Clear();
        const TCCIMDebugLog debugLog(m_path, CIM::GetSupportedCILogTags());
        EXPECT_EQ(TagsOn(debugLog), c.on) << '"' << c.content << '"';
        EXPECT_EQ(debugLog.GetLevels().size(), 9u);
        EXPECT_EQ(m_log.Count("tags size(" + std::to_string(c.tokens) + ")"), 1u)
            << '"' << c.content << '"';
    }

    // Reloading drops tags outside the supported set.
    TCCIMDebugLog debugLog(m_path, {"X_EXTRA"});
    ASSERT_EQ(debugLog.GetLevel("X_EXTRA"), kOff);
    EXPECT_TRUE(debugLog.m_LoadFromString("X_EXTRA CI_PVRCIP"));
    EXPECT_EQ(debugLog.GetLevel("X_EXTRA"), kInvalid);
    EXPECT_EQ(TagsOn(debugLog), (std::set<std::string>{"CI_PVRCIP"}));
}

TEST_F(DebugLogTest, SavedFileListsTagsThatAreOnInMapOrder) {
    TCCIMDebugLog debugLog(m_path, CIM::GetSupportedCILogTags());
    ASSERT_TRUE(debugLog.ChangeLevel("CI_MODULE", kOn));
    EXPECT_EQ(cimtest::ReadFile(m_path), "CI_MODULE");
    ASSERT_TRUE(debugLog.ChangeLevel("CI_API", kOn));
    EXPECT_EQ(cimtest::ReadFile(m_path), "CI_API CI_MODULE");
    EXPECT_EQ(CountExact(m_log, "Current configuration saved."), 2u);

    ASSERT_TRUE(debugLog.ChangeLevel(kOn));
    std::string all;
    for (const std::string& tag : kMapOrder) {
        all += (all.empty() ? "" : " ") + tag;
    }
    EXPECT_EQ(cimtest::ReadFile(m_path), all);

    // What was saved reads back as the same levels.
    ASSERT_TRUE(debugLog.ChangeLevel("CI_CAM", kOff));
    const TCCIMDebugLog reread(m_path, {});
    EXPECT_EQ(reread.GetLevels(), debugLog.GetLevels());

    ASSERT_TRUE(debugLog.ChangeLevel(kOff));
    EXPECT_TRUE(Exists(m_path));
    EXPECT_EQ(cimtest::ReadFile(m_path), "");
}

TEST_F(DebugLogTest, ChangesReachThePlatformOnlyWhenTheLevelDiffers) {
    TCCIMDebugLog debugLog(m_path, CIM::GetSupportedCILogTags());
    ASSERT_TRUE(debugLog.ChangeLevel("CI_CORE", kOn));
    EXPECT_EQ(CountExact(m_log, "tag[CI_CORE], level[ON]"), 1u);
    EXPECT_EQ(CountExact(m_log, "start dlog tag [CI_CORE]. result[0]."), 1u);
    ASSERT_TRUE(debugLog.ChangeLevel("CI_API", kOn));
    ASSERT_TRUE(debugLog.ChangeLevel("CI_API", kOff));
    EXPECT_EQ(CountExact(m_log, "stop dlog tag [CI_API] result[0]."), 1u);

    // The same level again: logged, nothing called, nothing saved.
    cimtest::WriteFile(m_path, "UNTOUCHED");
    m_log.Clear();
    EXPECT_FALSE(debugLog.ChangeLevel("CI_CORE", kOn));
    EXPECT_EQ(cimtest::ReadFile(m_path), "UNTOUCHED");
    EXPECT_EQ(CountExact(m_log, "The same level."), 1u);
    EXPECT_EQ(m_log.Count("dlog tag"), 0u);
    EXPECT_EQ(m_log.Count("saved"), 0u);

    // All on with some on already: still true, one save.
    m_log.Clear();
    EXPECT_TRUE(debugLog.ChangeLevel(kOn));
    EXPECT_EQ(CountExact(m_log, "level[ON]"), 1u);
    EXPECT_EQ(CountExact(m_log, "The same level."), 1u);
    EXPECT_EQ(m_log.Count("start dlog tag"), 8u);
    EXPECT_EQ(CountExact(m_log, "Current configuration saved."), 1u);
    EXPECT_EQ(TagsOn(debugLog).size(), 9u);
}

TEST_F(DebugLogTest, RefusedTagKeepsItsLevelWhileTheOthersAreSaved) {
    TCCIMDebugLog debugLog(m_path, CIM::GetSupportedCILogTags());
    ::setenv("CIM_DLOG_REFUSE", "CI_CAM,CI_TRUST_APP", 1);

    EXPECT_FALSE(debugLog.ChangeLevel("CI_CAM", kOn));
    EXPECT_EQ(debugLog.GetLevel("CI_CAM"), kOff);
    EXPECT_FALSE(Exists(m_path));
    EXPECT_EQ(CountExact(m_log, "start dlog tag [CI_CAM]. result[-1]."), 1u);

    m_log.Clear();
    EXPECT_TRUE(debugLog.ChangeLevel(kOn));
    EXPECT_EQ(debugLog.GetLevel("CI_CAM"), kOff);
    EXPECT_EQ(debugLog.GetLevel("CI_TRUST_APP"), kOff);
    EXPECT_EQ(TagsOn(debugLog).size(), 7u);
    EXPECT_EQ(cimtest::ReadFile(m_path),
              "CI_API CI_APPLICATION CI_CAM_IMPL CI_CORE CI_DAEMON CI_MODULE CI_PVRCIP");
    size_t errors = 0;
    for (const std::string& line : m_log.Lines()) {
        if (line.find("Change level failed!") != std::string::npos) {
            EXPECT_NE(line.find(" E/CI_CORE("), std::string::npos) << line;
            ++errors;
        }
    }
    EXPECT_EQ(errors, 2u);

    // A refused tag cannot be toggled either, and ToggleTag says so by result.
    EXPECT_FALSE(debugLog.ToggleTag("CI_CAM"));
    ::unsetenv("CIM_DLOG_REFUSE");
    EXPECT_TRUE(debugLog.ToggleTag("CI_CAM"));
    EXPECT_EQ(debugLog.GetLevel("CI_CAM"), kOn);
}

TEST_F(DebugLogTest, TogglesFlipSingleTagsAndDecideAllByTheFirstTag) {
    TCCIMDebugLog debugLog(m_path, CIM::GetSupportedCILogTags());
    EXPECT_TRUE(debugLog.ToggleTag("CI_DAEMON"));
    EXPECT_EQ(debugLog.GetLevel("CI_DAEMON"), kOn);
    EXPECT_EQ(cimtest::ReadFile(m_path), "CI_DAEMON");
    EXPECT_TRUE(debugLog.ToggleTag("CI_DAEMON"));
    EXPECT_EQ(debugLog.GetLevel("CI_DAEMON"), kOff);

    // Unknown tags and stray stored values are not toggled.
    m_log.Clear();
    EXPECT_FALSE(debugLog.ToggleTag("NOT_A_TAG"));
    EXPECT_TRUE(debugLog.ChangeLevel("CI_PVRCIP", ECIMLogLevel(2)));
    EXPECT_EQ(CountExact(m_log, "start dlog tag [CI_PVRCIP]. result[0]."), 1u);
    EXPECT_EQ(debugLog.GetLevel("CI_PVRCIP"), ECIMLogLevel(2));
    EXPECT_EQ(CIM::LogLevelToString(ECIMLogLevel(2)), "NULL");
    EXPECT_EQ(debugLog.GetLevel("NOT_A_TAG"), kInvalid);
    EXPECT_EQ(cimtest::ReadFile(m_path), "");  // only exactly "on" is saved
    EXPECT_FALSE(debugLog.ToggleTag("CI_PVRCIP"));
    EXPECT_EQ(CountExact(m_log, "Tag not exists or INVALID level."), 2u);

    // "CI_API" on, the rest not: everything goes off.
    ASSERT_TRUE(debugLog.ChangeLevel("CI_API", kOn));
    m_log.Clear();
    EXPECT_EQ(debugLog.ToggleLog(), kOff);
    EXPECT_EQ(CountExact(m_log, "Toggle changed to [OFF] "), 1u);
    EXPECT_TRUE(TagsOn(debugLog).empty());
    EXPECT_EQ(debugLog.GetLevel("CI_PVRCIP"), kOff);
    EXPECT_EQ(cimtest::ReadFile(m_path), "");

    // "CI_API" off, all the others on: everything goes on.
    ASSERT_TRUE(debugLog.ChangeLevel(kOn));
    ASSERT_TRUE(debugLog.ChangeLevel("CI_API", kOff));
    EXPECT_EQ(debugLog.ToggleLog(), kOn);
    EXPECT_EQ(TagsOn(debugLog).size(), 9u);

    // No tags at all: "not on", so on, and an empty file is written.
    const std::string emptyPath = m_dir.File("empty.txt");
    TCCIMDebugLog empty(emptyPath, {});
    EXPECT_EQ(empty.ToggleLog(), kOn);
    EXPECT_TRUE(Exists(emptyPath));
    EXPECT_EQ(cimtest::ReadFile(emptyPath), "");
}

TEST_F(DebugLogTest, BrokenContractsAreReportedAndChangeNothing) {
    TCCIMDebugLog debugLog(m_path, CIM::GetSupportedCILogTags());
    cimtest::AssertRecorder asserts;
    ::testing::internal::CaptureStdout();
    EXPECT_FALSE(debugLog.ChangeLevel("NOT_A_TAG", kOn));
    EXPECT_FALSE(debugLog.ChangeLevel("CI_API", kInvalid));
    EXPECT_FALSE(debugLog.ChangeLevel(kInvalid));
    const std::string out = ::testing::internal::GetCapturedStdout();

    EXPECT_EQ(asserts.Expressions(),
              (std::vector<std::string>{"m_debugLevels.find( tag ) != m_debugLevels.end( )",
                                        "level != ECIMLogLevel::LOG_LVL_INVALID",
                                        "level != ECIMLogLevel::LOG_LVL_INVALID"}));
    EXPECT_EQ(out,
              "ASSERT!, Func:m_ChangeLevel\nASSERT!, Func:m_ChangeLevel\n"
              "ASSERT!, Func:ChangeLevel\n");
    EXPECT_EQ(debugLog.GetLevel("NOT_A_TAG"), kInvalid);
    EXPECT_TRUE(TagsOn(debugLog).empty());
    EXPECT_FALSE(Exists(m_path));
    EXPECT_EQ(m_log.Count("dlog tag"), 0u);
}

TEST_F(DebugLogTest, WriteFailuresAreLoggedButNotReported) {
    // Unopenable paths (root ignores permission bits, so use a file as a
    // folder, and a missing folder): silent, yet the change holds.
    cimtest::WriteFile(m_dir.File("plain"), "x");
    for (const std::string& path : {m_dir.File("plain/config.txt"), m_dir.File("none/c.txt")}) {
        m_log.Clear();
        TCCIMDebugLog debugLog(path, CIM::GetSupportedCILogTags());
        EXPECT_TRUE(debugLog.ChangeLevel("CI_MODULE", kOn));
        EXPECT_TRUE(debugLog.ChangeLevel(kOn));
        EXPECT_EQ(TagsOn(debugLog).size(), 9u);
        EXPECT_EQ(m_log.Count("saved"), 0u);
        EXPECT_EQ(m_log.Count("Error while writing"), 0u);
        EXPECT_FALSE(Exists(path));
    }

    // Opened, but the device is full: the buffered text fails at the flush,
    // and text larger than the buffer fails at the write itself.
    const std::string full = m_dir.File("full.txt");
    const std::string longTag(1 << 16, 'L');
    std::list<std::string> tags = CIM::GetSupportedCILogTags();
    tags.push_back(longTag);
    TCCIMDebugLog debugLog(full, tags);
    ASSERT_EQ(::symlink("/dev/full", full.c_str()), 0);
    struct Step {
        std::string tag;
        std::string failure;
    };
    for (const Step& step : {Step{"CI_API", "Flush failed!"}, Step{longTag, "Write failed!"}}) {
        m_log.Clear();
        EXPECT_TRUE(debugLog.ChangeLevel(step.tag, kOn));
        const std::vector<std::string> lines = m_log.Lines();
        ASSERT_GE(lines.size(), 3u);
        const size_t n = lines.size();
        EXPECT_NE(lines[n - 3].find(" I/CI_CORE("), std::string::npos);
        EXPECT_NE(lines[n - 3].find("> " + step.failure), std::string::npos) << lines[n - 3];
        EXPECT_NE(lines[n - 2].find(" E/CI_CORE("), std::string::npos);
        EXPECT_NE(lines[n - 2].find("> Error while writing to the file " + full),
                  std::string::npos)
            << lines[n - 2];
        EXPECT_NE(lines[n - 1].find("> Current configuration saved."), std::string::npos);
        EXPECT_EQ(debugLog.GetLevel(step.tag), kOn);
    }
}

TEST_F(DebugLogTest, SwitchedOffTagIsReallySilencedInTheLog) {
    TCCIMDebugLog debugLog(m_path, CIM::GetSupportedCILogTags());
    ASSERT_TRUE(debugLog.ChangeLevel("CI_MODULE", kOn));
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "CI_MODULE", "module line 1");
    ASSERT_TRUE(debugLog.ChangeLevel("CI_MODULE", kOff));
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "CI_MODULE", "module line 2");
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "CI_API", "api line");
    ASSERT_TRUE(debugLog.ToggleTag("CI_MODULE"));
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "CI_MODULE", "module line 3");
    EXPECT_EQ(m_log.Count("module line 1"), 1u);
    EXPECT_EQ(m_log.Count("module line 2"), 0u);
    EXPECT_EQ(m_log.Count("api line"), 1u);
    EXPECT_EQ(m_log.Count("module line 3"), 1u);

    // The library logs under "CI_CORE": switching that off silences the class
    // itself, down to its own stop message.
    ASSERT_TRUE(debugLog.ChangeLevel("CI_CORE", kOn));
    m_log.Clear();
    ASSERT_TRUE(debugLog.ChangeLevel("CI_CORE", kOff));
    ASSERT_TRUE(debugLog.ToggleTag("CI_API"));
    EXPECT_EQ(m_log.Lines().size(), 1u);  // only "tag[CI_CORE], level[OFF]"
    EXPECT_EQ(CountExact(m_log, "tag[CI_CORE], level[OFF]"), 1u);
    ASSERT_TRUE(debugLog.ToggleTag("CI_CORE"));
    EXPECT_EQ(CountExact(m_log, "start dlog tag [CI_CORE]. result[0]."), 1u);
    EXPECT_EQ(cimtest::ReadFile(m_path), "CI_API CI_CORE CI_MODULE");
}

}  // namespace
