// Shared by the unit tests: a sink that records what the log's worker delivers and
// can hold the worker inside a delivery, and counts read from /proc and the heap.
#pragma once

#include <dirent.h>
#include <malloc.h>
#include <unistd.h>

#include "log/ILogListener.h"
#include "log/Log.h"

namespace ut {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

class Recorder final : public kt::ILogListener {
public:
    void OnLogEntryAdded(const kt::LogEntry& entry) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_waiting;
        m_cond.notify_all();
        m_cond.wait(lock, [this] { return m_permits != 0; });
        m_permits -= m_permits > 0 ? 1 : 0;
        --m_waiting;
        m_lines.push_back(entry);
        m_cond.notify_all();
    }
    // Lets the worker finish n more deliveries (-1: all of them); 0 holds it in the next.
    void Allow(long n) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_permits = n;
        m_cond.notify_all();
    }
    bool WaitHeld() {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cond.wait_for(lock, 10s, [this] { return m_waiting > 0 && m_permits == 0; });
    }
    std::vector<kt::LogEntry> Lines() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    long m_permits = -1;
    int m_waiting = 0;
    std::vector<kt::LogEntry> m_lines;
};

inline size_t CountEntries(const char* folder) {
    size_t n = 0;
    if (DIR* dir = opendir(folder)) {
        while (dirent* e = readdir(dir)) n += e->d_name[0] != '.' ? 1 : 0;
        closedir(dir);
    }
    return n;
}

// The thread count once it equals expected, or after 2 s: a joined thread can stay listed a moment.
// A baseline (no expected) follows a thread that came and went: sanitizers may start a helper then.
inline size_t Threads(size_t expected = 0) {
    if (expected == 0) std::thread([] {}).join(), std::this_thread::sleep_for(50ms);
    size_t n = CountEntries("/proc/self/task");
    for (int i = 0; i < 2000 && expected != 0 && n != expected; ++i) usleep(1000), n = CountEntries("/proc/self/task");
    return n;
}

// Bytes in use on the C heap; sanitizers bring their own allocator and leak check.
inline size_t HeapInUse() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return 0;
#else
    return mallinfo2().uordblks;
#endif
}

} // namespace ut
