#include "ProbeRun.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "FakeDev.h"

namespace probe_test {
namespace {

// Exit status the child uses to say "could not set up, see the reason file";
// the probe itself never exits with it.
constexpr int kSetupSkipped = 77;
constexpr int kSetupFailed = 78;

[[noreturn]] void ChildGiveUp(const std::string& reasonFile, int status, const std::string& why) {
  std::ofstream(reasonFile) << why;
  _exit(status);
}

}  // namespace

std::string MakeScratchDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "tavik-probe-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) return {};
  return pattern;
}

void RemoveTree(const std::string& path) {
  std::error_code ignored;
  if (!path.empty()) std::filesystem::remove_all(path, ignored);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::string line;
  std::istringstream in(text);
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

ProbeResult RunProbe(const ProbeSetup& setup) {
  ProbeResult result;
  const std::string scratch = MakeScratchDir();
  if (scratch.empty()) {
    result.skipped = true;
    result.skipReason = "cannot create a scratch folder";
    return result;
  }
  const std::string outFile = scratch + "/stdout", errFile = scratch + "/stderr",
                    reasonFile = scratch + "/reason";

  std::vector<std::string> argv{TAVIK_PROBE_PATH};
  argv.insert(argv.end(), setup.args.begin(), setup.args.end());

  const pid_t pid = fork();
  if (pid == 0) {
    // The child's environment is the case's alone: nothing inherited from the
    // shell that runs the tests may steer the library.
    for (const char* name : {"TAVIK_UMD_PATH", "TAVIK_DDI_LOG_FILE", "TAVIK_DDI_LOG_LEVEL",
                             "TAVIK_VIRTUAL_CAMERAS", "TAVIK_VIRTUAL_FPS", "LD_LIBRARY_PATH"}) {
      unsetenv(name);
    }
    for (const auto& [name, value] : setup.env) setenv(name.c_str(), value.c_str(), 1);
    if (setup.privateDev) {
      std::string why;
      if (!tavik_test::TryEnterPrivateDev(&why)) ChildGiveUp(reasonFile, kSetupSkipped, why);
      for (const std::string& name : setup.fifos) {
        if (mkfifo(("/dev/" + name).c_str(), 0666) != 0) {
          ChildGiveUp(reasonFile, kSetupFailed, "mkfifo /dev/" + name + ": " + std::strerror(errno));
        }
      }
      for (const std::string& name : setup.dirs) {
        if (mkdir(("/dev/" + name).c_str(), 0755) != 0) {
          ChildGiveUp(reasonFile, kSetupFailed, "mkdir /dev/" + name + ": " + std::strerror(errno));
        }
      }
    }
    const int out = open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) {
      ChildGiveUp(reasonFile, kSetupFailed, "cannot redirect the probe's output");
    }
    close(out);
    close(err);
    std::vector<char*> raw;
    for (std::string& arg : argv) raw.push_back(arg.data());
    raw.push_back(nullptr);
    execv(raw[0], raw.data());
    ChildGiveUp(reasonFile, kSetupFailed, std::string("execv: ") + std::strerror(errno));
  }
  if (pid < 0) {
    result.skipped = true;
    result.skipReason = std::string("fork: ") + std::strerror(errno);
    RemoveTree(scratch);
    return result;
  }
  result.pid = pid;

  const auto start = std::chrono::steady_clock::now();
  bool interrupted = false;
  int status = 0;
  for (;;) {
    const pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) break;
    const auto elapsed = std::chrono::steady_clock::now() - start;
    if (!interrupted && setup.interruptAfterMs >= 0 &&
        elapsed >= std::chrono::milliseconds(setup.interruptAfterMs)) {
      kill(pid, SIGINT);
      interrupted = true;
    }
    if (elapsed >= std::chrono::seconds(setup.timeoutSec)) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      result.timedOut = true;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }

  if (!result.timedOut && WIFEXITED(status)) {
    const int code = WEXITSTATUS(status);
    const std::string reason = ReadFile(reasonFile);
    if (code == kSetupSkipped && !reason.empty()) {
      result.skipped = true;
      result.skipReason = "private /dev unavailable: " + reason;
    } else if (code == kSetupFailed && !reason.empty()) {
      result.err = "child set-up failed: " + reason;
    } else {
      result.exitStatus = code;
    }
  } else if (!result.timedOut && WIFSIGNALED(status)) {
    result.signal = WTERMSIG(status);
  }
  result.out += ReadFile(outFile);
  result.err += ReadFile(errFile);
  RemoveTree(scratch);
  return result;
}

}  // namespace probe_test
