// The log where the library's own set-up never takes it: sinks that hold the worker, die, throw or race; entry lines
// at every level and depth; traces nested, misused, unwound; the console; and what only capture and rendering can get
// wrong, which neither a call of the library nor the fuzzer reaches: formats whose arguments cannot wait, a "%s"
// copied before the caller's buffer changes, and a dump above the limit kept in part with the count it left out.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include <fstream>
#include <functional>
#include <regex>
#include <sstream>

#include "log/LogFn.h"
#include "log/LoggerConsole.h"
#include "log/LoggerFile.h"
#include "log/StringUtils.h"
#include "unit_support.h"

using kt::Log;
using kt::LogCapture;
using kt::LogEntry;
using kt::LogFn;
using LogPtr = std::shared_ptr<Log>;
using namespace ut;

namespace {

template <class Act>
std::chrono::steady_clock::duration TimeOf(Act act) {
    const auto start = std::chrono::steady_clock::now();
    return act(), std::chrono::steady_clock::now() - start;
}

TEST(LogCore, ListenerRulesTheLoadPhaseAndTheLazyWorker) {
    using Marker = Log::LibInitHelper;
    const size_t base = CountThreads();
    {
        Log log(LogEntry::Info);
        EXPECT_LT(TimeOf([&] { EXPECT_EQ(log.Flush(1000), 0u); }), 200ms) << "no listener";
        auto rec = std::make_shared<Recorder>();
        std::shared_ptr<kt::ILogListener> a = rec;
        const std::weak_ptr<kt::ILogListener> gone = std::make_shared<Recorder>();
        EXPECT_TRUE(!log.WillBeLogged(LogEntry::Error) && !log.AddListener(gone) && log.AddListener(a) && !log.AddListener(a));
        // Longer than what the worker formats of a batch before writing it: the entries after it in the same
        // batch are formatted one by one.
        const std::string wide(40000, 'w');
        {
            Marker pre(Marker::PreInit, Marker::Immediate);
            log.AddEntry("DDI", LogEntry::Info, "%s", wide.c_str());
            Marker notified(Marker::PostInit, Marker::Notified); // open until the host reports the end
            log.AddEntry("DDI", LogEntry::Info, "%s", "load 2");
            EXPECT_EQ(SettledThreadCount(base), base) << "a worker started while loading or at registration";
            Marker post(Marker::PostInit, Marker::Immediate);
            // The first level test starts the worker, also for a level that does not pass.
            const std::pair<int, bool> levels[] = {{4, false}, {3, false}, {2, true}, {0, true}, {-3, true}};
            for (const auto& [level, passes] : levels) {
                EXPECT_EQ(log.WillBeLogged(LogEntry::Level(level)), passes) << level;
                EXPECT_EQ(SettledThreadCount(base + 1), base + 1);
            }
            EXPECT_FALSE(log.Start()) << "a second worker";
            log.AddEntry("DDI", LogEntry::Info, "%s", "after load");
            EXPECT_EQ(log.Flush(5000), 0u);
        }
        Marker::NotifyLibProcessAttachDone(); // the markers' end raised the flag again
        const auto lines = rec->Lines();
        ASSERT_EQ(lines.size(), 3u);
        EXPECT_EQ(lines[0].m_message + "," + lines[1].m_message + "," + lines[2].m_message, wide + ",load 2,after load");
        EXPECT_TRUE(log.RemoveListener(a) && !log.WillBeLogged(LogEntry::Error));
    }
    EXPECT_EQ(SettledThreadCount(base), base);
}

struct Thrower final : kt::ILogListener { void OnLogEntryAdded(const LogEntry&) override { throw 1; } };

TEST(LogCore, AboveFiftyThousandQueuedNewEntriesAreOnlyCountedThenReportedOnce) {
    auto rec = std::make_shared<Recorder>();
    auto log = std::make_shared<Log>(LogEntry::Trace);
    ASSERT_TRUE(log->AddListener(rec));
    rec->Allow(0);
    log->AddEntry("DDI", LogEntry::Info, "%s", "first");
    ASSERT_TRUE(rec->WaitHeld());
    for (int i = 0; i <= 50000; ++i) log->AddEntry("DDI", LogEntry::Info, std::to_string(i));
    rec->Allow(1); // taking "0" leaves exactly 50000 queued: not yet overloaded
    ASSERT_TRUE(rec->WaitHeld());
    for (int i = 0; i < 2; ++i) log->AddEntry("DDI", LogEntry::Info, std::string("kept"));
    rec->Allow(1); // taking "1" leaves 50001 queued: overloaded
    ASSERT_TRUE(rec->WaitHeld());
    for (int i = 0; i < 7; ++i) log->AddEntry("DDI", LogEntry::Error, "%s", "dropped");
    rec->Allow(-1);
    EXPECT_EQ(log->Flush(60000), 0u); // up to the report: the overload has ended
    log->AddEntry("DDI", LogEntry::Info, "%s", "after");
    EXPECT_EQ(log->Flush(10000), 0u);
    const auto lines = rec->Lines();
    ASSERT_EQ(lines.size(), 1u + 50001 + 2 + 1 + 1);
    for (int i = 0; i <= 50000; ++i) ASSERT_EQ(lines[1 + i].m_message, std::to_string(i));
    EXPECT_EQ(lines[50002].m_message + lines[50003].m_message + lines[50005].m_message, "keptkeptafter");
    const LogEntry& report = lines[50004];
    EXPECT_TRUE(std::regex_match(report.m_message, std::regex("Too many messages in log queue, 7 new "
                                 "messages dropped during [0-9]+us while processing the queue")));
    EXPECT_TRUE(report.m_category == "***" && report.m_level == LogEntry::Warning && report.m_depth == 0);
}

// More entries held than the log keeps memory for: the rest come from the C allocator and arrive in order with the
// others.
TEST(LogCore, EntriesBeyondTheLogsOwnMemoryArriveInOrder) {
    constexpr int kHeld = 52000;
    auto rec = std::make_shared<Recorder>();
    std::vector<LogEntry> lines;
    {
        auto log = std::make_shared<Log>(LogEntry::Trace);
        ASSERT_TRUE(log->AddListener(rec));
        rec->Allow(0);
        log->AddEntry("DDI", LogEntry::Info, "%s", "first");
        ASSERT_TRUE(rec->WaitHeld());
        for (int i = 0; i < kHeld; ++i) log->AddEntry("DDI", LogEntry::Info, "entry %d", i);
        rec->Allow(-1);
        EXPECT_EQ(log->Flush(60000), 0u);
        lines = rec->Lines();
    }
    // The queue was above the overload threshold, so an overload report with nothing dropped follows.
    ASSERT_EQ(lines.size(), 1u + kHeld + 1);
    for (int i = 0; i < kHeld; ++i) ASSERT_EQ(lines[1 + i].m_message, "entry " + std::to_string(i));
    EXPECT_EQ(lines.back().m_message.rfind("Too many messages in log queue, 0 new messages dropped during ", 0), 0u);
}

TEST(LogEntryLine, HeaderCategoryIndentationAndLineFeeds) {
    char ids[32];
    std::snprintf(ids, sizeof(ids), "%05u:%05u", kt::LogUtils::GetCurrentProcessId(), kt::LogUtils::GetCurrentThreadId());
    const std::string marker = "-log-depth-limit-exceeded-" + std::string(34, ' ');
    const struct { const char* category; int level; uint16_t depth; const char* message; std::string line; } cases[] = {
        {"DDI", 5, 0, "m", "DDI # ?] m"},
        {"DDI", -1, 0, "m", "DDI # ?] m"}, {"LONG", 2, 0, "m", "LON # I] m"}, {"AB", 2, 0, "m", "AB # I] m"},
        {"", 2, 0, "m", "??? # I] m"}, {nullptr, 2, 0, "m", "??? # I] m"}, {"DDI", 2, 2, "m", "DDI # I]     m"},
        {"DDI", 2, 30, "m", "DDI # I] " + std::string(60, ' ') + "m"}, {"DDI", 2, 31, "m", "DDI # I] " + marker + "m"},
        {"DDI", 2, 40, "m", "DDI # I] " + marker + "m"}, {"DDI", 2, 65535, "m", "DDI # I] " + marker + "m"},
        {"DDI", 2, 1, "a\nb\n", "DDI # I]   a\xB6" "b\xB6"}};
    for (const auto& c : cases) {
        LogEntry entry(c.category, LogEntry::Level(c.level), c.depth, c.message);
        const std::string line = entry.FormatMessage().m_formattedMessage;
        EXPECT_TRUE(std::regex_match(line.substr(0, 15), std::regex(R"(\[\d{6}\.\d{6} )"))) << line;
        EXPECT_EQ(line.substr(15), std::regex_replace(c.line, std::regex("#"), ids));
    }
}

// What a recording sink received while act ran on a fresh log.
std::vector<LogEntry> Traced(LogEntry::Level max, const std::function<void(LogPtr)>& act) {
    auto rec = std::make_shared<Recorder>();
    auto log = std::make_shared<Log>(max);
    EXPECT_TRUE(log->AddListener(rec));
    act(log);
    EXPECT_EQ(log->Flush(5000), 0u);
    EXPECT_EQ(Log::GetThreadDepth(), 0);
    return rec->Lines();
}


TEST(LogTrace, EdgeCasesThatTheLibrarysOwnCallsNeverProduce) {
    const struct { const char* name; LogEntry::Level max; std::function<void(LogPtr)> act; Strings lines; } cases[] = {
        {"nested", LogEntry::Trace, [](LogPtr log) {
             LogFn outer(log, "DDI", "outer");
             outer.LogEnterMessage("pDdi=0x%p", static_cast<void*>(nullptr)), outer.LogMessage(LogEntry::Info, "in");
             LogFn(log, "DDI", "inner").LogEnterMessage("%d", 1);
             outer.SetReturnArgs("version %u.%u.%u", 3u, 1u, 88u), outer.SetReturnResult("%s", "KZ_ERR_NONE");
         }, {"0T DDI outer: ENTER (pDdi=0x(nil))", "1I DDI outer: in", "1T DDI inner: ENTER (1)",
             "1T DDI inner: RETURN () [Nus]", "0T DDI outer: RETURN (KZ_ERR_NONE, version 3.1.88) [Nus]"}},
        {"return without enter", LogEntry::Trace, [](LogPtr log) { LogFn(log, "DDI", "f").SetReturnResult("x"); },
         {"0E DDI f: Log indentation is incorrect", "0T DDI f: RETURN (x) [Nus]"}},
        {"exception", LogEntry::Trace, [](LogPtr log) {
             EXPECT_THROW((LogFn(log, "DDI", "f").LogEnterMessage("-"), throw std::runtime_error("boom")), std::runtime_error);
         }, {"0T DDI f: ENTER (-)", "0T DDI f: RETURN (UNCAUGHT_EXCEPTION) [Nus]"}},
        {"slow", LogEntry::Trace, [](LogPtr log) {
             LogFn(log, "DDI", "f").LogEnterMessage("-"), std::this_thread::sleep_for(200ms);
         }, {"0T DDI f: ENTER (-)", "0T DDI f: RETURN () [0.1s+]"}},
        {"no category", LogEntry::Trace, [](LogPtr log) {
             for (const char* none : {static_cast<const char*>(nullptr), ""}) LogFn(log, none, "f").LogEnterMessage("-");
             EXPECT_THROW(LogFn(log, "DDI", nullptr), std::logic_error);
         }, {"0T ??? f: ENTER (-)", "0T ??? f: RETURN () [Nus]", "0T ??? f: ENTER (-)", "0T ??? f: RETURN () [Nus]"}},
        {"unformattable", LogEntry::Trace, [](LogPtr log) {
             LogFn fn(log, "DDI", "f");
             fn.LogEnterMessage("%lc", kEuro), fn.LogMessage(LogEntry::Error, "%lc", kEuro);
             fn.SetReturnResult("%lc", kEuro), log->AddEntry("DDI", LogEntry::Error, "%lc", kEuro), fn.LogEnterMessage("ok");
         }, {"0T DDI f: ENTER (ok)", "0T DDI f: RETURN () [Nus]"}},
    };
    for (const auto& c : cases) {
        Strings lines; // depth, level letter, category and message, the elapsed time told apart from 100 ms
        for (const LogEntry& e : Traced(c.max, c.act)) {
            const std::string line = std::to_string(e.m_depth) + e.m_levelChar + " " + e.m_category + " " + e.m_message;
            const std::string slow = std::regex_replace(line, std::regex(R"( \[\d{6,}us\]$)"), " [0.1s+]");
            lines.push_back(std::regex_replace(slow, std::regex(R"( \[\d+us\]$)"), " [Nus]"));
        }
        EXPECT_EQ(lines, c.lines) << c.name;
    }
}

std::string Read(const std::string& path) {
    std::stringstream text;
    return text << std::ifstream(path, std::ios::binary).rdbuf(), text.str();
}

TEST(LogSinks, ConsoleSendsErrorsToStandardErrorAndTheRestToStandardOutput) {
    const std::regex block(
        R"(\[={62}\]\n\[Logging started, date \d{4}-\d\d-\d\d, time \d{6}\.\d{6}, PID \d+\]\n)"
        R"(\[Executable: '.+'\]\n\[Library: '.+'\]\n)"
        R"(\[W\] careful\n\[I\] info\n\[D\] debug\n\[T\] trace\n\[\?\] seven\n\[\?\] negative\n)"
        R"(\[Logging stopped, date \d{4}-\d\d-\d\d, \d{6}\.\d{6}, PID \d+\]\n\[={62}\]\n\n)");
    const std::pair<int, const char*> entries[] = {{0, "bad\nthing"}, {1, "careful"}, {2, "info"}, {3, "debug"},
                                                   {4, "trace"}, {7, "seven"}, {-1, "negative"}};
    for (const bool withLog : {true, false}) { // without a log: nothing at all
        testing::internal::CaptureStdout(), testing::internal::CaptureStderr();
        {
            auto log = withLog ? std::make_shared<Log>(LogEntry::Trace) : nullptr;
            kt::LoggerConsole sink(log);
            for (const auto& [level, text] : entries) {
                if (log) log->AddEntry("DDI", LogEntry::Level(level), std::string(text));
            }
        }
        const std::string out = testing::internal::GetCapturedStdout(), err = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(withLog ? std::regex_match(out, block) && err == "[E] bad\nthing\n" : out + err == "") << out << err;
    }
}

TEST(LogSinks, FlushWaitsWithinItsLimitDiscardsTheRestAndTheFileFooterCountsItsOwn) {
    const std::string path = "/tmp/tavik-unit-" + std::to_string(getpid()) + ".log";
    auto rec = std::make_shared<Recorder>();
    auto thrower = std::make_shared<Thrower>();
    auto log = std::make_shared<Log>(LogEntry::Trace);
    // A throwing and a dead sink served first must not disturb the others; the recorder, before the file, holds the worker.
    ASSERT_TRUE(log->AddListener(thrower) && log->AddListener(std::make_shared<Recorder>()) && log->AddListener(rec));
    std::thread release;
    {
        kt::LoggerFile sink(log, path.c_str());
        rec->Allow(0);
        // Queued before the worker starts, so that it takes all eleven at once and a flush must discard what it took.
        Log::LibInitHelper::NotifyLibProcessDetachDone();
        log->AddEntry("DDI", LogEntry::Info, "%s", "held");
        for (int i = 0; i < 10; ++i) log->AddEntry("DDI", LogEntry::Info, "lost %d", i);
        Log::LibInitHelper::NotifyLibProcessAttachDone();
        log->WillBeLogged(LogEntry::Info);
        ASSERT_TRUE(rec->WaitHeld());
        const auto took = TimeOf([&] { EXPECT_EQ(log->Flush(1000), 10u); });
        EXPECT_TRUE(took >= 990ms && took < 1500ms) << took.count();
        for (int i = 0; i < 12; ++i) log->AddEntry("DDI", LogEntry::Info, "lost by the sink's flush %d", i);
        release = std::thread([&rec] { std::this_thread::sleep_for(1300ms), rec->Allow(-1); });
    }
    // "held" is still being delivered: the next flush returns only once it is out.
    EXPECT_EQ(log->Flush(5000), 0u);
    EXPECT_TRUE(rec->Lines().size() == 1 && rec->Lines()[0].m_message == "held");
    release.join();
    EXPECT_LT(TimeOf([&] { EXPECT_EQ(log->Flush(1000), 0u); }), 100ms) << "idle queue";
    const std::string text = Read(path);
    unlink(path.c_str());
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(\n\[Logging stopped, date [-0-9]{10}, [.0-9]{13}, )"
                                                   R"(PID \d+, dropped 12 messages\]\n)"))) << text;
}

struct Texts { std::string format, rendered, printed; };
Texts Both(const char* format, ...) __attribute__((format(printf, 1, 2)));
Texts Both(const char* format, ...) {
    va_list a, b;
    va_start(a, format), va_copy(b, a);
    Texts t{format, "<not captured>", kt::LogUtils::FormatArgsToStdString(format, b)};
    if (LogCapture c; c.AddFormat(format, a)) {
        std::vector<unsigned char> entry(c.Size());
        c.CopyTo(entry.data()), t.rendered.clear(), LogCapture::Render(t.rendered, entry.data(), entry.size());
    }
    return va_end(a), va_end(b), t;
}

// The fuzzer's formats are all ones that wait for the worker; these are formatted at capture.
TEST(LogCapture, FormatsThatCannotWaitReadAsPrintfNow) {
    errno = ENOENT;
    for (const Texts& t : {Both("%ls", L"wide"), Both("%2$s %1$s", "world", "hello"), Both("%m"),
             Both("%d %d %d %d %d %d %d %d %d %d %d %d %d", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13)}) {
        EXPECT_EQ(t.rendered, t.printed) << t.format;
    }
}

TEST(LogCapture, TextsAndDumpsAreTheCallersAsTheyWereAndADumpKeepsTheLimit) {
    static_assert(LogCapture::kDumpLimit >= 64 * 1024);
    const auto rec = std::make_shared<ut::Recorder>();
    const auto log = std::make_shared<kt::Log>(LogEntry::Debug); // no enter and return lines
    ASSERT_TRUE(log->AddListener(rec));
    const size_t sizes[] = {1, LogCapture::kDumpLimit + 1};
    Strings expected;
    for (const size_t size : sizes) {
        std::vector<unsigned char> bytes(size);
        for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i * 7 + 10);
        char text[] = "before";
        const char two[2] = {'o', 'k'}; // unterminated: only the precision may be read
        {
            kt::LogFn fn(log, "DDI", "f");
            fn.LogDumpMessage(LogEntry::Debug, bytes.data(), size, "[%s|%.3s|%.2s|%.0s] ", text, text, two, two);
            std::fill(bytes.begin(), bytes.end(), 0xFF), std::strcpy(text, "AFTER"); // the entry has its own copy
        }
        const size_t kept = std::min<size_t>(size, LogCapture::kDumpLimit);
        for (size_t i = 0; i < kept; ++i) bytes[i] = static_cast<unsigned char>(i * 7 + 10);
        expected.push_back("f: [before|bef|ok|] " + kt::StringUtils::ByteArrayToHexString(bytes.data(), kept, ",") +
                           (size > kept ? " (" + std::to_string(size - kept) + " bytes left out)" : ""));
        LogCapture capture;
        capture.AddDump(bytes.data(), size);
        EXPECT_LE(capture.Size(), LogCapture::kDumpLimit + 64) << "an entry's memory is bounded";
    }
    EXPECT_EQ(log->Flush(10000), 0u);
    Strings messages;
    for (const LogEntry& e : rec->Lines()) messages.push_back(e.m_message);
    EXPECT_EQ(messages, expected);
}

} // namespace
