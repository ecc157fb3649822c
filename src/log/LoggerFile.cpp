#include "log/LoggerFile.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "log/Log.h"
#include "log/LogEntry.h"

namespace kt {

LoggerFile::LoggerFile(std::shared_ptr<Log> log, const char* fileName)
    : Logger(std::move(log)),
      m_selfListener(static_cast<ILogListener*>(this), [](ILogListener*) {}) {
    if (!m_log || fileName == nullptr || fileName[0] == '\0') {
        return;
    }
    // Append, never truncate: earlier runs' blocks are kept.
    m_file = ::open(fileName, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (m_file < 0) {
        return; // silently inert
    }
    if (!m_log->AddListener(m_selfListener)) {
        Close();
        return;
    }
    try {
        Write(HeaderBlock());
    } catch (...) {
    }
}

LoggerFile::~LoggerFile() {
    if (!m_log) {
        return;
    }
    try {
        // The flush comes first so that every entry queued before now is in the
        // file before the footer.
        const uint64_t dropped = m_log->Flush(1000);
        Write(FooterBlock(dropped));
    } catch (...) {
    }
    try {
        m_log->RemoveListener(m_selfListener);
    } catch (...) {
    }
    Close();
}

void LoggerFile::OnLogEntryAdded(const LogEntry& entry) {
    try {
        std::lock_guard<std::mutex> lock(m_fileMutex);
        // One reused buffer: after the first lines an entry costs no allocation,
        // and line and line feed leave in a single write().
        m_line.assign(entry.m_formattedMessage);
        m_line += '\n';
        WriteLocked(m_line);
    } catch (...) {
    }
}

void LoggerFile::Write(const std::string& text) {
    std::lock_guard<std::mutex> lock(m_fileMutex);
    WriteLocked(text);
}

void LoggerFile::WriteLocked(const std::string& text) {
    if (m_file < 0) {
        return; // a sink whose file never opened writes nothing
    }
    const char* data = text.data();
    size_t left = text.size();
    while (left > 0) {
        const ssize_t n = ::write(m_file, data, left);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return; // write errors are ignored
        }
        data += n;
        left -= static_cast<size_t>(n);
    }
}

void LoggerFile::Close() {
    std::lock_guard<std::mutex> lock(m_fileMutex);
    if (m_file >= 0) {
        ::close(m_file);
        m_file = -1;
    }
}

} // namespace kt
