#include "log/LoggerFile.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <time.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "log/Log.h"
#include "log/LogEntry.h"
#include "log/LogUtils.h"

namespace kt {

namespace {

// Append, never truncate: earlier runs' blocks are kept. Never wait either: a
// FIFO that nobody reads would otherwise hold up the library's load here (the
// open fails at once instead), and a full pipe is waited for with poll(), which
// can give up at the unload.
constexpr int kOpenFlags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK;

// How often the path is compared with the open file, and how long a full pipe
// is waited for at a time before the sink looks whether it is being stopped.
constexpr int64_t kPathCheckEveryNs = 1000 * 1000 * 1000;
constexpr int kPipeWaitSliceMs = 100;
// What a pipe still gets once the sink is being stopped: the flush before the
// footer has waited its own time already.
constexpr std::chrono::milliseconds kStopGrace{500};

// Without a bound the size is never looked at; with one it is taken from the
// file every so many lines, to find out whether others write to it too. An
// fstat() costs about what the line's write() costs, so not more often.
constexpr unsigned kLinesPerSizeCheck = 64;

// Read for every line: the coarse clock costs a fraction of the precise one,
// and its few milliseconds of granularity do not matter to a check once a second.
int64_t CoarseNowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

std::string SystemError(int error) {
    return "Error " + std::to_string(error) + " (" + LogUtils::GetErrorString(error) + ")";
}

} // namespace

LoggerFile::LoggerFile(std::shared_ptr<Log> log, const char* fileName)
    : LoggerFile(std::move(log), fileName, LogFileBound()) {}

LoggerFile::LoggerFile(std::shared_ptr<Log> log, const char* fileName, const LogFileBound& bound)
    : Logger(std::move(log)),
      m_selfListener(static_cast<ILogListener*>(this), [](ILogListener*) {}) {
    if (!m_log || fileName == nullptr || fileName[0] == '\0') {
        return;
    }
    try {
        m_path = fileName;
        m_bound = bound;
    } catch (...) {
        return; // no memory for the path: as a file that cannot be opened
    }
    Open(fileName);
}

void LoggerFile::Open(const char* fileName) {
    m_file = ::open(fileName, kOpenFlags, 0666);
    if (m_file < 0) {
        return; // silently inert
    }
    if (!m_log->AddListener(m_selfListener)) {
        Close();
        return;
    }
    try {
        std::lock_guard<std::mutex> lock(m_fileMutex);
        NoteOpenedFile();
        m_lastCheckNs = CoarseNowNs();
        bool headerWritten = false;
        if (m_bound.IsSet()) {
            // A bound smaller than the header would leave room for nothing.
            const uint64_t header = HeaderBlock().size();
            m_bound.maxSize = m_bound.maxSize < header ? header : m_bound.maxSize;
            // A file left by an earlier run may already be full.
            if (m_regular && m_size != 0 && m_size + header > m_bound.maxSize) {
                headerWritten = Rotate(header);
            }
        }
        if (!headerWritten) {
            WriteHeader(std::string());
        }
        // A refused value is said once, right below the header it belongs to.
        for (const std::string& warning : m_bound.warnings) {
            if (!warning.empty()) {
                LogEntry line("DDI", LogEntry::Warning, 0, warning);
                line.FormatMessage();
                WriteLocked(line.m_formattedMessage + "\n");
            }
        }
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
        // A pipe that nobody reads any more would keep the worker, and the footer
        // after it, waiting for ever.
        m_giveUpAt = std::chrono::steady_clock::now() + kStopGrace;
        m_stopping.store(true, std::memory_order_release);
        std::lock_guard<std::mutex> lock(m_fileMutex);
        // Lines that the file could not take (a full disk) are lost just as
        // surely as the ones the queue dropped, and are counted with them.
        if (m_file >= 0) {
            WriteLine(FooterBlock(dropped + m_lost));
        }
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
            written = WriteLine(m_line);
        } catch (...) {
        }
        if (written) {
            m_writtenLines.fetch_add(1, std::memory_order_relaxed);
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

void LoggerFile::OnLogIdle() {
    try {
        std::lock_guard<std::mutex> lock(m_fileMutex);
        CheckPath(false);
    } catch (...) {
    }
}

void LoggerFile::Write(const std::string& text) {
    std::lock_guard<std::mutex> lock(m_fileMutex);
    WriteLocked(text);
}

bool LoggerFile::WriteLine(const std::string& text) {
    if (m_file < 0) {
        return false;
    }
    CheckPath(false);
    if (m_bound.IsSet() && m_regular) {
        MakeRoomFor(text.size());
    }
    return WriteLocked(text);
}

bool LoggerFile::WriteLocked(const std::string& text) {
    if (m_file < 0) {
        return false; // a sink whose file never opened writes nothing
    }
    // A line that a full disk cut short is finished with a line feed first, so
    // that whatever follows once there is room again starts a line of its own.
    if (m_torn) {
        if (WriteAll("\n", 1) != 1) {
            return false;
        }
        ++m_size;
    }
    m_torn = false;
    const size_t written = WriteAll(text.data(), text.size());
    m_size += written;
    m_fresh = m_fresh && written == 0;
    m_torn = written > 0 && written < text.size();
    return written == text.size();
}

// Write errors are not reported: the worker cannot stop for them, and the
// caller counts what did not get through. Returns the bytes written.
size_t LoggerFile::WriteAll(const char* data, size_t size) {
    if (!m_fifo) {
        bool failed = false;
        return WriteOnce(data, size, failed);
    }
    // A pipe whose reader has gone answers a write with SIGPIPE, which would end
    // the host: the signal is held back on this thread while it writes, and taken
    // back if the write raised it.
    sigset_t pipeSignal, previous, pending;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    sigemptyset(&pending);
    if (pthread_sigmask(SIG_BLOCK, &pipeSignal, &previous) != 0) {
        return 0;
    }
    sigpending(&pending);
    const bool alreadyPending = sigismember(&pending, SIGPIPE) == 1;
    bool failed = false;
    const size_t done = WriteOnce(data, size, failed);
    if (failed && errno == EPIPE && !alreadyPending) {
        const timespec zero{0, 0};
        while (sigtimedwait(&pipeSignal, nullptr, &zero) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return done;
}

size_t LoggerFile::WriteOnce(const char* data, size_t size, bool& failed) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(m_file, data + done, size - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        // A full pipe: wait where a blocking write would have waited, so that
        // entries back up in the log's queue under its own overload rule.
        if (n < 0 && errno == EAGAIN && WaitWritable()) {
            continue;
        }
        if (n <= 0) {
            failed = true;
            break;
        }
        done += static_cast<size_t>(n);
    }
    return done;
}

bool LoggerFile::WaitWritable() {
    for (;;) {
        int timeoutMs = kPipeWaitSliceMs;
        if (m_stopping.load(std::memory_order_acquire)) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                m_giveUpAt - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return false;
            }
            timeoutMs = left.count() < timeoutMs ? static_cast<int>(left.count()) : timeoutMs;
        }
        pollfd ready{m_file, POLLOUT, 0};
        const int n = ::poll(&ready, 1, timeoutMs);
        if (n > 0) {
            return true; // writable, or an error that the next write reports
        }
        if (n < 0 && errno != EINTR) {
            return false;
        }
    }
}

void LoggerFile::WriteHeader(const std::string& note) {
    std::string header = HeaderBlock();
    if (!note.empty()) {
        header += "[" + note + "]\n";
    }
    WriteLocked(header);
    m_fresh = true;
}

bool LoggerFile::NoteOpenedFile() {
    struct stat st;
    if (::fstat(m_file, &st) != 0) {
        return false;
    }
    m_dev = st.st_dev;
    m_ino = st.st_ino;
    m_regular = S_ISREG(st.st_mode);
    m_fifo = S_ISFIFO(st.st_mode);
    m_size = static_cast<uint64_t>(st.st_size);
    m_fresh = m_size == 0;
    m_torn = false;
    m_linesSinceSize = 0;
    return true;
}

void LoggerFile::CheckPath(bool force) {
    if (m_file < 0 || (m_stopping.load(std::memory_order_relaxed) && !force)) {
        return;
    }
    const int64_t now = CoarseNowNs();
    if (!force && now - m_lastCheckNs < kPathCheckEveryNs) {
        if (m_bound.IsSet() && m_regular && (m_shared || ++m_linesSinceSize >= kLinesPerSizeCheck)) {
            m_linesSinceSize = 0;
            struct stat st;
            if (::fstat(m_file, &st) == 0) {
                m_shared = m_shared || static_cast<uint64_t>(st.st_size) != m_size;
                m_size = static_cast<uint64_t>(st.st_size);
            }
        }
        return;
    }
    m_lastCheckNs = now;
    struct stat named;
    if (::stat(m_path.c_str(), &named) != 0) {
        // Only a path that names nothing is reopened: a folder that can no longer
        // be searched would refuse the new file as well.
        if (errno == ENOENT) {
            ReopenPath();
        }
        return;
    }
    if (named.st_dev != m_dev || named.st_ino != m_ino) {
        ReopenPath();
        return;
    }
    if (m_bound.IsSet() && m_regular) {
        m_shared = m_shared || static_cast<uint64_t>(named.st_size) != m_size;
        m_size = static_cast<uint64_t>(named.st_size);
    }
}

bool LoggerFile::ReopenPath() {
    const int file = ::open(m_path.c_str(), kOpenFlags, 0666);
    if (file < 0) {
        return false; // lines keep going where they went; the next check tries again
    }
    ::close(m_file);
    m_file = file;
    NoteOpenedFile();
    WriteHeader(std::string());
    return true;
}

void LoggerFile::MakeRoomFor(size_t bytes) {
    if (m_fresh || m_size + bytes <= m_bound.maxSize) {
        return;
    }
    Rotate(bytes);
}

bool LoggerFile::Rotate(size_t bytes) {
    // Several processes may write to this file under one bound. The lock on the
    // file itself lets one of them rotate; the others find, under the same lock,
    // that the path names a new file, and follow it.
    while (::flock(m_file, LOCK_EX) != 0 && errno == EINTR) {
    }
    struct stat mine, named;
    const bool moved = ::stat(m_path.c_str(), &named) != 0 || named.st_dev != m_dev ||
                       named.st_ino != m_ino;
    if (moved) {
        ::flock(m_file, LOCK_UN);
        if (!ReopenPath()) {
            m_fresh = true; // nowhere else to go: write on rather than try per line
            return false;
        }
        return true;
    }
    if (::fstat(m_file, &mine) == 0) {
        m_size = static_cast<uint64_t>(mine.st_size);
    }
    if (m_size + bytes <= m_bound.maxSize) {
        ::flock(m_file, LOCK_UN); // another process truncated it meanwhile
        return false;
    }
    std::string note;
    if (m_bound.maxFiles == 0) {
        if (::unlink(m_path.c_str()) != 0) {
            note = "Log file truncated: deleting '" + m_path + "' failed, " + SystemError(errno);
        }
    } else {
        // The oldest is replaced by the one before it, and so on down: a file that
        // cannot be moved is overwritten by the next, so their number never grows.
        for (uint32_t k = m_bound.maxFiles - 1; k >= 1; --k) {
            ::rename((m_path + "." + std::to_string(k)).c_str(),
                     (m_path + "." + std::to_string(k + 1)).c_str());
        }
        const std::string first = m_path + ".1";
        if (::rename(m_path.c_str(), first.c_str()) != 0) {
            note = "Log file truncated: renaming '" + m_path + "' to '" + first + "' failed, " +
                   SystemError(errno);
        }
    }
    if (note.empty()) {
        const int file = ::open(m_path.c_str(), kOpenFlags, 0666);
        if (file >= 0) {
            ::close(m_file); // releases the lock
            m_file = file;
            NoteOpenedFile();
            WriteHeader(std::string());
            return true;
        }
        note = "Log file truncated: creating '" + m_path + "' failed, " + SystemError(errno);
    }
    // The bound must hold even where the file cannot be moved aside.
    if (::ftruncate(m_file, 0) == 0) {
        m_size = 0;
    }
    m_torn = false;
    ::flock(m_file, LOCK_UN);
    WriteHeader(note);
    return true;
}

void LoggerFile::Close() {
    std::lock_guard<std::mutex> lock(m_fileMutex);
    if (m_file >= 0) {
        ::close(m_file);
        m_file = -1;
    }
}

} // namespace kt
