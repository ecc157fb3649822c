#include "log/LogSetup.h"

#include <new>

namespace kt {

namespace {

// Only the first character counts; numbers are deliberately not levels, and
// anything unrecognised means the most verbose level.
LogEntry::Level LevelFromText(const char* text) {
    switch (text[0]) {
    case 'E':
    case 'e':
        return LogEntry::Error;
    case 'W':
    case 'w':
        return LogEntry::Warning;
    case 'I':
    case 'i':
        return LogEntry::Info;
    case 'D':
    case 'd':
        return LogEntry::Debug;
    default:
        return LogEntry::Trace;
    }
}

} // namespace

LogSetup::LogSetup(const char* levelText) {
    Initialize(levelText);
}

LogSetup::~LogSetup() = default;

bool LogSetup::Initialize(const char* levelText) {
    if (levelText == nullptr) {
        m_log.reset();
        return false;
    }
    std::shared_ptr<Log> log;
    try {
        Log* raw = new (std::nothrow) Log(LevelFromText(levelText));
        if (raw != nullptr) {
            log.reset(raw); // a control block that cannot be allocated frees raw
        }
    } catch (...) {
        log.reset();
    }
    m_log = std::move(log);
    return static_cast<bool>(m_log);
}

std::shared_ptr<Log> LogSetup::GetLog() const {
    return m_log;
}

} // namespace kt
