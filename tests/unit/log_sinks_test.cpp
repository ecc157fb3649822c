// The file and console sinks: exact header and footer blocks, appended runs,
// line layout in the file and on the console, inert sinks, and descriptors.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "log/Log.h"
#include "log/LoggerConsole.h"
#include "log/LoggerFile.h"
#include "log_TestSupport.h"

using kt::Log;
using kt::LogEntry;
using kt::LoggerConsole;
using kt::LoggerFile;
using kt_test::CountDescriptors;
using kt_test::ReadFile;
using kt_test::ReadLines;
using kt_test::RecordingListener;
using kt_test::RunInChild;

namespace {

const std::string kSeparator = "[" + std::string(62, '=') + "]";

std::string Pid() {
    return std::to_string(getpid());
}

std::string Exe() {
    char exe[PATH_MAX] = {};
    return readlink("/proc/self/exe", exe, sizeof(exe) - 1) > 0 ? std::string(exe) : "";
}

std::string Escaped(const std::string& text) {
    static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
    return std::regex_replace(text, special, R"(\$&)");
}

// Checks one header ... footer block starting at lines[at]; returns the index
// after it, or lines.size() + 1 when the block is wrong.
size_t ExpectBlock(const std::vector<std::string>& lines, size_t at,
                   const std::vector<std::string>& bodyMessages, const std::string& droppedPart) {
    const std::regex started(R"(\[Logging started, date \d{4}-\d{2}-\d{2}, time \d{6}\.\d{6}, PID )" +
                             Pid() + R"(\])");
    const std::regex stopped(R"(\[Logging stopped, date \d{4}-\d{2}-\d{2}, \d{6}\.\d{6}, PID )" +
                             Pid() + Escaped(droppedPart) + R"(\])");
    const size_t needed = 4 + bodyMessages.size() + 3;
    EXPECT_GE(lines.size(), at + needed);
    if (lines.size() < at + needed) {
        return lines.size() + 1;
    }
    EXPECT_EQ(lines[at], kSeparator);
    EXPECT_TRUE(std::regex_match(lines[at + 1], started)) << lines[at + 1];
    EXPECT_EQ(lines[at + 2], "[Executable: '" + Exe() + "']");
    EXPECT_TRUE(std::regex_match(lines[at + 3], std::regex(R"(\[Library: '.*tavik_unit_tests'\])")))
        << lines[at + 3];
    for (size_t i = 0; i < bodyMessages.size(); ++i) {
        const std::string& line = lines[at + 4 + i];
        EXPECT_EQ(line.substr(line.find("] ") + 2), bodyMessages[i]) << line;
    }
    const size_t footer = at + 4 + bodyMessages.size();
    EXPECT_TRUE(std::regex_match(lines[footer], stopped)) << lines[footer];
    EXPECT_EQ(lines[footer].find("time"), std::string::npos) << "the stop line has no 'time'";
    EXPECT_EQ(lines[footer + 1], kSeparator);
    EXPECT_EQ(lines[footer + 2], "");
    return footer + 3;
}

class FileSinkTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_dir = kt_test::MakeTempDir();
        m_path = m_dir + "/ddi.log";
    }
    void TearDown() override {
        unlink(m_path.c_str());
        rmdir(m_dir.c_str());
    }
    std::string m_dir;
    std::string m_path;
};

// ---------------------------------------------------------------------------
// File sink

TEST_F(FileSinkTest, HeaderEntriesAndFooterFormOneBlock) {
    {
        auto log = std::make_shared<Log>(LogEntry::Trace);
        LoggerFile sink(log, m_path.c_str());
        ASSERT_TRUE(sink.IsOpen());
        log->AddEntry("DDI", LogEntry::Info, "%s", "first");
        log->AddEntry("XYZW", LogEntry::Error, "%s", "second\nwith a line feed");
        log->AddEntry("", LogEntry::Debug, "%s", "third");
    }
    const auto lines = ReadLines(m_path);
    ASSERT_EQ(lines.size(), 10u) << ReadFile(m_path);
    EXPECT_EQ(ExpectBlock(lines, 0, {"first", "second\xB6with a line feed", "third"}, ""),
              lines.size());
    EXPECT_TRUE(std::regex_match(lines[4], std::regex(R"(\[\d{6}\.\d{6} DDI \d{5,}:\d{5,} I\] first)")));
    EXPECT_TRUE(std::regex_match(lines[5], std::regex(R"(\[\d{6}\.\d{6} XYZ \d{5,}:\d{5,} E\] second\xB6with a line feed)")));
    EXPECT_TRUE(std::regex_match(lines[6], std::regex(R"(\[\d{6}\.\d{6} \?\?\? \d{5,}:\d{5,} D\] third)")));
}

TEST_F(FileSinkTest, TwoRunsAppendTwoCompleteBlocks) {
    for (int run = 0; run < 2; ++run) {
        auto log = std::make_shared<Log>(LogEntry::Trace);
        LoggerFile sink(log, m_path.c_str());
        log->AddEntry("DDI", LogEntry::Info, "run %d", run);
    }
    const auto lines = ReadLines(m_path);
    ASSERT_EQ(lines.size(), 16u) << ReadFile(m_path);
    const size_t second = ExpectBlock(lines, 0, {"run 0"}, "");
    EXPECT_EQ(ExpectBlock(lines, second, {"run 1"}, ""), lines.size());
    const std::string raw = ReadFile(m_path);
    EXPECT_EQ(raw.substr(raw.size() - kSeparator.size() - 2), kSeparator + "\n\n");
}

TEST_F(FileSinkTest, FooterReportsEntriesDiscardedByItsFlush) {
    auto log = std::make_shared<Log>(LogEntry::Trace);
    auto blocker = std::make_shared<RecordingListener>();
    // The blocking listener is served first and holds the worker.
    ASSERT_TRUE(log->AddListener(std::static_pointer_cast<kt::ILogListener>(blocker)));
    std::thread release;
    {
        LoggerFile sink(log, m_path.c_str());
        blocker->Block();
        log->AddEntry("DDI", LogEntry::Info, "%s", "held");
        ASSERT_TRUE(blocker->WaitUntilBlocked());
        for (int i = 0; i < 12; ++i) {
            log->AddEntry("DDI", LogEntry::Info, "lost %d", i);
        }
        release = std::thread([blocker] {
            std::this_thread::sleep_for(std::chrono::milliseconds(1300));
            blocker->Open();
        });
    }
    release.join();
    log->Flush(0);
    const auto lines = ReadLines(m_path);
    // The held entry may reach the file before or after the footer (the flush
    // timed out while it was being delivered); the 12 queued ones never do.
    ASSERT_GE(lines.size(), 7u) << ReadFile(m_path);
    const std::regex stopped(R"(\[Logging stopped, date \d{4}-\d{2}-\d{2}, \d{6}\.\d{6}, PID \d+, dropped 12 messages\])");
    bool found = false;
    for (const auto& line : lines) {
        found = found || std::regex_match(line, stopped);
        EXPECT_EQ(line.find("lost"), std::string::npos) << line;
    }
    EXPECT_TRUE(found) << ReadFile(m_path);
}

TEST_F(FileSinkTest, InertSinksCreateNothingAndWriteNothing) {
    const size_t fds = CountDescriptors();
    auto log = std::make_shared<Log>(LogEntry::Trace);
    {
        LoggerFile nullName(log, nullptr);
        LoggerFile emptyName(log, "");
        const std::string missingDir = m_dir + "/no/such/folder/ddi.log";
        LoggerFile badPath(log, missingDir.c_str());
        EXPECT_FALSE(nullName.IsOpen());
        EXPECT_FALSE(badPath.IsOpen());
        EXPECT_FALSE(log->WillBeLogged(LogEntry::Error)) << "an inert sink registered itself";
        log->AddEntry("DDI", LogEntry::Error, "%s", "nobody listens");
    }
    {
        LoggerFile noLog(nullptr, m_path.c_str());
        EXPECT_FALSE(noLog.IsOpen());
    }
    struct stat st;
    EXPECT_NE(stat(m_path.c_str(), &st), 0) << "a file was created by an inert sink";
    EXPECT_EQ(kt_test::CountDirEntries(m_dir.c_str()), 0u);
    EXPECT_EQ(CountDescriptors(), fds);
}

TEST_F(FileSinkTest, FileIsOpenedCloseOnExecAndReleasedAtDestruction) {
    const size_t fds = CountDescriptors();
    {
        auto log = std::make_shared<Log>(LogEntry::Trace);
        LoggerFile sink(log, m_path.c_str());
        EXPECT_EQ(CountDescriptors(), fds + 1);
        // Find the descriptor through /proc and read its flags from the kernel.
        bool checked = false;
        for (int fd = 0; fd < 1024 && !checked; ++fd) {
            char link[64];
            char target[PATH_MAX] = {};
            std::snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
            if (readlink(link, target, sizeof(target) - 1) > 0 && m_path == target) {
                const int flags = fcntl(fd, F_GETFD);
                EXPECT_NE(flags & FD_CLOEXEC, 0);
                EXPECT_NE(fcntl(fd, F_GETFL) & O_APPEND, 0);
                checked = true;
            }
        }
        EXPECT_TRUE(checked);
    }
    EXPECT_EQ(CountDescriptors(), fds);
}

// ---------------------------------------------------------------------------
// Console sink: runs in a child whose standard streams are files.

struct ConsoleOutput {
    int rc = -1;
    std::string out;
    std::string err;
};

template <class Body>
ConsoleOutput CaptureConsole(Body body) {
    const std::string dir = kt_test::MakeTempDir();
    const std::string outPath = dir + "/stdout";
    const std::string errPath = dir + "/stderr";
    ConsoleOutput result;
    result.rc = RunInChild([&] {
        std::fflush(stdout);
        std::fflush(stderr);
        const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) {
            return 2;
        }
        body();
        std::fflush(stdout);
        std::fflush(stderr);
        return 0;
    });
    result.out = ReadFile(outPath);
    result.err = ReadFile(errPath);
    unlink(outPath.c_str());
    unlink(errPath.c_str());
    rmdir(dir.c_str());
    return result;
}

TEST(ConsoleSink, ErrorsGoToStandardErrorEverythingElseToStandardOutput) {
    const auto got = CaptureConsole([] {
        auto log = std::make_shared<Log>(LogEntry::Trace);
        LoggerConsole sink(log);
        kt::Log::IncreaseThreadDepth(); // depth shows in files only
        kt::Log::IncreaseThreadDepth();
        log->AddEntry("DDI", LogEntry::Error, "%s", "bad\nthing");
        log->AddEntry("DDI", LogEntry::Warning, "%s", "careful");
        log->AddEntry("DDI", LogEntry::Info, "%s", "info");
        log->AddEntry("DDI", LogEntry::Debug, "%s", "debug");
        log->AddEntry("DDI", LogEntry::Trace, "%s", "trace");
        log->AddEntry("DDI", static_cast<LogEntry::Level>(7), std::string("seven"));
        log->AddEntry("DDI", static_cast<LogEntry::Level>(-1), std::string("negative"));
    });
    ASSERT_EQ(got.rc, 0);
    EXPECT_EQ(got.err, "[E] bad\nthing\n");
    const auto start = got.out.find("[W]");
    ASSERT_NE(start, std::string::npos) << got.out;
    EXPECT_EQ(got.out.substr(start, got.out.find("[Logging stopped") - start),
              "[W] careful\n[I] info\n[D] debug\n[T] trace\n[?] seven\n[?] negative\n");
    const std::regex block(
        R"(\[=+\]\n\[Logging started, date \d{4}-\d{2}-\d{2}, time \d{6}\.\d{6}, PID \d+\]\n)"
        R"(\[Executable: '.*'\]\n\[Library: '.*'\]\n[^]*)"
        R"(\[Logging stopped, date \d{4}-\d{2}-\d{2}, \d{6}\.\d{6}, PID \d+\]\n\[=+\]\n\n)");
    EXPECT_TRUE(std::regex_match(got.out, block)) << got.out;
}

TEST(ConsoleSink, WithoutALogWritesNothingAtAll) {
    const auto got = CaptureConsole([] { LoggerConsole sink(nullptr); });
    ASSERT_EQ(got.rc, 0);
    EXPECT_EQ(got.out, "");
    EXPECT_EQ(got.err, "");
}

} // namespace
