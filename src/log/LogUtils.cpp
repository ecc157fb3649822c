#include "log/LogUtils.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "log/StringUtils.h"

namespace kt {

std::string LogUtils::FormatArgsToStdString(const char* format, va_list args) {
    if (format == nullptr) {
        throw std::logic_error("FormatArgsToStdString: null format");
    }
    // Measure on a copy so that the caller's list stays usable for the second pass.
    va_list measure;
    va_copy(measure, args);
    const int n = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (n < 0) {
        throw std::logic_error("FormatArgsToStdString: the format cannot be formatted");
    }
    std::string text(static_cast<size_t>(n), '\0');
    va_list fill;
    va_copy(fill, args);
    std::vsnprintf(&text[0], static_cast<size_t>(n) + 1, format, fill);
    va_end(fill);
    // An embedded NUL (from %c with 0) ends the text, as a C string would.
    const size_t nul = text.find('\0');
    if (nul != std::string::npos) {
        text.resize(nul);
    }
    return text;
}

std::string LogUtils::FormatByteArrayToHexString(const unsigned char* data, unsigned long size) {
    if (data == nullptr || size == 0) {
        return std::string();
    }
    return StringUtils::ByteArrayToHexString(data, size, ",");
}

namespace {

bool ToLocalTime(const TimePoint& time, std::tm& out) {
    const auto ns = time.time_since_epoch().count();
    const std::time_t seconds = static_cast<std::time_t>(ns / 1000000000LL);
    return localtime_r(&seconds, &out) != nullptr;
}

} // namespace

std::string LogUtils::GetDateStamp(const TimePoint& time) {
    std::tm tm{};
    char buffer[11] = {};
    size_t len = 0;
    if (ToLocalTime(time, tm)) {
        len = std::strftime(buffer, sizeof(buffer), "%Y-%m-%d", &tm);
    }
    if (len != 10) {
        return std::string("YYYY-MM-DD");
    }
    return std::string(buffer, len);
}

std::string LogUtils::GetTimeStamp(const TimePoint& time) {
    const long long ns = time.time_since_epoch().count();
    const long long us = ns / 1000;
    const unsigned micros = static_cast<unsigned>(us - (us / 1000000) * 1000000);
    std::tm tm{};
    char hms[7] = {};
    size_t len = 0;
    if (ToLocalTime(time, tm)) {
        len = std::strftime(hms, sizeof(hms), "%H%M%S", &tm);
    }
    if (len != 6) {
        std::memcpy(hms, "HHMMSS", 7);
    }
    char out[32];
    const int n = std::snprintf(out, sizeof(out), "%s.%06u", hms, micros);
    return std::string(out, n > 0 ? static_cast<size_t>(n) : 0);
}

} // namespace kt
