// The log set-up from any TAVIK_DDI_LOG_LEVEL text and TAVIK_DDI_LOG_FILE name (in a scratch folder), a few entries,
// the set-up torn down: every line of the file is a header, entry or footer line, all starting with '['.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <fstream>

#include "log/LogFn.h"
#include "log/LogSetupFile.h"

static char folder[] = "/tmp/tavik-fuzz-log-XXXXXX";

extern "C" int LLVMFuzzerInitialize(int*, char***) { return mkdtemp(folder) ? 0 : 1; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  std::string file = std::string(folder) + "/" + in.ConsumeRandomLengthString(64), level = in.ConsumeRandomLengthString(8);
  std::replace(file.begin(), file.end(), '.', ',');  // no way out through ".."
  {
    kt::LogSetupFile setup(in.ConsumeBool() ? file.c_str() : nullptr, in.ConsumeBool() ? level.c_str() : nullptr);
    const char* const categories[] = {nullptr, "", "DDI", "DDIX"};  // the library's own words
    kt::LogFn fn(setup.GetLog(), categories[in.ConsumeIntegralInRange(0, 3)], "void fuzz(void)");
    if (fn.WillBeLogged()) fn.LogEnterMessage("%d", 1);
    for (auto at = kt::LogEntry::Trace; in.remaining_bytes() > 0; at = static_cast<kt::LogEntry::Level>(in.ConsumeIntegralInRange(-1, 5)))
      if (fn.WillBeLogged(at)) fn.LogMessage(at, "%s", in.ConsumeRandomLengthString(200).c_str());
  }
  std::ifstream written(file, std::ios::binary);
  for (std::string line; std::getline(written, line);)
    if (!line.empty() && line[0] != '[') std::abort();
  unlink(file.c_str());
  return 0;
}
