#include "ChildProcess.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace tavik_test {
namespace {

constexpr int kSkipExit = 77;
std::string g_skipReasonPath;

}  // namespace

void ChildContext::EnableLog(const char* level) const {
  setenv("TAVIK_DDI_LOG_FILE", LogPath().c_str(), 1);
  if (level != nullptr) setenv("TAVIK_DDI_LOG_LEVEL", level, 1);
}

void SkipChild(const std::string& reason) {
  WriteFile(g_skipReasonPath, reason);
  std::fflush(nullptr);
  _exit(kSkipExit);
}

std::string ReadFile(const std::string& path) {
  std::ostringstream out;
  out << std::ifstream(path, std::ios::binary).rdbuf();
  return out.str();
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

std::string ReadLink(const std::string& path) {
  std::error_code ec;
  return std::filesystem::read_symlink(path, ec).string();
}

void ChildTest::SetUp() {
  std::string pattern = "/tmp/tavik-test-XXXXXX";
  ASSERT_NE(mkdtemp(pattern.data()), nullptr) << std::strerror(errno);
  ctx_.tmp = pattern;
}

void ChildTest::TearDown() {
  std::error_code ec;
  std::filesystem::remove_all(ctx_.tmp, ec);
}

std::string ChildTest::ReadScratch(const std::string& name) const { return ReadFile(ctx_.tmp + "/" + name); }

bool ChildTest::RunInChild(const std::function<void(ChildContext&)>& body, int timeoutSec) {
  g_skipReasonPath = ctx_.tmp + "/skip-reason.txt";
  std::fflush(nullptr);  // nothing buffered may be written twice
  pid_t pid = fork();
  if (pid == 0) {
    // The parent's environment must not leak a configuration into a case.
    for (const char* v : {"TAVIK_UMD_PATH", "TAVIK_DDI_LOG_FILE", "TAVIK_DDI_LOG_LEVEL", "TAVIK_DDI_LOG_MAX_SIZE",
                          "TAVIK_DDI_LOG_MAX_FILES", "TAVIK_FIXTURE_CALLS"})
      unsetenv(v);
    alarm(static_cast<unsigned>(timeoutSec));  // a hang ends the child with SIGALRM
    body(ctx_);
    std::fflush(nullptr);
    std::exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) {
    ADD_FAILURE() << "fork or wait failed: " << std::strerror(errno);
  } else if (WIFSIGNALED(status)) {
    ADD_FAILURE() << "child died of signal " << strsignal(WTERMSIG(status)) << (WTERMSIG(status) == SIGALRM ? " (hang)" : "");
  } else if (WEXITSTATUS(status) == kSkipExit) {
    const std::string why = ReadScratch("skip-reason.txt");
    const char* must = getenv("TAVIK_TEST_REQUIRE_NAMESPACES");
    if (must != nullptr && std::strcmp(must, "1") == 0)
      ADD_FAILURE() << "must not skip (TAVIK_TEST_REQUIRE_NAMESPACES=1): " << why;
    else
      GTEST_MESSAGE_AT_(__FILE__, __LINE__, why.c_str(), ::testing::TestPartResult::kSkip);
  } else if (WEXITSTATUS(status) != 0) {
    ADD_FAILURE() << "child reported failures (exit code " << WEXITSTATUS(status) << "), see above";
  } else {
    return true;
  }
  return false;
}

}  // namespace tavik_test
