// The probe run as a process against the built library: what it lists, what it
// reports for real kernel objects in a private /dev, how it fails on bad input,
// the log it makes the library write, and the camera emulator end to end.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "ProbeRun.h"

using nlohmann::json;
using probe_test::ProbeResult;
using probe_test::ProbeSetup;
using probe_test::RunProbe;
using probe_test::SplitLines;

namespace {

const std::string kLibrary = TAVIK_PROBE_LIBRARY;
const std::string kModulesDir = TAVIK_PROBE_MODULES_DIR;
const std::string kEmulator = kModulesDir + "/tavik_virtual.x86_64.umd";
const std::string kSeparator = "[" + std::string(62, '=') + "]";

bool RequireNamespaces() {
  const char* value = std::getenv("TAVIK_TEST_REQUIRE_NAMESPACES");
  return value != nullptr && std::string(value) == "1";
}

// A case whose private /dev could not be made is skipped, unless the run
// demands namespaces (CI runs as root), where a skip would hide a regression.
#define PROBE_SKIP_IF_NO_NAMESPACE(result)                                              \
  do {                                                                                  \
    if ((result).skipped) {                                                             \
      if (RequireNamespaces()) FAIL() << (result).skipReason;                           \
      GTEST_SKIP() << (result).skipReason;                                              \
    }                                                                                   \
  } while (0)

std::string Describe(const ProbeResult& r) {
  return "exit " + std::to_string(r.exitStatus) + ", signal " + std::to_string(r.signal) +
         (r.timedOut ? ", timed out" : "") + "\n--- stdout\n" + r.out + "--- stderr\n" + r.err;
}

json ParseJson(const ProbeResult& r) {
  json document = json::parse(r.out, nullptr, false);
  EXPECT_FALSE(document.is_discarded()) << "not JSON: " << Describe(r);
  return document;
}

class ProbeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    scratch_ = probe_test::MakeScratchDir();
    ASSERT_FALSE(scratch_.empty());
    emptyModules_ = scratch_ + "/modules";
    std::filesystem::create_directory(emptyModules_);
  }
  void TearDown() override { probe_test::RemoveTree(scratch_); }

  // A machine without cameras: no modules, an empty /dev plus the given nodes.
  ProbeSetup Machine(std::vector<std::string> args) const {
    ProbeSetup setup;
    setup.args = {"--library", kLibrary, "--umd-path", emptyModules_};
    setup.args.insert(setup.args.end(), args.begin(), args.end());
    setup.privateDev = true;
    return setup;
  }

  std::string scratch_;
  std::string emptyModules_;
};

bool HasLine(const std::vector<std::string>& lines, const std::string& wanted) {
  return std::find(lines.begin(), lines.end(), wanted) != lines.end();
}

// ---------------------------------------------------------------------------
// Listing on a machine with no cameras and with kernel nodes in /dev.

TEST_F(ProbeTest, EmptyMachineListsNoCamerasAndAllFiveKernelSlots) {
  const ProbeResult r = RunProbe(Machine({}));
  PROBE_SKIP_IF_NO_NAMESPACE(r);
  ASSERT_EQ(r.exitStatus, 0) << Describe(r);
  EXPECT_EQ(r.err, "");
  const auto lines = SplitLines(r.out);
  EXPECT_TRUE(HasLine(lines, "Version: 3.1.88")) << r.out;
  EXPECT_TRUE(HasLine(lines, "Init: 0 (KZ_ERR_NONE)")) << r.out;
  EXPECT_TRUE(HasLine(lines, "Cameras: 0")) << r.out;
  // Slots in index order, each a kernel-mode driver that found nothing.
  const std::vector<std::string> slots = {
      "     0  PCI       KERNEL        0  -", "     1  PCIe      KERNEL        0  -",
      "     2  USB       KERNEL        0  -", "     3  FireWire  KERNEL        0  -",
      "     4  Virtual   KERNEL        0  -"};
  auto at = std::find(lines.begin(), lines.end(), "Driver slots:");
  ASSERT_NE(at, lines.end()) << r.out;
  ASSERT_GE(lines.end() - at, 7) << r.out;
  for (std::size_t i = 0; i < slots.size(); ++i) EXPECT_EQ(at[2 + i], slots[i]);
  EXPECT_EQ(lines.back(), "Uninit: 0 (KZ_ERR_NONE)");
}

TEST_F(ProbeTest, JsonCarriesVersionCamerasSlotsAndResults) {
  const ProbeResult r = RunProbe(Machine({"--json"}));
  PROBE_SKIP_IF_NO_NAMESPACE(r);
  ASSERT_EQ(r.exitStatus, 0) << Describe(r);
  const json doc = ParseJson(r);
  ASSERT_TRUE(doc.is_object());
  EXPECT_EQ(doc["library"]["version"], "3.1.88");
  EXPECT_EQ(doc["library"]["major"], 3);
  EXPECT_EQ(doc["library"]["minor"], 1);
  EXPECT_EQ(doc["library"]["build"], 88);
  EXPECT_EQ(doc["library"]["path"], kLibrary);
  EXPECT_EQ(doc["init"]["code"], 0);
  EXPECT_EQ(doc["init"]["name"], "KZ_ERR_NONE");
  EXPECT_EQ(doc["uninit"]["code"], 0);
  ASSERT_TRUE(doc["cameras"].is_array());
  EXPECT_TRUE(doc["cameras"].empty());
  ASSERT_EQ(doc["drivers"].size(), 5u);
  const char* types[] = {"PCI", "PCIe", "USB", "FireWire", "Virtual"};
  for (unsigned slot = 0; slot < 5; ++slot) {
    const json& d = doc["drivers"][slot];
    EXPECT_EQ(d["slot"], slot);
    EXPECT_EQ(d["type"], types[slot]);
    EXPECT_EQ(d["loaded"], true);
    EXPECT_EQ(d["mode"], "KERNEL");
    EXPECT_EQ(d["module"], "");
    EXPECT_EQ(d["devices"], 0);
  }
  // Parts that were not asked for are absent, not empty.
  EXPECT_FALSE(doc.contains("open"));
  EXPECT_FALSE(doc.contains("watch"));
}

TEST_F(ProbeTest, KernelNodesAreListedInRowOrderWithNamesAndPaths) {
  ProbeSetup setup = Machine({"--json"});
  // alphasort puts tavikUSB_10 before tavikUSB_2; the list puts PCI, USB, 1394,
  // PCIe, virtual; junk names never become cameras.
  setup.fifos = {"tavikSW_0", "tavikUSB_2", "tavikUSB_10", "tavikPCIE_0", "tavikPCI_0",
                 "tavikPCI_x", "tavikpci_1", "tavikUSB_"};
  const ProbeResult r = RunProbe(setup);
  PROBE_SKIP_IF_NO_NAMESPACE(r);
  ASSERT_EQ(r.exitStatus, 0) << Describe(r);
  const json doc = ParseJson(r);
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"tavikPCI_0", "PCI"}, {"tavikUSB_10", "USB"}, {"tavikUSB_2", "USB"},
      {"tavikPCIE_0", "PCIe"}, {"tavikSW_0", "Virtual"}};
  ASSERT_EQ(doc["cameras"].size(), expected.size()) << r.out;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const json& c = doc["cameras"][i];
    EXPECT_EQ(c["index"], i);
    EXPECT_EQ(c["name"], expected[i].first);
    EXPECT_EQ(c["path"], "/dev/" + expected[i].first);
    EXPECT_EQ(c["bus"], expected[i].second);
    EXPECT_EQ(c["mode"], "KERNEL");
  }
  const unsigned counts[] = {1, 1, 2, 0, 1};
  for (unsigned slot = 0; slot < 5; ++slot) EXPECT_EQ(doc["drivers"][slot]["devices"], counts[slot]);
}

TEST_F(ProbeTest, TextTableShowsEachCameraOnOneRow) {
  ProbeSetup setup = Machine({});
  setup.fifos = {"tavikUSB_7"};
  const ProbeResult r = RunProbe(setup);
  PROBE_SKIP_IF_NO_NAMESPACE(r);
  ASSERT_EQ(r.exitStatus, 0) << Describe(r);
  const auto lines = SplitLines(r.out);
  EXPECT_TRUE(HasLine(lines, "Cameras: 1")) << r.out;
  EXPECT_TRUE(HasLine(lines, "      0  USB  KERNEL  tavikUSB_7  /dev/tavikUSB_7")) << r.out;
  EXPECT_TRUE(HasLine(lines, "     2  USB       KERNEL        1  -")) << r.out;
}

// ---------------------------------------------------------------------------
// --open and --watch on real kernel objects.

TEST_F(ProbeTest, OpenReportsSuccessAndTheLibrarysFailureText) {
  ProbeSetup setup = Machine({"--json", "--open"});
  setup.fifos = {"tavikPCI_0"};
  setup.dirs = {"tavikPCI_1"};  // listed by name, but a folder cannot be opened for writing
  const ProbeResult r = RunProbe(setup);
  PROBE_SKIP_IF_NO_NAMESPACE(r);
  EXPECT_EQ(r.exitStatus, 4) << Describe(r);
  const json doc = ParseJson(r);
  ASSERT_EQ(doc["open"].size(), 2u) << r.out;
  const json& good = doc["open"][0];
  EXPECT_EQ(good["camera"], 0);
  EXPECT_EQ(good["open"]["code"], 0);
  EXPECT_EQ(good["open"]["last_error"], "");
  EXPECT_EQ(good["close"]["code"], 0);
  EXPECT_EQ(good["close"]["name"], "KZ_ERR_NONE");
  const json& bad = doc["open"][1];
  EXPECT_EQ(bad["open"]["code"], 195);
  EXPECT_EQ(bad["open"]["name"], "KZ_ERR_DDI_DEVICE_OPEN_FAILED");
  EXPECT_EQ(bad["open"]["last_error"], "Error 21 (Is a directory)");
  EXPECT_TRUE(bad["close"].is_null()) << "close must not follow a failed open";
  EXPECT_EQ(doc["uninit"]["code"], 0);
}

TEST_F(ProbeTest, OpenFailureLineInTextNamesCodeAndText) {
  ProbeSetup setup = Machine({"--open"});
  setup.dirs = {"tavik1394_0"};
  const ProbeResult r = RunProbe(setup);
  PROBE_SKIP_IF_NO_NAMESPACE(r);
  EXPECT_EQ(r.exitStatus, 4) << Describe(r);
  EXPECT_TRUE(HasLine(SplitLines(r.out),
                      "      0  open 195 (KZ_ERR_DDI_DEVICE_OPEN_FAILED): 'Error 21 (Is a directory)'"))
      << r.out;
}

TEST_F(ProbeTest, WatchOnSilentKernelNodesStopsCleanlyWithoutEvents) {
  ProbeSetup setup = Machine({"--json", "--watch", "0.3"});
  setup.fifos = {"tavikPCI_0", "tavikUSB_1"};
  const ProbeResult r = RunProbe(setup);
  PROBE_SKIP_IF_NO_NAMESPACE(r);
  ASSERT_EQ(r.exitStatus, 0) << Describe(r);
  const json doc = ParseJson(r);
  EXPECT_EQ(doc["watch"]["cameras"], 2);
  EXPECT_EQ(doc["watch"]["event_count"], 0);
  EXPECT_TRUE(doc["watch"]["failures"].empty()) << r.out;
  EXPECT_EQ(doc["watch"]["interrupted"], false);
  EXPECT_EQ(doc["uninit"]["code"], 0);
}

TEST_F(ProbeTest, InterruptEndsALongWatchEarlyAndStillUninitialises) {
  ProbeSetup setup = Machine({"--json", "--watch", "60"});
  setup.fifos = {"tavikPCI_0"};
  setup.interruptAfterMs = 500;
  setup.timeoutSec = 20;
  const ProbeResult r = RunProbe(setup);
  PROBE_SKIP_IF_NO_NAMESPACE(r);
  ASSERT_FALSE(r.timedOut) << "Ctrl-C did not end the watch";
  ASSERT_EQ(r.exitStatus, 0) << Describe(r);
  const json doc = ParseJson(r);
  EXPECT_EQ(doc["watch"]["interrupted"], true);
  EXPECT_EQ(doc["uninit"]["code"], 0);
}

// ---------------------------------------------------------------------------
// Bad input: every failure is a clear message and a distinct exit status.

TEST_F(ProbeTest, MissingLibraryFailsWithStatus2AndNamesThePath) {
  ProbeSetup setup;
  setup.args = {"--library", scratch_ + "/nowhere/libtavikDDI.so.3"};
  ProbeResult r = RunProbe(setup);
  EXPECT_EQ(r.exitStatus, 2) << Describe(r);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("cannot load '" + scratch_ + "/nowhere/libtavikDDI.so.3'"), std::string::npos)
      << r.err;

  setup.args.push_back("--json");
  r = RunProbe(setup);
  EXPECT_EQ(r.exitStatus, 2) << Describe(r);
  const json doc = ParseJson(r);
  EXPECT_EQ(doc["exit_status"], 2);
  EXPECT_NE(doc["error"].get<std::string>().find("cannot load"), std::string::npos);
}

TEST_F(ProbeTest, LibraryWithoutTheVersionedEntryPointsIsRefused) {
  ProbeSetup setup;
  setup.args = {"--library", "libm.so.6"};
  const ProbeResult r = RunProbe(setup);
  EXPECT_EQ(r.exitStatus, 2) << Describe(r);
  EXPECT_NE(r.err.find("entry point tavik_ddi_init@TAVIK_DDI_3.0 not found"), std::string::npos)
      << r.err;
}

TEST_F(ProbeTest, BadOptionValuesAreRejectedBeforeAnythingIsLoaded) {
  const std::vector<std::vector<std::string>> bad = {
      {"--watch", "0"},      {"--watch", "-1"},         {"--watch", "abc"},
      {"--watch", "inf"},    {"--watch", "nan"},        {"--watch", "2s"},
      {"--umd-path", scratch_ + "/missing"},            {"--log", ""},
      {"--library", ""},     {"--no-such-option"},      {"--watch"}};
  for (const auto& args : bad) {
    ProbeSetup setup;
    setup.args = args;
    // A log file must not appear: nothing was loaded.
    setup.env = {{"TAVIK_DDI_LOG_FILE", scratch_ + "/never.log"}};
    const ProbeResult r = RunProbe(setup);
    EXPECT_EQ(r.exitStatus, 1) << args[0] << " " << (args.size() > 1 ? args[1] : "") << "\n" << Describe(r);
    EXPECT_FALSE(r.err.empty());
    EXPECT_FALSE(std::filesystem::exists(scratch_ + "/never.log"));
  }
}

TEST_F(ProbeTest, HelpNamesEveryOptionAndVariable) {
  ProbeSetup setup;
  setup.args = {"--help"};
  const ProbeResult r = RunProbe(setup);
  EXPECT_EQ(r.exitStatus, 0) << Describe(r);
  for (const char* word : {"--library", "--json", "--open", "--watch", "--umd-path", "--log",
                           "--log-level", "TAVIK_UMD_PATH", "TAVIK_DDI_LOG_FILE",
                           "TAVIK_DDI_LOG_LEVEL", "TAVIK_IOC_ACQ_SET_ACTIVE", "Exit status"}) {
    EXPECT_NE(r.out.find(word), std::string::npos) << word;
  }
}

TEST_F(ProbeTest, DefaultSonameIsFoundBesideTheProbe) {
  ProbeSetup setup = Machine({"--json"});
  setup.args.erase(setup.args.begin(), setup.args.begin() + 2);  // no --library
  const ProbeResult r = RunProbe(setup);
  PROBE_SKIP_IF_NO_NAMESPACE(r);
  ASSERT_EQ(r.exitStatus, 0) << Describe(r);
  const json doc = ParseJson(r);
  EXPECT_EQ(std::filesystem::canonical(doc["library"]["path"].get<std::string>()),
            std::filesystem::canonical(kLibrary));
  EXPECT_EQ(doc["library"]["version"], "3.1.88");
}

// ---------------------------------------------------------------------------
// --log: the library writes its header, entries and footer to the named file.

TEST_F(ProbeTest, LogFileHasHeaderEntriesAndFooter) {
  const std::string logFile = scratch_ + "/ddi.log";
  const ProbeResult r = RunProbe(Machine({"--log", logFile}));
  PROBE_SKIP_IF_NO_NAMESPACE(r);
  ASSERT_EQ(r.exitStatus, 0) << Describe(r);
  const auto lines = SplitLines(probe_test::ReadFile(logFile));
  ASSERT_GE(lines.size(), 7u);
  const std::string pid = std::to_string(r.pid);
  EXPECT_EQ(lines[0], kSeparator);
  EXPECT_TRUE(std::regex_match(lines[1], std::regex(R"(\[Logging started, date \d{4}-\d{2}-\d{2}, time \d{6}\.\d{6}, PID )" + pid + R"(\])")))
      << lines[1];
  EXPECT_EQ(lines[2], "[Executable: '" + std::filesystem::canonical(TAVIK_PROBE_PATH).string() + "']");
  EXPECT_EQ(lines[3], "[Library: '" + kLibrary + "']");
  const std::size_t n = lines.size();
  EXPECT_TRUE(std::regex_match(lines[n - 3], std::regex(R"(\[Logging stopped, date \d{4}-\d{2}-\d{2}, \d{6}\.\d{6}, PID )" + pid + R"(\])")))
      << lines[n - 3];
  EXPECT_EQ(lines[n - 2], kSeparator);
  EXPECT_EQ(lines[n - 1], "");
  const std::regex total(R"(\[\d{6}\.\d{6} DDI \d{5,}:\d{5,} I\] +void ddi_update_device_list\(Ddi\*\): Total cameras: 0)");
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(),
                          [&](const std::string& l) { return std::regex_match(l, total); }));
}

TEST_F(ProbeTest, LogLevelErrorKeepsOnlyHeaderAndFooterOfASuccessfulRun) {
  const std::string logFile = scratch_ + "/ddi.log";
  ProbeResult r = RunProbe(Machine({"--log", logFile, "--log-level", "error"}));
  PROBE_SKIP_IF_NO_NAMESPACE(r);
  ASSERT_EQ(r.exitStatus, 0) << Describe(r);
  r = RunProbe(Machine({"--log", logFile, "--log-level", "error"}));
  ASSERT_EQ(r.exitStatus, 0) << Describe(r);
  // Two runs append two complete blocks of 4 header and 3 footer lines each.
  const auto lines = SplitLines(probe_test::ReadFile(logFile));
  ASSERT_EQ(lines.size(), 14u) << probe_test::ReadFile(logFile);
  for (std::size_t block = 0; block < 2; ++block) {
    const std::size_t b = block * 7;
    EXPECT_EQ(lines[b], kSeparator);
    EXPECT_EQ(lines[b + 1].rfind("[Logging started, ", 0), 0u) << lines[b + 1];
    EXPECT_EQ(lines[b + 4].rfind("[Logging stopped, ", 0), 0u) << lines[b + 4];
    EXPECT_EQ(lines[b + 5], kSeparator);
    EXPECT_EQ(lines[b + 6], "");
  }
}

// ---------------------------------------------------------------------------
// With the camera emulator module.

class ProbeEmulatorTest : public ProbeTest {
 protected:
  void SetUp() override {
    ProbeTest::SetUp();
    if (!std::filesystem::exists(kEmulator)) GTEST_SKIP() << "emulator module not built: " << kEmulator;
  }
  ProbeSetup Emulator(std::vector<std::string> args, const char* cameras = "1") const {
    ProbeSetup setup;
    setup.args = {"--library", kLibrary, "--umd-path", kModulesDir};
    setup.args.insert(setup.args.end(), args.begin(), args.end());
    setup.env = {{"TAVIK_VIRTUAL_CAMERAS", cameras}, {"TAVIK_VIRTUAL_FPS", "50"}};
    setup.privateDev = true;
    return setup;
  }
};

TEST_F(ProbeEmulatorTest, OneEmulatedCameraInTheVirtualSlot) {
  const ProbeResult r = RunProbe(Emulator({"--json", "--open"}));
  PROBE_SKIP_IF_NO_NAMESPACE(r);
  ASSERT_EQ(r.exitStatus, 0) << Describe(r);
  const json doc = ParseJson(r);
  ASSERT_EQ(doc["cameras"].size(), 1u) << r.out;
  const json& c = doc["cameras"][0];
  EXPECT_EQ(c["bus"], "Virtual");
  EXPECT_EQ(c["mode"], "USER");
  EXPECT_EQ(c["name"], "tavikSW_0");
  EXPECT_EQ(c["slot"], 4);
  const json& slot = doc["drivers"][4];
  EXPECT_EQ(slot["mode"], "USER");
  EXPECT_EQ(std::filesystem::canonical(slot["module"].get<std::string>()),
            std::filesystem::canonical(kEmulator));
  EXPECT_EQ(slot["devices"], 1);
  for (unsigned i = 0; i < 4; ++i) EXPECT_EQ(doc["drivers"][i]["mode"], "KERNEL");
  EXPECT_EQ(doc["open"][0]["open"]["code"], 0);
  EXPECT_EQ(doc["open"][0]["close"]["code"], 0);
}

TEST_F(ProbeEmulatorTest, SeveralEmulatedCamerasKeepTheirOrder) {
  const ProbeResult r = RunProbe(Emulator({"--json"}, "3"));
  PROBE_SKIP_IF_NO_NAMESPACE(r);
  ASSERT_EQ(r.exitStatus, 0) << Describe(r);
  const json doc = ParseJson(r);
  ASSERT_EQ(doc["cameras"].size(), 3u) << r.out;
  for (unsigned i = 0; i < 3; ++i) EXPECT_EQ(doc["cameras"][i]["name"], "tavikSW_" + std::to_string(i));
  EXPECT_EQ(doc["drivers"][4]["devices"], 3);
}

TEST_F(ProbeEmulatorTest, WatchPrintsAlternatingBofEofEventsInTimeOrder) {
  const ProbeResult r = RunProbe(Emulator({"--watch", "1"}));
  PROBE_SKIP_IF_NO_NAMESPACE(r);
  ASSERT_EQ(r.exitStatus, 0) << Describe(r);
  const std::regex event(R"( +(\d+\.\d{6})  camera 0  (NOTIFICATION_\w+))");
  std::vector<std::string> names;
  double last = -1;
  std::size_t summaryEvents = 0;
  for (const std::string& line : SplitLines(r.out)) {
    std::smatch m;
    if (std::regex_match(line, m, event)) {
      const double t = std::stod(m[1]);
      EXPECT_GE(t, last) << line;
      last = t;
      names.push_back(m[2]);
    }
    std::smatch s;
    if (std::regex_match(line, s, std::regex(R"(Watch ended: (\d+) events from 1 camera\(s\))"))) {
      summaryEvents = std::stoul(s[1]);
    }
  }
  // 50 frames a second for one second: well over ten pairs even on a loaded machine.
  ASSERT_GE(names.size(), 20u) << r.out;
  EXPECT_EQ(summaryEvents, names.size());
  for (std::size_t i = 0; i + 1 < names.size(); i += 2) {
    EXPECT_EQ(names[i], "NOTIFICATION_BOF") << "event " << i;
    EXPECT_EQ(names[i + 1], "NOTIFICATION_EOF") << "event " << i + 1;
  }
  EXPECT_TRUE(HasLine(SplitLines(r.out), "Uninit: 0 (KZ_ERR_NONE)")) << r.out;
}

TEST_F(ProbeEmulatorTest, WatchJsonCountsEventsPerCamera) {
  const ProbeResult r = RunProbe(Emulator({"--json", "--watch", "0.5"}, "2"));
  PROBE_SKIP_IF_NO_NAMESPACE(r);
  ASSERT_EQ(r.exitStatus, 0) << Describe(r);
  const json doc = ParseJson(r);
  const json& watch = doc["watch"];
  EXPECT_EQ(watch["cameras"], 2);
  EXPECT_TRUE(watch["failures"].empty()) << r.out;
  EXPECT_EQ(watch["event_count"], watch["events"].size());
  unsigned eof[2] = {0, 0}, bof[2] = {0, 0};
  for (const json& e : watch["events"]) {
    const unsigned cam = e["camera"];
    ASSERT_LT(cam, 2u);
    if (e["name"] == "NOTIFICATION_BOF") ++bof[cam];
    if (e["name"] == "NOTIFICATION_EOF") ++eof[cam];
    EXPECT_EQ(e["type"] == 4u, e["name"] == "NOTIFICATION_BOF");
  }
  for (unsigned cam = 0; cam < 2; ++cam) {
    EXPECT_GE(eof[cam], 5u) << "camera " << cam;
    EXPECT_LE(bof[cam] - eof[cam], 1u) << "camera " << cam;
  }
}

}  // namespace
