#include "ChildProcess.h"

#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace tavik_test {
namespace {

bool g_inChild = false;
int g_reasonFd = -1;

constexpr int kSkipExit = 77;

void CleanEnvironment() {
  // The parent's environment must not leak a configuration into a case.
  unsetenv("TAVIK_UMD_PATH");
  unsetenv("TAVIK_DDI_LOG_FILE");
  unsetenv("TAVIK_DDI_LOG_LEVEL");
  unsetenv("TAVIK_FIXTURE_CALLS");
}

bool MustNotSkip() {
  const char* v = getenv("TAVIK_TEST_REQUIRE_NAMESPACES");
  return v != nullptr && std::strcmp(v, "1") == 0;
}

}  // namespace

void ChildContext::EnableLog(const char* level) const {
  setenv("TAVIK_DDI_LOG_FILE", LogPath().c_str(), 1);
  if (level != nullptr) {
    setenv("TAVIK_DDI_LOG_LEVEL", level, 1);
  } else {
    unsetenv("TAVIK_DDI_LOG_LEVEL");
  }
}

void ChildContext::RecordFixtureCalls() const {
  setenv("TAVIK_FIXTURE_CALLS", CallsPath().c_str(), 1);
}

bool InChild() { return g_inChild; }

void SkipChild(const std::string& reason) {
  if (g_reasonFd >= 0) {
    ssize_t ignored = write(g_reasonFd, reason.data(), reason.size());
    (void)ignored;
  }
  std::fflush(nullptr);
  _exit(kSkipExit);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void RemoveTree(const std::string& path) {
  nftw(
      path.c_str(),
      [](const char* p, const struct stat*, int, struct FTW*) { return remove(p) == 0 ? 0 : 0; },
      16, FTW_DEPTH | FTW_PHYS);
}

void ChildTest::SetUp() {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/tavik-e2e-XXXXXX";
  char* made = mkdtemp(pattern.data());
  ASSERT_NE(made, nullptr) << "mkdtemp: " << std::strerror(errno);
  ctx_.tmp = made;
}

void ChildTest::TearDown() {
  if (!ctx_.tmp.empty()) RemoveTree(ctx_.tmp);
}

std::string ChildTest::ReadScratch(const std::string& name) const { return ReadFile(ctx_.tmp + "/" + name); }

bool ChildTest::RunInChild(const std::function<void(ChildContext&)>& body, int timeoutSec) {
  int reason[2];
  if (pipe2(reason, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe: " << std::strerror(errno);
    return false;
  }
  std::fflush(nullptr);  // nothing buffered may be written twice
  pid_t pid = fork();
  if (pid < 0) {
    ADD_FAILURE() << "fork: " << std::strerror(errno);
    close(reason[0]);
    close(reason[1]);
    return false;
  }
  if (pid == 0) {
    close(reason[0]);
    g_inChild = true;
    g_reasonFd = reason[1];
    CleanEnvironment();
    try {
      body(ctx_);
    } catch (const std::exception& e) {
      ADD_FAILURE() << "exception in child: " << e.what();
    } catch (...) {
      ADD_FAILURE() << "unknown exception in child";
    }
    std::fflush(nullptr);
    // exit(), not _exit(): a library that is still loaded (thread-local
    // destructors pin it) must still run its teardown and write its footer.
    std::exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  close(reason[1]);

  int status = 0;
  bool hung = false;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSec);
  for (;;) {
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) break;
    if (r < 0 && errno != EINTR) {
      ADD_FAILURE() << "waitpid: " << std::strerror(errno);
      close(reason[0]);
      return false;
    }
    if (std::chrono::steady_clock::now() > deadline) {
      hung = true;
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  std::string why;
  char buf[512];
  ssize_t n;
  while ((n = read(reason[0], buf, sizeof buf)) > 0) why.append(buf, static_cast<size_t>(n));
  close(reason[0]);

  if (hung) {
    ADD_FAILURE() << "child did not finish within " << timeoutSec << " s (hang)";
    return false;
  }
  if (WIFSIGNALED(status)) {
    ADD_FAILURE() << "child died of signal " << WTERMSIG(status) << " (" << strsignal(WTERMSIG(status)) << ")";
    return false;
  }
  int code = WEXITSTATUS(status);
  if (code == kSkipExit) {
    if (MustNotSkip()) {
      ADD_FAILURE() << "case would skip, but TAVIK_TEST_REQUIRE_NAMESPACES=1 forbids it: " << why;
    } else {
      GTEST_MESSAGE_AT_(__FILE__, __LINE__, why.c_str(), ::testing::TestPartResult::kSkip);
    }
    return false;
  }
  if (code != 0) {
    ADD_FAILURE() << "child reported failures (exit code " << code << "), see its output above";
    return false;
  }
  return true;
}

}  // namespace tavik_test
