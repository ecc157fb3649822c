#pragma once

#include <cstdint>
#include <string>

#include "log/LogUtils.h"

namespace kt {

// One logged record; the worker turns it into the output line that the sinks write.
class LogEntry {
public:
    enum Level : int32_t { Error = 0, Warning = 1, Info = 2, Debug = 3, Trace = 4 };

    LogEntry(const char* category, Level level, uint16_t depth, std::string message);
    LogEntry& FormatMessage();

    std::string m_formattedMessage;
    char m_levelChar;
    std::string m_category;
    Level m_level;
    uint32_t m_pid;
    uint32_t m_tid;
    TimePoint m_time;
    uint16_t m_depth;
    std::string m_message;
};

} // namespace kt
