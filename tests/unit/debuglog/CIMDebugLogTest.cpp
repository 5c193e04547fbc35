// Log tags and levels, the configuration file, and the platform's tag state.
#include <cimcore/CIMDebugLog.h>

#include "debug_menu.h"
#include "dlog.h"

#include "TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using ::testing::HasSubstr;

using CIM::ECIMLogLevel;
using CIM::TCCIMDebugLog;

const ECIMLogLevel kOn = ECIMLogLevel::LOG_LVL_ON;
const ECIMLogLevel kOff = ECIMLogLevel::LOG_LVL_OFF;
const std::string kAllInMapOrder =
    "CI_API CI_APPLICATION CI_CAM CI_CAM_IMPL CI_CORE CI_DAEMON CI_MODULE CI_PVRCIP CI_TRUST_APP";

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

TEST_F(DebugLogTest, FileIsReadAsExactNamesBetweenSingleBlanks) {
    struct Case {
        std::string content;
        size_t pieces;
        std::string on;  // as saved
    };
    const Case cases[] = {
        {"CI_CORE\n", 1, ""},                      // the line feed stays in the piece
        {"CI_CORE  CI_API", 3, "CI_API CI_CORE"},  // doubled blank: an empty piece
        {"ci_core CI_API\r CI_DAEMON\tCI_CAM NOT_A_TAG CI_MODULE", 5, "CI_MODULE"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE('"' + c.content + '"');
        cimtest::WriteFile(m_path, c.content);
        // The constructor's tags join the supported ones, off unless named;
        // loading never writes the file.
        const TCCIMDebugLog debugLog(m_path, {"CI_CORE", "X_EXTRA"});
        EXPECT_EQ(debugLog.m_ToString(), c.on);
        EXPECT_EQ(debugLog.GetLevels().size(), m_supported.size() + 1);
        EXPECT_EQ(File(), c.content);
        EXPECT_EQ(debugLog.m_Split(c.content, ' ').size(), c.pieces);
    }

    // Written back (the last file left CI_MODULE on): names that are on, in
    // map order, single blanks, no line end.
    TCCIMDebugLog debugLog(m_path, m_supported);
    ASSERT_TRUE(debugLog.ChangeLevel("CI_API", kOn));
    EXPECT_EQ(File(), "CI_API CI_MODULE");
    ASSERT_TRUE(debugLog.ChangeLevel(kOn));
    EXPECT_EQ(File(), kAllInMapOrder);
    ASSERT_TRUE(debugLog.ChangeLevel(kOff));
    EXPECT_TRUE(cimtest::Exists(m_path));
    EXPECT_EQ(File(), "");
}

TEST_F(DebugLogTest, RequestsThatChangeNothingCallAndSaveNothing) {
    TCCIMDebugLog debugLog(m_path, m_supported);
    // Not CI_CORE: the library's own lines carry that tag.
    ASSERT_TRUE(debugLog.ChangeLevel("CI_API", kOn));
    ASSERT_TRUE(debugLog.ChangeLevel("CI_API", kOff));
    EXPECT_EQ(Logged("start dlog tag [CI_API]. result[0]."), 1u);
    EXPECT_EQ(Logged("stop dlog tag [CI_API] result[0]."), 1u);

    cimtest::WriteFile(m_path, "UNTOUCHED");
    m_log.Clear();
    EXPECT_FALSE(debugLog.ChangeLevel("CI_API", kOff));
    EXPECT_EQ(Logged("The same level."), 1u);
    EXPECT_FALSE(debugLog.ToggleTag("NOT_A_TAG"));
    cimtest::AssertRecorder asserts;
    EXPECT_FALSE(debugLog.ChangeLevel("NOT_A_TAG", kOn));
    EXPECT_FALSE(debugLog.ChangeLevel(ECIMLogLevel::LOG_LVL_INVALID));
    EXPECT_EQ(asserts.Paths(), std::vector<std::string>(2, "src/debuglog/CIMDebugLog"));
    EXPECT_EQ(debugLog.m_ToString(), "");
    EXPECT_EQ(File(), "UNTOUCHED");
    EXPECT_EQ(m_log.Count("dlog tag") + m_log.Count("saved"), 0u);
}

// A path that is missing or opens but cannot be read (a folder, a read
// error, a FIFO) gives the constructor's tags, all off, and writes nothing;
// neither loading nor saving ever waits.
TEST_F(DebugLogTest, UnreadablePathsGiveTheConstructorsTagsAndNothingWaits) {
    const std::string missing = m_dir.File("missing.txt");
    const std::string fifo = m_dir.File("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::string readError = m_dir.File("eio");  // reading it at 0 fails with EIO
    ASSERT_EQ(::symlink("/proc/self/mem", readError.c_str()), 0);
    for (const std::string& path : {missing, m_dir.Path(), readError, fifo}) {
        SCOPED_TRACE(path);
        auto loaded = std::async(std::launch::async, [&path] {
            return TCCIMDebugLog(path, {"CI_CORE", "X_EXTRA"}).GetLevels();
        });
        const bool inTime =
            loaded.wait_for(cimtest::Scaled(std::chrono::seconds(2))) == std::future_status::ready;
        EXPECT_TRUE(inTime) << "the constructor waits";
        if (!inTime) {
            ::close(::open(fifo.c_str(), O_WRONLY | O_NONBLOCK));  // lets it go
        }
        EXPECT_EQ(loaded.get(),
                  (std::map<std::string, ECIMLogLevel>{{"CI_CORE", kOff}, {"X_EXTRA", kOff}}));
    }
    EXPECT_FALSE(cimtest::Exists(missing));

    TCCIMDebugLog debugLog(m_path, m_supported);
    ASSERT_EQ(::mkfifo(m_path.c_str(), 0600), 0);  // put there after the load
    auto saved = std::async(std::launch::async, [&debugLog] { return debugLog.ChangeLevel(kOn); });
    const bool inTime =
        saved.wait_for(cimtest::Scaled(std::chrono::seconds(2))) == std::future_status::ready;
    EXPECT_TRUE(inTime) << "the save waits for a reader";
    if (!inTime) {
        ::close(::open(m_path.c_str(), O_RDONLY | O_NONBLOCK));
    }
    EXPECT_TRUE(saved.get());
}

TEST_F(DebugLogTest, FailuresKeepWhatCouldBeChanged) {
    // Root ignores permission bits: a file used as a folder cannot be opened,
    // which still counts as done.
    cimtest::WriteFile(m_dir.File("plain"), "x");
    TCCIMDebugLog unwritable(m_dir.File("plain/c.txt"), m_supported);
    EXPECT_TRUE(unwritable.ChangeLevel(kOn));
    EXPECT_EQ(unwritable.m_ToString(), kAllInMapOrder);

    // A refused tag keeps its level; the others are changed and saved.
    TCCIMDebugLog debugLog(m_path, m_supported);
    cimtest::ScopedHostSetting refuse(cimhost::EHostSetting::DLOG_REFUSE, "CI_CAM,CI_TRUST_APP");
    EXPECT_FALSE(debugLog.ChangeLevel("CI_CAM", kOn));
    EXPECT_FALSE(cimtest::Exists(m_path));
    m_log.Clear();
    EXPECT_TRUE(debugLog.ChangeLevel(kOn));
    EXPECT_EQ(File(), "CI_API CI_APPLICATION CI_CAM_IMPL CI_CORE CI_DAEMON CI_MODULE CI_PVRCIP");
    EXPECT_EQ(Logged("Change level failed!"), 2u);

    // A full device fails the save; the saved line still follows the error.
    const std::string full = m_dir.File("full.txt");
    TCCIMDebugLog onFull(full, m_supported);  // before the link: /dev/full reads zeros
    ASSERT_EQ(::symlink("/dev/full", full.c_str()), 0);
    m_log.Clear();
    EXPECT_TRUE(onFull.ChangeLevel("CI_API", kOn));
    const std::vector<std::string> messages = m_log.Messages();
    ASSERT_GE(messages.size(), 3u);
    EXPECT_THAT(messages[messages.size() - 3], HasSubstr("> Flush failed!"));
    EXPECT_THAT(messages[messages.size() - 2],
                HasSubstr("> Error while writing to the file " + full));
    EXPECT_THAT(messages.back(), HasSubstr("> Current configuration saved."));
}

TEST_F(DebugLogTest, TogglesFlipOneTagOrDecideAllByCiApiAlone) {
    TCCIMDebugLog debugLog(m_path, m_supported);
    EXPECT_TRUE(debugLog.ToggleTag("CI_DAEMON"));
    EXPECT_TRUE(debugLog.ToggleTag("CI_API"));
    EXPECT_EQ(File(), "CI_API CI_DAEMON");
    EXPECT_EQ(debugLog.ToggleLog(), kOff);
    EXPECT_EQ(File(), "");
    ASSERT_TRUE(debugLog.ChangeLevel(kOn));
    ASSERT_TRUE(debugLog.ChangeLevel("CI_API", kOff));
    EXPECT_EQ(debugLog.ToggleLog(), kOn);
    EXPECT_EQ(File(), kAllInMapOrder);

    // The platform really drops the lines of a tag switched off.
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "CI_MODULE", "module line 1");
    ASSERT_TRUE(debugLog.ChangeLevel("CI_MODULE", kOff));
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "CI_MODULE", "module line 2");
    ASSERT_TRUE(debugLog.ToggleTag("CI_MODULE"));
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "CI_MODULE", "module line 3");
    EXPECT_EQ(m_log.Count("module line 1"), 1u);
    EXPECT_EQ(m_log.Count("module line 2"), 0u);
    EXPECT_EQ(m_log.Count("module line 3"), 1u);
}

}  // namespace
