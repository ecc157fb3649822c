#include "Process.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ChildProcess.h"

extern char** environ;

namespace tavik_test {

ProcessResult RunProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                         int timeoutSec) {
  // Built before the fork: the child of a threaded process may only make async-signal-safe calls.
  std::vector<char*> args, envp;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  for (const std::string& v : env) envp.push_back(const_cast<char*>(v.c_str()));
  for (char** e = environ; *e != nullptr; ++e) envp.push_back(*e);
  args.push_back(nullptr);
  envp.push_back(nullptr);
  // Files in memory rather than pipes: nothing has to be drained while the program runs.
  const int out = memfd_create("stdout", MFD_CLOEXEC), err = memfd_create("stderr", MFD_CLOEXEC);
  const pid_t pid = fork();
  if (pid == 0 && dup2(out, 1) == 1 && dup2(err, 2) == 2) execve(args[0], args.data(), envp.data());
  if (pid == 0) _exit(127);
  int status = SIGKILL;  // as if killed, when there is no child
  for (int ms = 0; pid > 0 && waitpid(pid, &status, WNOHANG) == 0; ms += 5) {
    if (ms > timeoutSec * 1000) kill(pid, SIGKILL);
    usleep(5000);
  }
  ProcessResult r{WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile("/proc/self/fd/" + std::to_string(out)),
                  ReadFile("/proc/self/fd/" + std::to_string(err))};
  close(out);
  close(err);
  return r;
}

}  // namespace tavik_test
