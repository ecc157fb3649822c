#include "log/Logger.h"

#include <utility>

#include "log/Log.h"
#include "log/LogUtils.h"

namespace kt {

namespace {

constexpr const char kSeparator[] =
    "[==============================================================]\n";
static_assert(sizeof(kSeparator) == 1 + 62 + 1 + 1 + 1, "a bracket, 62 signs, a bracket, LF");

TimePoint Now() {
    return std::chrono::time_point_cast<std::chrono::nanoseconds>(
        std::chrono::system_clock::now());
}

} // namespace

Logger::Logger(std::shared_ptr<Log> log) : m_log(std::move(log)) {}

Logger::~Logger() = default;

std::string Logger::HeaderBlock() {
    const TimePoint now = Now();
    std::string block = kSeparator;
    block += "[Logging started, date " + LogUtils::GetDateStamp(now) + ", time " +
             LogUtils::GetTimeStamp(now) + ", PID " +
             std::to_string(LogUtils::GetCurrentProcessId()) + "]\n";
    block += "[Executable: '" + LogUtils::GetAppFullFileName() + "']\n";
    block += "[Library: '" + LogUtils::GetLibFullFileName() + "']\n";
    return block;
}

std::string Logger::FooterBlock(uint64_t droppedCount) {
    // Taken after the flush, so the stop time covers the last delivered line.
    const TimePoint now = Now();
    // The stop line has no word "time" before the time, unlike the start line.
    std::string block = "[Logging stopped, date " + LogUtils::GetDateStamp(now) + ", " +
                        LogUtils::GetTimeStamp(now) + ", PID " +
                        std::to_string(LogUtils::GetCurrentProcessId());
    if (droppedCount != 0) {
        block += ", dropped " + std::to_string(droppedCount) + " messages";
    }
    block += "]\n";
    block += kSeparator;
    block += "\n";
    return block;
}

} // namespace kt
