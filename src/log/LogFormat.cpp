#include "log/LogFormat.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace kt {

namespace {

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

enum class Length : uint8_t { kNone, kChar, kShort, kLong, kLongLong, kLongDouble };

// Parses the conversion that starts at p, a '%', into c; returns the position
// after it, or null for a conversion that capture does not defer.
const char* ParseConversion(const char* format, const char* p, LogFormat::Conversion& c) {
    const char* const begin = p++;
    for (const char* q = p; IsDigit(*q); ++q) {
        if (q[1] == '$') {
            return nullptr; // positional arguments
        }
    }
    const char* const flags = p;
    while (*p == '-' || *p == '+' || *p == ' ' || *p == '#' || *p == '0' || *p == '\'' ||
           *p == 'I') {
        ++p;
    }
    c.stars = 0;
    c.starPrecision = false;
    c.precision = -1;
    if (*p == '*') {
        ++c.stars;
        ++p;
        if (IsDigit(*p)) {
            return nullptr; // "*n$"
        }
    } else {
        while (IsDigit(*p)) {
            ++p;
        }
    }
    if (*p == '.') {
        ++p;
        if (*p == '*') {
            ++c.stars;
            c.starPrecision = true;
            ++p;
            if (IsDigit(*p)) {
                return nullptr;
            }
        } else {
            int32_t precision = 0;
            while (IsDigit(*p)) {
                precision = std::min(precision * 10 + (*p - '0'), 1 << 24);
                ++p;
            }
            c.precision = precision;
        }
    }
    const bool plain = p == flags;
    // "%06d", "%08x": only zeros as flags and a written width; common enough in
    // log lines to be hand-made too.
    c.zeroPad = 0;
    bool zeroPadded = false;
    if (!plain && c.stars == 0 && c.precision < 0 && *flags == '0') {
        const char* q = flags;
        while (*q == '0') {
            ++q;
        }
        int width = 0;
        while (IsDigit(*q) && width <= 64) {
            width = width * 10 + (*q - '0');
            ++q;
        }
        if (q == p && width > 0 && width <= 64) {
            zeroPadded = true;
            c.zeroPad = static_cast<uint8_t>(width);
        }
    }
    Length length = Length::kNone;
    switch (*p) {
    case 'h':
        ++p;
        length = Length::kShort;
        if (*p == 'h') {
            ++p;
            length = Length::kChar;
        }
        break;
    case 'l':
        ++p;
        length = Length::kLong;
        if (*p == 'l') {
            ++p;
            length = Length::kLongLong;
        }
        break;
    case 'q':
        ++p;
        length = Length::kLongLong;
        break;
    case 'L':
        ++p;
        length = Length::kLongDouble;
        break;
    case 'j':
    case 'z':
    case 'Z':
    case 't':
        ++p;
        length = Length::kLong; // all 64 bits wide here
        break;
    default:
        break;
    }
    const char conversion = *p;
    if (conversion == '\0') {
        return nullptr;
    }
    ++p;
    if (static_cast<size_t>(p - begin) > LogFormat::kMaxConversionLength) {
        return nullptr;
    }
    c.conversionBegin = static_cast<uint16_t>(begin - format);
    c.conversionLength = static_cast<uint8_t>(p - begin);
    // Anything but the plain form goes through the C library, and so does a
    // length that printf narrows the value for (h, hh).
    const bool narrowed = length == Length::kShort || length == Length::kChar;
    const bool handMade = plain && !narrowed;
    // Zero padding is hand-made for the integers only.
    const bool handMadeInteger = (plain || zeroPadded) && !narrowed;
    const bool wide =
        length == Length::kLong || length == Length::kLongLong || length == Length::kLongDouble;
    switch (conversion) {
    case 'd':
    case 'i':
        c.arg = wide ? LogFormat::kWide : LogFormat::kInt;
        c.print = handMadeInteger ? LogFormat::kSigned : LogFormat::kLibrary;
        return p;
    case 'u':
        c.arg = wide ? LogFormat::kWide : LogFormat::kInt;
        c.print = handMadeInteger ? LogFormat::kUnsigned : LogFormat::kLibrary;
        return p;
    case 'x':
    case 'X':
        c.arg = wide ? LogFormat::kWide : LogFormat::kInt;
        c.print = !handMadeInteger    ? LogFormat::kLibrary
                  : conversion == 'x' ? LogFormat::kHexLower
                                      : LogFormat::kHexUpper;
        return p;
    case 'o':
        c.arg = wide ? LogFormat::kWide : LogFormat::kInt;
        c.print = LogFormat::kLibrary;
        return p;
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
        if (length != Length::kNone && length != Length::kLong &&
            length != Length::kLongDouble) {
            return nullptr;
        }
        c.arg = length == Length::kLongDouble ? LogFormat::kLongDouble : LogFormat::kDouble;
        c.print = LogFormat::kLibrary;
        return p;
    case 'c':
        if (length != Length::kNone) {
            return nullptr; // a wide character
        }
        c.arg = LogFormat::kInt;
        c.print = handMade ? LogFormat::kChar : LogFormat::kLibrary;
        return p;
    case 's':
        if (length != Length::kNone) {
            return nullptr; // a wide string
        }
        c.arg = LogFormat::kString;
        c.print = handMade ? LogFormat::kText : LogFormat::kLibrary;
        return p;
    case 'p':
        if (length != Length::kNone) {
            return nullptr;
        }
        c.arg = LogFormat::kPointer;
        c.print = handMade ? LogFormat::kAddress : LogFormat::kLibrary;
        return p;
    case '%':
        if (p != begin + 2) {
            return nullptr;
        }
        c.arg = LogFormat::kNoArg;
        c.print = LogFormat::kPercent;
        return p;
    default:
        return nullptr;
    }
}

// The shared table: open addressing by the format's address, a few probes. A
// slot is claimed once, filled, then published, and never changes again, so
// readers need no lock; a slot being filled by another thread is simply passed.
constexpr size_t kSlots = 512;
constexpr size_t kProbes = 8;

enum SlotState : uint8_t { kEmpty, kFilling, kReady, kRefused };

struct Slot {
    std::atomic<const char*> key;
    std::atomic<uint8_t> state;
    LogFormat parsed;
};

Slot g_slots[kSlots];

size_t SlotIndex(const char* format) {
    const auto bits = reinterpret_cast<uintptr_t>(format);
    return static_cast<size_t>((bits * 0x9E3779B97F4A7C15ull) >> 55) % kSlots;
}

} // namespace

bool LogFormat::Parse(const char* format, LogFormat& out) noexcept {
    if (format == nullptr) {
        return false;
    }
    out.format = format;
    out.count = 0;
    const char* literal = format;
    const char* p = format;
    for (;;) {
        while (*p != '\0' && *p != '%') {
            ++p;
        }
        if (static_cast<size_t>(p - format) > 0xFFFF) {
            return false;
        }
        if (*p == '\0') {
            break;
        }
        if (out.count == kMaxConversions) {
            return false;
        }
        Conversion& c = out.conversions[out.count];
        c.literalBegin = static_cast<uint16_t>(literal - format);
        c.literalLength = static_cast<uint16_t>(p - literal);
        p = ParseConversion(format, p, c);
        if (p == nullptr) {
            return false;
        }
        ++out.count;
        literal = p;
    }
    out.tailBegin = static_cast<uint16_t>(literal - format);
    out.tailLength = static_cast<uint16_t>(p - literal);
    return true;
}

const LogFormat* LogFormat::Find(const char* format) noexcept {
    if (format == nullptr) {
        return nullptr;
    }
    const size_t first = SlotIndex(format);
    for (size_t probe = 0; probe < kProbes; ++probe) {
        Slot& slot = g_slots[(first + probe) % kSlots];
        uint8_t state = slot.state.load(std::memory_order_acquire);
        if (state == kEmpty) {
            if (!slot.state.compare_exchange_strong(state, kFilling, std::memory_order_acq_rel)) {
                if (state != kReady && state != kRefused) {
                    return nullptr; // another thread is filling it just now
                }
            } else {
                const bool parsed = Parse(format, slot.parsed);
                slot.key.store(format, std::memory_order_relaxed);
                slot.state.store(parsed ? kReady : kRefused, std::memory_order_release);
                return parsed ? &slot.parsed : nullptr;
            }
        }
        if (state == kFilling) {
            return nullptr;
        }
        if (slot.key.load(std::memory_order_relaxed) == format) {
            return state == kReady ? &slot.parsed : nullptr;
        }
    }
    return nullptr;
}

} // namespace kt
