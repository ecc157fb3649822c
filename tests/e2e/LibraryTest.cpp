// The library as a tenant of the core's process: the log set-up from the environment at load, and its file in trouble.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <set>
#include <thread>

#include "E2e.h"

namespace tavik_test {
namespace {

class LibraryLoad : public ChildTest {};

// The two variables are read once at load. Each row loads the library, makes it log at every level (an error, a
// warning and infos from a module folder, debug lines from a device, trace lines from every call) in two rounds, and
// unloads it; the file must hold just the levels the row names, in one complete block after an older run's line.
// The rows named '@' put their file, in a 64 KiB file system of its own, in trouble once the library runs: the file
// system full until the second round, the file deleted (a new one is made by its path), its folder made read-only, a FIFO that nobody reads. The
// caller goes on as before; lines that the full disk swallowed are counted in the footer's dropped messages, and a
// line cut short does not run into the next.
TEST_F(LibraryLoad, LogFileAndLevelFromTheEnvironmentAndTheFileInTrouble) {
  struct Row {
    std::string file;  // "log": the scratch log; "-": unset
    const char* level;
    const char* letters;  // nullptr: no file at all
  } rows[] = {{"-", nullptr, nullptr},     {"", "T", nullptr},  {"/nonexistent/ddi.log", nullptr, nullptr},
              {"log", nullptr, "DEITW"},   {"log", "", "DEITW"}, {"log", "2", "DEITW"},
              {"log", "x", "DEITW"},       {"log", " e", "DEITW"}, {"log", "e", "E"},    {"log", "Error", "E"},
              {"log", "warning", "EW"},    {"log", "Info", "EIW"}, {"log", "debug", "DEIW"}, {"@full", "T", "DEITW"},
              {"@deleted", "T", "DEITW"}, {"@read-only", "T", "DEITW"}, {"@fifo", "T", nullptr}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.file + " at " + (row.level ? row.level : "(unset)"));
    WriteFile(ctx_.LogPath(), "an older run\n");  // a log file is appended to, never replaced
    if (!RunInChild([&](ChildContext& ctx) {
          EnterPrivateDev();
          MakeFifo("tavikPCIE_0");
          const std::string dir = ctx.tmp + "/fs" + row.file, troubled = dir + "/ddi.log", filler = dir + "/filler";
          if (row.file[0] == '@') {
            ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
            ASSERT_EQ(mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=64k"), 0);
            ASSERT_TRUE(row.file != "@fifo" || mkfifo(troubled.c_str(), 0600) == 0);
          }
          if (row.file != "-")
            setenv("TAVIK_DDI_LOG_FILE", row.file == "log" ? ctx.LogPath().c_str() : row.file[0] == '@' ? troubled.c_str() : row.file.c_str(), 1);
          if (row.level != nullptr) setenv("TAVIK_DDI_LOG_LEVEL", row.level, 1);
          setenv("TAVIK_UMD_PATH", FixtureDir("mixed").c_str(), 1);
          const size_t threads = CountThreads(), fds = CountOpenFds();
          TAVIK_LOAD(lib);
          EXPECT_EQ(CountEntries("/proc/self/task"), threads) << "the log's worker started during the load";
          // The log file must not leak into programs that the core starts.
          for (int fd = 0; row.letters != nullptr && fd < 64; ++fd)
            EXPECT_TRUE(ReadLink("/proc/self/fd/" + std::to_string(fd)) != ctx.LogPath() || fcntl(fd, F_GETFD) & FD_CLOEXEC);
          if (row.file == "@full") {
            const int f = open(filler.c_str(), O_WRONLY | O_CREAT, 0600);
            char block[4096] = {};
            for (size_t size = sizeof block; size > 0; size /= 2)
              while (write(f, block, size) == static_cast<ssize_t>(size)) {}
            close(f);
          }
          // A second on, the next line finds the path empty and starts a new file there.
          if (row.file == "@deleted") unlink(troubled.c_str()), usleep(1100 * 1000);
          if (row.file == "@read-only") chmod(dir.c_str(), 0555);
          // On a thread of its own, whose thread-local state is gone before the unload: nothing pins the library.
          for (int round = 0; round < 2; ++round, unlink(filler.c_str())) std::thread([&] {
            Ddi ddi{};
            EXPECT_EQ(lib->init(&ddi), KZ_ERR_NONE);
            tavik_driver_device* d = ddi.devices[ddi.cam_count - 2];  // the FIFO, before the emulator row
            uns16 n = 0;
            EXPECT_EQ(d->open(d), KZ_ERR_NONE);
            EXPECT_EQ(d->write(d, reinterpret_cast<const uns8*>("ab"), 2, &n), KZ_ERR_NONE);
            EXPECT_EQ(d->close(d), KZ_ERR_NONE);
            EXPECT_EQ(lib->uninit(&ddi), KZ_ERR_NONE);
          }).join();
          lib.reset();
          EXPECT_FALSE(StillMapped());
          EXPECT_EQ(SettledThreadCount(threads), threads);
          EXPECT_EQ(CountOpenFds(), fds);
          if (row.file[0] == '@' && row.file != "@fifo")  // the file system goes with the child
            WriteFile(ctx.LogPath(), ReadFile(ctx.LogPath()) + ReadFile(troubled));
        }))
      continue;
    const std::string log = ReadScratch("ddi.log");
    EXPECT_EQ(log.substr(0, row.letters == nullptr ? std::string::npos : 13), "an older run\n");
    EXPECT_EQ(std::regex_search(log, std::regex(", dropped [1-9][0-9]* messages\\]\n")), row.file == "@full");
    EXPECT_FALSE(std::regex_search(log, std::regex("[^\n]\\[[0-9]{6}\\.[0-9]{6} "))) << "a line cut short runs into the next";
    if (row.letters == nullptr) continue;
    std::set<char> seen;
    int started = 0, stopped = 0;
    std::istringstream in(log);
    for (std::string line; std::getline(in, line);) {
      // A line that the full disk cut short may end before its level letter.
      const size_t letterEnd = line.find(']');
      if (line.size() > 28 && line[0] == '[' && line[7] == '.' && letterEnd != std::string::npos) seen.insert(line[letterEnd - 1]);
      started += line.rfind("[Logging started", 0) == 0;
      stopped += line.rfind("[Logging stopped", 0) == 0;
    }
    EXPECT_EQ(std::string(seen.begin(), seen.end()), row.letters);
    EXPECT_EQ(started, 1);
    EXPECT_EQ(stopped, 1);
    EXPECT_EQ(log.substr(log.size() < 66 ? 0 : log.size() - 66), "[" + std::string(62, '=') + "]\n\n");
  }
}

}  // namespace
}  // namespace tavik_test
