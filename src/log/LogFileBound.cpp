#include "log/LogFileBound.h"

#include <limits>

namespace kt {

namespace {

// Digits only: no sign, no blanks, no base prefix, so that "-1" and " 5" are
// refused rather than read as something the user did not mean.
bool ParseDecimal(const char* text, uint64_t& value, const char** end) {
    value = 0;
    const char* p = text;
    for (; *p >= '0' && *p <= '9'; ++p) {
        const uint64_t digit = static_cast<uint64_t>(*p - '0');
        if (value > (std::numeric_limits<uint64_t>::max() - digit) / 10) {
            return false;
        }
        value = value * 10 + digit;
    }
    *end = p;
    return p != text;
}

bool ParseSize(const char* text, uint64_t& size) {
    const char* end = nullptr;
    if (!ParseDecimal(text, size, &end)) {
        return false;
    }
    unsigned shift = 0;
    switch (*end) {
    case '\0':
        return true;
    case 'K':
    case 'k':
        shift = 10;
        break;
    case 'M':
    case 'm':
        shift = 20;
        break;
    case 'G':
    case 'g':
        shift = 30;
        break;
    default:
        return false;
    }
    if (end[1] != '\0' || size > (std::numeric_limits<uint64_t>::max() >> shift)) {
        return false;
    }
    size <<= shift;
    return true;
}

} // namespace

LogFileBound LogFileBound::FromTexts(const char* sizeText, const char* filesText) {
    LogFileBound bound;
    bool refused = false;
    try {
        uint64_t files = kDefaultFiles;
        const char* end = nullptr;
        if (filesText != nullptr &&
            (!ParseDecimal(filesText, files, &end) || *end != '\0' || files > kMaxFiles)) {
            refused = true;
            bound.warnings[1] = std::string("Invalid TAVIK_DDI_LOG_MAX_FILES '") + filesText +
                                "' (a number of files from 0 to " + std::to_string(kMaxFiles) +
                                "), the log file has no size bound";
        }
        uint64_t size = 0;
        if (sizeText != nullptr && !ParseSize(sizeText, size)) {
            refused = true;
            bound.warnings[0] = std::string("Invalid TAVIK_DDI_LOG_MAX_SIZE '") + sizeText +
                                "' (a size in bytes with an optional K, M or G suffix), "
                                "the log file has no size bound";
        }
        if (!refused && sizeText != nullptr) {
            // 0 is a size like any other below a header block: the caller raises it.
            bound.maxSize = size == 0 ? 1 : size;
            bound.maxFiles = static_cast<uint32_t>(files);
        }
    } catch (...) {
        // No memory for a warning: the file is simply not bounded.
        bound = LogFileBound();
    }
    return bound;
}

} // namespace kt
