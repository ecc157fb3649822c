// The library in hostile surroundings: module files that others can change or that are no files at all, a core
// that forks while its threads log, and a privileged core started by a user who chose its environment.
#include <signal.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <regex>
#include <thread>
#include <vector>

#include "E2e.h"

namespace tavik_test {
namespace {

namespace fs = std::filesystem;
constexpr uid_t kNobody = 65534;

class Security : public E2eTest {};

// Each folder is searched on its own init: what is refused, with which reason, what loads with a warning, and
// that neither the FIFO nor the module with a missing function stops the search.
TEST_F(Security, ModuleFiles) {
  if (geteuid() != 0) {
    RunInChild([](ChildContext&) { SkipChild("needs root to give files to another user"); });
    return;
  }
  const std::string files = ctx_.tmp + "/files", open = ctx_.tmp + "/open", theirs = ctx_.tmp + "/theirs",
                    group = ctx_.tmp + "/group";
  for (const std::string& d : {files, open, theirs, group}) fs::create_directories(d);
  auto copy = [](const std::string& from, const std::string& to, mode_t mode, uid_t owner = 0) {
    fs::copy_file(FixtureDir(from), to);
    ASSERT_EQ(chown(to.c_str(), owner, 0), 0);
    ASSERT_EQ(chmod(to.c_str(), mode), 0);
  };
  ASSERT_EQ(mkfifo((files + "/tavik_a.x86_64.umd").c_str(), 0644), 0);
  copy("undefined/tavik_undefined.x86_64.umd", files + "/tavik_b.x86_64.umd", 0755);
  copy("good/tavik_good.x86_64.umd", files + "/tavik_c.x86_64.umd", 0775);
  copy("usb/tavik_usbdrv.x86_64.umd", files + "/tavik_d.x86_64.umd", 0755, kNobody);
  copy("virtual/tavik_virtualdrv.x86_64.umd", files + "/tavik_e.x86_64.umd", 0757);
  copy("usb/tavik_usbdrv.x86_64.umd", open + "/tavik_usb.x86_64.umd", 0755);
  ASSERT_EQ(symlink((open + "/tavik_usb.x86_64.umd").c_str(), (files + "/tavik_f.x86_64.umd").c_str()), 0);
  copy("virtual/tavik_virtualdrv.x86_64.umd", files + "/tavik_g.x86_64.umd", 0755, kNobody);
  copy("usb/tavik_usbdrv.x86_64.umd", theirs + "/tavik_usb.x86_64.umd", 0755);
  copy("usb/tavik_usbdrv.x86_64.umd", group + "/tavik_usb.x86_64.umd", 0755);
  ASSERT_EQ(chmod(open.c_str(), 01777), 0);
  ASSERT_EQ(chown(theirs.c_str(), kNobody, 0), 0);
  ASSERT_EQ(chmod(group.c_str(), 0775), 0);
  RunScenario("module_files", "warning", [&](DdiLibrary* lib) {
    for (const std::string& folder : {files, open, theirs, group}) {
      setenv("TAVIK_UMD_PATH", folder.c_str(), 1);
      Ddi ddi{};
      Note("folder '%s': init %d", folder.c_str(), lib->init(&ddi));
      for (int t = 0; t < TAVIK_DRIVER_TYPE_COUNT; ++t)
        if (ddi.drivers[t] != nullptr && ddi.drivers[t]->mode == TAVIK_DRIVER_MODE_USER)
          Note("slot %d path '%s'", t, ddi.drivers[t]->file_path);
      Note("uninit: %d", lib->uninit(&ddi));
    }
  }, "user_mode");
}

// Threads log at Trace while the core forks again and again; each child uses the library and ends with exit(0).
// A child has no log: it ends at once, and the parent's file holds every parent line, one footer, no child line.
TEST_F(Security, ForkedChildrenHaveNoLog) {
  ASSERT_TRUE(RunInChild([](ChildContext& ctx) {
    ctx.EnableLog("trace");
    TAVIK_LOAD(lib);
    constexpr int kThreads = 3, kCalls = 1500, kForks = 40;
    std::atomic<int> calls{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
      threads.emplace_back([&] {
        uns16 v[3];
        for (int i = 0; i < kCalls; ++i) {
          lib->getLibVersion(&v[0], &v[1], &v[2]);
          calls.fetch_add(1);
        }
      });
    std::vector<pid_t> slow;
    for (int f = 0; f < kForks; ++f) {
      const pid_t child = fork();
      ASSERT_GE(child, 0);
      if (child == 0) {
        uns16 v[3];
        lib->getLibVersion(&v[0], &v[1], &v[2]);
        exit(0);
      }
      // A child that does not end within 20 s hangs; it is killed and counted.
      int status = 0;
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
      while (waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
          kill(child, SIGKILL);
          waitpid(child, &status, 0);
          slow.push_back(child);
          break;
        }
        usleep(1000);
      }
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child " << child << " status " << status;
    }
    EXPECT_EQ(slow.size(), 0u) << "children hung at exit";
    for (auto& t : threads) t.join();
    // The worker still writes after the forks: the uninit flush reports nothing dropped.
    Ddi ddi{};
    EXPECT_EQ(lib->init(&ddi), KZ_ERR_NONE);
    EXPECT_EQ(lib->uninit(&ddi), KZ_ERR_NONE);
    lib.reset();
    const std::string log = ReadFile(ctx.LogPath());
    auto count = [&](const std::string& pattern) {
      const std::regex re(pattern);
      return std::distance(std::sregex_iterator(log.begin(), log.end(), re), std::sregex_iterator());
    };
    const std::string pid = std::to_string(getpid());
    EXPECT_EQ(count("\\[Logging started"), 1);
    EXPECT_EQ(count("\\[Logging stopped, [^\\]]*PID " + pid + "\\]"), 1);
    EXPECT_EQ(count("Logging stopped"), 1);
    EXPECT_EQ(count("get_lib_version\\(uns16\\*, uns16\\*, uns16\\*\\): ENTER"), calls.load());
    EXPECT_EQ(count("get_lib_version\\(uns16\\*, uns16\\*, uns16\\*\\): RETURN"), calls.load());
    EXPECT_EQ(count("DDI 0*" + pid + ":"), count("DDI \\d+:"));  // no line from a child
    EXPECT_EQ(count("tavik_ddi_uninit\\(Ddi\\*\\): RETURN"), 1);
  }));
}

}  // namespace
}  // namespace tavik_test

namespace tavik_test {
namespace {

// The core's report for one run: its output, or the reason it could not run.
std::string RunCore(const std::string& dir, const std::string& env, bool asNobody) {
  // A non-dumpable process cannot be stopped by the leak checker's tracer; its leak check would only fail.
  const char* asan = getenv("ASAN_OPTIONS");
  const std::string sanitizers = "ASAN_OPTIONS='" + std::string(asan != nullptr ? asan : "") + ":detect_leaks=0' ";
  const std::string command = "env -i PATH=/usr/bin:/bin " + sanitizers + env +
                              (asNobody ? " setpriv --reuid=nobody --regid=nogroup --clear-groups " : " ") + dir +
                              "/core " + dir + "/lib/libtavikDDI.so.3 " + dir + "/tavik_virtual.x86_64.umd 2>&1";
  std::string out;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    char buffer[512];
    while (fgets(buffer, sizeof buffer, pipe) != nullptr) out += buffer;
    out += "exit " + std::to_string(pclose(pipe)) + "\n";
  }
  return out;
}

// A setuid-root core started by nobody, with a module folder, a log file in a root-only folder and an emulator
// setting all chosen by nobody: it takes none of them. The same core started by root without the privilege
// change takes all three, so the test shows what the secure mode changes.
TEST_F(Security, SetuidCoreIgnoresItsUsersEnvironment) {
  if (geteuid() != 0) {
    RunInChild([](ChildContext&) { SkipChild("needs root to make a setuid copy of the core"); });
    return;
  }
  char pattern[] = "/tmp/tavik-secure-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  const std::string dir = pattern;
  struct statvfs vfs;
  ASSERT_EQ(statvfs(dir.c_str(), &vfs), 0);
  if ((vfs.f_flag & ST_NOSUID) != 0) {
    fs::remove_all(dir);
    RunInChild([](ChildContext&) { SkipChild("/tmp is mounted nosuid"); });
    return;
  }
  // Root's files, which nobody may read and run; the module folder passes every check of its files, so only the
  // variable that names it decides.
  fs::create_directories(dir + "/lib");
  fs::create_directories(dir + "/modules");
  fs::create_directories(dir + "/rootonly");
  fs::create_directories(dir + "/nobody");
  fs::copy_file(TAVIK_TEST_SECURE_CORE, dir + "/core");
  fs::copy_file(TAVIK_TEST_LIBRARY_PATH, dir + "/lib/libtavikDDI.so.3");
  fs::copy_file(TAVIK_TEST_EMULATOR, dir + "/tavik_virtual.x86_64.umd");
  fs::copy_file(FixtureDir("usb/tavik_usbdrv.x86_64.umd"), dir + "/modules/tavik_usb.x86_64.umd");
  ASSERT_EQ(chmod(dir.c_str(), 0755), 0);
  ASSERT_EQ(chmod((dir + "/rootonly").c_str(), 0700), 0);
  ASSERT_EQ(chown((dir + "/nobody").c_str(), kNobody, kNobody), 0);
  ASSERT_EQ(chmod((dir + "/core").c_str(), 04755), 0);
  const std::string env = "TAVIK_UMD_PATH=" + dir + "/modules TAVIK_DDI_LOG_FILE=" + dir +
                          "/rootonly/ddi.log TAVIK_DDI_LOG_LEVEL=trace TAVIK_VIRTUAL_CAMERAS=3 TAVIK_FIXTURE_CALLS=" +
                          dir + "/nobody/calls.txt";

  EXPECT_EQ(RunCore(dir, env, true),
            "secure 1\ninit 0\nuninit 0\nemulator cameras 1\nexit 0\n");
  EXPECT_FALSE(fs::exists(dir + "/rootonly/ddi.log"));
  EXPECT_FALSE(fs::exists(dir + "/nobody/calls.txt")) << ReadFile(dir + "/nobody/calls.txt");

  EXPECT_EQ(RunCore(dir, env, false), "secure 0\ninit 0\nuser-mode slot 2: '" + dir +
                                          "/modules/tavik_usb.x86_64.umd'\nuninit 0\nemulator cameras 3\nexit 0\n");
  EXPECT_TRUE(fs::exists(dir + "/rootonly/ddi.log"));
  EXPECT_TRUE(fs::exists(dir + "/nobody/calls.txt"));

  // A known name that the loader finds beside the library, in a folder anyone may write, is closed again.
  fs::create_directories(dir + "/lib/tavik/modules");
  fs::copy_file(FixtureDir("usb/tavik_usbdrv.x86_64.umd"), dir + "/lib/tavik/modules/tavik_usb.x86_64.umd");
  ASSERT_EQ(chmod((dir + "/lib/tavik/modules").c_str(), 01777), 0);
  EXPECT_EQ(RunCore(dir, "TAVIK_DDI_LOG_FILE=" + dir + "/known.log TAVIK_DDI_LOG_LEVEL=error", false),
            "secure 0\ninit 0\nuninit 0\nemulator cameras 1\nexit 0\n");
  EXPECT_NE(ReadFile(dir + "/known.log").find("Refused library '" + dir +
                                              "/lib/tavik/modules/tavik_usb.x86_64.umd' (world-writable folder)"),
            std::string::npos) << ReadFile(dir + "/known.log");
  fs::remove_all(dir);
}

}  // namespace
}  // namespace tavik_test
