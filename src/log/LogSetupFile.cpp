#include "log/LogSetupFile.h"

#include <new>

#include "log/LogFileBound.h"
#include "log/LoggerFile.h"

namespace kt {

LogSetupFile::LogSetupFile(const char* filePath, const char* levelText)
    : LogSetupFile(filePath, levelText, LogFileBound()) {}

LogSetupFile::LogSetupFile(const char* filePath, const char* levelText, const LogFileBound& bound)
    : LogSetup(nullptr) {
    if (filePath == nullptr || filePath[0] == '\0') {
        return;
    }
    if (!Initialize(levelText)) {
        return;
    }
    try {
        LoggerFile* sink = new (std::nothrow) LoggerFile(m_log, filePath, bound);
        if (sink != nullptr) {
            m_loggerFile.reset(sink);
        }
    } catch (...) {
        // Without its sink the log has no listener and stays silent.
    }
}

LogSetupFile::~LogSetupFile() {
    // The sink goes first: its footer flushes the log, which must still exist.
    m_loggerFile.reset();
}

} // namespace kt
