#pragma once

// Helpers shared by the logging tests: a listener that records what the worker
// delivers and can hold the worker inside a delivery, and counters of the
// process's threads and descriptors read from /proc.

#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "log/ILogListener.h"
#include "support/ThreadCount.h"
#include "log/LogEntry.h"

namespace kt_test {

struct DeliveredLine {
    std::string formatted;
    std::string category;
    std::string message;
    kt::LogEntry::Level level;
    uint16_t depth;
    uint32_t tid;
};

class RecordingListener final : public kt::ILogListener {
public:
    void OnLogEntryAdded(const kt::LogEntry& entry) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_waiting;
        m_cond.notify_all();
        m_cond.wait(lock, [this] { return m_permits != 0; });
        --m_waiting;
        if (m_permits > 0) {
            --m_permits;
        }
        m_lines.push_back({entry.m_formattedMessage, entry.m_category, entry.m_message,
                           entry.m_level, entry.m_depth, entry.m_tid});
        m_cond.notify_all();
    }

    // Holds the worker inside its next delivery until Allow or Open.
    void Block() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_permits = 0;
    }
    void Allow(long count) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_permits = count;
        m_cond.notify_all();
    }
    void Open() { Allow(-1); }

    bool WaitUntilBlocked(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cond.wait_for(lock, timeout, [this] { return m_waiting > 0 && m_permits == 0; });
    }
    bool WaitForLines(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cond.wait_for(lock, timeout, [&] { return m_lines.size() >= count; });
    }
    std::vector<DeliveredLine> Lines() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    std::vector<std::string> Messages() {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::string> out;
        for (const auto& line : m_lines) {
            out.push_back(line.message);
        }
        return out;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    long m_permits = -1; // -1: unlimited
    int m_waiting = 0;
    std::vector<DeliveredLine> m_lines;
};

inline size_t CountDirEntries(const char* path) {
    size_t count = 0;
    if (DIR* dir = opendir(path)) {
        while (dirent* e = readdir(dir)) {
            if (e->d_name[0] != '.') {
                ++count;
            }
        }
        closedir(dir);
    }
    return count;
}

inline size_t CountThreads() {
    return tavik_test::CountThreadsSettled();
}

using tavik_test::SettledThreadCount;

// One less than listed: the directory stream itself holds a descriptor.
inline size_t CountDescriptors() {
    return CountDirEntries("/proc/self/fd") - 1;
}

inline std::vector<std::string> ReadLines(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<std::string> lines;
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Runs body in a forked child and returns its exit code (128 + signal number when
// it was killed), so that process-wide state (environment, time zone, the load
// flag, standard streams) stays out of the test runner.
template <class Body>
int RunInChild(Body body) {
    const pid_t pid = fork();
    if (pid == 0) {
        int rc = 99;
        try {
            rc = body();
        } catch (...) {
            rc = 98;
        }
        _exit(rc);
    }
    if (pid < 0) {
        return -1;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
    }
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -2;
}

// A fresh, empty folder under /tmp for one test.
inline std::string MakeTempDir() {
    char pattern[] = "/tmp/tavik-log-test-XXXXXX";
    const char* dir = mkdtemp(pattern);
    return dir != nullptr ? std::string(dir) : std::string("/tmp");
}

} // namespace kt_test
