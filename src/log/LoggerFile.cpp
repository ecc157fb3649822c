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
    // Append, never truncate: earlier runs' blocks are kept. Never wait either: a
    // FIFO that nobody reads would otherwise hold up the library's load here, and
    // its unload at the footer once the pipe is full. A regular file ignores it.
    m_file = ::open(fileName, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, 0666);
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
        std::lock_guard<std::mutex> lock(m_fileMutex);
        // Lines that the file could not take (a full disk) are lost just as
        // surely as the ones the queue dropped, and are counted with them.
        WriteLocked(FooterBlock(dropped + m_lost));
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
        bool written = false;
        try {
            // One reused buffer: after the first lines an entry costs no allocation,
            // and line and line feed leave in a single write().
            m_line.assign(entry.m_formattedMessage);
            m_line += '\n';
            written = WriteLocked(m_line);
        } catch (...) {
        }
        if (written) {
            return;
        }
        // Counted under the mutex: a footer written after a flush that ran out of
        // time reads it while this delivery may still be under way.
        ++m_lost;
    } catch (...) {
        // The mutex could not be taken: only the log's own count sees the loss.
    }
    m_log->CountLost(1);
}

void LoggerFile::Write(const std::string& text) {
    std::lock_guard<std::mutex> lock(m_fileMutex);
    WriteLocked(text);
}

bool LoggerFile::WriteLocked(const std::string& text) {
    if (m_file < 0) {
        return false; // a sink whose file never opened writes nothing
    }
    // A line that a full disk cut short is finished with a line feed first, so
    // that whatever follows once there is room again starts a line of its own.
    if (m_torn && !WriteAll("\n", 1)) {
        return false;
    }
    m_torn = false;
    const size_t written = WriteAll(text.data(), text.size());
    m_torn = written > 0 && written < text.size();
    return written == text.size();
}

// Write errors are not reported: the worker cannot stop for them, and the
// caller counts what did not get through. Returns the bytes written.
size_t LoggerFile::WriteAll(const char* data, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(m_file, data + done, size - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
    return done;
}

void LoggerFile::Close() {
    std::lock_guard<std::mutex> lock(m_fileMutex);
    if (m_file >= 0) {
        ::close(m_file);
        m_file = -1;
    }
}

} // namespace kt
