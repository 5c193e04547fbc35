// Log tags and levels, the configuration file, and the platform's tag state.
#include <cimcore/CIMDebugLog.h>

#include "debug_menu.h"
#include "dlog.h"

#include "TestSupport.h"

#include <gmock/gmock.h>

#include <future>
#include <map>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

using CIM::ECIMLogLevel;
using CIM::TCCIMDebugLog;

const ECIMLogLevel kOn = ECIMLogLevel::LOG_LVL_ON;
const ECIMLogLevel kOff = ECIMLogLevel::LOG_LVL_OFF;

// Whether `work` ends within 2 s (scaled); if not, opening the FIFO at `fifo`
// from both ends lets it go.
template <class T>
bool EndsInTime(std::future<T>& work, const std::string& fifo) {
    if (work.wait_for(cimtest::Scaled(std::chrono::seconds(2))) == std::future_status::ready) {
        return true;
    }
    ::close(::open(fifo.c_str(), O_RDWR));
    return false;
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

TEST_F(DebugLogTest, FileIsReadAsExactNamesBetweenSingleBlanks) {
    // Content, and the tags on as saved.
    const std::pair<std::string, std::string> cases[] = {
        {"CI_CORE\n", ""},                      // the line feed stays in the name
        {"CI_CORE  CI_API", "CI_API CI_CORE"},  // a doubled blank: an empty name
        {"ci_core CI_API\r CI_DAEMON\tCI_CAM NOT_A_TAG CI_MODULE", "CI_MODULE"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE('"' + c.first + '"');
        cimtest::WriteFile(m_path, c.first);
        // The constructor's tags join the supported ones, off unless named;
        // loading never writes the file.
        const TCCIMDebugLog debugLog(m_path, {"CI_CORE", "X_EXTRA"});
        EXPECT_EQ(debugLog.m_ToString(), c.second);
        EXPECT_EQ(debugLog.GetLevels().size(), m_supported.size() + 1);
        EXPECT_EQ(File(), c.first);
    }
}

// A change switches the platform's tag, which then really drops the tag's
// lines; a request that changes nothing calls and saves nothing.
TEST_F(DebugLogTest, ChangesSwitchThePlatformTagAndOthersCallAndSaveNothing) {
    TCCIMDebugLog debugLog(m_path, m_supported);
    // Not CI_CORE: the library's own lines carry that tag.
    ASSERT_TRUE(debugLog.ChangeLevel("CI_API", kOn));
    ASSERT_TRUE(debugLog.ChangeLevel("CI_API", kOff));
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "CI_API", "api line 1");
    ASSERT_TRUE(debugLog.ToggleTag("CI_API"));
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "CI_API", "api line 2");
    EXPECT_EQ(Logged("start dlog tag [CI_API]. result[0]."), 2u);
    EXPECT_EQ(Logged("stop dlog tag [CI_API] result[0]."), 1u);
    EXPECT_EQ(m_log.Count("api line 1"), 0u);
    EXPECT_EQ(m_log.Count("api line 2"), 1u);

    cimtest::WriteFile(m_path, "UNTOUCHED");
    m_log.Clear();
    EXPECT_FALSE(debugLog.ChangeLevel("CI_API", kOn));
    EXPECT_EQ(Logged("The same level."), 1u);
    EXPECT_FALSE(debugLog.ToggleTag("NOT_A_TAG"));
    cimtest::AssertRecorder asserts;
    EXPECT_FALSE(debugLog.ChangeLevel("NOT_A_TAG", kOn));
    EXPECT_FALSE(debugLog.ChangeLevel(ECIMLogLevel::LOG_LVL_INVALID));
    EXPECT_EQ(asserts.Paths(), std::vector<std::string>(2, "src/debuglog/CIMDebugLog"));
    EXPECT_EQ(File(), "UNTOUCHED");
    EXPECT_EQ(m_log.Count("dlog tag") + m_log.Count("saved"), 0u);
}

// A path that is missing or opens but cannot be read (a folder, a FIFO)
// gives the constructor's tags, all off, and writes nothing; neither loading
// nor saving ever waits.
TEST_F(DebugLogTest, UnreadablePathsGiveTheConstructorsTagsAndNothingWaits) {
    const std::string missing = m_dir.File("missing.txt");
    const std::string fifo = m_dir.File("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& path : {missing, m_dir.Path(), fifo}) {
        SCOPED_TRACE(path);
        auto loaded = std::async(std::launch::async, [&path] {
            return TCCIMDebugLog(path, {"CI_CORE", "X_EXTRA"}).GetLevels();
        });
        EXPECT_TRUE(EndsInTime(loaded, fifo)) << "the constructor waits";
        EXPECT_EQ(loaded.get(),
                  (std::map<std::string, ECIMLogLevel>{{"CI_CORE", kOff}, {"X_EXTRA", kOff}}));
    }
    EXPECT_FALSE(cimtest::Exists(missing));

    TCCIMDebugLog debugLog(m_path, m_supported);
    ASSERT_EQ(::mkfifo(m_path.c_str(), 0600), 0);  // put there after the load
    auto saved = std::async(std::launch::async, [&debugLog] { return debugLog.ChangeLevel(kOn); });
    EXPECT_TRUE(EndsInTime(saved, m_path)) << "the save waits for a reader";
    EXPECT_TRUE(saved.get());
}

TEST_F(DebugLogTest, FailuresKeepWhatCouldBeChanged) {
    // Root ignores permission bits: a file used as a folder cannot be opened,
    // which still counts as done.
    cimtest::WriteFile(m_dir.File("plain"), "x");
    TCCIMDebugLog unwritable(m_dir.File("plain/c.txt"), m_supported);
    EXPECT_TRUE(unwritable.ChangeLevel(kOn));
    EXPECT_EQ(unwritable.m_ToString(),
              "CI_API CI_APPLICATION CI_CAM CI_CAM_IMPL CI_CORE CI_DAEMON "
              "CI_MODULE CI_PVRCIP CI_TRUST_APP");

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
    EXPECT_THAT(std::vector<std::string>(messages.end() - 3, messages.end()),
                ElementsAre(HasSubstr("> Flush failed!"),
                            HasSubstr("> Error while writing to the file " + full),
                            HasSubstr("> Current configuration saved.")));
}

}  // namespace
