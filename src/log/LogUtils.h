#pragma once

#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <string>

namespace kt {

using TimePoint = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;

// Text helpers for log and error texts. Failures of the wrapped system calls become text.
class LogUtils {
public:
    // printf rules, full length; the caller's argument list is not consumed.
    static std::string FormatArgsToStdString(const char* format, va_list args);
    static std::string FormatByteArrayToHexString(const unsigned char* data, unsigned long size);
    static std::string GetErrorString(int errorNumber);
    static std::string GetDynLibErrorString();
    static std::string GetLibFullFileName();
    static std::string GetLibFullFileNameByHandle(void* handle);
    static std::string GetAppFullFileName();
    static std::string GetDateStamp(const TimePoint& time);
    static std::string GetTimeStamp(const TimePoint& time);
    static uint32_t GetCurrentProcessId();
    static uint32_t GetCurrentThreadId();
};

} // namespace kt
