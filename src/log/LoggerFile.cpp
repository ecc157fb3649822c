#include "log/LoggerFile.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/uio.h>
#include <cstring>
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
        Write(entry.m_formattedMessage, "\n");
    } catch (...) {
    }
}

void LoggerFile::Write(const std::string& text, const char* terminator) {
    std::lock_guard<std::mutex> lock(m_fileMutex);
    if (m_file < 0) {
        return; // a sink whose file never opened writes nothing
    }
    // The line and its terminator leave in one system call, so each line is
    // flushed to the file without first being copied.
    iovec parts[2] = {{const_cast<char*>(text.data()), text.size()},
                      {const_cast<char*>(terminator), std::strlen(terminator)}};
    int first = 0;
    while (first < 2) {
        const ssize_t n = ::writev(m_file, parts + first, 2 - first);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return; // write errors are ignored
        }
        size_t done = static_cast<size_t>(n);
        while (first < 2 && done >= parts[first].iov_len) {
            done -= parts[first].iov_len;
            ++first;
        }
        if (first < 2) {
            parts[first].iov_base = static_cast<char*>(parts[first].iov_base) + done;
            parts[first].iov_len -= done;
        }
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
