#include "log/LoggerConsole.h"

#include <cstdio>
#include <string>
#include <utility>

#include "log/Log.h"
#include "log/LogEntry.h"

namespace kt {

namespace {

void WriteAndFlush(std::FILE* stream, const std::string& text) {
    // Write errors are ignored: the stream keeps its error state.
    std::fwrite(text.data(), 1, text.size(), stream);
    std::fflush(stream);
}

} // namespace

LoggerConsole::LoggerConsole(std::shared_ptr<Log> log)
    : Logger(std::move(log)),
      m_selfListener(static_cast<ILogListener*>(this), [](ILogListener*) {}) {
    if (!m_log) {
        return;
    }
    // Unlike the file sink, the console prints its header even when the log
    // refuses the registration.
    m_log->AddListener(m_selfListener);
    try {
        WriteAndFlush(stdout, HeaderBlock());
    } catch (...) {
    }
}

LoggerConsole::~LoggerConsole() {
    if (!m_log) {
        return;
    }
    try {
        const uint64_t dropped = m_log->Flush(1000);
        WriteAndFlush(stdout, FooterBlock(dropped));
    } catch (...) {
    }
    try {
        m_log->RemoveListener(m_selfListener);
    } catch (...) {
    }
}

void LoggerConsole::OnLogEntryAdded(const LogEntry& entry) {
    static constexpr char kLetters[] = "EWIDT";
    const auto index = static_cast<uint32_t>(entry.m_level);
    const char letter = index < 5 ? kLetters[index] : '?';
    try {
        std::string line;
        line.reserve(entry.m_message.size() + 5);
        line += '[';
        line += letter;
        line += "] ";
        line += entry.m_message;
        line += '\n';
        WriteAndFlush(entry.m_level == LogEntry::Error ? stderr : stdout, line);
    } catch (...) {
    }
}

} // namespace kt
