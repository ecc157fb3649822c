#include "log/LogCapture.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log/LogUtils.h"
#include "log/StringUtils.h"

namespace kt {

namespace {

// A capture is a run of parts, each a kind byte and its data; numbers are stored
// unaligned and read back with memcpy.
enum PartKind : unsigned char {
    kLiteral = 1,  // address of a static text
    kText = 2,     // length, bytes
    kFormat = 3,   // address of the format, length of the arguments, the arguments
    kJoin = 4,     // ", " when the parts on both sides are non-empty
    kUnsigned = 5, // 64-bit value in decimal
    kDump = 6,     // total size, kept size, kept bytes
};

constexpr uint32_t kNullString = 0xFFFFFFFFu;

// What the length modifiers of a conversion make of its argument.
enum class Length : unsigned char { kNone, kChar, kShort, kLong, kLongLong, kLongDouble };

// One conversion of a format. Capture and rendering parse the format with the
// same function, so they always agree on the arguments that a format takes.
struct Spec {
    const char* begin = nullptr; // the '%'
    const char* end = nullptr;   // after the conversion letter
    bool plain = false;          // no flags, width or precision
    bool starWidth = false;
    bool starPrecision = false;
    bool hasPrecision = false;
    long precision = 0; // a precision written in the format
    Length length = Length::kNone;
    char conversion = 0;
};

constexpr size_t kMaxSpecLength = 48;

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

// Parses the conversion that starts at p, a '%'. False for what capture does not
// defer: positional arguments, wide characters, "%m" (errno of the moment), "%n",
// and anything the C library's printf would not take the usual way.
bool ParseSpec(const char* p, Spec& spec) {
    spec = Spec();
    spec.begin = p++;
    for (const char* q = p; IsDigit(*q); ++q) {
        if (q[1] == '$') {
            return false;
        }
    }
    const char* flagsStart = p;
    while (*p == '-' || *p == '+' || *p == ' ' || *p == '#' || *p == '0' || *p == '\'' ||
           *p == 'I') {
        ++p;
    }
    if (*p == '*') {
        spec.starWidth = true;
        ++p;
        if (IsDigit(*p)) {
            return false; // "*n$"
        }
    } else {
        while (IsDigit(*p)) {
            ++p;
        }
    }
    if (*p == '.') {
        ++p;
        spec.hasPrecision = true;
        if (*p == '*') {
            spec.starPrecision = true;
            ++p;
            if (IsDigit(*p)) {
                return false;
            }
        } else {
            long precision = 0;
            while (IsDigit(*p)) {
                precision = std::min(precision * 10 + (*p - '0'), 1L << 30);
                ++p;
            }
            spec.precision = precision;
        }
    }
    spec.plain = p == flagsStart;
    switch (*p) {
    case 'h':
        ++p;
        spec.length = Length::kShort;
        if (*p == 'h') {
            ++p;
            spec.length = Length::kChar;
        }
        break;
    case 'l':
        ++p;
        spec.length = Length::kLong;
        if (*p == 'l') {
            ++p;
            spec.length = Length::kLongLong;
        }
        break;
    case 'q':
        ++p;
        spec.length = Length::kLongLong;
        break;
    case 'L':
        ++p;
        spec.length = Length::kLongDouble;
        break;
    case 'j':
    case 'z':
    case 'Z':
    case 't':
        ++p;
        spec.length = Length::kLong; // all 64 bits wide here
        break;
    default:
        break;
    }
    spec.conversion = *p;
    if (spec.conversion == '\0') {
        return false;
    }
    spec.end = p + 1;
    if (static_cast<size_t>(spec.end - spec.begin) > kMaxSpecLength) {
        return false;
    }
    switch (spec.conversion) {
    case 'd':
    case 'i':
    case 'o':
    case 'u':
    case 'x':
    case 'X':
        return true;
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
        return spec.length == Length::kNone || spec.length == Length::kLong ||
               spec.length == Length::kLongDouble;
    case 'c':
    case 's':
    case 'p':
        return spec.length == Length::kNone;
    case '%':
        return spec.end == spec.begin + 2;
    default:
        return false;
    }
}

bool IsInteger(char conversion) {
    return conversion == 'd' || conversion == 'i' || conversion == 'o' || conversion == 'u' ||
           conversion == 'x' || conversion == 'X' || conversion == 'c';
}

// 64 bits for long, long long, intmax_t, size_t and ptrdiff_t (and "%Ld"); an int
// for the rest, which printf receives promoted.
bool IsWideInteger(const Spec& spec) {
    return spec.length == Length::kLong || spec.length == Length::kLongLong ||
           spec.length == Length::kLongDouble;
}

template <class T>
T ReadValue(const unsigned char*& p) {
    T value;
    std::memcpy(&value, p, sizeof(T));
    p += sizeof(T);
    return value;
}

template <class T>
void WriteValue(unsigned char*& p, T value) {
    std::memcpy(p, &value, sizeof(T));
    p += sizeof(T);
}

// The argument bytes a format takes, measured on a copy of the argument list.
// Returns false for a format that capture does not defer.
bool MeasureArguments(const char* format, va_list args, size_t& bytes) {
    bytes = 0;
    for (const char* f = std::strchr(format, '%'); f != nullptr; f = std::strchr(f, '%')) {
        Spec spec;
        if (!ParseSpec(f, spec)) {
            return false;
        }
        f = spec.end;
        if (spec.conversion == '%') {
            continue;
        }
        long precision = spec.hasPrecision ? spec.precision : -1;
        if (spec.starWidth) {
            (void)va_arg(args, int);
            bytes += sizeof(int);
        }
        if (spec.starPrecision) {
            precision = va_arg(args, int);
            bytes += sizeof(int);
        }
        if (IsInteger(spec.conversion)) {
            if (IsWideInteger(spec)) {
                (void)va_arg(args, long long);
                bytes += sizeof(long long);
            } else {
                (void)va_arg(args, int);
                bytes += sizeof(int);
            }
        } else if (spec.conversion == 's') {
            const char* text = va_arg(args, const char*);
            bytes += sizeof(uint32_t);
            if (text != nullptr) {
                bytes += (precision >= 0 ? strnlen(text, static_cast<size_t>(precision))
                                         : std::strlen(text)) +
                         1;
            }
        } else if (spec.conversion == 'p') {
            (void)va_arg(args, void*);
            bytes += sizeof(void*);
        } else if (spec.length == Length::kLongDouble) {
            (void)va_arg(args, long double);
            bytes += sizeof(long double);
        } else {
            (void)va_arg(args, double);
            bytes += sizeof(double);
        }
    }
    return true;
}

void WriteArguments(const char* format, va_list args, unsigned char* out) {
    for (const char* f = std::strchr(format, '%'); f != nullptr; f = std::strchr(f, '%')) {
        Spec spec;
        ParseSpec(f, spec);
        f = spec.end;
        if (spec.conversion == '%') {
            continue;
        }
        long precision = spec.hasPrecision ? spec.precision : -1;
        if (spec.starWidth) {
            WriteValue(out, va_arg(args, int));
        }
        if (spec.starPrecision) {
            const int star = va_arg(args, int);
            precision = star;
            WriteValue(out, star);
        }
        if (IsInteger(spec.conversion)) {
            if (IsWideInteger(spec)) {
                WriteValue(out, va_arg(args, long long));
            } else {
                WriteValue(out, va_arg(args, int));
            }
        } else if (spec.conversion == 's') {
            const char* text = va_arg(args, const char*);
            if (text == nullptr) {
                WriteValue(out, kNullString);
                continue;
            }
            const size_t length = precision >= 0 ? strnlen(text, static_cast<size_t>(precision))
                                                 : std::strlen(text);
            WriteValue(out, static_cast<uint32_t>(length));
            std::memcpy(out, text, length);
            out[length] = '\0';
            out += length + 1;
        } else if (spec.conversion == 'p') {
            WriteValue(out, va_arg(args, void*));
        } else if (spec.length == Length::kLongDouble) {
            WriteValue(out, va_arg(args, long double));
        } else {
            WriteValue(out, va_arg(args, double));
        }
    }
}

// ---------------------------------------------------------------------------
// Rendering

char* PutDecimal(char* end, unsigned long long value) {
    do {
        *--end = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    return end;
}

void AppendUnsigned(std::string& out, unsigned long long value) {
    char digits[24];
    char* end = digits + sizeof(digits);
    const char* begin = PutDecimal(end, value);
    out.append(begin, static_cast<size_t>(end - begin));
}

void AppendSigned(std::string& out, long long value) {
    char digits[24];
    char* end = digits + sizeof(digits);
    const unsigned long long magnitude =
        value < 0 ? 0ULL - static_cast<unsigned long long>(value) : static_cast<unsigned long long>(value);
    char* begin = PutDecimal(end, magnitude);
    if (value < 0) {
        *--begin = '-';
    }
    out.append(begin, static_cast<size_t>(end - begin));
}

void AppendHex(std::string& out, unsigned long long value, bool upper, bool prefix) {
    static constexpr char kLower[] = "0123456789abcdef";
    static constexpr char kUpper[] = "0123456789ABCDEF";
    const char* digits = upper ? kUpper : kLower;
    char text[24];
    char* end = text + sizeof(text);
    char* p = end;
    do {
        *--p = digits[value & 0xF];
        value >>= 4;
    } while (value != 0);
    if (prefix) {
        *--p = 'x';
        *--p = '0';
    }
    out.append(p, static_cast<size_t>(end - p));
}

// One conversion through the C library, for everything with flags, a width or a
// precision: the same printf that formatting on the spot would have used. Returns
// false when the text it produced holds a NUL (only "%c" can), after appending
// what came before it: the rest of the part is then cut, as a C string would be.
template <class T>
bool AppendFormatted(std::string& out, const char* spec, int stars, const int* star, T value) {
    char buffer[256];
    int n = -1;
    switch (stars) {
    case 0:
        n = std::snprintf(buffer, sizeof(buffer), spec, value);
        break;
    case 1:
        n = std::snprintf(buffer, sizeof(buffer), spec, star[0], value);
        break;
    default:
        n = std::snprintf(buffer, sizeof(buffer), spec, star[0], star[1], value);
        break;
    }
    if (n < 0) {
        return true;
    }
    const char* text = buffer;
    std::string large;
    if (static_cast<size_t>(n) >= sizeof(buffer)) {
        large.resize(static_cast<size_t>(n) + 1);
        switch (stars) {
        case 0:
            std::snprintf(&large[0], large.size(), spec, value);
            break;
        case 1:
            std::snprintf(&large[0], large.size(), spec, star[0], value);
            break;
        default:
            std::snprintf(&large[0], large.size(), spec, star[0], star[1], value);
            break;
        }
        text = large.data();
    }
    const size_t length = static_cast<size_t>(n);
    const void* nul = std::memchr(text, '\0', length);
    if (nul != nullptr) {
        out.append(text, static_cast<size_t>(static_cast<const char*>(nul) - text));
        return false;
    }
    out.append(text, length);
    return true;
}

// Renders one format with its captured arguments; false when a NUL cut it short.
bool RenderFormat(std::string& out, const char* format, const unsigned char* args) {
    const char* f = format;
    for (;;) {
        const char* percent = std::strchr(f, '%');
        if (percent == nullptr) {
            out.append(f);
            return true;
        }
        out.append(f, static_cast<size_t>(percent - f));
        Spec spec;
        ParseSpec(percent, spec);
        f = spec.end;
        const char conversion = spec.conversion;
        if (conversion == '%') {
            out += '%';
            continue;
        }
        int star[2] = {0, 0};
        int stars = 0;
        if (spec.starWidth) {
            star[stars++] = ReadValue<int>(args);
        }
        if (spec.starPrecision) {
            star[stars++] = ReadValue<int>(args);
        }
        char specText[kMaxSpecLength + 1];
        const size_t specLength = static_cast<size_t>(spec.end - spec.begin);
        if (!spec.plain || stars != 0 || spec.length == Length::kShort ||
            spec.length == Length::kChar) {
            std::memcpy(specText, spec.begin, specLength);
            specText[specLength] = '\0';
        } else {
            specText[0] = '\0'; // the fast paths below
        }
        const bool viaLibrary = specText[0] != '\0';
        bool whole = true;
        if (IsInteger(conversion)) {
            const bool wide = IsWideInteger(spec);
            const long long value = wide ? ReadValue<long long>(args) : ReadValue<int>(args);
            if (viaLibrary) {
                whole = wide ? AppendFormatted(out, specText, stars, star, value)
                             : AppendFormatted(out, specText, stars, star, static_cast<int>(value));
            } else if (conversion == 'd' || conversion == 'i') {
                AppendSigned(out, value);
            } else if (conversion == 'u') {
                AppendUnsigned(out, wide ? static_cast<unsigned long long>(value)
                                         : static_cast<unsigned int>(value));
            } else if (conversion == 'x' || conversion == 'X') {
                AppendHex(out,
                          wide ? static_cast<unsigned long long>(value)
                               : static_cast<unsigned int>(value),
                          conversion == 'X', false);
            } else if (conversion == 'c') {
                const char c = static_cast<char>(static_cast<unsigned char>(value));
                if (c == '\0') {
                    return false;
                }
                out += c;
            } else {
                std::memcpy(specText, spec.begin, specLength);
                specText[specLength] = '\0';
                whole = wide ? AppendFormatted(out, specText, stars, star, value)
                             : AppendFormatted(out, specText, stars, star, static_cast<int>(value));
            }
        } else if (conversion == 's') {
            const uint32_t length = ReadValue<uint32_t>(args);
            const char* text = nullptr;
            if (length != kNullString) {
                text = reinterpret_cast<const char*>(args);
                args += length + 1;
            }
            if (viaLibrary) {
                whole = AppendFormatted(out, specText, stars, star, text);
            } else if (text == nullptr) {
                out.append("(null)");
            } else {
                out.append(text, length);
            }
        } else if (conversion == 'p') {
            void* value = ReadValue<void*>(args);
            if (viaLibrary) {
                whole = AppendFormatted(out, specText, stars, star, value);
            } else if (value == nullptr) {
                out.append("(nil)");
            } else {
                AppendHex(out, reinterpret_cast<uintptr_t>(value), false, true);
            }
        } else {
            std::memcpy(specText, spec.begin, specLength);
            specText[specLength] = '\0';
            if (spec.length == Length::kLongDouble) {
                whole = AppendFormatted(out, specText, stars, star, ReadValue<long double>(args));
            } else {
                whole = AppendFormatted(out, specText, stars, star, ReadValue<double>(args));
            }
        }
        if (!whole) {
            return false;
        }
    }
}

void RenderDump(std::string& out, const unsigned char* bytes, uint32_t kept, uint64_t total) {
    if (kept != 0) {
        const size_t start = out.size();
        out.resize(start + 5 * static_cast<size_t>(kept) - 1);
        char* p = &out[start];
        std::memcpy(p, StringUtils::ByteToHexString(bytes[0]), 4);
        p += 4;
        for (uint32_t i = 1; i < kept; ++i) {
            *p++ = ',';
            std::memcpy(p, StringUtils::ByteToHexString(bytes[i]), 4);
            p += 4;
        }
    }
    if (total > kept) {
        out.append(" (");
        AppendUnsigned(out, total - kept);
        out.append(" bytes left out)");
    }
}

} // namespace

// ---------------------------------------------------------------------------
// Capture

LogCapture::~LogCapture() {
    std::free(m_heap);
}

void LogCapture::Clear() noexcept {
    m_size = 0;
    m_failed = false;
    m_dump = nullptr;
    m_dumpSize = 0;
}

unsigned char* LogCapture::Grow(size_t more) noexcept {
    if (m_failed) {
        return nullptr;
    }
    if (m_size + more > m_capacity) {
        const size_t capacity = std::max(m_capacity * 2, m_size + more);
        void* grown = std::realloc(m_heap, capacity);
        if (grown == nullptr) {
            m_failed = true;
            return nullptr;
        }
        if (m_heap == nullptr) {
            std::memcpy(grown, m_inline, m_size);
        }
        m_heap = static_cast<unsigned char*>(grown);
        m_capacity = capacity;
    }
    unsigned char* at = Data() + m_size;
    m_size += more;
    return at;
}

void LogCapture::AddLiteral(const char* text) noexcept {
    unsigned char* p = Grow(1 + sizeof(const char*));
    if (p != nullptr) {
        *p++ = kLiteral;
        WriteValue(p, text);
    }
}

void LogCapture::AddText(const char* text, size_t length) noexcept {
    unsigned char* p = Grow(1 + sizeof(uint32_t) + length);
    if (p != nullptr) {
        *p++ = kText;
        WriteValue(p, static_cast<uint32_t>(length));
        std::memcpy(p, text, length);
    }
}

bool LogCapture::AddFormat(const char* format, va_list args) noexcept {
    if (format == nullptr) {
        return false;
    }
    size_t bytes = 0;
    va_list measure;
    va_copy(measure, args);
    const bool deferred = MeasureArguments(format, measure, bytes);
    va_end(measure);
    if (deferred) {
        unsigned char* p = Grow(1 + sizeof(const char*) + sizeof(uint32_t) + bytes);
        if (p == nullptr) {
            return false;
        }
        *p++ = kFormat;
        WriteValue(p, format);
        WriteValue(p, static_cast<uint32_t>(bytes));
        va_list write;
        va_copy(write, args);
        WriteArguments(format, write, p);
        va_end(write);
        return true;
    }
    // Formats whose arguments cannot wait are formatted now, on the caller's path,
    // as they always were; the result is kept as text.
    try {
        va_list now;
        va_copy(now, args);
        std::string text;
        try {
            text = LogUtils::FormatArgsToStdString(format, now);
        } catch (...) {
            va_end(now);
            return false;
        }
        va_end(now);
        AddText(text.data(), text.size());
        return !m_failed;
    } catch (...) {
        return false;
    }
}

void LogCapture::AddJoin() noexcept {
    unsigned char* p = Grow(1);
    if (p != nullptr) {
        *p = kJoin;
    }
}

void LogCapture::AddUnsigned(unsigned long long value) noexcept {
    unsigned char* p = Grow(1 + sizeof(uint64_t));
    if (p != nullptr) {
        *p++ = kUnsigned;
        WriteValue(p, static_cast<uint64_t>(value));
    }
}

void LogCapture::Append(const LogCapture& other) noexcept {
    if (other.m_failed) {
        m_failed = true;
        return;
    }
    unsigned char* p = Grow(other.m_size);
    if (p != nullptr && other.m_size != 0) {
        std::memcpy(p, other.Data(), other.m_size);
    }
}

void LogCapture::AddDump(const unsigned char* data, unsigned long size) noexcept {
    if (data == nullptr || size == 0) {
        return;
    }
    m_dump = data;
    m_dumpSize = size;
}

size_t LogCapture::Size() const noexcept {
    size_t size = m_size;
    if (m_dump != nullptr) {
        size += 1 + sizeof(uint64_t) + sizeof(uint32_t) + std::min(m_dumpSize, kDumpLimit);
    }
    return size;
}

void LogCapture::CopyTo(unsigned char* out) const noexcept {
    if (m_size != 0) {
        std::memcpy(out, Data(), m_size);
    }
    if (m_dump == nullptr) {
        return;
    }
    unsigned char* p = out + m_size;
    const uint32_t kept = static_cast<uint32_t>(std::min(m_dumpSize, kDumpLimit));
    *p++ = kDump;
    WriteValue(p, static_cast<uint64_t>(m_dumpSize));
    WriteValue(p, kept);
    std::memcpy(p, m_dump, kept);
}

// ---------------------------------------------------------------------------
// Rendering

void LogCapture::Render(std::string& out, const unsigned char* data, size_t size) {
    const unsigned char* p = data;
    const unsigned char* const end = data + size;
    size_t previousStart = out.size();
    bool joinPending = false;
    size_t joinAt = 0;
    bool beforeJoin = false;
    while (p < end) {
        const unsigned char kind = *p++;
        if (kind == kJoin) {
            joinPending = true;
            joinAt = out.size();
            beforeJoin = out.size() > previousStart;
            continue;
        }
        const size_t start = out.size();
        switch (kind) {
        case kLiteral:
            out.append(ReadValue<const char*>(p));
            break;
        case kText: {
            const uint32_t length = ReadValue<uint32_t>(p);
            out.append(reinterpret_cast<const char*>(p), length);
            p += length;
            break;
        }
        case kFormat: {
            const char* format = ReadValue<const char*>(p);
            const uint32_t bytes = ReadValue<uint32_t>(p);
            RenderFormat(out, format, p);
            p += bytes;
            break;
        }
        case kUnsigned:
            AppendUnsigned(out, ReadValue<uint64_t>(p));
            break;
        case kDump: {
            const uint64_t total = ReadValue<uint64_t>(p);
            const uint32_t kept = ReadValue<uint32_t>(p);
            RenderDump(out, p, kept, total);
            p += kept;
            break;
        }
        default:
            return; // not a capture: nothing more can be read safely
        }
        size_t partStart = start;
        if (joinPending) {
            if (beforeJoin && out.size() > start) {
                out.insert(joinAt, ", ");
                partStart += 2;
            }
            joinPending = false;
        }
        previousStart = partStart;
    }
}

} // namespace kt
