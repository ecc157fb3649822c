#pragma once

#include <memory>

#include "log/LogSetup.h"

namespace kt {

class LoggerFile;
struct LogFileBound;

// The library's set-up: a log and, when a file is named, the file sink writing it.
class LogSetupFile : public LogSetup {
public:
    LogSetupFile(const char* filePath, const char* levelText);
    LogSetupFile(const char* filePath, const char* levelText, const LogFileBound& bound);
    ~LogSetupFile() override;
    LogSetupFile(const LogSetupFile&) = delete;
    LogSetupFile& operator=(const LogSetupFile&) = delete;

    // The file sink, empty when no file is written.
    std::shared_ptr<LoggerFile> GetLoggerFile() const { return m_loggerFile; }

protected:
    std::shared_ptr<LoggerFile> m_loggerFile;
};

} // namespace kt
