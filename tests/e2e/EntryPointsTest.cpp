// The four entry points through the shipped library: argument checks, the
// version, the last-error copy-out, init and uninit on a machine without
// drivers, and the trace lines they write.
#include <cstring>
#include <thread>

#include "E2eCommon.h"

namespace tavik_test {
namespace {

class EntryPoints : public ChildTest {};

TEST_F(EntryPoints, VersionIsThreeOneEightyEight) {
  RunInChild([](ChildContext&) {
    DdiLibrary lib;
    TAVIK_ASSERT_LOAD(lib);
    uns16 a = 0, b = 0, c = 0;
    EXPECT_EQ(lib.get_lib_version(&a, &b, &c), KZ_ERR_NONE);
    EXPECT_EQ(a, 3);
    EXPECT_EQ(b, 1);
    EXPECT_EQ(c, 88);
  });
}

TEST_F(EntryPoints, VersionWithAnyNullPointerWritesNothing) {
  RunInChild([](ChildContext&) {
    DdiLibrary lib;
    TAVIK_ASSERT_LOAD(lib);
    for (int missing = 0; missing < 3; ++missing) {
      uns16 v[3] = {0xBEEF, 0xBEEF, 0xBEEF};
      uns16* p[3] = {&v[0], &v[1], &v[2]};
      p[missing] = nullptr;
      EXPECT_EQ(lib.get_lib_version(p[0], p[1], p[2]), KZ_ERR_STATE_INVALID) << "null argument " << missing;
      for (uns16 x : v) EXPECT_EQ(x, 0xBEEF) << "null argument " << missing;
      EXPECT_EQ(lib.LastError(), "Some input argument is null");
    }
  });
}

TEST_F(EntryPoints, NullDdiIsAnInvalidState) {
  if (!RunInChild([](ChildContext& ctx) {
        ctx.EnableLog();
        DdiLibrary lib;
        TAVIK_ASSERT_LOAD(lib);
        EXPECT_EQ(lib.init(nullptr), KZ_ERR_STATE_INVALID);
        EXPECT_EQ(lib.LastError(), "Ddi structure is null");
        uns16 a, b;
        ASSERT_EQ(lib.get_lib_version(&a, &b, nullptr), KZ_ERR_STATE_INVALID);
        EXPECT_EQ(lib.uninit(nullptr), KZ_ERR_STATE_INVALID);
        EXPECT_EQ(lib.LastError(), "Ddi structure is null");
      }))
    return;
  LogFile log = LogFile::Read(ctx_.LogPath());
  ASSERT_TRUE(log.Exists());
  EXPECT_TRUE(TraceIsBalanced(log));
  LogCursor c(log);
  EXPECT_TRUE(c.Next('T', sig::kInit, "ENTER (pDdi=0x(nil))", 0));
  EXPECT_TRUE(c.Next('E', sig::kInit, "Ddi structure is null", 1));
  EXPECT_TRUE(c.Next('T', sig::kInit, Re(std::string("RETURN \\(KZ_ERR_STATE_INVALID\\) ") + kMicros), 0));
  EXPECT_TRUE(c.Next('T', sig::kVersion, Re(std::string("ENTER \\(pVerMajor=") + kPtr + ", pVerMinor=" + kPtr +
                                            ", pVerBuild=0x\\(nil\\)\\)"), 0));
  EXPECT_TRUE(c.Next('E', sig::kVersion, "Some input argument is null", 1));
  EXPECT_TRUE(c.Next('T', sig::kVersion, Re(std::string("RETURN \\(KZ_ERR_STATE_INVALID\\) ") + kMicros), 0));
  EXPECT_TRUE(c.Next('T', sig::kUninit, "ENTER (pDdi=0x(nil))", 0));
  EXPECT_TRUE(c.Next('E', sig::kUninit, "Ddi structure is null", 1));
  EXPECT_TRUE(c.Next('T', sig::kUninit, Re(std::string("RETURN \\(KZ_ERR_STATE_INVALID\\) ") + kMicros), 0));
  for (const auto& l : log.Entries()) EXPECT_EQ(l.category, "DDI") << l.raw;
}

TEST_F(EntryPoints, VersionTraceShowsResultThenVersion) {
  if (!RunInChild([](ChildContext& ctx) {
        ctx.EnableLog();
        DdiLibrary lib;
        TAVIK_ASSERT_LOAD(lib);
        uns16 a, b, c;
        ASSERT_EQ(lib.get_lib_version(&a, &b, &c), KZ_ERR_NONE);
        // The exact pointers are known here; the parent checks the enter line against them.
        char line[256];
        std::snprintf(line, sizeof line, "ENTER (pVerMajor=0x%p, pVerMinor=0x%p, pVerBuild=0x%p)",
                      static_cast<void*>(&a), static_cast<void*>(&b), static_cast<void*>(&c));
        FILE* f = std::fopen((ctx.tmp + "/expected.txt").c_str(), "w");
        std::fputs(line, f);
        std::fclose(f);
      }))
    return;
  LogFile log = LogFile::Read(ctx_.LogPath());
  LogCursor c(log);
  EXPECT_TRUE(c.Next('T', sig::kVersion, ReadScratch("expected.txt"), 0));
  EXPECT_TRUE(c.Next('T', sig::kVersion, Re(std::string("RETURN \\(KZ_ERR_NONE, version 3\\.1\\.88\\) ") + kMicros), 0));
  EXPECT_EQ(log.Entries().size(), 2u) << log.Dump();
}

TEST_F(EntryPoints, LastErrorMessageCopiesBoundedAndTerminated) {
  RunInChild([](ChildContext&) {
    DdiLibrary lib;
    TAVIK_ASSERT_LOAD(lib);
    char buf[64];
    // Nothing failed yet on this thread: an empty text needs one byte.
    std::memset(buf, 'X', sizeof buf);
    EXPECT_EQ(lib.get_last_error_message(nullptr, 0), 1u);
    EXPECT_EQ(lib.get_last_error_message(buf, 0), 1u);
    EXPECT_EQ(buf[0], 'X') << "a size query must write nothing";
    EXPECT_EQ(lib.get_last_error_message(buf, sizeof buf), 1u);
    EXPECT_EQ(buf[0], '\0');

    ASSERT_EQ(lib.init(nullptr), KZ_ERR_STATE_INVALID);
    const std::string text = "Ddi structure is null";
    const uns32 need = static_cast<uns32>(text.size() + 1);
    EXPECT_EQ(lib.get_last_error_message(nullptr, 0), need);
    EXPECT_EQ(lib.get_last_error_message(nullptr, 10), need);

    std::memset(buf, 'X', sizeof buf);
    EXPECT_EQ(lib.get_last_error_message(buf, 0), need);
    EXPECT_EQ(buf[0], 'X');

    std::memset(buf, 'X', sizeof buf);
    EXPECT_EQ(lib.get_last_error_message(buf, 1), need);
    EXPECT_EQ(buf[0], '\0');
    EXPECT_EQ(buf[1], 'X') << "wrote past the given size";

    std::memset(buf, 'X', sizeof buf);
    EXPECT_EQ(lib.get_last_error_message(buf, 5), need);
    EXPECT_STREQ(buf, "Ddi ");
    EXPECT_EQ(buf[5], 'X') << "wrote past the given size";

    std::memset(buf, 'X', sizeof buf);
    EXPECT_EQ(lib.get_last_error_message(buf, need - 1), need);
    EXPECT_EQ(std::string(buf), text.substr(0, text.size() - 1));

    std::memset(buf, 'X', sizeof buf);
    EXPECT_EQ(lib.get_last_error_message(buf, need), need);
    EXPECT_EQ(std::string(buf), text);

    std::memset(buf, 'X', sizeof buf);
    EXPECT_EQ(lib.get_last_error_message(buf, sizeof buf), need);
    EXPECT_EQ(std::string(buf), text);
    for (size_t i = text.size(); i < sizeof buf; ++i) EXPECT_EQ(buf[i], '\0') << "byte " << i << " not zero-filled";
  });
}

TEST_F(EntryPoints, LastErrorIsPerThread) {
  RunInChild([](ChildContext&) {
    DdiLibrary lib;
    TAVIK_ASSERT_LOAD(lib);
    uns16 a, b;
    ASSERT_EQ(lib.get_lib_version(&a, &b, nullptr), KZ_ERR_STATE_INVALID);
    std::string other;
    uns32 otherNeedBefore = 0;
    std::thread t([&] {
      otherNeedBefore = lib.get_last_error_message(nullptr, 0);
      lib.init(nullptr);
      other = lib.LastError();
    });
    t.join();
    EXPECT_EQ(otherNeedBefore, 1u) << "a new thread must start with an empty text";
    EXPECT_EQ(other, "Ddi structure is null");
    EXPECT_EQ(lib.LastError(), "Some input argument is null");
  });
}

TEST_F(EntryPoints, InitOnAnEmptyMachineAndUninitResets) {
  if (!RunInChild([](ChildContext& ctx) {
        EnterPrivateDev();
        ctx.EnableLog();
        Session s;
        TAVIK_INIT_SESSION(s);
        EXPECT_EQ(s.ddi.cam_count, 0);
        for (int t = 0; t < TAVIK_DRIVER_TYPE_COUNT; ++t) {
          const tavik_driver* d = s.ddi.drivers[t];
          ASSERT_NE(d, nullptr) << "type " << t << " has no kernel driver";
          EXPECT_EQ(d->mode, TAVIK_DRIVER_MODE_KERNEL);
          EXPECT_EQ(d->handle, nullptr);
          EXPECT_STREQ(d->file_path, "");
          EXPECT_EQ(d->device_list, nullptr);
          ASSERT_NE(d->type, nullptr);
          EXPECT_EQ(static_cast<int>(d->type()), t);
          EXPECT_EQ(d->driver_word, 0u);
        }
        ASSERT_EQ(s.lib.uninit(&s.ddi), KZ_ERR_NONE);
        EXPECT_EQ(s.ddi.state, TAVIK_DDI_STATE_CLOSED);
        EXPECT_EQ(s.ddi.cam_count, 0);
        for (int t = 0; t < TAVIK_DRIVER_TYPE_COUNT; ++t) EXPECT_EQ(s.ddi.drivers[t], nullptr);
        // Uninit without init, and a second uninit, only reset.
        std::memset(&s.ddi, 0, sizeof s.ddi);
        s.ddi.state = TAVIK_DDI_STATE_OPEN;
        s.ddi.cam_count = 7;
        EXPECT_EQ(s.lib.uninit(&s.ddi), KZ_ERR_NONE);
        EXPECT_EQ(s.ddi.state, TAVIK_DDI_STATE_CLOSED);
        EXPECT_EQ(s.ddi.cam_count, 0);
        s.lib.Unload();
      }))
    return;
  LogFile log = LogFile::Read(ctx_.LogPath());
  ASSERT_TRUE(log.Exists());
  EXPECT_TRUE(TraceIsBalanced(log));
  size_t blocks = 0;
  EXPECT_TRUE(log.WellFormedBlocks(&blocks));
  EXPECT_EQ(blocks, 1u);

  const std::string enterDdi = std::string("ENTER \\(ddi=") + kPtr + "\\)";
  LogCursor c(log);
  EXPECT_TRUE(c.Next('T', sig::kInit, Re(std::string("ENTER \\(pDdi=") + kPtr + "\\)"), 0));
  EXPECT_TRUE(c.Next('I', sig::kInit, "Searching for user mode drivers (tavik_*.x86_64.umd)...", 1));
  EXPECT_TRUE(c.Next('T', sig::kLoadUserModes, Re(enterDdi), 1));
  EXPECT_TRUE(c.Next('I', sig::kLoadUserModes,
                     "Env. var. TAVIK_UMD_PATH not set, searching known user mode drivers in system...", 2));
  for (const char* known : {"tavik_usb.x86_64.umd", "tavik_virtual.x86_64.umd"}) {
    EXPECT_TRUE(c.Next('T', sig::kLoadUserMode,
                       Re(std::string("ENTER \\(ddi=") + kPtr + ", file_path='" + ReEscape(known) + "'\\)"), 2));
    EXPECT_TRUE(c.Next('I', sig::kLoadUserMode, std::string("Loading '") + known + "'...", 3));
    EXPECT_TRUE(c.Next('T', sig::kDriverLoadUser,
                       Re(std::string("ENTER \\(file_path='") + ReEscape(known) + "', driver=" + kPtr + "\\)"), 3));
    EXPECT_TRUE(c.Next('E', sig::kDriverLoadUser,
                       Re(std::string("Failed to load library '") + ReEscape(known) + "' \\(.+\\)"), 4));
    EXPECT_TRUE(c.Next('T', sig::kDriverLoadUser, Re(std::string("RETURN \\(QX_FAIL\\) ") + kMicros), 3));
    EXPECT_TRUE(c.Next('T', sig::kLoadUserMode, Re(std::string("RETURN \\(\\) ") + kMicros), 2));
  }
  EXPECT_TRUE(c.Next('T', sig::kLoadUserModes, Re(std::string("RETURN \\(\\) ") + kMicros), 1));
  EXPECT_TRUE(c.Next('I', sig::kInit, "Done with user mode drivers", 1));
  EXPECT_TRUE(c.Next('I', sig::kInit, "Loading kernel mode drivers for remaining types...", 1));
  EXPECT_TRUE(c.Next('T', sig::kLoadKernelModes, Re(enterDdi), 1));
  const char* names[] = {"TAVIK_DRIVER_TYPE_PCI", "TAVIK_DRIVER_TYPE_PCIE", "TAVIK_DRIVER_TYPE_USB",
                         "TAVIK_DRIVER_TYPE_1394", "TAVIK_DRIVER_TYPE_VIRTUAL"};
  for (int t = 0; t < 5; ++t) {
    std::string tn = std::to_string(t) + "\\(" + names[t] + "\\)";
    EXPECT_TRUE(c.Next('T', sig::kLoadKernelMode, Re(std::string("ENTER \\(ddi=") + kPtr + ", type=" + tn + "\\)"), 2));
    EXPECT_TRUE(c.Next('I', sig::kLoadKernelMode, std::string("Loading driver for ") + names[t] + " type...", 3));
    EXPECT_TRUE(c.Next('T', sig::kDriverLoadKernel,
                       Re(std::string("ENTER \\(drv_type=") + tn + ", driver=" + kPtr + "\\)"), 3));
    EXPECT_TRUE(c.Next('I', "tavik_driver_kernel_enumerate_devices",
                       std::string("Searching for kernel devices with ") + names[t] + " type in '/dev' ..."));
    EXPECT_TRUE(c.Next('I', "tavik_driver_kernel_enumerate_devices", "Done with kernel devices"));
    EXPECT_TRUE(c.Next('T', sig::kDriverLoadKernel,
                       Re(std::string("RETURN \\(QX_OK, \\*driver=") + kPtr + "\\) " + kMicros), 3));
    EXPECT_TRUE(c.Next('I', sig::kLoadKernelMode,
                       std::string("Accepted valid kernel mode driver for ") + names[t] + " type", 3));
  }
  EXPECT_TRUE(c.Next('I', sig::kInit, "Done with kernel mode drivers", 1));
  EXPECT_TRUE(c.Next('T', sig::kUpdateList, Re(enterDdi), 1));
  for (const char* row : {"Cameras on   PCI: 0", "Cameras on   USB: 0", "Cameras on  1394: 0", "Cameras on  PCIe: 0",
                          "Camera emulators: 0", "Total cameras: 0"})
    EXPECT_TRUE(c.Next('I', sig::kUpdateList, row, 2));
  EXPECT_TRUE(c.Next('T', sig::kInit, Re(std::string("RETURN \\(KZ_ERR_NONE\\) ") + kMicros), 0));
  EXPECT_TRUE(c.Next('T', sig::kUninit, Re(std::string("ENTER \\(pDdi=") + kPtr + "\\)"), 0));
  for (int t = 0; t < 5; ++t)
    EXPECT_TRUE(c.Next('T', sig::kDriverUnload, Re(std::string("ENTER \\(\\*driver=") + kPtr + "\\)"), 1));
  EXPECT_TRUE(c.Next('T', sig::kUninit, Re(std::string("RETURN \\(KZ_ERR_NONE\\) ") + kMicros), 0));
  // The second uninit unloads five empty slots.
  EXPECT_TRUE(c.Next('T', sig::kUninit, Re(std::string("ENTER \\(pDdi=") + kPtr + "\\)"), 0));
  for (int t = 0; t < 5; ++t)
    EXPECT_TRUE(c.Next('T', sig::kDriverUnload, "ENTER (*driver=0x(nil))", 1));
  EXPECT_EQ(log.Count('W', sig::kUninit, Re("[0-9]+ log messages were dropped during flush")), 0u);
}

TEST_F(EntryPoints, LevelWarningKeepsOnlyErrorsAndWarnings) {
  if (!RunInChild([](ChildContext& ctx) {
        EnterPrivateDev();
        ctx.EnableLog("warning");
        Session s;
        TAVIK_INIT_SESSION(s);
        EXPECT_EQ(s.lib.init(nullptr), KZ_ERR_STATE_INVALID);
        TAVIK_UNINIT_SESSION(s);
      }))
    return;
  LogFile log = LogFile::Read(ctx_.LogPath());
  ASSERT_TRUE(log.Exists());
  for (const auto& l : log.Entries()) {
    EXPECT_TRUE(l.level == 'E' || l.level == 'W') << l.raw;
    EXPECT_EQ(l.depth, 0u) << "no trace, so no indentation: " << l.raw;
  }
  EXPECT_EQ(log.Count('E', sig::kInit, "Ddi structure is null"), 1u) << log.Dump();
  EXPECT_EQ(log.Count('E', sig::kDriverLoadUser, Re("Failed to load library 'tavik_usb\\.x86_64\\.umd' \\(.+\\)")), 1u);
}

TEST_F(EntryPoints, NoLogFileNamedWritesNoFile) {
  RunInChild([](ChildContext& ctx) {
    EnterPrivateDev();
    Session s;
    TAVIK_INIT_SESSION(s);
    TAVIK_UNINIT_SESSION(s);
    EXPECT_NE(access(ctx.LogPath().c_str(), F_OK), 0);
  });
}

}  // namespace
}  // namespace tavik_test
