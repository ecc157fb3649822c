#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "log/ILogListener.h"
#include "log/Logger.h"

namespace kt {

// Appends each entry's formatted line to a file, framed per run by a header and
// a footer block, so one file collects the blocks of successive runs.
class LoggerFile : public Logger, public ILogListener {
public:
    LoggerFile(std::shared_ptr<Log> log, const char* fileName);
    ~LoggerFile() override;

    void OnLogEntryAdded(const LogEntry& entry) override;

    bool IsOpen() const { return m_file >= 0; }

private:
    void Write(const std::string& text);
    // True when the whole text was written.
    bool WriteLocked(const std::string& text);
    size_t WriteAll(const char* data, size_t size);
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
};

} // namespace kt
