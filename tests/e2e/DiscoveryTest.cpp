// Finding user-mode modules: the folder variable, the known names through the
// loader's own path, the name filter, collation order, one module per bus,
// every way a module can fail, and the camera list built from what loaded.
#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "E2eCommon.h"

namespace tavik_test {
namespace {

namespace fs = std::filesystem;

class Discovery : public ChildTest {
 protected:
  // Runs init and uninit in a private /dev with TAVIK_UMD_PATH set to folder.
  bool InitWithModules(const std::string& folder, const std::function<void(Session&)>& check = nullptr,
                       const std::function<void()>& makeNodes = nullptr) {
    return RunInChild([&](ChildContext& ctx) {
      EnterPrivateDev();
      if (makeNodes) makeNodes();
      ctx.EnableLog();
      ctx.RecordFixtureCalls();
      setenv("TAVIK_UMD_PATH", folder.c_str(), 1);
      Session s;
      TAVIK_INIT_SESSION(s);
      if (check) check(s);
      // Calls made during init, kept apart from those of uninit.
      std::string calls = ReadFile(ctx.CallsPath());
      FILE* f = std::fopen((ctx.tmp + "/calls-at-init.txt").c_str(), "w");
      std::fputs(calls.c_str(), f);
      std::fclose(f);
      TAVIK_UNINIT_SESSION(s);
    });
  }
  LogFile Log() const { return LogFile::Read(ctx_.LogPath()); }
  std::string CallsAtInit() const { return ReadScratch("calls-at-init.txt"); }
  std::string Calls() const { return ReadScratch("calls.txt"); }
};

std::string Module(const std::string& folder, const std::string& name) {
  return FixtureDir(folder) + "/" + name + ".x86_64.umd";
}

bool ModuleMapped(const std::string& path) {
  void* h = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (h == nullptr) return false;
  dlclose(h);
  return true;
}

TEST_F(Discovery, MissingFolderIsLoggedAndKernelDriversStillLoad) {
  const std::string folder = ctx_.tmp + "/no-such-folder";
  if (!InitWithModules(folder, [](Session& s) {
        for (int t = 0; t < TAVIK_DRIVER_TYPE_COUNT; ++t) {
          ASSERT_NE(s.ddi.drivers[t], nullptr);
          EXPECT_EQ(s.ddi.drivers[t]->mode, TAVIK_DRIVER_MODE_KERNEL);
        }
      }))
    return;
  LogFile log = Log();
  EXPECT_TRUE(TraceIsBalanced(log));
  LogCursor c(log);
  EXPECT_TRUE(c.Next('I', sig::kLoadUserModes, "Searching for user mode drivers in TAVIK_UMD_PATH='" + folder + "'...", 2));
  EXPECT_TRUE(c.Next('E', sig::kLoadUserModes,
                     "Cannot scan folder '" + folder + "', errno 2 (No such file or directory)", 2));
  EXPECT_EQ(log.Count('I', sig::kLoadUserModes, Re("Env\\. var\\..*")), 0u) << "no fallback to the known names";
  EXPECT_EQ(log.Count('I', sig::kLoadUserMode, Re("Loading .*")), 0u);
  EXPECT_EQ(log.Count('I', sig::kLoadKernelMode, Re("Accepted valid kernel mode driver for .* type")), 5u);
}

TEST_F(Discovery, EmptyFolderLoadsNothingAndIsNoError) {
  const std::string folder = ctx_.tmp + "/empty";
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  if (!InitWithModules(folder)) return;
  LogFile log = Log();
  EXPECT_EQ(log.Count('I', sig::kLoadUserModes, "Searching for user mode drivers in TAVIK_UMD_PATH='" + folder + "'..."), 1u);
  EXPECT_EQ(log.Count('E', "", Re(".*")), 0u) << log.Dump();
  EXPECT_EQ(log.Count('I', sig::kLoadUserMode, Re("Loading .*")), 0u);
}

TEST_F(Discovery, EmptyVariableMeansUnset) {
  if (!RunInChild([](ChildContext& ctx) {
        EnterPrivateDev();
        ctx.EnableLog();
        setenv("TAVIK_UMD_PATH", "", 1);
        Session s;
        TAVIK_INIT_SESSION(s);
        TAVIK_UNINIT_SESSION(s);
      }))
    return;
  LogFile log = Log();
  LogCursor c(log);
  EXPECT_TRUE(c.Next('I', sig::kLoadUserModes,
                     "Env. var. TAVIK_UMD_PATH not set, searching known user mode drivers in system...", 2));
  EXPECT_TRUE(c.Next('I', sig::kLoadUserMode, "Loading 'tavik_usb.x86_64.umd'...", 3));
  EXPECT_TRUE(c.Next('I', sig::kLoadUserMode, "Loading 'tavik_virtual.x86_64.umd'...", 3));
  EXPECT_EQ(log.Count('I', sig::kLoadUserModes, Re("Searching for user mode drivers in .*")), 0u);
}

TEST_F(Discovery, CompatibleDevicesListedIncompatibleCounted) {
  const std::string path = Module("good", "tavik_good");
  if (!InitWithModules(FixtureDir("good"), [&](Session& s) {
        const tavik_driver* d = s.ddi.drivers[TAVIK_DRIVER_TYPE_PCI];
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(d->mode, TAVIK_DRIVER_MODE_USER);
        EXPECT_NE(d->handle, nullptr);
        EXPECT_EQ(std::string(d->file_path), path);
        ASSERT_EQ(s.ddi.cam_count, 2);
        EXPECT_STREQ(s.ddi.devices[0]->name, "tavik_good-0");
        EXPECT_STREQ(s.ddi.devices[1]->name, "tavik_good-2");
        for (int t = 1; t < TAVIK_DRIVER_TYPE_COUNT; ++t) EXPECT_EQ(s.ddi.drivers[t]->mode, TAVIK_DRIVER_MODE_KERNEL);
      }))
    return;
  EXPECT_EQ(CallsAtInit().rfind("tavik_good init\ntavik_good type\n", 0), 0u) << CallsAtInit();
  EXPECT_EQ(CallsAtInit().find("uninit"), std::string::npos) << CallsAtInit();
  EXPECT_NE(Calls().find("tavik_good uninit"), std::string::npos);
  LogFile log = Log();
  EXPECT_TRUE(TraceIsBalanced(log));
  LogCursor c(log);
  EXPECT_TRUE(c.Next('I', sig::kLoadUserMode, "Loading '" + path + "'...", 3));
  EXPECT_TRUE(c.Next('T', sig::kDriverLoadUser, Re(std::string("RETURN \\(QX_OK, \\*driver=") + kPtr + "\\) " + kMicros), 3));
  EXPECT_TRUE(c.Next('I', sig::kLoadUserMode,
                     "Accepted valid user mode driver '" + path + "' with TAVIK_DRIVER_TYPE_PCI type", 3));
  EXPECT_TRUE(c.Next('I', sig::kLoadKernelMode, "There is already loaded driver with TAVIK_DRIVER_TYPE_PCI type, skipping", 3));
  EXPECT_TRUE(c.Next('I', sig::kUpdateList, "Cameras on   PCI: 2 (and 1 incompatible ignored)", 2));
  EXPECT_TRUE(c.Next('I', sig::kUpdateList, "Cameras on   USB: 0", 2));
  EXPECT_TRUE(c.Next('I', sig::kUpdateList, "Total cameras: 2", 2));
  EXPECT_EQ(log.Count('I', sig::kLoadKernelMode, "Loading driver for TAVIK_DRIVER_TYPE_PCI type..."), 0u);
}

TEST_F(Discovery, TwoModulesOfOneBusFirstInCollationOrderWins) {
  const std::string a = Module("samebus", "tavik_a"), b = Module("samebus", "tavik_b");
  if (!InitWithModules(FixtureDir("samebus"), [&](Session& s) {
        const tavik_driver* d = s.ddi.drivers[TAVIK_DRIVER_TYPE_USB];
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(std::string(d->file_path), a);
        ASSERT_EQ(s.ddi.cam_count, 1);
        EXPECT_STREQ(s.ddi.devices[0]->name, "tavik_a-0");
        EXPECT_TRUE(ModuleMapped(a));
        EXPECT_FALSE(ModuleMapped(b)) << "the discarded module must be unloaded";
      }))
    return;
  std::string calls = CallsAtInit();
  EXPECT_LT(calls.find("tavik_a init"), calls.find("tavik_b init")) << calls;
  EXPECT_NE(calls.find("tavik_b uninit"), std::string::npos) << "the discarded module's uninit must run: " << calls;
  EXPECT_EQ(calls.find("tavik_a uninit"), std::string::npos) << calls;
  EXPECT_NE(Calls().find("tavik_a uninit"), std::string::npos);
  LogFile log = Log();
  LogCursor c(log);
  EXPECT_TRUE(c.Next('I', sig::kLoadUserMode, "Loading '" + a + "'...", 3));
  EXPECT_TRUE(c.Next('I', sig::kLoadUserMode, "Accepted valid user mode driver '" + a + "' with TAVIK_DRIVER_TYPE_USB type", 3));
  EXPECT_TRUE(c.Next('I', sig::kLoadUserMode, "Loading '" + b + "'...", 3));
  EXPECT_TRUE(c.Next('W', sig::kLoadUserMode, "There is already loaded driver with TAVIK_DRIVER_TYPE_USB type, skipping", 3));
  EXPECT_TRUE(c.Next('I', sig::kLoadKernelMode, "There is already loaded driver with TAVIK_DRIVER_TYPE_USB type, skipping", 3));
}

struct BrokenModule {
  const char* folder;
  const char* name;
  const char* error;
  bool initRuns;
  bool uninitRuns;
};

class DiscoveryBroken : public Discovery, public ::testing::WithParamInterface<BrokenModule> {};

TEST_P(DiscoveryBroken, IsRejectedUnloadedAndItsBusFallsToTheKernel) {
  const BrokenModule m = GetParam();
  const std::string path = Module(m.folder, m.name);
  if (!InitWithModules(FixtureDir(m.folder), [&](Session& s) {
        for (int t = 0; t < TAVIK_DRIVER_TYPE_COUNT; ++t) {
          ASSERT_NE(s.ddi.drivers[t], nullptr);
          EXPECT_EQ(s.ddi.drivers[t]->mode, TAVIK_DRIVER_MODE_KERNEL) << "type " << t;
        }
        EXPECT_FALSE(ModuleMapped(path)) << "a rejected module must be unloaded";
      }))
    return;
  std::string calls = CallsAtInit();
  EXPECT_EQ(calls.find(std::string(m.name) + " init") != std::string::npos, m.initRuns) << calls;
  EXPECT_EQ(calls.find(std::string(m.name) + " uninit") != std::string::npos, m.uninitRuns) << calls;
  LogFile log = Log();
  EXPECT_TRUE(TraceIsBalanced(log));
  LogCursor c(log);
  EXPECT_TRUE(c.Next('I', sig::kLoadUserMode, "Loading '" + path + "'...", 3));
  EXPECT_TRUE(c.Next('E', sig::kDriverLoadUser, m.error, 4));
  EXPECT_TRUE(c.Next('T', sig::kDriverLoadUser, Re(std::string("RETURN \\(QX_FAIL\\) ") + kMicros), 3));
  EXPECT_EQ(log.Count('E', sig::kDriverLoadUser, Re(".*")), 1u) << "only the first missing function is reported";
  EXPECT_EQ(log.Count('I', sig::kLoadUserMode, Re("Accepted valid user mode driver .*")), 0u);
  EXPECT_EQ(log.Count('I', sig::kLoadKernelMode, Re("Accepted valid kernel mode driver for .* type")), 5u);
}

INSTANTIATE_TEST_SUITE_P(
    Modules, DiscoveryBroken,
    ::testing::Values(BrokenModule{"noinit", "tavik_noinit", "Init function not found in driver", false, true},
                      BrokenModule{"nouninit", "tavik_nouninit", "Uninit function not found in driver", false, false},
                      BrokenModule{"notype", "tavik_notype", "Type function not found in driver", false, true},
                      BrokenModule{"init0", "tavik_init0", "Driver initialization failed", true, true},
                      BrokenModule{"init2", "tavik_init2", "Driver initialization failed", true, true},
                      BrokenModule{"type5", "tavik_type5", "Invalid driver type 5", true, true}),
    [](const ::testing::TestParamInfo<BrokenModule>& i) { return std::string(i.param.folder); });

TEST_F(Discovery, UserModeUsbDriverKeepsTheKernelUsbDriverOut) {
  if (!InitWithModules(
          FixtureDir("usb"),
          [](Session& s) {
            ASSERT_NE(s.ddi.drivers[TAVIK_DRIVER_TYPE_USB], nullptr);
            EXPECT_EQ(s.ddi.drivers[TAVIK_DRIVER_TYPE_USB]->mode, TAVIK_DRIVER_MODE_USER);
            ASSERT_EQ(s.ddi.cam_count, 2);
            EXPECT_STREQ(s.ddi.devices[0]->name, "tavik_usbdrv-0");
            EXPECT_STREQ(s.ddi.devices[1]->name, "tavikSW_0");
          },
          [] {
            MakeFifo("tavikUSB_0");
            MakeFifo("tavikSW_0");
          }))
    return;
  LogFile log = Log();
  EXPECT_TRUE(TraceIsBalanced(log));
  EXPECT_EQ(log.Count('I', sig::kLoadKernelMode, "There is already loaded driver with TAVIK_DRIVER_TYPE_USB type, skipping"), 1u);
  EXPECT_EQ(log.Count('W', sig::kLoadKernelMode, Re(".*")), 0u) << "the kernel path logs the skip at Info";
  EXPECT_EQ(log.Count('I', sig::kLoadKernelMode, "Loading driver for TAVIK_DRIVER_TYPE_USB type..."), 0u);
  EXPECT_EQ(log.Count('I', "", "Found 'tavikUSB_0', testing..."), 0u);
  LogCursor c(log);
  EXPECT_TRUE(c.Next('I', sig::kUpdateList, "Cameras on   USB: 1", 2));
  EXPECT_TRUE(c.Next('I', sig::kUpdateList, "Camera emulators: 1", 2));
  EXPECT_TRUE(c.Next('I', sig::kUpdateList, "Total cameras: 2", 2));
}

TEST_F(Discovery, MoreThanSixteenDevicesKeepsTheFirstSixteenInRowOrder) {
  if (!InitWithModules(
          FixtureDir("many"),
          [](Session& s) {
            ASSERT_EQ(s.ddi.cam_count, 16);
            for (int i = 0; i < 16; ++i) EXPECT_EQ(std::string(s.ddi.devices[i]->name), "tavik_many-" + std::to_string(i));
          },
          [] {
            MakeFifo("tavikUSB_0");
            MakeFifo("tavikSW_0");
          }))
    return;
  LogFile log = Log();
  LogCursor c(log);
  for (const char* row : {"Cameras on   PCI: 16", "Cameras on   USB: 0", "Cameras on  1394: 0", "Cameras on  PCIe: 0",
                          "Camera emulators: 0", "Total cameras: 16"})
    EXPECT_TRUE(c.Next('I', sig::kUpdateList, row, 2));
}

TEST_F(Discovery, NameFilterAndUnloadableFilesInCollationOrder) {
  const std::string dir = FixtureDir("names");
  if (!InitWithModules(dir, [](Session& s) {
        ASSERT_EQ(s.ddi.cam_count, 1);
        EXPECT_STREQ(s.ddi.devices[0]->name, "tavik_x-0");
        EXPECT_EQ(s.ddi.drivers[TAVIK_DRIVER_TYPE_1394]->mode, TAVIK_DRIVER_MODE_KERNEL);
      }))
    return;
  EXPECT_EQ(Calls().find("tavik_rejected"), std::string::npos) << "a module with a rejected name ran: " << Calls();
  LogFile log = Log();
  EXPECT_TRUE(TraceIsBalanced(log));
  // Only names of the form tavik_?*.x86_64.umd are tried, in collation order.
  std::vector<std::string> tried;
  for (const auto& l : log.Entries())
    if (l.level == 'I' && LogFile::FnMatches(l, sig::kLoadUserMode) && l.message.rfind("Loading '", 0) == 0)
      tried.push_back(l.message);
  std::vector<std::string> expected = {"Loading '" + dir + "/tavik_dir.x86_64.umd'...",
                                       "Loading '" + dir + "/tavik_garbage.x86_64.umd'...",
                                       "Loading '" + dir + "/tavik_x.x86_64.umd'..."};
  EXPECT_EQ(tried, expected);
  LogCursor c(log);
  EXPECT_TRUE(c.Next('E', sig::kDriverLoadUser, Re("Failed to load library '" + ReEscape(dir) + "/tavik_dir\\.x86_64\\.umd' \\(.+\\)"), 4));
  EXPECT_TRUE(c.Next('E', sig::kDriverLoadUser, Re("Failed to load library '" + ReEscape(dir) + "/tavik_garbage\\.x86_64\\.umd' \\(.+\\)"), 4));
  EXPECT_TRUE(c.Next('I', sig::kLoadUserMode, "Accepted valid user mode driver '" + dir + "/tavik_x.x86_64.umd' with TAVIK_DRIVER_TYPE_VIRTUAL type", 3));
}

TEST_F(Discovery, LongModulePathIsStoredCutTo255) {
  std::string folder = ctx_.tmp + "/" + std::string(120, 'd') + "/" + std::string(120, 'e');
  fs::create_directories(folder);
  std::string name = "tavik_" + std::string(40, 'l') + ".x86_64.umd";
  std::string full = folder + "/" + name;
  fs::copy_file(Module("good", "tavik_good"), full);
  ASSERT_GT(full.size(), 255u);
  if (!InitWithModules(folder, [&](Session& s) {
        const tavik_driver* d = s.ddi.drivers[TAVIK_DRIVER_TYPE_PCI];
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(d->mode, TAVIK_DRIVER_MODE_USER);
        EXPECT_EQ(std::string(d->file_path), full.substr(0, 255));
        EXPECT_EQ(s.ddi.cam_count, 2);
      }))
    return;
  LogFile log = Log();
  EXPECT_EQ(log.Count('I', sig::kLoadUserMode, "Loading '" + full + "'..."), 1u) << log.Dump();
  EXPECT_EQ(log.Count('I', sig::kLoadUserMode,
                      "Accepted valid user mode driver '" + full.substr(0, 255) + "' with TAVIK_DRIVER_TYPE_PCI type"),
            1u);
}

// The known module names are bare file names for the loader's own search, so
// LD_LIBRARY_PATH must be in place when the process starts: run a fresh program.
TEST_F(Discovery, KnownNamesAreFoundThroughTheLoaderPath) {
  std::string out = ctx_.tmp + "/loader.out";
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    unsetenv("TAVIK_UMD_PATH");
    unsetenv("TAVIK_DDI_LOG_LEVEL");
    setenv("LD_LIBRARY_PATH", FixtureDir("known").c_str(), 1);
    setenv("TAVIK_DDI_LOG_FILE", ctx_.LogPath().c_str(), 1);
    setenv("TAVIK_FIXTURE_CALLS", ctx_.CallsPath().c_str(), 1);
    FILE* f = std::freopen(out.c_str(), "w", stdout);
    if (f == nullptr) _exit(3);
    execl(TAVIK_E2E_LOADER, TAVIK_E2E_LOADER, "--private-dev", static_cast<char*>(nullptr));
    _exit(4);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  std::string printed = ReadFile(out);
  if (WEXITSTATUS(status) == 77) {
    if (getenv("TAVIK_TEST_REQUIRE_NAMESPACES") != nullptr && std::string(getenv("TAVIK_TEST_REQUIRE_NAMESPACES")) == "1")
      FAIL() << "must not skip: " << printed;
    GTEST_SKIP() << printed;
  }
  ASSERT_EQ(WEXITSTATUS(status), 0) << printed;
  const std::string usb = FixtureDir("known") + "/tavik_usb.x86_64.umd";
  const std::string virt = FixtureDir("known") + "/tavik_virtual.x86_64.umd";
  std::string expected = "init 0\nstate 1\ncam_count 3\nslot 0 mode 1 path \nslot 1 mode 1 path \nslot 2 mode 0 path " +
                         usb + "\nslot 3 mode 1 path \nslot 4 mode 0 path " + virt +
                         "\ncamera 0 tavik_usb-0\ncamera 1 tavik_virtual-0\ncamera 2 tavik_virtual-1\nuninit 0\n";
  EXPECT_EQ(printed, expected);
  // Uninit unloads the slots in index order: USB (2) before virtual (4).
  std::string calls = Calls();
  ASSERT_NE(calls.find("tavik_usb uninit"), std::string::npos) << calls;
  ASSERT_NE(calls.find("tavik_virtual uninit"), std::string::npos) << calls;
  EXPECT_LT(calls.find("tavik_usb uninit"), calls.find("tavik_virtual uninit")) << calls;
  LogFile log = Log();
  LogCursor c(log);
  EXPECT_TRUE(c.Next('I', sig::kLoadUserMode, "Loading 'tavik_usb.x86_64.umd'...", 3));
  EXPECT_TRUE(c.Next('I', sig::kLoadUserMode, "Accepted valid user mode driver '" + usb + "' with TAVIK_DRIVER_TYPE_USB type", 3));
  EXPECT_TRUE(c.Next('I', sig::kLoadUserMode, "Loading 'tavik_virtual.x86_64.umd'...", 3));
  EXPECT_TRUE(c.Next('I', sig::kLoadUserMode,
                     "Accepted valid user mode driver '" + virt + "' with TAVIK_DRIVER_TYPE_VIRTUAL type", 3));
}

}  // namespace
}  // namespace tavik_test
