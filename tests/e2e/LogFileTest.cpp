// The log file of a rig that leaves its log on for weeks: a pipe whose reader falls behind, a size bound with
// rotation, a file that another program moves away, and several processes that log to one path.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <thread>
#include <vector>

#include "E2e.h"

namespace tavik_test {
namespace {

class LogFile : public ChildTest {
 protected:
  // Every row starts in an empty scratch folder.
  void Fresh() {
    std::error_code ec;
    std::filesystem::remove_all(ctx_.tmp, ec);
    std::filesystem::create_directory(ctx_.tmp, ec);
  }
};

using Clock = std::chrono::steady_clock;
double SecondsSince(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// A line of the log as a whole: an entry, or a line of a header or footer block. A line cut, split or run into
// another matches none of them.
bool IsWholeLine(const std::string& line) {
  static const std::regex whole(
      R"(\[\d{6}\.\d{6} DDI \d{5,}:\d{5,} [EWIDT]\] [^\[]*(\[[^\[]*)?|\[={62}\]|)"
      R"(\[Logging started, date [-0-9]{10}, time [.0-9]{13}, PID \d+\]|\[Executable: '[^']+'\]|\[Library: '[^']+'\]|)"
      R"(\[Logging stopped, date [-0-9]{10}, [.0-9]{13}, PID \d+(, dropped \d+ messages)?\]|)");
  return std::regex_match(line, whole);
}

const char* const kInitEnter = "int16 tavik_ddi_init(Ddi*): ENTER";
const char* const kHeaderStart = "[==============================================================]\n[Logging started, date ";

size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// Inits n records, then uninits them, on a thread of its own, whose thread-local state is gone before the unload;
// between the two, the caller's wait.
void Cycles(DdiLibrary* lib, int n, const std::function<void()>& between = nullptr) {
  std::thread([&] {
    std::vector<Ddi> ddis(static_cast<size_t>(n));
    for (Ddi& ddi : ddis) EXPECT_EQ(lib->init(&ddi), KZ_ERR_NONE);
    if (between) between();
    for (Ddi& ddi : ddis) EXPECT_EQ(lib->uninit(&ddi), KZ_ERR_NONE);
  }).join();
}

// A log collector reading a FIFO, which pauses before it reads, or never reads at all. The pipe is made small, so
// that a few calls fill it. Until it has read its first byte, the collector's reads would find no writer yet.
TEST_F(LogFile, AFullPipeIsWaitedForAndAReaderThatNeverReadsDoesNotHoldTheUnload) {
  for (const bool reads : {true, false}) {
    SCOPED_TRACE(reads ? "a reader that pauses" : "a reader that never reads");
    Fresh();
    RunInChild([&](ChildContext& ctx) {
          EnterPrivateDev();
          const std::string fifo = ctx.tmp + "/ddi.fifo", received = ctx.tmp + "/received";
          ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
          int ready[2], resumed[2];
          ASSERT_EQ(pipe(ready), 0);
          ASSERT_EQ(pipe(resumed), 0);
          const pid_t reader = fork();
          if (reader == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const int in = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
            fcntl(in, F_SETPIPE_SZ, 4096);
            fcntl(in, F_SETFL, 0);
            (void)!write(ready[1], "r", 1);
            sleep(reads ? 3 : 1000);
            (void)!write(resumed[1], "r", 1);
            std::string all;
            char buffer[4096];
            for (ssize_t n; (n = read(in, buffer, sizeof buffer)) > 0;) all.append(buffer, static_cast<size_t>(n));
            WriteFile(received, all);
            _exit(0);
          }
          char c;
          ASSERT_EQ(read(ready[0], &c, 1), 1);
          setenv("TAVIK_DDI_LOG_FILE", fifo.c_str(), 1);
          setenv("TAVIK_UMD_PATH", ctx.tmp.c_str(), 1);
          const size_t threads = CountThreads(), fds = CountOpenFds();
          TAVIK_LOAD(lib);
          // Far more than the pipe holds, far less than the overload threshold; no uninit's flush may run out while the
          // reader pauses.
          Cycles(lib.get(), reads ? 8 : 2, [&] { EXPECT_TRUE(!reads || read(resumed[0], &c, 1) == 1); });
          const auto t0 = Clock::now();
          lib.reset();
          EXPECT_LT(SecondsSince(t0), reads ? 5 : 10);
          EXPECT_EQ(SettledThreadCount(threads), threads);
          EXPECT_EQ(CountOpenFds(), fds);
          if (!reads) kill(reader, SIGKILL);
          int status = 0;
          waitpid(reader, &status, 0);
          if (!reads) return;
          const std::string log = ReadFile(received);
          EXPECT_EQ(log.rfind(kHeaderStart, 0), 0u);
          EXPECT_EQ(Count(log, kInitEnter), 8u);
          EXPECT_EQ(Count(log, "int16 tavik_ddi_uninit(Ddi*): RETURN"), 8u);
          for (const std::string& line : Lines(log)) EXPECT_TRUE(IsWholeLine(line)) << line;
          EXPECT_EQ(log.substr(log.size() - 66), "[" + std::string(62, '=') + "]\n\n");
        });
  }
}

struct Rotated {
  std::vector<std::string> files;  // FILE, FILE.1, ... as long as they exist
  std::string all;                 // oldest first
};
Rotated ReadRotated(const std::string& path) {
  Rotated r;
  struct stat st;
  for (int k = 0; stat((k == 0 ? path : path + "." + std::to_string(k)).c_str(), &st) == 0; ++k)
    r.files.push_back(ReadFile(k == 0 ? path : path + "." + std::to_string(k)));
  for (auto it = r.files.rbegin(); it != r.files.rend(); ++it) r.all += *it;
  return r;
}

// Each row loads the library with a bound, runs 12 init and uninit cycles and unloads it. Every file must begin with a
// header block and hold whole lines only, stay within the bound plus one line, and the newest end with the footer; with
// enough files kept no line is lost. A bad value is refused with one warning line, and the file grows unbounded.
TEST_F(LogFile, ABoundMovesAFullFileAsideAndABadValueIsRefusedWithOneWarning) {
  const std::string noBound = ", the log file has no size bound";
  struct Row {
    const char* size;
    const char* files;
    size_t expectFiles;  // 0: at least 3
    std::string warning;
  } rows[] = {
      {"8K", "1000", 0, ""},  // an earlier run left the file full
      {"8k", nullptr, 5, ""},
      {"300", "2", 3, ""},  // below a header block: raised to its size, one line per file
      {"8K", "0", 1, ""},
      {"12Q", nullptr, 1, "Invalid TAVIK_DDI_LOG_MAX_SIZE '12Q' (a size in bytes with an optional K, M or G suffix)" + noBound},
      {"-1", nullptr, 1, "Invalid TAVIK_DDI_LOG_MAX_SIZE '-1' (a size in bytes with an optional K, M or G suffix)" + noBound},
      {"", nullptr, 1, "Invalid TAVIK_DDI_LOG_MAX_SIZE '' (a size in bytes with an optional K, M or G suffix)" + noBound},
      {"17179869184G", nullptr, 1, "Invalid TAVIK_DDI_LOG_MAX_SIZE '17179869184G' (a size in bytes with an optional K, M or G suffix)" + noBound},
      {"8K", "1001", 1, "Invalid TAVIK_DDI_LOG_MAX_FILES '1001' (a number of files from 0 to 1000)" + noBound},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.size) + " / " + (row.files ? row.files : "(unset)"));
    Fresh();
    if (!RunInChild([&](ChildContext& ctx) {
          EnterPrivateDev();
          ctx.EnableLog("T");
          setenv("TAVIK_UMD_PATH", ctx.tmp.c_str(), 1);
          setenv("TAVIK_DDI_LOG_MAX_SIZE", row.size, 1);
          if (row.files != nullptr) setenv("TAVIK_DDI_LOG_MAX_FILES", row.files, 1);
          if (row.expectFiles == 0) WriteFile(ctx.LogPath(), std::string(9000, '\n'));
          TAVIK_LOAD(lib);
          for (int i = 0; i < 12; ++i) Cycles(lib.get(), 1);
          lib.reset();
        }))
      continue;
    Rotated r = ReadRotated(ctx_.LogPath());
    if (row.expectFiles != 0) { EXPECT_EQ(r.files.size(), row.expectFiles); }
    EXPECT_GE(r.files.size(), 1u);
    const uint64_t bound = row.size[0] == '8' ? 8192 : 300;
    if (row.expectFiles == 0) {
      EXPECT_EQ(r.files.back(), std::string(9000, '\n')) << "moved aside as it was, before a header";
      r.files.pop_back();
    }
    for (const std::string& file : r.files) {
      EXPECT_EQ(file.rfind(kHeaderStart, 0), 0u) << "every file can be read alone";
      size_t longest = 0;
      for (const std::string& line : Lines(file)) {
        EXPECT_TRUE(IsWholeLine(line)) << line;
        longest = std::max(longest, line.size() + 1);
      }
      // The footer block goes in whole, like a line.
      const size_t footer = file.find("[Logging stopped"), header = file.find('\n', file.find("[Library")) + 1;
      const size_t lines = footer == std::string::npos ? file.size() : footer;
      if (!row.warning.empty()) continue;
      // Past the bound only with a single line after the header, which a new file takes whatever its length.
      if (lines > bound) { EXPECT_EQ(Count(file.substr(0, lines), "\n["), 4u) << file; }
      EXPECT_LE(file.size(), std::max<uint64_t>(bound, header) + std::max(longest, file.size() - lines));
    }
    EXPECT_EQ(Count(r.files[0], "[Logging stopped"), 1u);
    EXPECT_EQ(Count(r.all, "[Logging stopped"), 1u);
    if (row.files != nullptr && std::string(row.files) == "1000") { EXPECT_EQ(Count(r.all, kInitEnter), 12u); }
    const std::regex warning(R"(\[\d{6}\.\d{6} DDI \d{5,}:\d{5,} W\] (Invalid .*))");
    std::vector<std::string> warnings;
    for (const std::string& line : Lines(r.all))
      if (std::smatch m; std::regex_match(line, m, warning)) warnings.push_back(m[1]);
    EXPECT_EQ(warnings, row.warning.empty() ? std::vector<std::string>{} : std::vector<std::string>{row.warning});
  }
}

// FILE.1 is a folder that cannot be replaced, so the full file cannot be moved aside: it is emptied instead, and the
// header of what follows says so.
TEST_F(LogFile, AFileThatCannotBeMovedAsideIsEmptiedAndTheNextHeaderSaysSo) {
  if (!RunInChild([&](ChildContext& ctx) {
        EnterPrivateDev();
        ctx.EnableLog("T");
        setenv("TAVIK_UMD_PATH", ctx.tmp.c_str(), 1);
        setenv("TAVIK_DDI_LOG_MAX_SIZE", "4K", 1);
        setenv("TAVIK_DDI_LOG_MAX_FILES", "1", 1);
        ASSERT_EQ(mkdir((ctx.LogPath() + ".1").c_str(), 0755), 0);
        WriteFile(ctx.LogPath() + ".1/keep", "x");
        TAVIK_LOAD(lib);
        for (int i = 0; i < 6; ++i) Cycles(lib.get(), 1);
        lib.reset();
      }))
    return;
  const std::string log = ReadScratch("ddi.log");
  const std::string note = "[Log file truncated: renaming '" + ctx_.LogPath() + "' to '" + ctx_.LogPath() +
                           ".1' failed, Error 21 (Is a directory)]\n";
  EXPECT_EQ(log.rfind(kHeaderStart, 0), 0u);
  const size_t library = log.find("[Library: '");
  EXPECT_EQ(log.compare(log.find('\n', library) + 1, note.size(), note), 0) << log.substr(0, 400);
  EXPECT_LE(log.size(), 4096u + 200u);
}

// Another program renames the file away and creates an empty one in its place (logrotate's create mode), or deletes
// it, while the library runs: within a second or two the file at the path begins with a header block, and the lines go
// on there.
TEST_F(LogFile, AFileRenamedOrDeletedByAnotherProgramIsReopenedByItsPath) {
  for (const bool rename : {true, false}) {
    SCOPED_TRACE(rename ? "renamed" : "deleted");
    Fresh();
    if (!RunInChild([&](ChildContext& ctx) {
          EnterPrivateDev();
          ctx.EnableLog("T");
          setenv("TAVIK_UMD_PATH", ctx.tmp.c_str(), 1);
          TAVIK_LOAD(lib);
          Cycles(lib.get(), 1);
          ASSERT_EQ(rename ? ::rename(ctx.LogPath().c_str(), (ctx.LogPath() + ".old").c_str()) : unlink(ctx.LogPath().c_str()), 0);
          if (rename) WriteFile(ctx.LogPath(), "");  // logrotate's create mode puts an empty file in its place
          struct stat st;
          bool back = false;
          for (const auto t0 = Clock::now(); !back && SecondsSince(t0) < 10; usleep(10000))
            back = stat(ctx.LogPath().c_str(), &st) == 0 && st.st_size > 0;  // a header, while the log is idle
          EXPECT_TRUE(back);
          Cycles(lib.get(), 1);
          lib.reset();
        }))
      continue;
    const std::string now = ReadScratch("ddi.log"), old = ReadScratch("ddi.log.old");
    EXPECT_EQ(now.rfind(kHeaderStart, 0), 0u);
    EXPECT_EQ(Count(now, kInitEnter), 1u);
    EXPECT_EQ(Count(now, "[Logging stopped"), 1u);
    EXPECT_EQ(Count(old, kInitEnter), rename ? 1u : 0u);
    EXPECT_EQ(Count(old, "[Logging stopped"), 0u);
  }
}

// Two processes log to one path at once, as a core and the probe do, with and without a shared bound: every line of
// each arrives once and whole, and under the bound the files stay within it but for a line of each process.
TEST_F(LogFile, TwoProcessesOnOnePathLoseSplitAndRepeatNoLine) {
  for (const char* size : {static_cast<const char*>(nullptr), "64K"}) {
    SCOPED_TRACE(size ? size : "no bound");
    Fresh();
    if (!RunInChild([&](ChildContext& ctx) {
          EnterPrivateDev();
          ctx.EnableLog("T");
          setenv("TAVIK_UMD_PATH", ctx.tmp.c_str(), 1);
          if (size != nullptr) setenv("TAVIK_DDI_LOG_MAX_SIZE", size, 1), setenv("TAVIK_DDI_LOG_MAX_FILES", "1000", 1);
          pid_t children[2];
          for (pid_t& child : children)
            if ((child = fork()) == 0) {
              TAVIK_LOAD(lib);
              for (int i = 0; i < 40; ++i) Cycles(lib.get(), 1);
              lib.reset();
              std::fflush(nullptr);
              _exit(::testing::Test::HasFailure() ? 1 : 0);
            }
          for (pid_t child : children) {
            int status = 0;
            EXPECT_EQ(waitpid(child, &status, 0), child);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
          }
        }))
      continue;
    const Rotated r = ReadRotated(ctx_.LogPath());
    if (size != nullptr) { EXPECT_GE(r.files.size(), 3u); }
    std::map<std::string, std::map<std::string, size_t>> perPid;  // pid -> kind -> count
    for (const std::string& file : r.files) {
      EXPECT_EQ(file.rfind(kHeaderStart, 0), 0u);
      // A process finds out within 64 of its lines that another writes to its file too, and from then on looks at the
      // size before every line.
      if (size != nullptr) { EXPECT_LE(file.size(), 65536u + 64u * 200u); }
      for (const std::string& line : Lines(file)) {
        EXPECT_TRUE(IsWholeLine(line)) << line;
        std::smatch m;
        if (std::regex_search(line, m, std::regex(R"(^\[[.0-9]{13} DDI (\d+):\d+ .\] *(.*\): (ENTER|RETURN)))")))
          ++perPid[m[1]][m[2]];
      }
    }
    ASSERT_EQ(perPid.size(), 2u);
    // Every process ran the same calls, so each kind of line must come the same number of times from each.
    EXPECT_EQ(perPid.begin()->second, perPid.rbegin()->second);
    EXPECT_EQ(perPid.begin()->second["int16 tavik_ddi_init(Ddi*): ENTER"], 40u);
    EXPECT_EQ(perPid.begin()->second["int16 tavik_ddi_uninit(Ddi*): RETURN"], 40u);
    EXPECT_EQ(Count(r.all, "[Logging stopped"), 2u);
  }
}

}  // namespace
}  // namespace tavik_test
