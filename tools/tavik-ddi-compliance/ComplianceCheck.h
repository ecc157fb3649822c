// One rule of the module contract, as a check that runs in a child process of
// its own, and what it found.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <tavik/tavik_driver.h>

namespace compliance {

class ModuleSession;

enum class Result { kPass, kFail, kWarn, kSkip, kCrash, kTimeout };
constexpr int kResultCount = 6;
const char* ResultName(Result result);  // "pass", "fail", ...

struct Outcome {
  Result result = Result::kPass;
  std::string detail;
};

Outcome Pass(std::string detail = {});
Outcome Fail(std::string detail);
Outcome Skip(std::string detail);
Outcome Warn(std::string detail);

// printf into a std::string.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
// "KZ_ERR_STATE_INVALID (184)": the name and the 16-bit value of a result code.
std::string Code(int16 code);

// What the child prepares before a check's body runs. A check that cannot get
// what it needs is skipped with the reason: only the check that names a broken
// step fails for it.
enum class Needs {
  kFile,      // nothing: the check works on the path
  kModule,    // the module loaded with every symbol resolved and its three entry points
  kDriver,    // and init returned QX_OK
  kDevices,   // and the list holds at least one device with all eight operations
};

struct Check {
  const char* group;
  const char* name;
  const char* description;
  Needs needs;
  Outcome (*run)(ModuleSession& session);
};

// Every check, in the order they are reported.
const std::vector<Check>& AllChecks();

// The groups' tables, one per source file.
void AddLoadingChecks(std::vector<Check>& checks);
void AddRecordChecks(std::vector<Check>& checks);
void AddOperationChecks(std::vector<Check>& checks);
void AddNotificationChecks(std::vector<Check>& checks);

}  // namespace compliance
