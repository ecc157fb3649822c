// Runs one test case in a fresh forked child, so that the shared library is
// loaded from scratch with the environment the case chooses, and so that a
// crash, a hang or a leaked thread stays inside that child.
#pragma once

#include <functional>
#include <string>

#include <gtest/gtest.h>

namespace tavik_test {

// What the child of one case can use.
struct ChildContext {
  std::string tmp;  // scratch folder, made by the parent and removed by it afterwards

  std::string LogPath() const { return tmp + "/ddi.log"; }
  std::string CallsPath() const { return tmp + "/calls.txt"; }

  // Names the log file (and optionally the level) for the next load of the library.
  void EnableLog(const char* level = nullptr) const;
  // Makes the fixture modules append their init/uninit/type calls to CallsPath().
  void RecordFixtureCalls() const;
};

// Ends the child as skipped with the reason; the parent skips the case, or
// fails it when TAVIK_TEST_REQUIRE_NAMESPACES=1 says the run must not skip.
[[noreturn]] void SkipChild(const std::string& reason);

// True in the forked child of a case.
bool InChild();

// Base of every case that runs in a child. The parent owns the scratch folder.
class ChildTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Runs body in a child and waits at most timeoutSec seconds for it. In the
  // child, gtest assertions report as usual; the child then leaves through
  // exit(), so a library still loaded is torn down as at process end and its
  // log footer is written. Returns true when the child passed; otherwise the
  // case is already marked failed or skipped, and the caller should return.
  bool RunInChild(const std::function<void(ChildContext&)>& body, int timeoutSec = 60);

  // Reads a text file of the scratch folder (empty when missing).
  std::string ReadScratch(const std::string& name) const;

  ChildContext ctx_;
};

// Reads a whole file; empty when it cannot be read.
std::string ReadFile(const std::string& path);
// Removes a folder tree; quiet on failure.
void RemoveTree(const std::string& path);

}  // namespace tavik_test
