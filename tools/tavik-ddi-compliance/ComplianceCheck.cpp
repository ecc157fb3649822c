#include "ComplianceCheck.h"

#include <cstdarg>
#include <cstdio>

#include "ProbeNames.h"

namespace compliance {

const char* ResultName(Result result) {
  static constexpr const char* kNames[kResultCount] = {"pass", "fail", "warn", "skip", "crash", "timeout"};
  return kNames[static_cast<int>(result)];
}

Outcome Pass(std::string detail) { return {Result::kPass, std::move(detail)}; }
Outcome Fail(std::string detail) { return {Result::kFail, std::move(detail)}; }
Outcome Skip(std::string detail) { return {Result::kSkip, std::move(detail)}; }
Outcome Warn(std::string detail) { return {Result::kWarn, std::move(detail)}; }

std::string Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int n = std::vsnprintf(nullptr, 0, format, args);
  va_end(args);
  std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
  if (n > 0) std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  return text;
}

std::string Code(int16 code) {
  const uns16 value = static_cast<uns16>(code);
  return Format("%s (%u)", probe::ErrorCodeName(value), value);
}

const std::vector<Check>& AllChecks() {
  static const std::vector<Check> checks = [] {
    std::vector<Check> all;
    AddLoadingChecks(all);
    AddRecordChecks(all);
    AddOperationChecks(all);
    AddNotificationChecks(all);
    return all;
  }();
  return checks;
}

}  // namespace compliance
