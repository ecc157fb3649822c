// Output lines of log entries and the function trace: header layout, category
// cut and fallback, indentation and its limit marker, line feeds, ENTER and the
// three forms of the RETURN line, and the thread depth that they drive.

#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "log/Log.h"
#include "log/LogEntry.h"
#include "log/LogFn.h"
#include "log_TestSupport.h"

using kt::Log;
using kt::LogEntry;
using kt::LogFn;
using kt_test::RecordingListener;

namespace {

const std::string kHeader = R"(\[\d{6}\.\d{6} )";

std::string Formatted(const char* category, int level, uint16_t depth, const std::string& msg) {
    LogEntry entry(category, static_cast<LogEntry::Level>(level), depth, msg);
    return entry.FormatMessage().m_formattedMessage;
}

std::string IdsPattern() {
    char ids[32];
    std::snprintf(ids, sizeof(ids), "%05u:%05u", kt::LogUtils::GetCurrentProcessId(),
                  kt::LogUtils::GetCurrentThreadId());
    return ids;
}

// ---------------------------------------------------------------------------
// LogEntry

TEST(LogEntryLine, HeaderLayoutWithLevelLetters) {
    const char* letters = "EWIDT";
    for (int level = 0; level < 5; ++level) {
        const std::string line = Formatted("DDI", level, 0, "text");
        EXPECT_TRUE(std::regex_match(
            line, std::regex(kHeader + "DDI " + IdsPattern() + " " + letters[level] + R"(\] text)")))
            << line;
    }
    for (int level : {5, 100, -1}) {
        const std::string line = Formatted("DDI", level, 0, "text");
        EXPECT_NE(line.find(" ?] text"), std::string::npos) << line;
    }
}

TEST(LogEntryLine, CategoryIsCutToThreeLettersOrReplacedWhenMissing) {
    EXPECT_NE(Formatted("LONG", 2, 0, "m").find(" LON "), std::string::npos);
    EXPECT_NE(Formatted("AB", 2, 0, "m").find(" AB "), std::string::npos);
    EXPECT_NE(Formatted("", 2, 0, "m").find(" ??? "), std::string::npos);
    EXPECT_NE(Formatted(nullptr, 2, 0, "m").find(" ??? "), std::string::npos);
    LogEntry empty("", LogEntry::Info, 0, "m");
    EXPECT_EQ(empty.m_category, "???");
    LogEntry full("LONG", LogEntry::Info, 0, "m");
    EXPECT_EQ(full.m_category, "LONG") << "only the output line is cut";
}

TEST(LogEntryLine, TwoBlanksPerDepthAndTheMarkerFromDepth31) {
    auto afterBracket = [](const std::string& line) { return line.substr(line.find("] ") + 2); };
    EXPECT_EQ(afterBracket(Formatted("DDI", 2, 0, "m")), "m");
    EXPECT_EQ(afterBracket(Formatted("DDI", 2, 2, "m")), "    m");
    EXPECT_EQ(afterBracket(Formatted("DDI", 2, 5, "m")), std::string(10, ' ') + "m");
    EXPECT_EQ(afterBracket(Formatted("DDI", 2, 30, "m")), std::string(60, ' ') + "m");
    const std::string marker = "-log-depth-limit-exceeded-" + std::string(34, ' ') + "m";
    EXPECT_EQ(afterBracket(Formatted("DDI", 2, 31, "m")), marker);
    EXPECT_EQ(afterBracket(Formatted("DDI", 2, 40, "m")), marker);
    EXPECT_EQ(afterBracket(Formatted("DDI", 2, 65535, "m")), marker);
}

TEST(LogEntryLine, EveryLineFeedOfTheMessageBecomesByteB6) {
    const std::string line = Formatted("DDI", 2, 1, "a\nb\n");
    EXPECT_EQ(line.find('\n'), std::string::npos);
    const std::string tail = line.substr(line.find("] ") + 2);
    EXPECT_EQ(tail, std::string("  a\xB6" "b\xB6"));
    LogEntry entry("DDI", LogEntry::Info, 0, "x\ny");
    entry.FormatMessage();
    EXPECT_EQ(entry.m_message, "x\ny") << "the message itself is kept for the console";
}

// ---------------------------------------------------------------------------
// LogFn

class TraceTest : public ::testing::Test {
protected:
    void SetUp() override { Use(LogEntry::Trace); }
    void TearDown() override {
        while (Log::DecreaseThreadDepth()) {
        }
    }
    void Use(LogEntry::Level level) {
        m_log = std::make_shared<Log>(level);
        m_listener = std::make_shared<RecordingListener>();
        ASSERT_TRUE(m_log->AddListener(std::static_pointer_cast<kt::ILogListener>(m_listener)));
    }
    std::vector<kt_test::DeliveredLine> Lines() {
        m_log->Flush(0);
        return m_listener->Lines();
    }
    std::vector<std::string> Messages() {
        m_log->Flush(0);
        return m_listener->Messages();
    }

    std::shared_ptr<Log> m_log;
    std::shared_ptr<RecordingListener> m_listener;
};

const char* const kFn = "int16 tavik_ddi_get_lib_version(uns16*, uns16*, uns16*)";
const std::regex kReturnTime(R"( \[\d+us\]$)");

std::string StripElapsed(const std::string& text) {
    return std::regex_replace(text, kReturnTime, " [Nus]");
}

TEST_F(TraceTest, EnterAndReturnWithResultThenValues) {
    {
        LogFn fn(m_log, "DDI", kFn);
        ASSERT_TRUE(fn.WillBeLogged());
        fn.LogEnterMessage("pVerMajor=0x%p", reinterpret_cast<void*>(0x10));
        fn.SetReturnArgs("version %u.%u.%u", 3u, 1u, 88u);
        fn.SetReturnResult("%s", "KZ_ERR_NONE");
    }
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].message, std::string(kFn) + ": ENTER (pVerMajor=0x0x10)");
    EXPECT_EQ(lines[0].level, LogEntry::Trace);
    EXPECT_EQ(lines[0].category, "DDI");
    EXPECT_TRUE(std::regex_match(lines[1].message, std::regex(".*: RETURN \\(KZ_ERR_NONE, version 3\\.1\\.88\\) \\[\\d+us\\]")))
        << lines[1].message;
    EXPECT_EQ(StripElapsed(lines[1].message),
              std::string(kFn) + ": RETURN (KZ_ERR_NONE, version 3.1.88) [Nus]");
    EXPECT_EQ(lines[0].depth, 0);
    EXPECT_EQ(lines[1].depth, 0);
    EXPECT_EQ(Log::GetThreadDepth(), 0);
}

TEST_F(TraceTest, ReturnLineWithOnlyResultOnlyValuesOrNeither) {
    {
        LogFn fn(m_log, "DDI", "f");
        fn.LogEnterMessage("%s", "");
        fn.SetReturnResult("%s", "KZ_ERR_NONE");
    }
    {
        LogFn fn(m_log, "DDI", "f");
        fn.LogEnterMessage("%s", "");
        fn.SetReturnArgs("version %u.%u.%u", 3u, 1u, 88u);
    }
    {
        LogFn fn(m_log, "DDI", "f");
        fn.LogEnterMessage("%s", "");
    }
    const auto m = Messages();
    ASSERT_EQ(m.size(), 6u);
    EXPECT_EQ(m[0], "f: ENTER ()");
    EXPECT_EQ(StripElapsed(m[1]), "f: RETURN (KZ_ERR_NONE) [Nus]");
    EXPECT_EQ(StripElapsed(m[3]), "f: RETURN (version 3.1.88) [Nus]");
    EXPECT_EQ(StripElapsed(m[5]), "f: RETURN () [Nus]");
}

TEST_F(TraceTest, ElapsedMicrosecondsCoverTheCall) {
    {
        LogFn fn(m_log, "DDI", "slow");
        fn.LogEnterMessage("%s", "");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const auto m = Messages();
    ASSERT_EQ(m.size(), 2u);
    unsigned long us = 0;
    ASSERT_EQ(std::sscanf(m[1].c_str(), "slow: RETURN () [%luus]", &us), 1) << m[1];
    EXPECT_GE(us, 20000u);
    EXPECT_LT(us, 2000000u);
}

TEST_F(TraceTest, MessagesInsideAreOneDeeperAndNestedCallsIndent) {
    {
        LogFn outer(m_log, "DDI", "outer");
        outer.LogEnterMessage("pDdi=0x%p", static_cast<void*>(nullptr));
        if (outer.WillBeLogged(LogEntry::Info)) {
            outer.LogMessage(LogEntry::Info, "Searching for user mode drivers (%s)...",
                             "tavik_*.x86_64.umd");
        }
        {
            LogFn inner(m_log, "DDI", "inner");
            inner.LogEnterMessage("%d", 1);
            inner.LogMessage(LogEntry::Error, "%s", "multi\nline");
        }
    }
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 6u);
    const std::vector<uint16_t> depths{0, 1, 1, 2, 1, 0};
    EXPECT_EQ(lines[0].message, "outer: ENTER (pDdi=0x(nil))");
    EXPECT_EQ(lines[1].message, "outer: Searching for user mode drivers (tavik_*.x86_64.umd)...");
    EXPECT_EQ(lines[2].message, "inner: ENTER (1)");
    EXPECT_EQ(lines[3].message, "inner: multi\nline");
    EXPECT_EQ(lines[3].level, LogEntry::Error);
    EXPECT_TRUE(std::regex_search(lines[3].formatted, std::regex(R"( E\]     inner: multi\xB6line$)")))
        << lines[3].formatted;
    EXPECT_EQ(lines[5].depth, 0) << "the outer return line is back at the caller's depth";
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(lines[i].depth, depths[i]) << i;
    }
    EXPECT_EQ(Log::GetThreadDepth(), 0);
}

TEST_F(TraceTest, SecondEnterLogsNothingAndKeepsDepth) {
    {
        LogFn fn(m_log, "DDI", "f");
        fn.LogEnterMessage("%s", "first");
        fn.LogEnterMessage("%s", "second");
        EXPECT_EQ(Log::GetThreadDepth(), 1);
    }
    const auto m = Messages();
    ASSERT_EQ(m.size(), 2u);
    EXPECT_EQ(m[0], "f: ENTER (first)");
    EXPECT_EQ(Log::GetThreadDepth(), 0);
}

TEST_F(TraceTest, ReturnWithoutEnterAtDepthZeroReportsIncorrectIndentation) {
    { LogFn fn(m_log, "DDI", "f"); }
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].message, "f: Log indentation is incorrect");
    EXPECT_EQ(lines[0].level, LogEntry::Error);
    EXPECT_EQ(StripElapsed(lines[1].message), "f: RETURN () [Nus]");
    EXPECT_EQ(Log::GetThreadDepth(), 0);
}

TEST_F(TraceTest, ExceptionThroughATracedCallShowsInTheResult) {
    try {
        LogFn fn(m_log, "DDI", "f");
        fn.LogEnterMessage("%s", "");
        fn.SetReturnResult("%s", "KZ_ERR_NONE");
        throw std::runtime_error("boom");
    } catch (const std::runtime_error&) {
    }
    const auto m = Messages();
    ASSERT_EQ(m.size(), 2u);
    EXPECT_EQ(StripElapsed(m[1]), "f: RETURN (UNCAUGHT_EXCEPTION) [Nus]");
}

TEST_F(TraceTest, MissingCategoryIsShownAsQuestionMarksAndNullSignatureIsRejected) {
    {
        LogFn fn(m_log, nullptr, "f");
        fn.LogEnterMessage("%s", "");
    }
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].category, "???");
    EXPECT_THROW(LogFn(m_log, "DDI", nullptr), std::logic_error);
}

TEST_F(TraceTest, TracingOffMeansNoEnterNoReturnAndNoDepthChange) {
    Use(LogEntry::Debug);
    {
        LogFn fn(m_log, "DDI", "f");
        EXPECT_FALSE(fn.WillBeLogged());
        EXPECT_TRUE(fn.WillBeLogged(LogEntry::Debug));
        if (fn.WillBeLogged()) {
            fn.LogEnterMessage("%s", "");
        }
        fn.LogMessage(LogEntry::Warning, "%s", "kept");
        fn.LogMessage(LogEntry::Trace, "%s", "filtered");
        EXPECT_EQ(Log::GetThreadDepth(), 0);
    }
    EXPECT_EQ(Messages(), std::vector<std::string>{"f: kept"});
    EXPECT_EQ(Log::GetThreadDepth(), 0);
}

TEST(TraceWithoutLog, EveryOperationIsSafeAndSilent) {
    LogFn fn(nullptr, "DDI", "f");
    EXPECT_FALSE(fn.WillBeLogged());
    EXPECT_FALSE(fn.WillBeLogged(LogEntry::Error));
    fn.LogEnterMessage("%s", "x");
    fn.LogMessage(LogEntry::Error, "%s", "x");
    fn.DoLogMessage(LogEntry::Error, "x");
    fn.SetReturnArgs("%d", 1);
    fn.SetReturnResult("%s", "KZ_ERR_NONE");
    EXPECT_EQ(Log::GetThreadDepth(), 1) << "an explicit enter raises the depth";
    EXPECT_TRUE(Log::DecreaseThreadDepth());
}

TEST_F(TraceTest, UnformattableArgumentsNeverThrowOnTheCallersPath) {
    {
        LogFn fn(m_log, "DDI", "f");
        EXPECT_NO_THROW(fn.LogEnterMessage("%lc", static_cast<wint_t>(0x20AC)));
        EXPECT_NO_THROW(fn.LogMessage(LogEntry::Error, "%lc", static_cast<wint_t>(0x20AC)));
        EXPECT_NO_THROW(fn.SetReturnResult("%lc", static_cast<wint_t>(0x20AC)));
        EXPECT_NO_THROW(m_log->AddEntry("DDI", LogEntry::Error, "%lc", static_cast<wint_t>(0x20AC)));
        fn.LogEnterMessage("%s", "ok");
    }
    const auto m = Messages();
    ASSERT_EQ(m.size(), 2u);
    EXPECT_EQ(m[0], "f: ENTER (ok)");
}

TEST_F(TraceTest, ThirtyTwoNestedCallsShowTheMarker) {
    std::vector<std::unique_ptr<LogFn>> stack;
    for (int i = 0; i < 32; ++i) {
        stack.push_back(std::make_unique<LogFn>(m_log, "DDI", "nested"));
        stack.back()->LogEnterMessage("%d", i);
    }
    while (!stack.empty()) {
        stack.pop_back();
    }
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 64u);
    EXPECT_NE(lines[30].formatted.find("] " + std::string(60, ' ') + "nested: ENTER (30)"),
              std::string::npos);
    EXPECT_NE(lines[31].formatted.find("] -log-depth-limit-exceeded-" + std::string(34, ' ') +
                                       "nested: ENTER (31)"),
              std::string::npos)
        << lines[31].formatted;
    EXPECT_EQ(Log::GetThreadDepth(), 0);
}

} // namespace
