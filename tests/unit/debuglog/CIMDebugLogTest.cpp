// Log tags and levels, the configuration file, and the platform's tag state.
#include <cimcore/CIMDebugLog.h>

#include "debug_menu.h"
#include "dlog.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

using CIM::ECIMLogLevel;
using CIM::TCCIMDebugLog;
using Levels = std::map<std::string, ECIMLogLevel>;

const ECIMLogLevel kOn = ECIMLogLevel::LOG_LVL_ON;
const ECIMLogLevel kOff = ECIMLogLevel::LOG_LVL_OFF;
const ECIMLogLevel kInvalid = ECIMLogLevel::LOG_LVL_INVALID;
const std::string kAllInMapOrder =
    "CI_API CI_APPLICATION CI_CAM CI_CAM_IMPL CI_CORE CI_DAEMON CI_MODULE CI_PVRCIP CI_TRUST_APP";

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
    // The host platform keeps tag state per process: leave every tag on.
    void TearDown() override {
        for (const std::string& tag : CIM::GetSupportedCILogTags()) {
            startdlogtagbydefault(tag.c_str());
        }
    }

    std::string File() const { return cimtest::ReadFile(m_path); }
    // Log lines whose message starts with `text`.
    size_t Logged(const std::string& text) const { return m_log.Count("> " + text); }

    cimtest::TempDir m_dir;
    cimtest::LogCapture m_log;
    const std::string m_path = m_dir.File("ci_log_configuration_data.txt");
    const std::list<std::string> m_supported = CIM::GetSupportedCILogTags();
};

TEST_F(DebugLogTest, ConstructionFollowsTheFileAndNeverWritesIt) {
    const std::list<std::string> tags = {"CI_CORE", "X_EXTRA"};
    EXPECT_EQ(TCCIMDebugLog(m_path, tags).GetLevels(),
              (Levels{{"CI_CORE", kOff}, {"X_EXTRA", kOff}}));
    EXPECT_FALSE(cimtest::Exists(m_path));

    cimtest::WriteFile(m_path, "CI_API CI_CORE");
    Levels expected = {{"X_EXTRA", kOff}};
    for (const std::string& tag : m_supported) {
        expected[tag] = tag == "CI_API" || tag == "CI_CORE" ? kOn : kOff;
    }
    EXPECT_EQ(TCCIMDebugLog(m_path, tags).GetLevels(), expected);
    EXPECT_EQ(File(), "CI_API CI_CORE");
    EXPECT_EQ(m_log.Count("dlog tag"), 0u) << "construction switches no tag";
}

TEST_F(DebugLogTest, ReadsOnlyExactNamesSeparatedByBlanks) {
    struct Case {
        std::string content;
        size_t pieces;
        std::set<std::string> on;
    };
    const Case cases[] = {
        {"CI_CORE\n", 1, {}},                           // the line feed stays in the piece
        {"CI_CORE  CI_API", 3, {"CI_API", "CI_CORE"}},  // doubled blank: an empty piece
        {"ci_core CI_API\r CI_DAEMON\tCI_CAM NOT_A_TAG CI_MODULE", 5, {"CI_MODULE"}},
        {" CI_CAM CI_CAM ", 3, {"CI_CAM"}},  // no empty last piece
        {"", 0, {}},                         // present, so all nine tags, off
    };
    for (const Case& c : cases) {
        SCOPED_TRACE('"' + c.content + '"');
        cimtest::WriteFile(m_path, c.content);
        const TCCIMDebugLog debugLog(m_path, {});
        EXPECT_EQ(TagsOn(debugLog), c.on);
        EXPECT_EQ(debugLog.GetLevels().size(), 9u);
        EXPECT_EQ(debugLog.m_Split(c.content, ' ').size(), c.pieces);
    }

    // Reloading drops tags outside the supported set.
    TCCIMDebugLog debugLog(m_path, {"X_EXTRA"});
    EXPECT_TRUE(debugLog.m_LoadFromString("X_EXTRA CI_PVRCIP"));
    EXPECT_EQ(debugLog.GetLevel("X_EXTRA"), kInvalid);
    EXPECT_EQ(TagsOn(debugLog), (std::set<std::string>{"CI_PVRCIP"}));
}

TEST_F(DebugLogTest, SavedFileListsTagsThatAreOnInMapOrder) {
    TCCIMDebugLog debugLog(m_path, m_supported);
    ASSERT_TRUE(debugLog.ChangeLevel("CI_MODULE", kOn));
    ASSERT_TRUE(debugLog.ChangeLevel("CI_API", kOn));
    EXPECT_EQ(File(), "CI_API CI_MODULE");
    ASSERT_TRUE(debugLog.ChangeLevel(kOn));
    EXPECT_EQ(File(), kAllInMapOrder);
    ASSERT_TRUE(debugLog.ChangeLevel("CI_CAM", kOff));
    EXPECT_EQ(TCCIMDebugLog(m_path, {}).GetLevels(), debugLog.GetLevels());
    ASSERT_TRUE(debugLog.ChangeLevel(kOff));
    EXPECT_TRUE(cimtest::Exists(m_path));
    EXPECT_EQ(File(), "");
}

TEST_F(DebugLogTest, ChangesReachThePlatformOnlyWhenTheLevelDiffers) {
    TCCIMDebugLog debugLog(m_path, m_supported);
    ASSERT_TRUE(debugLog.ChangeLevel("CI_CORE", kOn));
    EXPECT_EQ(Logged("tag[CI_CORE], level[ON]"), 1u);
    EXPECT_EQ(Logged("start dlog tag [CI_CORE]. result[0]."), 1u);
    ASSERT_TRUE(debugLog.ChangeLevel("CI_API", kOn));
    ASSERT_TRUE(debugLog.ChangeLevel("CI_API", kOff));
    EXPECT_EQ(Logged("stop dlog tag [CI_API] result[0]."), 1u);
    EXPECT_EQ(Logged("Current configuration saved."), 3u);

    // The same level again: logged, nothing called, nothing saved.
    cimtest::WriteFile(m_path, "UNTOUCHED");
    m_log.Clear();
    EXPECT_FALSE(debugLog.ChangeLevel("CI_CORE", kOn));
    EXPECT_EQ(File(), "UNTOUCHED");
    EXPECT_EQ(Logged("The same level."), 1u);
    EXPECT_EQ(m_log.Count("dlog tag"), 0u);
    EXPECT_EQ(m_log.Count("saved"), 0u);

    // All on with one on already: still true, and one save.
    m_log.Clear();
    EXPECT_TRUE(debugLog.ChangeLevel(kOn));
    EXPECT_EQ(Logged("The same level."), 1u);
    EXPECT_EQ(m_log.Count("start dlog tag"), 8u);
    EXPECT_EQ(Logged("Current configuration saved."), 1u);
    EXPECT_EQ(File(), kAllInMapOrder);
}

TEST_F(DebugLogTest, RefusedTagKeepsItsLevelWhileTheOthersAreSaved) {
    TCCIMDebugLog debugLog(m_path, m_supported);
    cimtest::ScopedEnv refuse("CIM_DLOG_REFUSE", "CI_CAM,CI_TRUST_APP");
    EXPECT_FALSE(debugLog.ChangeLevel("CI_CAM", kOn));
    EXPECT_FALSE(debugLog.ToggleTag("CI_CAM"));
    EXPECT_FALSE(cimtest::Exists(m_path));
    EXPECT_EQ(Logged("start dlog tag [CI_CAM]. result[-1]."), 2u);

    m_log.Clear();
    EXPECT_TRUE(debugLog.ChangeLevel(kOn));
    EXPECT_EQ(File(), "CI_API CI_APPLICATION CI_CAM_IMPL CI_CORE CI_DAEMON CI_MODULE CI_PVRCIP");
    EXPECT_EQ(m_log.Count(" E/CI_CORE("), 2u);
    EXPECT_EQ(m_log.Count("> Change level failed!"), 2u);
}

TEST_F(DebugLogTest, TogglesFlipSingleTagsAndDecideAllByTheFirstTag) {
    TCCIMDebugLog debugLog(m_path, m_supported);
    EXPECT_TRUE(debugLog.ToggleTag("CI_DAEMON"));
    EXPECT_EQ(File(), "CI_DAEMON");
    EXPECT_TRUE(debugLog.ToggleTag("CI_DAEMON"));
    EXPECT_EQ(debugLog.GetLevel("CI_DAEMON"), kOff);

    // Unknown tags and stray stored values are not toggled; only exactly
    // "on" is saved.
    EXPECT_FALSE(debugLog.ToggleTag("NOT_A_TAG"));
    EXPECT_TRUE(debugLog.ChangeLevel("CI_PVRCIP", ECIMLogLevel(2)));
    EXPECT_EQ(Logged("start dlog tag [CI_PVRCIP]. result[0]."), 1u);
    EXPECT_EQ(File(), "");
    EXPECT_FALSE(debugLog.ToggleTag("CI_PVRCIP"));
    EXPECT_EQ(Logged("Tag not exists or INVALID level."), 2u);

    // "CI_API" alone decides: on, so everything goes off, and the reverse.
    ASSERT_TRUE(debugLog.ChangeLevel("CI_API", kOn));
    EXPECT_EQ(debugLog.ToggleLog(), kOff);
    EXPECT_EQ(Logged("Toggle changed to [OFF] "), 1u);
    EXPECT_EQ(debugLog.GetLevel("CI_PVRCIP"), kOff);
    EXPECT_EQ(File(), "");
    ASSERT_TRUE(debugLog.ChangeLevel(kOn));
    ASSERT_TRUE(debugLog.ChangeLevel("CI_API", kOff));
    EXPECT_EQ(debugLog.ToggleLog(), kOn);
    EXPECT_EQ(File(), kAllInMapOrder);

    // No tags at all: "not on", so on, and an empty file is written.
    TCCIMDebugLog empty(m_dir.File("empty.txt"), {});
    EXPECT_EQ(empty.ToggleLog(), kOn);
    EXPECT_TRUE(cimtest::Exists(m_dir.File("empty.txt")));
}

TEST_F(DebugLogTest, BrokenContractsAreReportedAndChangeNothing) {
    TCCIMDebugLog debugLog(m_path, m_supported);
    cimtest::AssertRecorder asserts;
    EXPECT_FALSE(debugLog.ChangeLevel("NOT_A_TAG", kOn));
    EXPECT_FALSE(debugLog.ChangeLevel("CI_API", kInvalid));
    EXPECT_FALSE(debugLog.ChangeLevel(kInvalid));
    EXPECT_EQ(asserts.Expressions(),
              (std::vector<std::string>{"m_debugLevels.find( tag ) != m_debugLevels.end( )",
                                        "level != ECIMLogLevel::LOG_LVL_INVALID",
                                        "level != ECIMLogLevel::LOG_LVL_INVALID"}));
    EXPECT_EQ(debugLog.GetLevel("NOT_A_TAG"), kInvalid);
    EXPECT_TRUE(TagsOn(debugLog).empty());
    EXPECT_FALSE(cimtest::Exists(m_path));
    EXPECT_EQ(m_log.Count("dlog tag"), 0u);
}

TEST_F(DebugLogTest, WriteFailuresAreLoggedButTheChangesHold) {
    // Unopenable paths (root ignores permission bits, so use a file as a
    // folder, and a missing folder): silent, yet reported as done.
    cimtest::WriteFile(m_dir.File("plain"), "x");
    for (const std::string& path : {m_dir.File("plain/c.txt"), m_dir.File("none/c.txt")}) {
        m_log.Clear();
        TCCIMDebugLog debugLog(path, m_supported);
        EXPECT_TRUE(debugLog.ChangeLevel("CI_MODULE", kOn));
        EXPECT_TRUE(debugLog.ChangeLevel(kOn));
        EXPECT_EQ(TagsOn(debugLog).size(), 9u);
        EXPECT_EQ(m_log.Count("saved") + m_log.Count("Error while writing"), 0u);
    }

    // Opened, but the device is full: short text fails at the flush, text
    // larger than the buffer at the write itself.
    const std::string full = m_dir.File("full.txt");
    const std::string longTag(1 << 16, 'L');
    std::list<std::string> tags = m_supported;
    tags.push_back(longTag);
    TCCIMDebugLog debugLog(full, tags);  // before the link: /dev/full reads endless zeros
    ASSERT_EQ(::symlink("/dev/full", full.c_str()), 0);
    for (const auto& step : {std::make_pair(std::string("CI_API"), "Flush failed!"),
                             std::make_pair(longTag, "Write failed!")}) {
        m_log.Clear();
        EXPECT_TRUE(debugLog.ChangeLevel(step.first, kOn));
        EXPECT_EQ(debugLog.GetLevel(step.first), kOn);
        const std::vector<std::string> lines = m_log.Lines();
        ASSERT_GE(lines.size(), 3u);
        const std::pair<std::string, std::string> expected[] = {
            {" I/CI_CORE(", step.second},
            {" E/CI_CORE(", "Error while writing to the file " + full},
            {" I/CI_CORE(", "Current configuration saved."}};
        for (size_t i = 0; i < 3; ++i) {
            const std::string& line = lines[lines.size() - 3 + i];
            EXPECT_NE(line.find(expected[i].first), std::string::npos) << line;
            EXPECT_NE(line.find("> " + expected[i].second), std::string::npos) << line;
        }
    }
}

TEST_F(DebugLogTest, SwitchedOffTagIsReallySilencedInTheLog) {
    TCCIMDebugLog debugLog(m_path, m_supported);
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
}

}  // namespace
