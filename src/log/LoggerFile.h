#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include "log/ILogListener.h"
#include "log/LogFileBound.h"
#include "log/Logger.h"

namespace kt {

// Appends each entry's formatted line to a file, framed per run by a header and
// a footer block, so one file collects the blocks of successive runs.
//
// A rig leaves its log on for weeks, so the file must also survive what happens
// to it meanwhile: a pipe whose reader falls behind is waited for like a slow
// disk; a file that another program renames or deletes is reopened by its path;
// and with a bound the sink moves a full file aside itself (FILE.1, FILE.2, ...).
class LoggerFile : public Logger, public ILogListener {
public:
    LoggerFile(std::shared_ptr<Log> log, const char* fileName);
    LoggerFile(std::shared_ptr<Log> log, const char* fileName, const LogFileBound& bound);
    ~LoggerFile() override;

    void OnLogEntryAdded(const LogEntry& entry) override;
    void OnLogIdle() override;

    bool IsOpen() const { return m_file >= 0; }
    // Entry lines written whole since the sink was made, in whichever file.
    uint64_t WrittenLines() const { return m_writtenLines.load(std::memory_order_relaxed); }

private:
    void Open(const char* fileName);
    void Write(const std::string& text);
    // Writes an entry line or the footer, first making room for it under a bound.
    bool WriteLine(const std::string& text);
    // True when the whole text was written.
    bool WriteLocked(const std::string& text);
    size_t WriteAll(const char* data, size_t size);
    size_t WriteOnce(const char* data, size_t size, bool& failed);
    // Waits until a full pipe takes data again; false once the sink gives up.
    bool WaitWritable();
    void WriteHeader(const std::string& note);
    // Notes what the open descriptor names; false when fstat fails.
    bool NoteOpenedFile();
    // At most once a second (or now when forced): reopens the path when it no
    // longer names the file being written.
    void CheckPath(bool force);
    bool ReopenPath();
    void MakeRoomFor(size_t bytes);
    // True when it wrote a header into a new or emptied file.
    bool Rotate(size_t bytes);
    void Close();

    // A plain descriptor rather than a stream: it can be opened close-on-exec, so
    // programs that the host starts never inherit the log, and each line costs
    // exactly one write() with nothing left in a user-space buffer.
    int m_file = -1;
    // The worker writes entries while the owner writes the footer; after a flush
    // that timed out on a slow disk both may still be busy at once.
    std::mutex m_fileMutex;
    std::string m_line;
    // Entries that could not be written (guarded by m_fileMutex), and whether the
    // last line in the file was cut short.
    uint64_t m_lost = 0;
    bool m_torn = false;
    std::shared_ptr<ILogListener> m_selfListener;

    // What the open descriptor names, and what is known of its size (all guarded
    // by m_fileMutex). The size is counted from the sink's own writes and taken
    // from the file now and then: when it differs, another process writes to the
    // same file, and from then on it is taken before every line.
    std::string m_path;
    LogFileBound m_bound;
    dev_t m_dev = 0;
    ino_t m_ino = 0;
    bool m_regular = false;
    bool m_fifo = false;
    uint64_t m_size = 0;
    // The file holds nothing of this sink's but a header: a line goes in even if
    // it passes the bound, or a line longer than the bound would rotate forever.
    bool m_fresh = false;
    bool m_shared = false;
    unsigned m_linesSinceSize = 0;
    int64_t m_lastCheckNs = 0;
    std::atomic<uint64_t> m_writtenLines{0};

    // Set when the owner writes the footer: from then on a full pipe is waited for
    // only until m_giveUpAt, so that the unload ends even if nobody reads.
    std::atomic<bool> m_stopping{false};
    std::chrono::steady_clock::time_point m_giveUpAt;
};

} // namespace kt
