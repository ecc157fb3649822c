#include "CheckRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

#include <nlohmann/json.hpp>

#include "ModuleSession.h"

namespace compliance {
namespace {

using Clock = std::chrono::steady_clock;

// The child's side: prepare what the check needs, run it, tidy up, report one
// JSON line on the pipe.
Outcome RunInChild(const Check& check, ModuleSession& session) {
  if (check.needs >= Needs::kModule) {
    if (std::string why = session.Load(); !why.empty()) return Skip(why);
  }
  if (check.needs >= Needs::kDriver) {
    if (std::string why = session.Init(); !why.empty()) {
      session.Finish();
      return Skip(why);
    }
  }
  if (check.needs >= Needs::kDevices) {
    if (std::string why = session.FindDevices(); !why.empty()) {
      session.Finish();
      return Skip(why);
    }
  }
  Outcome outcome;
  try {
    outcome = check.run(session);
  } catch (const std::exception& e) {
    outcome = Fail(std::string("a C++ exception left a module function: ") + e.what());
  } catch (...) {
    outcome = Fail("a C++ exception left a module function");
  }
  const std::string left = session.Finish();
  if (!left.empty() && outcome.result == Result::kPass) outcome = Fail(left);
  return outcome;
}

[[noreturn]] void ChildMain(const Check& check, const std::string& path, int out) {
  // The module's own prints must not mix into the checker's standard output.
  dup2(STDERR_FILENO, STDOUT_FILENO);
  // A sanitizer's runtime starts a helper thread of its own at the first thread
  // creation of a process; let that happen before the module's threads are counted.
  std::thread([] {}).join();
  ModuleSession session(path);
  const Outcome outcome = RunInChild(check, session);
  nlohmann::json line = {{"result", static_cast<int>(outcome.result)}, {"detail", outcome.detail}};
  if (session.typeSeen >= 0) line["type"] = session.typeSeen;
  const std::string text = line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  for (size_t done = 0; done < text.size();) {
    const ssize_t n = write(out, text.data() + done, text.size() - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  // No exit handlers: a module's destructors, or a leak checker, would speak for
  // the process after the check has.
  _exit(0);
}

struct Running {
  size_t index;
  pid_t pid;
  int fd;
  Clock::time_point deadline;
  std::string received;
  bool killed = false;
};

Outcome Interpret(const Running& child, int status, double timeoutSeconds, CheckReport& report) {
  if (child.killed) return {Result::kTimeout, Format("no result within %g s; killed", timeoutSeconds)};
  if (WIFSIGNALED(status)) {
    const int sig = WTERMSIG(status);
    const char* abbrev = sigabbrev_np(sig);
    return {Result::kCrash, Format("killed by signal SIG%s (%s)", abbrev ? abbrev : "?", strsignal(sig))};
  }
  const nlohmann::json line = nlohmann::json::parse(child.received, nullptr, false);
  if (!line.is_object() || !line.contains("result"))
    return {Result::kCrash, Format("the process ended with status %d before reporting", WEXITSTATUS(status))};
  if (line.contains("type")) report.moduleType = line["type"].get<long long>();
  return {static_cast<Result>(line["result"].get<int>()), line["detail"].get<std::string>()};
}

}  // namespace

std::vector<CheckReport> RunChecks(const std::vector<const Check*>& checks, const std::string& path,
                                   double timeoutSeconds, int parallel) {
  std::vector<CheckReport> reports(checks.size());
  std::vector<Running> running;
  size_t next = 0;
  const auto limit = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeoutSeconds));
  while (next < checks.size() || !running.empty()) {
    while (next < checks.size() && running.size() < static_cast<size_t>(parallel)) {
      reports[next].check = checks[next];
      int fds[2];
      if (pipe2(fds, O_CLOEXEC) != 0) {
        reports[next++].outcome = Fail(Format("cannot create a pipe: %s", strerror(errno)));
        continue;
      }
      std::fflush(nullptr);
      const pid_t pid = fork();
      if (pid == 0) {
        close(fds[0]);
        ChildMain(*checks[next], path, fds[1]);
      }
      close(fds[1]);
      if (pid < 0) {
        close(fds[0]);
        reports[next++].outcome = Fail(Format("cannot start a process: %s", strerror(errno)));
        continue;
      }
      running.push_back({next++, pid, fds[0], Clock::now() + limit, {}});
    }
    if (running.empty()) break;

    std::vector<pollfd> polls;
    Clock::time_point soonest = running.front().deadline;
    for (const Running& r : running) {
      polls.push_back({r.fd, POLLIN, 0});
      soonest = std::min(soonest, r.deadline);
    }
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(soonest - Clock::now()).count();
    poll(polls.data(), polls.size(), static_cast<int>(std::max<long long>(0, wait) + 1));

    for (size_t i = 0; i < running.size();) {
      Running& r = running[i];
      bool ended = false;
      if (polls[i].revents != 0) {
        char buffer[4096];
        const ssize_t n = read(r.fd, buffer, sizeof buffer);
        if (n > 0) r.received.append(buffer, static_cast<size_t>(n));
        ended = n == 0 || (n < 0 && errno != EINTR);
      }
      if (!ended && Clock::now() >= r.deadline) {
        kill(r.pid, SIGKILL);
        r.killed = true;
        ended = true;
      }
      if (!ended) {
        ++i;
        continue;
      }
      // The pipe closes when the child ends, or when it is killed.
      int status = 0;
      while (waitpid(r.pid, &status, 0) < 0 && errno == EINTR) {
      }
      close(r.fd);
      reports[r.index].outcome = Interpret(r, status, timeoutSeconds, reports[r.index]);
      running.erase(running.begin() + static_cast<long>(i));
      polls.erase(polls.begin() + static_cast<long>(i));
    }
  }
  return reports;
}

}  // namespace compliance
