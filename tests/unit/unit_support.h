// Shared by the unit tests: a sink that records what the log's worker delivers and can hold the worker inside a
// delivery, and thread counts read from /proc.
#pragma once

#include <cwchar>
#include <unistd.h>

#include "log/ILogListener.h"
#include "support/ProcessStats.h"
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

using tavik_test::CountThreads;
using tavik_test::SettledThreadCount;

constexpr wint_t kEuro = 0x20AC; // not encodable in the C locale: formatting fails

} // namespace ut
