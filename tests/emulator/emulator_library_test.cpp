// The shipped library finding the emulator through TAVIK_UMD_PATH and listing its
// cameras in the "Camera emulators" row.
#include <fstream>
#include <regex>

#include "EmulatorHarness.h"

using namespace emu;

namespace {

std::vector<std::string> ReadLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Lines of the camera-list summary, with the log's prefix and indentation removed.
std::vector<std::string> SummaryLines(const std::vector<std::string>& lines) {
  static const std::regex re(
      R"(^\[[^\]]* DDI \d{5,}:\d{5,} I\] +void ddi_update_device_list\(Ddi\*\): (.*)$)");
  std::vector<std::string> out;
  std::smatch m;
  for (const auto& l : lines)
    if (std::regex_match(l, m, re)) out.push_back(m[1]);
  return out;
}

void ExpectListedWith(unsigned cameras) {
  char tmpl[] = "/tmp/tavik_emu_XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string log = std::string(tmpl) + "/ddi.log";
  setenv("TAVIK_DDI_LOG_FILE", log.c_str(), 1);
  setenv("TAVIK_DDI_LOG_LEVEL", "I", 1);
  setenv("TAVIK_UMD_PATH", TAVIK_EMU_MODULE_DIR, 1);
  setenv("TAVIK_VIRTUAL_CAMERAS", std::to_string(cameras).c_str(), 1);
  const size_t threads = CountThreads();
  {
    Library lib;
    std::string why;
    if (!lib.Load(&why)) SkipChild(why);
    ASSERT_EQ(lib.Init(), KZ_ERR_NONE);
    ASSERT_NE(lib.ddi.drivers[TAVIK_DRIVER_TYPE_VIRTUAL], nullptr);
    tavik_driver* drv = lib.ddi.drivers[TAVIK_DRIVER_TYPE_VIRTUAL];
    EXPECT_EQ(drv->mode, TAVIK_DRIVER_MODE_USER);
    EXPECT_NE(std::string(drv->file_path).find("/tavik_virtual.x86_64.umd"), std::string::npos);
    // The emulators come last in the list, in index order.
    ASSERT_GE(lib.ddi.cam_count, cameras);
    for (unsigned i = 0; i < cameras; ++i) {
      tavik_driver_device* d = lib.ddi.devices[lib.ddi.cam_count - cameras + i];
      EXPECT_EQ(d->name, "tavikSW_" + std::to_string(i));
    }
    EXPECT_EQ(lib.Uninit(), KZ_ERR_NONE);
    lib.Unload();
  }
  EXPECT_EQ(SettledThreadCount(threads), threads) << "no log worker or camera thread left after dlclose";
  const auto summary = SummaryLines(ReadLines(log));
  EXPECT_NE(std::find(summary.begin(), summary.end(),
                      "Camera emulators: " + std::to_string(cameras)),
            summary.end())
      << "summary lines: " << ::testing::PrintToString(summary);
  const auto acc = ReadLines(log);
  bool accepted = false;
  for (const auto& l : acc)
    if (l.find("Accepted valid user mode driver '") != std::string::npos &&
        l.find("tavik_virtual.x86_64.umd' with TAVIK_DRIVER_TYPE_VIRTUAL type") != std::string::npos)
      accepted = true;
  EXPECT_TRUE(accepted) << "the module was not accepted as the virtual driver";
}

}  // namespace

TEST(EmulatorLibrary, OneEmulatedCameraIsListedAsCameraEmulators) {
  RunInChild([] { ExpectListedWith(1); });
}

TEST(EmulatorLibrary, SixteenEmulatedCamerasFillTheirRow) {
  RunInChild([] { ExpectListedWith(16); });
}
