// The set-up: level texts, when a log and a file exist, and the library's own
// set-up built from the environment at load.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "log/Log.h"
#include "log/LogDdi.h"
#include "log/LogSetup.h"
#include "log/LogSetupFile.h"
#include "log_TestSupport.h"

using kt::Log;
using kt::LogEntry;
using kt::LogSetup;
using kt::LogSetupFile;
using kt_test::RecordingListener;

namespace {

// The most verbose level a log lets through, probed with a listener attached.
int MaxLevelOf(const std::shared_ptr<Log>& log) {
    auto l = std::make_shared<RecordingListener>();
    log->AddListener(std::static_pointer_cast<kt::ILogListener>(l));
    int max = -1;
    for (int level = 0; level <= 4; ++level) {
        if (log->WillBeLogged(static_cast<LogEntry::Level>(level))) {
            max = level;
        }
    }
    log->RemoveListener(std::static_pointer_cast<kt::ILogListener>(l));
    return max;
}

int LevelFor(const char* text) {
    LogSetup setup(text);
    const auto log = setup.GetLog();
    return log ? MaxLevelOf(log) : -1;
}

TEST(LogSetupLevel, OnlyTheFirstCharacterCountsAndNumbersMeanTrace) {
    EXPECT_EQ(LevelFor("E"), LogEntry::Error);
    EXPECT_EQ(LevelFor("e"), LogEntry::Error);
    EXPECT_EQ(LevelFor("Error"), LogEntry::Error);
    EXPECT_EQ(LevelFor("err"), LogEntry::Error);
    EXPECT_EQ(LevelFor("warning"), LogEntry::Warning);
    EXPECT_EQ(LevelFor("W"), LogEntry::Warning);
    EXPECT_EQ(LevelFor("Info"), LogEntry::Info);
    EXPECT_EQ(LevelFor("i"), LogEntry::Info);
    EXPECT_EQ(LevelFor("debug"), LogEntry::Debug);
    EXPECT_EQ(LevelFor("D"), LogEntry::Debug);
    EXPECT_EQ(LevelFor("T"), LogEntry::Trace);
    EXPECT_EQ(LevelFor("2"), LogEntry::Trace);
    EXPECT_EQ(LevelFor("0"), LogEntry::Trace);
    EXPECT_EQ(LevelFor("1"), LogEntry::Trace);
    EXPECT_EQ(LevelFor("verbose"), LogEntry::Trace);
    EXPECT_EQ(LevelFor(""), LogEntry::Trace);
    EXPECT_EQ(LevelFor(" E"), LogEntry::Trace) << "no trimming";
}

TEST(LogSetupLevel, NullTextMeansNoLog) {
    LogSetup setup(nullptr);
    EXPECT_FALSE(setup.GetLog());
    EXPECT_TRUE(setup.Initialize("W"));
    EXPECT_TRUE(setup.GetLog());
    EXPECT_FALSE(setup.Initialize(nullptr));
    EXPECT_FALSE(setup.GetLog());
}

class LogSetupFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_dir = kt_test::MakeTempDir();
        m_path = m_dir + "/setup.log";
    }
    void TearDown() override {
        unlink(m_path.c_str());
        rmdir(m_dir.c_str());
    }
    bool FileExists() const {
        struct stat st;
        return stat(m_path.c_str(), &st) == 0;
    }
    std::string m_dir;
    std::string m_path;
};

TEST_F(LogSetupFileTest, NoPathMeansNoLogAndNoFile) {
    LogSetupFile nullPath(nullptr, "T");
    LogSetupFile emptyPath("", "T");
    EXPECT_FALSE(nullPath.GetLog());
    EXPECT_FALSE(emptyPath.GetLog());
    EXPECT_EQ(kt_test::CountDirEntries(m_dir.c_str()), 0u);
}

TEST_F(LogSetupFileTest, NullLevelTextMeansNoLog) {
    LogSetupFile setup(m_path.c_str(), nullptr);
    EXPECT_FALSE(setup.GetLog());
    EXPECT_FALSE(FileExists());
}

TEST_F(LogSetupFileTest, PathAndLevelGiveALogWithItsFileSink) {
    {
        LogSetupFile setup(m_path.c_str(), "warning");
        const auto log = setup.GetLog();
        ASSERT_TRUE(log);
        EXPECT_TRUE(log->WillBeLogged(LogEntry::Warning)) << "the file sink is registered";
        EXPECT_FALSE(log->WillBeLogged(LogEntry::Info));
        log->AddEntry("DDI", LogEntry::Warning, "%s", "kept");
        log->AddEntry("DDI", LogEntry::Info, "%s", "filtered");
    }
    const auto lines = kt_test::ReadLines(m_path);
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_NE(lines[4].find(" W] kept"), std::string::npos) << lines[4];
    EXPECT_EQ(lines[5].rfind("[Logging stopped", 0), 0u) << lines[5];
}

TEST_F(LogSetupFileTest, UnopenablePathGivesASilentLog) {
    const std::string bad = m_dir + "/missing/setup.log";
    const size_t fds = kt_test::CountDescriptors();
    {
        LogSetupFile setup(bad.c_str(), "");
        const auto log = setup.GetLog();
        ASSERT_TRUE(log) << "the log exists, only its sink is inert";
        EXPECT_FALSE(log->WillBeLogged(LogEntry::Error));
    }
    EXPECT_EQ(kt_test::CountDescriptors(), fds);
    EXPECT_EQ(kt_test::CountDirEntries(m_dir.c_str()), 0u);
}

TEST_F(LogSetupFileTest, SetUpOutlivingItsLastUserLeavesNoThread) {
    const size_t threads = kt_test::CountThreads();
    std::shared_ptr<Log> kept;
    {
        LogSetupFile setup(m_path.c_str(), "");
        kept = setup.GetLog();
        kept->AddEntry("DDI", LogEntry::Info, "%s", "x");
        EXPECT_EQ(kt_test::SettledThreadCount(threads + 1), threads + 1);
    }
    // The sink is gone, the log lives on in this test's hands; its worker ends
    // only with the log.
    kept.reset();
    EXPECT_EQ(kt_test::SettledThreadCount(threads), threads);
}

TEST(LogDdiHelpers, TraceObjectOnlyWhenTheLibraryLogs) {
    // This test program's own set-up was built from its environment at start.
    const char* file = std::getenv("TAVIK_DDI_LOG_FILE");
    if (file == nullptr || file[0] == '\0') {
        EXPECT_FALSE(kt::LogDdi::GetLog());
        EXPECT_EQ(kt::LogDdi::CreateLogFn("int16 tavik_ddi_init(Ddi*)"), nullptr);
    } else {
        EXPECT_TRUE(kt::LogDdi::GetLog());
        EXPECT_NE(kt::LogDdi::CreateLogFn("int16 tavik_ddi_init(Ddi*)"), nullptr);
    }
    EXPECT_TRUE(kt::LogDdi::setup) << "the set-up object exists after load";
}

} // namespace
