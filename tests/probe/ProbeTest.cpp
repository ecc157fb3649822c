// The probe's command-line contract, run as a user runs it, with the emulator's folder; the sample of each output
// comes from a private /dev whose one camera node cannot be opened.
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <iterator>

#include <nlohmann/json.hpp>

#include "ChildProcess.h"
#include "FakeDev.h"

using namespace tavik_test;
namespace {

using nlohmann::json;
const std::string kProbe = TAVIK_PROBE_PATH, kModules = TAVIK_PROBE_MODULES_DIR;
const std::string kFailed = "195 (KZ_ERR_DDI_DEVICE_OPEN_FAILED): 'Error 21 (Is a directory)'";

struct ProcessResult {
  int exitStatus = -1;  // -1 unless the probe ended by itself within 30 s
  std::string out, err;
};

// The probe run as a user runs it, its emulated cameras at 100 fps: its exit status and what it printed.
ProcessResult Probe(std::vector<std::string> argv) {
  // Built before the fork: the child of a threaded process may only make async-signal-safe calls.
  argv.insert(argv.begin(), kProbe);
  std::vector<char*> args, envp = {const_cast<char*>("TAVIK_VIRTUAL_FPS=100")};  // before the inherited one
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  for (char** e = environ; *e != nullptr; ++e) envp.push_back(*e);
  args.push_back(nullptr);
  envp.push_back(nullptr);
  // Files in memory rather than pipes: nothing has to be drained while the probe runs.
  const int out = memfd_create("stdout", MFD_CLOEXEC), err = memfd_create("stderr", MFD_CLOEXEC);
  const pid_t pid = fork();
  if (pid == 0 && dup2(out, 1) == 1 && dup2(err, 2) == 2) execve(args[0], args.data(), envp.data());
  if (pid == 0) _exit(127);
  int status = SIGKILL;  // as if killed, when there is no child
  for (int ms = 0; pid > 0 && waitpid(pid, &status, WNOHANG) == 0; ms += 5) {
    if (ms > 30000) kill(pid, SIGKILL);
    usleep(5000);
  }
  ProcessResult r{WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile("/proc/self/fd/" + std::to_string(out)),
                  ReadFile("/proc/self/fd/" + std::to_string(err))};
  close(out);
  close(err);
  return r;
}

class ProbeCli : public ChildTest {};

// The document with each value replaced by its type, and each array by its distinct shapes.
json Shape(const json& doc) {
  if (!doc.is_structured()) return doc.type_name();
  json shape = doc.is_object() ? json::object() : json::array();
  for (const auto& [key, value] : doc.items())
    if (doc.is_object()) shape[key] = Shape(value);
    else if (std::find(shape.begin(), shape.end(), Shape(value)) == shape.end()) shape.push_back(Shape(value));
  return shape;
}

// One sample of each kind of output: the lists, --open, --watch, the --log file and the JSON document.
TEST_F(ProbeCli, TextAndJsonOfOneMachineWithTheLibraryBesideTheProbe) {
  RunInChild([](ChildContext&) {
    EnterPrivateDev();
    ASSERT_EQ(mkdir(DevPath("tavikPCI_0").c_str(), 0755), 0);  // listed, but not a device
    const ProcessResult r = Probe({"--umd-path", kModules, "--open", "--watch", "0.5", "--log", "/dev/ddi.log",
                                   "--log-level", "error"}),
                        j = Probe({"--umd-path", kModules, "--open", "--watch", "0.5", "--json"});
    EXPECT_EQ(std::make_pair(r.exitStatus, j.exitStatus), std::make_pair(4, 4)) << r.err << j.err;
    const std::string head = "Library: " + std::filesystem::path(kProbe).parent_path().string() +
        "/../lib/libtavikDDI.so.3\nVersion: 3.1.88\nInit: 0 (KZ_ERR_NONE)\n" R"(
Cameras: 2
  Index  Bus      Mode    Name        Node
      0  PCI      KERNEL  tavikPCI_0  /dev/tavikPCI_0
      1  Virtual  USER    tavikSW_0   virtual:tavikSW_0

Driver slots:
  Slot  Type      Mode    Devices  Module
     0  PCI       KERNEL        1  -
     1  PCIe      KERNEL        0  -
     2  USB       KERNEL        0  -
     3  FireWire  KERNEL        0  -
     4  Virtual   USER          1  )" + kModules + R"(/tavik_virtual.x86_64.umd

Open and close:
      0  open )" + kFailed + R"(
      1  open 0 (KZ_ERR_NONE), close 0 (KZ_ERR_NONE)

Watching 2 camera(s) for 0.5 s...
)";
    // Event lines become one word each; the BOF/EOF pairs, whatever their number, one line.
    const std::regex event(R"( +\d+\.\d{6}  camera 1  NOTIFICATION_(\w+)\n)");
    const auto events = std::distance(std::sregex_iterator(r.out.begin(), r.out.end(), event), {});
    EXPECT_EQ(std::regex_replace(std::regex_replace(r.out, event, "$1 "), std::regex("(BOF EOF )+(BOF )?"), "pairs\n"),
              head + "pairs\n  camera 0 open: " + kFailed + "\nWatch ended: " + std::to_string(events) +
                  " events from 1 camera(s)\n\nUninit: 0 (KZ_ERR_NONE)\n");
    // A header block, the two failed opens (nothing below Error), a footer block.
    EXPECT_TRUE(std::regex_match(ReadFile("/dev/ddi.log"), std::regex(R"(\[=+\]\n\[Logging started, .+\n\[Executable: .+\n)"
        R"(\[Library: .+\n(\[\d{6}\.\d{6} DDI \d+:\d+ E\] .+\n){2}\[Logging stopped, .+\n\[=+\]\n\n)"))) << ReadFile("/dev/ddi.log");

    json doc = json::parse(j.out, nullptr, false);
    const std::string result = R"({"code": "number", "name": "string", "last_error": "string"})";
    EXPECT_EQ(Shape(doc), json::parse(std::regex_replace(R"({
      "library": {"path": "string", "version": "string", "major": "number", "minor": "number", "build": "number"},
      "cameras": [{"index": "number", "bus": "string", "slot": "number", "mode": "string", "name": "string", "path": "string"}],
      "drivers": [{"slot": "number", "type": "string", "loaded": "boolean", "mode": "string", "module": "string",
                   "devices": "number", "incompatible": "number"}], "skipped_modules": [],
      "open": [{"camera": "number", "open": RESULT, "close": "null"}, {"camera": "number", "open": RESULT, "close": RESULT}],
      "watch": {"seconds": "number", "cameras": "number", "interrupted": "boolean", "event_count": "number",
                "events_dropped": "number", "failures": [{"call": "string", "code": "number", "name": "string",
                "last_error": "string"}], "events": [{"time": "number", "camera": "number", "type": "number", "name": "string"}]},
      "init": RESULT, "uninit": RESULT})", std::regex("RESULT"), result)));
    json& ev = doc["watch"]["events"];
    EXPECT_EQ(json({doc["watch"]["event_count"], ev[0]["camera"], ev[0]["type"], ev[1]["type"], ev[1]["name"]}),
              json({ev.size(), 1, 4, 8, "NOTIFICATION_EOF"}));
  });
}

// A folder whose modules the library does not all keep: each one left out is named with its reason, as is the
// module whose device the camera list left out, and the compliance checker is suggested for each.
TEST_F(ProbeCli, ModulesLeftOutAndWhy) {
  RunInChild([](ChildContext& ctx) {
    EnterPrivateDev();
    const std::string dir = ctx.tmp + "/modules", fixtures = TAVIK_TEST_FIXTURES_DIR;
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    ASSERT_EQ(mkfifo((dir + "/tavik_a.x86_64.umd").c_str(), 0644), 0);
    std::filesystem::copy_file(fixtures + "/undefined/tavik_undefined.x86_64.umd", dir + "/tavik_b.x86_64.umd");
    std::filesystem::copy_file(fixtures + "/good/tavik_good.x86_64.umd", dir + "/tavik_c.x86_64.umd");
    std::filesystem::copy_file(fixtures + "/good/tavik_good.x86_64.umd", dir + "/tavik_d.x86_64.umd");
    const ProcessResult r = Probe({"--umd-path", dir}), j = Probe({"--umd-path", dir, "--json"});
    EXPECT_EQ(std::make_pair(r.exitStatus, j.exitStatus), std::make_pair(0, 0)) << r.err << j.err;
    const std::string check = "    Check it with: tavik-ddi-compliance " + dir;
    EXPECT_NE(r.out.find("\nSkipped modules in " + dir + ":\n  " + dir + "/tavik_a.x86_64.umd: not a regular file\n" +
                         check + "/tavik_a.x86_64.umd\n  " + dir + "/tavik_b.x86_64.umd: " + dir +
                         "/tavik_b.x86_64.umd: undefined symbol: tavik_fixture_nowhere\n" + check +
                         "/tavik_b.x86_64.umd\n  " + dir + "/tavik_d.x86_64.umd: bus type already served\n" + check +
                         "/tavik_d.x86_64.umd\n\nIncompatible devices left out of the camera list: 1 of slot 0 (" + dir +
                         "/tavik_c.x86_64.umd)\n" + check.substr(2) + "/tavik_c.x86_64.umd\n\nUninit"),
              std::string::npos) << r.out;
    const json doc = json::parse(j.out, nullptr, false);
    const json& skipped = doc["skipped_modules"];
    EXPECT_EQ(json({skipped.size(), skipped[0]["file"], skipped[0]["reason"], skipped[2]["reason"]}),
              json({3, dir + "/tavik_a.x86_64.umd", "not a regular file", "bus type already served"}));
    EXPECT_EQ(json({doc["drivers"][0]["incompatible"], doc["drivers"][4]["incompatible"]}), json({1, 0}));
  });
}

TEST_F(ProbeCli, ExitStatusAndMessageForEachKindOfFailure) {
  const std::string missing = "/nonexistent/libtavikDDI.so.3", badWatch = "--watch: SECONDS must be a number above 0";
  const struct { std::vector<std::string> args; int exit; std::vector<std::string> needles; } rows[] = {
      {{"--help"}, 0, {"--library", "--umd-path", "--log", "--log-level", "--open", "--watch", "--json", "Exit status"}},
      {{"--library", missing}, 2, {"tavik-ddi-probe: cannot load '" + missing + "': "}},
      {{"--json", "--library", missing}, 2, {"{\"error\":\"cannot load '" + missing, "\"exit_status\":2}"}},
      {{"--library", "libm.so.6"}, 2, {"entry point tavik_ddi_init@TAVIK_DDI_3.0 not found"}},
      {{"--watch", "0"}, 1, {badWatch}}, {{"--watch", "2s"}, 1, {badWatch}},
      {{"--umd-path", "/nonexistent"}, 1, {"--umd-path: Directory does not exist"}}, {{"--log", ""}, 1, {"--log"}},
      {{"--library", ""}, 1, {"--library"}}, {{"--no-such-option"}, 1, {"--no-such-option"}}};
  for (const auto& row : rows) {
    const ProcessResult r = Probe(row.args);
    EXPECT_EQ(r.exitStatus, row.exit) << row.args[0] << "\n" << r.out << r.err;
    for (const std::string& needle : row.needles) EXPECT_NE((r.out + r.err).find(needle), std::string::npos) << needle;
  }
}

}  // namespace
