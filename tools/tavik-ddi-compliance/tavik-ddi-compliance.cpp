// tavik-ddi-compliance: checks a user-mode driver module against every rule of
// the module contract, each check in a child process of its own, and says for
// each what was expected and what came back.
#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "CheckRunner.h"
#include "ComplianceCheck.h"
#include "ProbeNames.h"

namespace {

using namespace compliance;

constexpr int kExitPassed = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
// Two children at a time: as many as the smallest rig has cores, and enough
// to keep the checks that wait for events from adding up.
constexpr int kParallel = 2;

const char* kDescription =
    "Checks a user-mode driver module (tavik_*.x86_64.umd) against the module contract:\n"
    "loading, the driver and device records, the device operations and their texts, the\n"
    "last-error buffer rules, notifications, and robustness. Each check runs in a child\n"
    "process with a time limit, so a crash, an abort or a hang is reported as that check's\n"
    "result and the others still run. The checker loads the module itself, as the library\n"
    "does (RTLD_NOW); it does not need libtavikDDI.";

const char* kFooter =
    "Results: pass, fail, warn, skip (the check could not run: the reason says why),\n"
    "crash (the signal) and timeout (the limit). Notification checks start frames with\n"
    "TAVIK_IOC_ACQ_SET_ACTIVE and a zero-filled 32-byte record; a module that sends no\n"
    "event then skips them.\n"
    "\n"
    "Exit status:\n"
    "  0  no check failed (warnings and skips allowed)\n"
    "  1  at least one check failed, crashed or timed out\n"
    "  2  bad command line, or MODULE is not there";

struct Options {
  bool json = false;
  bool list = false;
  std::vector<std::string> only;
  double timeout = 10;
  std::string module;
};

std::vector<const Check*> Selected(const Options& options) {
  std::vector<const Check*> selected;
  for (const Check& check : AllChecks()) {
    bool wanted = options.only.empty();
    for (const std::string& name : options.only) wanted = wanted || name == check.group || name == check.name;
    if (wanted) selected.push_back(&check);
  }
  return selected;
}

void WriteList(const std::vector<const Check*>& checks) {
  for (const Check* check : checks) std::printf("%-14s %-22s %s\n", check->group, check->name, check->description);
}

struct Totals {
  int counts[kResultCount] = {};
  bool failed() const {
    return counts[static_cast<int>(Result::kFail)] + counts[static_cast<int>(Result::kCrash)] +
               counts[static_cast<int>(Result::kTimeout)] != 0;
  }
};

std::string TypeText(long long type) {
  if (type < 0) return "type unknown";
  return Format("type %lld (%s)", type, probe::BusText(static_cast<std::uint32_t>(type)));
}

void WriteText(const Options& options, long long size, long long type, const std::vector<CheckReport>& reports,
               const Totals& totals) {
  std::printf("tavik-ddi-compliance %s\nModule: %s (%lld bytes, %s)\n", TAVIK_COMPLIANCE_VERSION,
              options.module.c_str(), size, TypeText(type).c_str());
  const char* group = "";
  for (const CheckReport& r : reports) {
    if (std::string(group) != r.check->group) std::printf("\n%s\n", group = r.check->group);
    std::printf("  %-8s %s%s%s\n", ResultName(r.outcome.result), r.check->name,
                r.outcome.detail.empty() ? "" : ": ", r.outcome.detail.c_str());
  }
  std::printf("\nChecks run: %zu;", reports.size());
  for (int i = 0; i < kResultCount; ++i)
    std::printf("%s %s %d", i ? "," : "", ResultName(static_cast<Result>(i)), totals.counts[i]);
  std::printf("\n");
}

void WriteJson(const Options& options, long long size, long long type, const std::vector<CheckReport>& reports,
               const Totals& totals) {
  nlohmann::json doc;
  doc["checker"] = {{"name", "tavik-ddi-compliance"}, {"version", TAVIK_COMPLIANCE_VERSION}};
  doc["module"] = {{"path", options.module}, {"size", size}, {"type", type < 0 ? nlohmann::json() : nlohmann::json(type)}};
  doc["checks"] = nlohmann::json::array();
  for (const CheckReport& r : reports)
    doc["checks"].push_back({{"group", r.check->group}, {"name", r.check->name},
                             {"result", ResultName(r.outcome.result)}, {"detail", r.outcome.detail}});
  doc["totals"] = {{"checks", reports.size()}};
  for (int i = 0; i < kResultCount; ++i) doc["totals"][ResultName(static_cast<Result>(i))] = totals.counts[i];
  std::printf("%s\n", doc.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

int Run(const Options& options) {
  const std::vector<const Check*> checks = Selected(options);
  if (options.list) {
    WriteList(checks);
    return kExitPassed;
  }
  struct stat st {};
  stat(options.module.c_str(), &st);
  const std::vector<CheckReport> reports = RunChecks(checks, options.module, options.timeout, kParallel);
  Totals totals;
  long long type = -1;
  for (const CheckReport& r : reports) {
    ++totals.counts[static_cast<int>(r.outcome.result)];
    if (type < 0) type = r.moduleType;
  }
  if (options.json)
    WriteJson(options, static_cast<long long>(st.st_size), type, reports, totals);
  else
    WriteText(options, static_cast<long long>(st.st_size), type, reports, totals);
  std::fflush(stdout);
  return totals.failed() ? kExitFailed : kExitPassed;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app(kDescription, "tavik-ddi-compliance");
  app.footer(kFooter);
  app.add_flag("--json", options.json, "Print one JSON document instead of the text report");
  app.add_flag("--list", options.list, "List the checks (those --only selects) and exit");
  std::set<std::string> names;
  for (const Check& check : AllChecks()) names.insert({check.group, check.name});
  app.add_option("--only", options.only, "Run only this group or check; may be given more than once")
      ->type_name("GROUP|CHECK")
      ->allow_extra_args(false)
      ->check(CLI::IsMember(names).description(""));
  app.add_option("--timeout", options.timeout, "Time limit of each check, in seconds")
      ->capture_default_str()
      ->type_name("SECONDS")
      ->check(CLI::Range(0.1, 3600.0).description(""));
  CLI::Option* module = app.add_option("MODULE", options.module, "The module file to check")
                            ->type_name("MODULE.umd")
                            ->check(CLI::ExistingFile.description(""));
  try {
    app.parse(argc, argv);
    if (!options.list && module->count() == 0) throw CLI::RequiredError("MODULE");
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kExitUsage;
  }
  return Run(options);
}
