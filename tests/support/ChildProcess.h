// Runs a test case in a forked child: the library loads from scratch with the case's environment, and a crash, a hang
// or a leaked thread stays inside that child.
#pragma once

#include <functional>
#include <string>

#include <gtest/gtest.h>

namespace tavik_test {

struct ChildContext {
  std::string tmp;  // scratch folder, made by the parent and removed by it afterwards
  std::string LogPath() const { return tmp + "/ddi.log"; }
  std::string CallsPath() const { return tmp + "/calls.txt"; }
  // Names the log file (and optionally the level) for the next load of the library.
  void EnableLog(const char* level = nullptr) const;
  // Makes the fixture modules append their loads and calls to CallsPath().
  void RecordFixtureCalls() const { setenv("TAVIK_FIXTURE_CALLS", CallsPath().c_str(), 1); }
};

// Ends the child as skipped; the parent skips the case, or fails it under TAVIK_TEST_REQUIRE_NAMESPACES=1.
[[noreturn]] void SkipChild(const std::string& reason);

class ChildTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Runs body in a child with a clean TAVIK_* environment, for at most timeoutSec. The child leaves through exit(),
  // so a library still loaded is torn down as at process end. True when the child passed.
  bool RunInChild(const std::function<void(ChildContext&)>& body, int timeoutSec = 60);
  std::string ReadScratch(const std::string& name) const;

  ChildContext ctx_;
};

std::string ReadFile(const std::string& path);  // empty when it cannot be read
void WriteFile(const std::string& path, const std::string& content);
std::string ReadLink(const std::string& path);  // empty when it is no link

}  // namespace tavik_test
