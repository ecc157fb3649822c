// The library in hostile surroundings: module files that others can change or that are no files at all, a core
// that forks while its threads log or starts a program, a privileged core started by a user who chose its
// environment, and a camera that reports an error on every poll (unplugged).
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <vector>

#include "E2e.h"
#include "SimCamera.h"

extern char** environ;

namespace tavik_test {
namespace {

namespace fs = std::filesystem;
constexpr uid_t kNobody = 65534;

class Security : public E2eTest {};

long CountMatches(const std::string& text, const std::string& pattern) {
  const std::regex re(pattern);
  return static_cast<long>(std::distance(std::sregex_iterator(text.begin(), text.end(), re), std::sregex_iterator()));
}

// Each folder is searched on its own init; neither the FIFO nor the module with a missing function stops a search.
TEST_F(Security, ModuleFiles) {
  if (geteuid() != 0) return (void)RunInChild([](ChildContext&) { SkipChild("needs root to give files away"); });
  const std::string t = ctx_.tmp;
  // Folders first, then files: source ("" a FIFO, "@" a link to the module of /open), mode, owner.
  const struct { std::string path, from; mode_t mode; uid_t owner; } rows[] = {
      {t + "/files", "", 0755, 0}, {t + "/open", "", 01777, 0}, {t + "/theirs", "", 0755, kNobody},
      {t + "/group", "", 0775, 0}, {t + "/files/tavik_a.x86_64.umd", "", 0644, 0},
      {t + "/files/tavik_b.x86_64.umd", "undefined/tavik_undefined", 0755, 0},
      {t + "/files/tavik_c.x86_64.umd", "good/tavik_good", 0775, 0},
      {t + "/files/tavik_d.x86_64.umd", "usb/tavik_usbdrv", 0755, kNobody},
      {t + "/files/tavik_e.x86_64.umd", "virtual/tavik_virtualdrv", 0757, 0},
      {t + "/open/tavik_usb.x86_64.umd", "usb/tavik_usbdrv", 0755, 0}, {t + "/files/tavik_f.x86_64.umd", "@", 0, 0},
      {t + "/files/tavik_g.x86_64.umd", "virtual/tavik_virtualdrv", 0755, kNobody},
      {t + "/theirs/tavik_usb.x86_64.umd", "usb/tavik_usbdrv", 0755, 0},
      {t + "/group/tavik_usb.x86_64.umd", "usb/tavik_usbdrv", 0755, 0}};
  for (const auto& row : rows) {
    if (row.from == "@") {
      ASSERT_EQ(symlink((t + "/open/tavik_usb.x86_64.umd").c_str(), row.path.c_str()), 0);
      continue;
    }
    if (row.from.empty() && row.path.find(".umd") == std::string::npos) fs::create_directory(row.path);
    else if (row.from.empty()) ASSERT_EQ(mkfifo(row.path.c_str(), 0644), 0);
    else fs::copy_file(FixtureDir(row.from + ".x86_64.umd"), row.path);
    ASSERT_EQ(chown(row.path.c_str(), row.owner, 0) | chmod(row.path.c_str(), row.mode), 0) << row.path;
  }
  RunScenario("module_files", "warning", [&](DdiLibrary* lib) {
    for (const char* folder : {"/files", "/open", "/theirs", "/group"}) {
      setenv("TAVIK_UMD_PATH", (t + folder).c_str(), 1);
      Ddi ddi{};
      Note("folder '%s': init %d", folder, lib->init(&ddi));
      for (const tavik_driver* d : ddi.drivers)
        if (d != nullptr && d->mode == TAVIK_DRIVER_MODE_USER) Note("user-mode driver '%s'", d->file_path);
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
    // Plain threads: a std::thread's state lives only on its own stack, which a child does not have, so the leak
    // checker at a child's exit would count it.
    static DdiLibrary* shared;
    static std::atomic<int> calls;
    shared = lib.get();
    pthread_t threads[3];
    for (pthread_t& thread : threads)
      ASSERT_EQ(pthread_create(&thread, nullptr, [](void*) -> void* {
        uns16 w[3];
        for (int i = 0; i < 1500; ++i, calls.fetch_add(1)) shared->getLibVersion(&w[0], &w[1], &w[2]);
        return nullptr;
      }, nullptr), 0);
    uns16 v[3];
    for (int f = 0; f < 10; ++f) {  // a child of a TSan build sleeps 1 s at exit
      const pid_t child = fork();
      if (child == 0) {
        lib->getLibVersion(&v[0], &v[1], &v[2]);
#if defined(__SANITIZE_ADDRESS__)
        // This runtime's leak check at exit takes its allocator's lock, which a parent thread may have held at the
        // fork (the runtime takes no lock around a fork): the unload runs the library's teardown instead.
        lib.reset();
        _exit(0);
#endif
        exit(0);
      }
      int status = -1, waited = 0;  // a child that has not ended after 10 s hangs
      while (child > 0 && waitpid(child, &status, WNOHANG) == 0 && ++waited < 10000) usleep(1000);
      if (waited == 10000) kill(child, SIGKILL), waitpid(child, &status, 0);
      ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child " << f << " status " << status;
    }
    for (pthread_t thread : threads) pthread_join(thread, nullptr);
    Ddi ddi{};  // the worker still writes after the forks
    EXPECT_EQ(lib->init(&ddi) | lib->uninit(&ddi), KZ_ERR_NONE);
    lib.reset();
    const std::string log = ReadFile(ctx.LogPath()), pid = std::to_string(getpid());
    auto count = [&](const std::string& pattern) { return CountMatches(log, pattern); };
    EXPECT_EQ(std::vector<long>({count("\\[Logging started"), count("Logging stopped"),
                                 count("\\[Logging stopped, [^\\]]*PID " + pid + "\\]"),
                                 count("tavik_ddi_uninit\\(Ddi\\*\\): RETURN")}),
              std::vector<long>({1, 1, 1, 1}));
    EXPECT_EQ(count("get_lib_version\\(uns16\\*, uns16\\*, uns16\\*\\): (ENTER|RETURN)"), 2 * calls.load());
    EXPECT_EQ(count("DDI 0*" + pid + ":"), count("DDI \\d+:"));  // no line from a child
  }));
}

// The small core, run with env as nobody (setuid root, so in secure mode) or as root: its report and exit status.
std::string RunCore(const std::string& dir, const std::string& env, bool asNobody) {
  // A non-dumpable process cannot be stopped by the leak checker's tracer; its leak check would only fail.
  const char* asan = getenv("ASAN_OPTIONS");
  const std::string command = "env -i PATH=/usr/bin:/bin ASAN_OPTIONS='" + std::string(asan != nullptr ? asan : "") +
                              ":detect_leaks=0' " + env +
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
// setting chosen by nobody, takes none of them; started by root, it takes all three.
TEST_F(Security, SetuidCoreIgnoresItsUsersEnvironment) {
  if (geteuid() != 0) return (void)RunInChild([](ChildContext&) { SkipChild("needs root to make a setuid core"); });
  char pattern[] = "/tmp/tavik-secure-XXXXXX";  // ctx_.tmp may be out of nobody's reach
  ASSERT_NE(mkdtemp(pattern), nullptr);
  const std::string dir = pattern;
  struct statvfs vfs;
  if (statvfs(dir.c_str(), &vfs) != 0 || (vfs.f_flag & ST_NOSUID) != 0)
    return (void)(fs::remove(dir), RunInChild([](ChildContext&) { SkipChild("/tmp is mounted nosuid"); }));
  // The module folder passes every check of its files: only the variable that names it decides.
  for (const char* sub : {"/lib", "/modules", "/rootonly", "/nobody"}) fs::create_directories(dir + sub);
  fs::copy_file(TAVIK_TEST_SECURE_CORE, dir + "/core");
  fs::copy_file(TAVIK_TEST_LIBRARY_PATH, dir + "/lib/libtavikDDI.so.3");
  fs::copy_file(TAVIK_TEST_EMULATOR, dir + "/tavik_virtual.x86_64.umd");
  fs::copy_file(FixtureDir("usb/tavik_usbdrv.x86_64.umd"), dir + "/modules/tavik_usb.x86_64.umd");
  ASSERT_EQ(chmod(dir.c_str(), 0755) | chmod((dir + "/rootonly").c_str(), 0700) |
                chown((dir + "/nobody").c_str(), kNobody, kNobody) | chmod((dir + "/core").c_str(), 04755),
            0);
  const std::string env = "TAVIK_UMD_PATH=" + dir + "/modules TAVIK_DDI_LOG_FILE=" + dir +
                          "/rootonly/ddi.log TAVIK_DDI_LOG_LEVEL=trace TAVIK_VIRTUAL_CAMERAS=3 TAVIK_FIXTURE_CALLS=" +
                          dir + "/nobody/calls.txt";
  EXPECT_EQ(RunCore(dir, env, true), "secure 1\ninit 0\nuninit 0\nemulator cameras 1\nexit 0\n");
  EXPECT_EQ(fs::exists(dir + "/rootonly/ddi.log") || fs::exists(dir + "/nobody/calls.txt"), false);
  EXPECT_EQ(RunCore(dir, env, false), "secure 0\ninit 0\nuser-mode slot 2: '" + dir +
                                          "/modules/tavik_usb.x86_64.umd'\nuninit 0\nemulator cameras 3\nexit 0\n");
  EXPECT_EQ(fs::exists(dir + "/rootonly/ddi.log") && fs::exists(dir + "/nobody/calls.txt"), true);

  // A known name that the loader finds in a folder that anyone may write is closed again.
  fs::create_directories(dir + "/known");
  fs::copy_file(FixtureDir("usb/tavik_usbdrv.x86_64.umd"), dir + "/known/tavik_usb.x86_64.umd");
  ASSERT_EQ(chmod((dir + "/known").c_str(), 01777), 0);
  EXPECT_EQ(RunCore(dir, "LD_LIBRARY_PATH=" + dir + "/known TAVIK_DDI_LOG_FILE=" + dir + "/known.log", false),
            "secure 0\ninit 0\nuninit 0\nemulator cameras 1\nexit 0\n");
  EXPECT_NE(ReadFile(dir + "/known.log")
                .find("Refused library '" + dir + "/known/tavik_usb.x86_64.umd' (world-writable folder)"),
            std::string::npos) << ReadFile(dir + "/known.log");
  fs::remove_all(dir);
}

class NotificationThread : public ChildTest {};

int16 Ignore(tavik_driver_device*, tavik_notif*) { return KZ_ERR_NONE; }

// A private /dev with one simulated camera, the log at level E.
SimCamera* EnterWithCamera(ChildContext& ctx) {
  EnterPrivateDev();
  ctx.EnableLog("error");
  MakeFifo("tavikSW_0");
  return SimCamera::Attach("/dev/tavikSW_0");
}

// What the descriptors of a process point at ("pipe:[4711]", "/dev/tavikSW_0"), by number.
std::map<int, std::string> FdTargets(const std::string& proc) {
  std::map<int, std::string> targets;
  for (const auto& e : std::filesystem::directory_iterator(proc + "/fd"))
    targets[std::stoi(e.path().filename())] = ReadLink(e.path());
  return targets;
}

// The core starts a program (one that runs for 30 s) while a camera's notifications run: with exec, the program must
// hold none of the library's descriptors; without exec, it holds them all. Either way stop must not wait for it.
TEST_F(NotificationThread, StopReturnsWhileAProcessTheCoreStartedRuns) {
  for (const bool exec : {true, false}) {
    SCOPED_TRACE(exec ? "fork and exec" : "fork alone");
    RunInChild([exec](ChildContext& ctx) {
      SimCamera* cam = EnterWithCamera(ctx);
      ASSERT_NE(cam, nullptr);
      const std::map<int, std::string> before = FdTargets("/proc/self");
      TAVIK_LOAD(lib);
      Ddi ddi{};
      ASSERT_EQ(lib->init(&ddi), KZ_ERR_NONE);
      tavik_driver_device* d = ddi.devices[0];
      ASSERT_EQ(d->open(d), KZ_ERR_NONE);
      ASSERT_EQ(d->start_notif_thread(d, Ignore), KZ_ERR_NONE);
      while (cam->polls < 1) usleep(200);
      std::set<std::string> ours;  // the log file, the device node and the wake-up pipe
      for (const auto& [fd, target] : FdTargets("/proc/self"))
        if (before.count(fd) == 0) ours.insert(target);
      ASSERT_GE(ours.size(), 3u);

      pid_t child = 0;
      char* argv[] = {const_cast<char*>("sleep"), const_cast<char*>("30"), nullptr};
      if (exec) {
        ASSERT_EQ(posix_spawnp(&child, "sleep", nullptr, nullptr, argv, environ), 0);  // returns once it has exec'd
        for (const auto& [fd, target] : FdTargets("/proc/" + std::to_string(child)))
          EXPECT_EQ(ours.count(target), 0u) << "the program inherited descriptor " << fd << ": " << target;
      } else if ((child = fork()) == 0) {
        alarm(30);  // ends it also when a hang ends this child first
        for (;;) pause();
      }
      EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
      EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0) << "stop waited for the process to end";
      kill(child, SIGKILL);
      waitpid(child, nullptr, 0);
      EXPECT_EQ(d->close(d), KZ_ERR_NONE);
      EXPECT_EQ(lib->uninit(&ddi), KZ_ERR_NONE);
    }, 20);
  }
}

// An unplugged camera reports POLLERR on every poll. Each pass still logs "Device error", but the passes are paced
// by a pause of 10 ms: no more of them than 10 ms fit into the time the thread ran.
TEST_F(NotificationThread, DeviceInErrorIsLoggedOnEveryPassAndPaced) {
  RunInChild([](ChildContext& ctx) {
    SimCamera* cam = EnterWithCamera(ctx);
    ASSERT_NE(cam, nullptr);
    cam->FailPolls(0, INT_MAX);
    int passes = 0;
    long long elapsedUs = 0;
    {
      TAVIK_LOAD(lib);
      Ddi ddi{};
      ASSERT_EQ(lib->init(&ddi), KZ_ERR_NONE);
      tavik_driver_device* d = ddi.devices[0];
      ASSERT_EQ(d->open(d), KZ_ERR_NONE);
      const auto t0 = std::chrono::steady_clock::now();
      ASSERT_EQ(d->start_notif_thread(d, Ignore), KZ_ERR_NONE);
      usleep(300000);
      EXPECT_EQ(d->stop_notif_thread(d), KZ_ERR_NONE);
      elapsedUs = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - t0).count();
      passes = cam->polls;
      EXPECT_EQ(d->close(d), KZ_ERR_NONE);
      EXPECT_EQ(lib->uninit(&ddi), KZ_ERR_NONE);
    }  // unloaded: the log is complete
    EXPECT_GE(passes, 2);
    EXPECT_EQ(CountMatches(ReadFile(ctx.LogPath()), ": >>> 'tavikSW_0': Device error\n"), passes)
        << "every pass logs the error once";
    EXPECT_LE(passes, elapsedUs / 10000 + 1) << "in " << elapsedUs << " us";
  });
}

}  // namespace
}  // namespace tavik_test
