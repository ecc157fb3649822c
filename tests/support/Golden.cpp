#include "Golden.h"

#include <unistd.h>

#include <cstdlib>
#include <map>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>

#include "ChildProcess.h"

namespace tavik_test {

std::string NormalizeLog(const std::string& log) {
  static const std::regex entry(R"(^\[\d{6}\.\d{6} (.{3}) (\d+):(\d+) (.)\] (.*)$)");
  static const std::regex pointer("0x(0x)?[0-9a-f]{10,}"), micros(R"( \[\d+us\]$)");
  static const std::regex stamp(R"(\d{4}-\d\d-\d\d|\d{6}\.\d{6}|PID \d+)");
  std::vector<std::string> order;  // thread ids in order of their first line, main first
  std::map<std::string, std::string> threads;
  std::istringstream in(log);
  std::smatch m;
  for (std::string line; std::getline(in, line);) {
    std::string tid = "main";
    if (std::regex_match(line, m, entry)) {
      if (m[2] != m[3]) tid = m[3];
      line = m[4].str() + " " + m[1].str() + " " + std::regex_replace(m[5].str(), micros, " [@us]");
      line = std::regex_replace(line, pointer, "0x@");
    } else {
      line = std::regex_replace(line, stamp, "@");
    }
    if (threads.emplace(tid, std::string()).second) order.push_back(tid);
    threads[tid] += line + "\n";
  }
  std::string out = threads["main"];
  int n = 0;
  for (const auto& tid : order)
    if (tid != "main") out += "[thread " + std::to_string(++n) + "]\n" + threads[tid];
  return out;
}

void ExpectGolden(const std::string& name, std::string actual, const Substitutions& subs) {
  for (const auto& s : subs)
    for (size_t at; !s.first.empty() && (at = actual.find(s.first)) != std::string::npos;)
      actual.replace(at, s.first.size(), s.second);
  const std::string path = std::string(TAVIK_TEST_GOLDEN_DIR) + "/" + name + ".txt";
  const char* update = getenv("TAVIK_UPDATE_GOLDEN");
  if (update != nullptr && std::string(update) == "1") {
    WriteFile(path, actual);
    return;
  }
  EXPECT_EQ(ReadFile(path), actual) << path << " (TAVIK_UPDATE_GOLDEN=1 rewrites it)";
}

}  // namespace tavik_test
