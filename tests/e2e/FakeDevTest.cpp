// The kernel backend's scan of a private /dev: the five node patterns, the
// names they reject, collation order, long names, the 16-camera limit and
// nodes that are listed but cannot be accessed.
#include <cstring>
#include <vector>

#include "E2eCommon.h"

namespace tavik_test {
namespace {

class FakeDev : public ChildTest {
 protected:
  // Makes the nodes, runs init, checks the camera list against expected names.
  bool ScanAndExpect(const std::function<void()>& makeNodes, const std::vector<std::string>& expected,
                     const std::function<void(Session&)>& more = nullptr) {
    return RunInChild([&](ChildContext& ctx) {
      EnterPrivateDev();
      makeNodes();
      if (::testing::Test::HasFailure()) return;
      ctx.EnableLog();
      Session s;
      TAVIK_INIT_SESSION(s);
      std::vector<std::string> names;
      for (unsigned i = 0; i < s.ddi.cam_count && i < TAVIK_DDI_MAX_CAMERAS; ++i) {
        names.push_back(s.ddi.devices[i]->name);
        const tavik_driver_device* d = s.ddi.devices[i];
        EXPECT_EQ(std::string(d->file_path).rfind("/dev/" + std::string(d->name), 0), 0u) << d->name;
        EXPECT_NE(d->private_, nullptr);
        EXPECT_EQ(d->device_word, 0u);
        EXPECT_NE(d->driver, nullptr);
        EXPECT_EQ(d->driver->mode, TAVIK_DRIVER_MODE_KERNEL);
      }
      EXPECT_EQ(names, expected);
      if (more) more(s);
      TAVIK_UNINIT_SESSION(s);
    });
  }
};

TEST_F(FakeDev, FivePatternsAcceptDigitsOnlyAndListInRowOrder) {
  auto nodes = [] {
    for (const char* n : {"tavikSW_3", "tavikPCIE_0", "tavik1394_00", "tavikUSB_12", "tavikPCI_007", "tavikPCI_0",
                          // rejected by every filter
                          "tavikPCI_", "tavikPCI_1a", "tavikpci_0", "tavik1394_5x", "tavikSW_", "tavikUSB_-1",
                          "xtavikUSB_1", "tavikUSB_1 ", "TAVIKSW_1", "tavikSW_1.bak"})
      MakeFifo(n);
  };
  if (!ScanAndExpect(nodes, {"tavikPCI_0", "tavikPCI_007", "tavikUSB_12", "tavik1394_00", "tavikPCIE_0", "tavikSW_3"}))
    return;
  LogFile log = LogFile::Read(ctx_.LogPath());
  EXPECT_TRUE(TraceIsBalanced(log));
  for (const char* n : {"tavikPCI_0", "tavikPCI_007", "tavikUSB_12", "tavik1394_00", "tavikPCIE_0", "tavikSW_3"}) {
    EXPECT_EQ(log.Count('I', "tavik_driver_kernel_add_new_device", std::string("Found '") + n + "', testing..."), 1u) << n;
    EXPECT_EQ(log.Count('I', "tavik_driver_kernel_add_new_device", std::string("Accepted valid kernel device '") + n + "'"), 1u) << n;
  }
  EXPECT_EQ(log.Count('I', "tavik_driver_kernel_add_new_device", Re("Found '.*', testing\\.\\.\\.")), 6u) << log.Dump();
  LogCursor c(log);
  for (const char* row : {"Cameras on   PCI: 2", "Cameras on   USB: 1", "Cameras on  1394: 1", "Cameras on  PCIe: 1",
                          "Camera emulators: 1", "Total cameras: 6"})
    EXPECT_TRUE(c.Next('I', sig::kUpdateList, row, 2));
}

TEST_F(FakeDev, CollationOrderPutsTenBeforeTwo) {
  ScanAndExpect([] { for (const char* n : {"tavikUSB_2", "tavikUSB_10", "tavikUSB_1"}) MakeFifo(n); },
                {"tavikUSB_1", "tavikUSB_10", "tavikUSB_2"}, [](Session& s) {
                  const tavik_driver* d = s.ddi.drivers[TAVIK_DRIVER_TYPE_USB];
                  ASSERT_NE(d->device_list, nullptr);
                  EXPECT_STREQ(d->device_list[0]->name, "tavikUSB_1");
                  EXPECT_STREQ(d->device_list[2]->name, "tavikUSB_2");
                  EXPECT_EQ(d->device_list[3], nullptr) << "the device list must end with a null pointer";
                });
}

TEST_F(FakeDev, LongNodeNameIsCutTo31AndItsPathKeptWhole) {
  const std::string name = "tavikUSB_" + std::string(40, '7');
  ScanAndExpect([&] { MakeFifo(name); }, {name.substr(0, 31)}, [&](Session& s) {
    EXPECT_EQ(std::string(s.ddi.devices[0]->file_path), "/dev/" + name);
    EXPECT_EQ(std::strlen(s.ddi.devices[0]->name), 31u);
  });
}

TEST_F(FakeDev, OnlySixteenCamerasInAll) {
  std::vector<std::string> expected;
  std::vector<std::string> all;
  for (int i = 0; i < 20; ++i) all.push_back("tavikPCI_" + std::to_string(i));
  std::vector<std::string> sorted = all;
  std::sort(sorted.begin(), sorted.end());
  expected.assign(sorted.begin(), sorted.begin() + 16);
  if (!ScanAndExpect(
          [&] {
            for (const auto& n : all) MakeFifo(n);
            MakeFifo("tavikSW_0");
          },
          expected))
    return;
  LogFile log = LogFile::Read(ctx_.LogPath());
  LogCursor c(log);
  EXPECT_TRUE(c.Next('I', sig::kUpdateList, "Cameras on   PCI: 16", 2));
  EXPECT_TRUE(c.Next('I', sig::kUpdateList, "Camera emulators: 0", 2));
  EXPECT_TRUE(c.Next('I', sig::kUpdateList, "Total cameras: 16", 2));
}

TEST_F(FakeDev, DanglingSymlinkIsReportedAndNotCounted) {
  if (!ScanAndExpect(
          [] {
            MakeDanglingSymlink("tavikUSB_0");
            MakeFifo("tavikUSB_1");
            MakeFile("tavikUSB_2", "plain file");
          },
          {"tavikUSB_1", "tavikUSB_2"}, [](Session& s) {
            const tavik_driver* d = s.ddi.drivers[TAVIK_DRIVER_TYPE_USB];
            ASSERT_NE(d->device_list, nullptr);
            EXPECT_STREQ(d->device_list[0]->name, "tavikUSB_1");
            EXPECT_STREQ(d->device_list[1]->name, "tavikUSB_2");
            EXPECT_EQ(d->device_list[2], nullptr);
          }))
    return;
  LogFile log = LogFile::Read(ctx_.LogPath());
  EXPECT_TRUE(TraceIsBalanced(log));
  EXPECT_EQ(log.Count('W', "tavik_driver_kernel_enumerate_devices",
                      "Cannot access file 'tavikUSB_0', error 2 (No such file or directory)"),
            1u)
      << log.Dump();
  EXPECT_EQ(log.Count('I', "", "Found 'tavikUSB_0', testing..."), 0u);
  const LogLine* add = log.Find('T', "tavik_driver_kernel_add_new_device", Re(".*camName='tavikUSB_1'.*"));
  ASSERT_NE(add, nullptr);
  EXPECT_TRUE(Text(Re(std::string("ENTER \\(driver=") + kPtr + ", camCount=0, camName='tavikUSB_1', devicePath='/dev/tavikUSB_1'\\)")).Matches(add->message))
      << add->raw;
}

TEST_F(FakeDev, EmptyDevGivesDriversWithoutDevices) {
  ScanAndExpect([] {}, {}, [](Session& s) {
    for (int t = 0; t < TAVIK_DRIVER_TYPE_COUNT; ++t) EXPECT_EQ(s.ddi.drivers[t]->device_list, nullptr);
  });
}

}  // namespace
}  // namespace tavik_test
