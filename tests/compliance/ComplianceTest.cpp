// The compliance checker as a module author runs it: on modules that each break one rule of the contract it
// must name exactly that rule, on a good module and on the emulator it must pass everything.
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;
const std::string kChecker = TAVIK_COMPLIANCE_PATH, kFixtures = TAVIK_COMPLIANCE_FIXTURES_DIR;

struct CheckerRun {
  int status = -1;  // exit status, -1 if it did not exit by itself
  std::string out;
  json doc;         // the document, when --json was given
};

CheckerRun Checker(const std::string& args) {
  CheckerRun run;
  FILE* pipe = popen((kChecker + " " + args).c_str(), "r");
  if (pipe == nullptr) return run;
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) run.out.append(buffer, n);
  const int status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.doc = json::parse(run.out, nullptr, false);
  return run;
}

std::string Fixture(const std::string& variant) { return kFixtures + "/tavik_" + variant + ".x86_64.umd"; }

// Every check of the document passed, or got what `expected` names for it; `mayAlsoSkip` lets the checks that
// need what the broken rule took away skip instead.
void ExpectResults(const CheckerRun& run, const std::string& check, const std::string& result,
                   const std::string& detail, bool mayAlsoSkip, const std::string& mayAlsoFail = {}) {
  ASSERT_TRUE(run.doc.is_object()) << run.out;
  const json& checks = run.doc["checks"];
  bool found = check.empty();
  for (const json& c : checks) {
    const std::string name = c["name"], got = c["result"], text = c["detail"];
    if (name == check) {
      found = true;
      EXPECT_EQ(got, result) << name << ": " << text;
      EXPECT_NE(text.find(detail), std::string::npos) << name << ": " << text;
      EXPECT_TRUE(got == "pass" || !text.empty()) << name;
    } else if (got != "pass" && !(mayAlsoSkip && got == "skip") && !(name == mayAlsoFail && got == "fail")) {
      ADD_FAILURE() << name << " is " << got << ": " << text;
    }
  }
  EXPECT_TRUE(found) << check;
  const json& totals = run.doc["totals"];
  int sum = 0;
  for (const char* r : {"pass", "fail", "warn", "skip", "crash", "timeout"}) sum += totals[r].get<int>();
  EXPECT_EQ(totals["checks"], checks.size());
  EXPECT_EQ(sum, static_cast<int>(checks.size()));
  EXPECT_EQ(run.status, result == "pass" ? 0 : 1);
}

struct BrokenRule {
  const char* variant;
  const char* check;
  const char* result;
  const char* detail;  // a part of the check's detail
  bool mayAlsoSkip;
};

class BrokenModule : public ::testing::TestWithParam<BrokenRule> {};

TEST_P(BrokenModule, FailsExactlyTheCheckOfItsRule) {
  const BrokenRule& rule = GetParam();
  // Under ASan the heap that libtavikDDI's loads and unloads leave behind grows with every cycle (195 bytes a
  // cycle, none in the plain build): a module that links it also fails the cycles check there.
#if defined(__SANITIZE_ADDRESS__)
  const std::string alsoFails = std::string(rule.variant) == "links_library" ? "cycles" : "";
#else
  const std::string alsoFails;
#endif
  ExpectResults(Checker("--json --timeout 8 " + Fixture(rule.variant)), rule.check, rule.result, rule.detail,
                rule.mayAlsoSkip, alsoFails);
}

// The device names are fixture_0 and fixture_1; "'fixture_0': " prefixes a device's failure. A crash is a signal,
// or under the sanitizers an exit after their report.
INSTANTIATE_TEST_SUITE_P(
    Rules, BrokenModule,
    ::testing::Values(
        BrokenRule{"good", "", "pass", "", false},
        BrokenRule{"", "file-name", "fail", "file name: expected tavik_*.x86_64.umd, got tavik_.x86_64.umd", false},
        BrokenRule{"extra_export", "exports", "fail", "expected init, uninit and type only, got also helper_export", false},
        BrokenRule{"missing_symbol", "dlopen", "fail", "undefined symbol: tavik_fixture_not_anywhere", true},
        BrokenRule{"links_library", "no-library-link", "fail", "libtavikDDI.so.3", false},
        BrokenRule{"type7", "type", "fail", "expected a bus type from 0 to 4, got 7", false},
        BrokenRule{"init2", "init-result", "fail", "init: expected QX_OK (1) or QX_FAIL (0), got 2", true},
        BrokenRule{"bad_backpointer", "device-driver", "fail", "device 0: driver: expected 0x", false},
        BrokenRule{"unterminated_name", "device-strings", "fail", "name: expected a terminator within 32", false},
        BrokenRule{"null_op", "device-operations", "fail", "'fixture_1': expected all eight operations, got null stop_notif_thread", true},
        BrokenRule{"device_word", "device-word", "fail", "device_word: expected 0, got 0x1", false},
        BrokenRule{"keep_list", "uninit-clears-list", "fail", "expected null, got a pointer", false},
        BrokenRule{"uninit_crash", "uninit-without-init", "crash", "", false},
        BrokenRule{"leak_fd", "cycles", "fail", "open descriptors after 32 more cycles", false},
        BrokenRule{"leak_memory", "cycles", "fail", "heap in use after each of two rounds of 16 cycles", false},
        BrokenRule{"open_twice", "open-twice", "fail", "'fixture_0': open twice: expected KZ_ERR_STATE_INVALID (184), got KZ_ERR_NONE (0)", false},
        BrokenRule{"close_text", "close-twice", "fail", "close before open: expected the text \"Device already closed\", got \"Not open\"", false},
        BrokenRule{"closed_read", "closed-device", "fail", "read before open: expected KZ_ERR_STATE_INVALID (184), got KZ_ERR_DDI_DEVICE_READ_FAILED (197)", false},
        BrokenRule{"count_on_fail", "counts", "fail", "failed read: expected the count untouched (0xbeef), got 0", false},
        BrokenRule{"bad_code", "result-codes", "fail", "write from a null buffer of 16 bytes: expected a code of the error table, got 300", false},
        BrokenRule{"no_text", "failure-text", "fail", "an unknown request failed with KZ_ERR_DDI_DEVICE_IOCTL_FAILED (199): expected a last-error text, got none", false},
        BrokenRule{"zero_read", "zero-bytes", "fail", "read of 0 bytes: expected KZ_ERR_NONE (0), got KZ_ERR_DDI_DEVICE_READ_FAILED (197)", false},
        BrokenRule{"unknown_ok", "unknown-request", "fail", "request 0x00003dee: expected KZ_ERR_DDI_DEVICE_IOCTL_FAILED (199), got KZ_ERR_NONE (0)", false},
        BrokenRule{"null_arg_crash", "null-argument", "crash", "", false},
        BrokenRule{"size_query", "size-query", "fail", "null buffer, size 0: expected 22, got 0", false},
        BrokenRule{"no_term", "cut-text", "fail", "a 4-byte buffer: expected \"Dev\" and a terminator", false},
        BrokenRule{"global_text", "per-thread", "fail", "a thread that never failed: expected an empty text, got \"Device already closed\"", false},
        BrokenRule{"null_callback", "null-callback", "fail", "with a null callback: expected a failure code, got KZ_ERR_NONE (0)", false},
        BrokenRule{"start_twice", "start-twice", "crash", "killed by signal SIGABRT", false},
        BrokenRule{"bad_record", "record-fields", "fail", "record 0: expected size 32, version 1 and a NOTIFICATION_* type, got size 32, version 2, type 0x0000000", false},
        BrokenRule{"stop_on_fail", "failing-callback", "fail", "expected delivery to go on, got 1 record(s)", false},
        BrokenRule{"reenter_hang", "callback-reenters", "timeout", "no result within 8 s; killed", false},
        BrokenRule{"stop_in_callback", "stop-from-callback", "fail", "expected a failure code, got KZ_ERR_NONE (0)", false},
        BrokenRule{"slow_stop", "prompt-stop", "fail", "stop_notif_thread while idle: expected a return within 1000 ms, got 1", false},
        BrokenRule{"uninit_leaks_thread", "uninit-while-running", "fail", "after uninit: expected no thread of the module, got 1 still running", false},
        BrokenRule{"busy_idle", "idle-cpu", "fail", "an idle notification thread in 500 ms: expected at most 25 ms of CPU and 10 wake-ups, got ", false},
        BrokenRule{"throw", "exceptions", "fail", "open: expected no C++ exception, got std::bad_alloc", false}),
    [](const ::testing::TestParamInfo<BrokenRule>& info) {
      return *info.param.variant ? std::string(info.param.variant) : std::string("empty_name");
    });

// A file that someone else could replace is refused by the library, so by the checker; nothing else changes.
TEST(ComplianceFile, WorldWritableModuleFailsOnlyTheFileRule) {
  char folder[] = "/tmp/tavik-compliance-XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  const std::string copy = std::string(folder) + "/tavik_good.x86_64.umd";
  std::filesystem::copy_file(Fixture("good"), copy);
  chmod(copy.c_str(), 0777);
  ExpectResults(Checker("--json " + copy), "module-file", "fail", "the library refuses the file: ", false);
  std::filesystem::remove_all(folder);
}

// The emulator with two cameras (so that the several-threads check has two devices) passes every check.
TEST(ComplianceEmulator, PassesEveryCheck) {
  setenv("TAVIK_VIRTUAL_CAMERAS", "2", 1);
  const CheckerRun run = Checker(std::string("--json ") + TAVIK_EMULATOR_PATH);
  ExpectResults(run, "", "pass", "", false);
  EXPECT_EQ(run.doc["module"], json({{"path", TAVIK_EMULATOR_PATH}, {"size", std::filesystem::file_size(TAVIK_EMULATOR_PATH)}, {"type", 4}}));
  EXPECT_EQ(run.doc["checker"], json({{"name", "tavik-ddi-compliance"}, {"version", "3.1.88"}}));
}

struct CommandLine {
  std::string args;
  int status;
  std::string out;  // the whole standard output; a prefix if it ends with "*"; the report after the heading
                    // if it begins with a line feed
};

class ComplianceCli : public ::testing::TestWithParam<CommandLine> {};

TEST_P(ComplianceCli, ExitStatusAndOutput) {
  const CommandLine& c = GetParam();
  std::string args = c.args;
  for (size_t at; (at = args.find("@")) != std::string::npos;) args.replace(at, 1, kFixtures + "/tavik_");
  const CheckerRun run = Checker(args + " 2>/dev/null");
  EXPECT_EQ(run.status, c.status) << run.out;
  std::string want = c.out;
  for (size_t at; (at = want.find("@")) != std::string::npos;) want.replace(at, 1, kFixtures + "/tavik_");
  if (!want.empty() && want.front() == '\n')  // the report after its heading, whose size line varies by build
    EXPECT_EQ(run.out.substr(std::min(run.out.size(), run.out.find("\n\n") + 1)), want);
  else if (!want.empty() && want.back() == '*')
    EXPECT_EQ(run.out.substr(0, want.size() - 1), want.substr(0, want.size() - 1));
  else
    EXPECT_EQ(run.out, want);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ComplianceCli,
    ::testing::Values(
        CommandLine{"", 2, ""},
        CommandLine{"/nonexistent/tavik_x.x86_64.umd", 2, ""},
        CommandLine{"--only nosuch @good.x86_64.umd", 2, ""},
        CommandLine{"--timeout 0 @good.x86_64.umd", 2, ""},
        CommandLine{"--bogus @good.x86_64.umd", 2, ""},
        CommandLine{"--help", 0, "Checks a user-mode driver module*"},
        CommandLine{"--list --only last-error", 0,
                    "last-error     size-query             a null buffer or size 0 copies nothing and returns the size needed\n"
                    "last-error     cut-text               a short buffer gets a cut, terminated text and the full size\n"
                    "last-error     per-thread             one text per thread\n"},
        CommandLine{"--only type --only last-error @good.x86_64.umd", 0,
                    "tavik-ddi-compliance 3.1.88\nModule: @good.x86_64.umd (*"},
        CommandLine{"--only open-twice --only stop-without-start @open_twice.x86_64.umd", 1,
                    "\noperations\n"
                    "  fail     open-twice: 'fixture_0': open twice: expected KZ_ERR_STATE_INVALID (184), got KZ_ERR_NONE (0)\n"
                    "\nnotifications\n  pass     stop-without-start\n"
                    "\nChecks run: 2; pass 1, fail 1, warn 0, skip 0, crash 0, timeout 0\n"},
        CommandLine{"--only dlopen --only open-twice @missing_symbol.x86_64.umd", 1,
                    "\nloading\n"
                    "  fail     dlopen: dlopen with RTLD_NOW: @missing_symbol.x86_64.umd: undefined symbol: tavik_fixture_not_anywhere\n"
                    "\noperations\n"
                    "  skip     open-twice: the module cannot be loaded: @missing_symbol.x86_64.umd: undefined symbol: tavik_fixture_not_anywhere\n"
                    "\nChecks run: 2; pass 0, fail 1, warn 0, skip 1, crash 0, timeout 0\n"}),
    [](const ::testing::TestParamInfo<CommandLine>& info) { return "case" + std::to_string(info.index); });

}  // namespace
