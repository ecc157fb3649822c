#pragma once

#include <memory>

#include "log/LogSetup.h"

namespace kt {

class LoggerFile;

// The library's set-up: a log and, when a file is named, the file sink writing it.
class LogSetupFile : public LogSetup {
public:
    LogSetupFile(const char* filePath, const char* levelText);
    ~LogSetupFile() override;
    LogSetupFile(const LogSetupFile&) = delete;
    LogSetupFile& operator=(const LogSetupFile&) = delete;

protected:
    std::shared_ptr<LoggerFile> m_loggerFile;
};

} // namespace kt
