#include "log/LogCapture.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log/LogFormat.h"
#include "log/LogUtils.h"
#include "log/StringUtils.h"

namespace kt {

namespace {

// A capture is a run of parts, each a kind byte and its data; numbers are stored
// unaligned and read back with memcpy.
enum PartKind : unsigned char {
    kLiteral = 1,  // address of a static text
    kText = 2,     // length, bytes
    kFormat = 3,   // the parsed format (or null), the format, length of the arguments, the arguments
    kJoin = 4,     // ", " when the parts on both sides are non-empty
    kUnsigned = 5, // 64-bit value in decimal
    kDump = 6,     // total size, kept size, kept bytes
};

constexpr uint32_t kNullString = 0xFFFFFFFFu;

template <class T>
T ReadValue(const unsigned char*& p) {
    T value;
    std::memcpy(&value, p, sizeof(T));
    p += sizeof(T);
    return value;
}

template <class T>
void WriteValue(unsigned char* p, T value) {
    std::memcpy(p, &value, sizeof(T));
}

// ---------------------------------------------------------------------------
// Rendering

// What rendering writes to: small pieces gather in a buffer on the stack and
// reach the string in few appends. The owner flushes before it returns: a
// destructor may not throw, and an append that finds no memory has to reach the
// worker, which drops the entry rather than deliver half of it.
class TextOut {
public:
    explicit TextOut(std::string& text) : m_text(text) {}
    TextOut(const TextOut&) = delete;
    TextOut& operator=(const TextOut&) = delete;

    void Put(const char* data, size_t length) {
        if (m_used + length > sizeof(m_buffer)) {
            Flush();
            if (length > sizeof(m_buffer)) {
                m_text.append(data, length);
                return;
            }
        }
        std::memcpy(m_buffer + m_used, data, length);
        m_used += length;
    }
    void Put(const char* text) { Put(text, std::strlen(text)); }
    void Put(char c) {
        if (m_used == sizeof(m_buffer)) {
            Flush();
        }
        m_buffer[m_used++] = c;
    }
    void Fill(char c, size_t count) {
        while (count-- > 0) {
            Put(c);
        }
    }
    size_t Size() const { return m_text.size() + m_used; }
    // The text so far, complete, for writing into it directly.
    std::string& Text() {
        Flush();
        return m_text;
    }
    void Flush() {
        if (m_used != 0) {
            m_text.append(m_buffer, m_used);
            m_used = 0;
        }
    }

private:
    std::string& m_text;
    size_t m_used = 0;
    char m_buffer[384];
};

char* PutDecimal(char* end, unsigned long long value) {
    do {
        *--end = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    return end;
}

// Appends sign and digits, with zeros between them up to width characters, as
// printf's "%0<width>" does.
void AppendPadded(TextOut& out, bool negative, const char* digits, size_t count,
                  size_t width) {
    const size_t length = count + (negative ? 1 : 0);
    if (negative) {
        out.Put('-');
    }
    if (width > length) {
        out.Fill('0', width - length);
    }
    out.Put(digits, count);
}

void AppendUnsigned(TextOut& out, unsigned long long value, size_t width = 0) {
    char digits[24];
    char* end = digits + sizeof(digits);
    const char* begin = PutDecimal(end, value);
    AppendPadded(out, false, begin, static_cast<size_t>(end - begin), width);
}

void AppendSigned(TextOut& out, long long value, size_t width) {
    char digits[24];
    char* end = digits + sizeof(digits);
    const unsigned long long magnitude =
        value < 0 ? 0ULL - static_cast<unsigned long long>(value) : static_cast<unsigned long long>(value);
    const char* begin = PutDecimal(end, magnitude);
    AppendPadded(out, value < 0, begin, static_cast<size_t>(end - begin), width);
}

void AppendHex(TextOut& out, unsigned long long value, bool upper, bool prefix,
               size_t width = 0) {
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
    AppendPadded(out, false, p, static_cast<size_t>(end - p), width);
}

// One conversion through the C library, for everything with flags, a width or a
// precision: the same printf that formatting on the spot would have used. Returns
// false when the text it produced holds a NUL (only "%c" can), after appending
// what came before it: the rest of the part is then cut, as a C string would be.
template <class T>
bool AppendFormatted(TextOut& out, const char* conversion, int stars, const int* star, T value) {
    char buffer[256];
    int n = -1;
    switch (stars) {
    case 0:
        n = std::snprintf(buffer, sizeof(buffer), conversion, value);
        break;
    case 1:
        n = std::snprintf(buffer, sizeof(buffer), conversion, star[0], value);
        break;
    default:
        n = std::snprintf(buffer, sizeof(buffer), conversion, star[0], star[1], value);
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
            std::snprintf(&large[0], large.size(), conversion, value);
            break;
        case 1:
            std::snprintf(&large[0], large.size(), conversion, star[0], value);
            break;
        default:
            std::snprintf(&large[0], large.size(), conversion, star[0], star[1], value);
            break;
        }
        text = large.data();
    }
    const size_t length = static_cast<size_t>(n);
    const void* nul = std::memchr(text, '\0', length);
    if (nul != nullptr) {
        out.Put(text, static_cast<size_t>(static_cast<const char*>(nul) - text));
        return false;
    }
    out.Put(text, length);
    return true;
}

// Renders one parsed format with its captured arguments; false when a NUL cut
// it short.
bool RenderFormat(TextOut& out, const LogFormat& parsed, const unsigned char* args) {
    const char* const format = parsed.format;
    for (uint8_t i = 0; i < parsed.count; ++i) {
        const LogFormat::Conversion& c = parsed.conversions[i];
        out.Put(format + c.literalBegin, c.literalLength);
        int star[2] = {0, 0};
        for (uint8_t k = 0; k < c.stars; ++k) {
            star[k] = ReadValue<int>(args);
        }
        long long integer = 0;
        const char* text = nullptr;
        uint32_t textLength = 0;
        void* pointer = nullptr;
        double real = 0;
        long double longReal = 0;
        switch (c.arg) {
        case LogFormat::kNoArg:
            break;
        case LogFormat::kInt:
            integer = ReadValue<int>(args);
            break;
        case LogFormat::kWide:
            integer = ReadValue<long long>(args);
            break;
        case LogFormat::kDouble:
            real = ReadValue<double>(args);
            break;
        case LogFormat::kLongDouble:
            longReal = ReadValue<long double>(args);
            break;
        case LogFormat::kPointer:
            pointer = ReadValue<void*>(args);
            break;
        case LogFormat::kString:
            textLength = ReadValue<uint32_t>(args);
            if (textLength != kNullString) {
                text = reinterpret_cast<const char*>(args);
                args += textLength + 1;
            }
            break;
        }
        const bool wide = c.arg == LogFormat::kWide;
        switch (c.print) {
        case LogFormat::kPercent:
            out.Put('%');
            break;
        case LogFormat::kSigned:
            AppendSigned(out, integer, c.zeroPad);
            break;
        case LogFormat::kUnsigned:
            AppendUnsigned(out,
                           wide ? static_cast<unsigned long long>(integer)
                                : static_cast<unsigned int>(integer),
                           c.zeroPad);
            break;
        case LogFormat::kHexLower:
        case LogFormat::kHexUpper:
            AppendHex(out,
                      wide ? static_cast<unsigned long long>(integer)
                           : static_cast<unsigned int>(integer),
                      c.print == LogFormat::kHexUpper, false, c.zeroPad);
            break;
        case LogFormat::kChar:
            if (static_cast<char>(integer) == '\0') {
                return false;
            }
            out.Put(static_cast<char>(integer));
            break;
        case LogFormat::kText:
            if (text == nullptr) {
                out.Put("(null)", 6);
            } else {
                out.Put(text, textLength);
            }
            break;
        case LogFormat::kAddress:
            if (pointer == nullptr) {
                out.Put("(nil)", 5);
            } else {
                AppendHex(out, reinterpret_cast<uintptr_t>(pointer), false, true);
            }
            break;
        case LogFormat::kLibrary: {
            char conversion[LogFormat::kMaxConversionLength + 1];
            std::memcpy(conversion, format + c.conversionBegin, c.conversionLength);
            conversion[c.conversionLength] = '\0';
            bool whole = true;
            switch (c.arg) {
            case LogFormat::kInt:
                whole = AppendFormatted(out, conversion, c.stars, star, static_cast<int>(integer));
                break;
            case LogFormat::kWide:
                whole = AppendFormatted(out, conversion, c.stars, star, integer);
                break;
            case LogFormat::kDouble:
                whole = AppendFormatted(out, conversion, c.stars, star, real);
                break;
            case LogFormat::kLongDouble:
                whole = AppendFormatted(out, conversion, c.stars, star, longReal);
                break;
            case LogFormat::kPointer:
                whole = AppendFormatted(out, conversion, c.stars, star, pointer);
                break;
            case LogFormat::kString:
                whole = AppendFormatted(out, conversion, c.stars, star, text);
                break;
            case LogFormat::kNoArg:
                break;
            }
            if (!whole) {
                return false;
            }
            break;
        }
        }
    }
    out.Put(format + parsed.tailBegin, parsed.tailLength);
    return true;
}

void RenderDump(TextOut& out, const unsigned char* bytes, uint32_t kept, uint64_t total) {
    if (kept != 0) {
        std::string& text = out.Text();
        const size_t start = text.size();
        text.resize(start + 5 * static_cast<size_t>(kept) - 1);
        char* p = &text[start];
        std::memcpy(p, StringUtils::ByteToHexString(bytes[0]), 4);
        p += 4;
        for (uint32_t i = 1; i < kept; ++i) {
            *p++ = ',';
            std::memcpy(p, StringUtils::ByteToHexString(bytes[i]), 4);
            p += 4;
        }
    }
    if (total > kept) {
        out.Put(" (", 2);
        AppendUnsigned(out, total - kept);
        out.Put(" bytes left out)");
    }
}

} // namespace

// ---------------------------------------------------------------------------
// Capture

void LogCapture::Clear() noexcept {
    m_size = 0;
    m_failed = false;
    m_dump = nullptr;
    m_dumpSize = 0;
}

void LogCapture::Free() noexcept {
    std::free(m_heap);
    m_heap = nullptr;
}

unsigned char* LogCapture::GrowSlow(size_t more) noexcept {
    if (m_failed) {
        return nullptr;
    }
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
    unsigned char* at = m_heap + m_size;
    m_size += more;
    return at;
}

void LogCapture::AddLiteral(const char* text) noexcept {
    unsigned char* p = Grow(1 + sizeof(const char*));
    if (p != nullptr) {
        *p = kLiteral;
        WriteValue(p + 1, text);
    }
}

void LogCapture::AddText(const char* text, size_t length) noexcept {
    unsigned char* p = Grow(1 + sizeof(uint32_t) + length);
    if (p != nullptr) {
        *p = kText;
        WriteValue(p + 1, static_cast<uint32_t>(length));
        std::memcpy(p + 1 + sizeof(uint32_t), text, length);
    }
}

bool LogCapture::AddFormat(const char* format, va_list args) noexcept {
    if (format == nullptr) {
        return false;
    }
    const LogFormat* shared = LogFormat::Find(format);
    if (shared != nullptr) {
        return AddParsed(*shared, shared, args);
    }
    LogFormat local;
    if (LogFormat::Parse(format, local)) {
        return AddParsed(local, nullptr, args);
    }
    // Formats whose arguments cannot wait are formatted now, on the caller's path,
    // as they always were; the result is kept as text.
    va_list now;
    va_copy(now, args);
    bool formatted = false;
    try {
        const std::string text = LogUtils::FormatArgsToStdString(format, now);
        AddText(text.data(), text.size());
        formatted = !m_failed;
    } catch (...) {
        formatted = false;
    }
    va_end(now);
    return formatted;
}

// One pass over the arguments: each value goes straight into the capture, and a
// "%s" text is measured once and copied once.
bool LogCapture::AddParsed(const LogFormat& parsed, const LogFormat* shared, va_list args) noexcept {
    const size_t start = m_size;
    constexpr size_t kHeader = 1 + sizeof(const LogFormat*) + sizeof(const char*) + sizeof(uint32_t);
    unsigned char* header = Grow(kHeader);
    if (header == nullptr) {
        return false;
    }
    header[0] = kFormat;
    WriteValue(header + 1, shared);
    WriteValue(header + 1 + sizeof(const LogFormat*), parsed.format);
    va_list work;
    va_copy(work, args);
    // A failed Grow marks the whole capture failed; nothing more is written then.
    const auto put = [this](auto value) {
        if (unsigned char* p = Grow(sizeof value)) {
            WriteValue(p, value);
        }
    };
    for (uint8_t i = 0; i < parsed.count; ++i) {
        const LogFormat::Conversion& c = parsed.conversions[i];
        int32_t precision = c.precision;
        for (uint8_t k = 0; k < c.stars; ++k) {
            const int star = va_arg(work, int);
            if (c.starPrecision && k + 1 == c.stars) {
                precision = star;
            }
            put(star);
        }
        switch (c.arg) {
        case LogFormat::kNoArg:
            break;
        case LogFormat::kInt:
            put(va_arg(work, int));
            break;
        case LogFormat::kWide:
            put(va_arg(work, long long));
            break;
        case LogFormat::kDouble:
            put(va_arg(work, double));
            break;
        case LogFormat::kLongDouble:
            put(va_arg(work, long double));
            break;
        case LogFormat::kPointer:
            put(va_arg(work, void*));
            break;
        case LogFormat::kString: {
            const char* text = va_arg(work, const char*);
            if (text == nullptr) {
                put(kNullString);
                break;
            }
            const size_t length = precision >= 0 ? strnlen(text, static_cast<size_t>(precision))
                                                 : std::strlen(text);
            if (unsigned char* p = Grow(sizeof(uint32_t) + length + 1)) {
                WriteValue(p, static_cast<uint32_t>(length));
                std::memcpy(p + sizeof(uint32_t), text, length);
                p[sizeof(uint32_t) + length] = '\0';
            }
            break;
        }
        }
    }
    va_end(work);
    if (m_failed) {
        m_size = start;
        return false;
    }
    const auto bytes = static_cast<uint32_t>(m_size - start - kHeader);
    WriteValue(Data() + start + 1 + sizeof(const LogFormat*) + sizeof(const char*), bytes);
    return true;
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
        *p = kUnsigned;
        WriteValue(p + 1, static_cast<uint64_t>(value));
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
    *p = kDump;
    WriteValue(p + 1, static_cast<uint64_t>(m_dumpSize));
    WriteValue(p + 1 + sizeof(uint64_t), kept);
    std::memcpy(p + 1 + sizeof(uint64_t) + sizeof(uint32_t), m_dump, kept);
}

// ---------------------------------------------------------------------------
// Rendering

void LogCapture::Render(std::string& text, const unsigned char* data, size_t size) {
    TextOut out(text);
    const unsigned char* p = data;
    const unsigned char* const end = data + size;
    size_t previousStart = out.Size();
    bool joinPending = false;
    size_t joinAt = 0;
    bool beforeJoin = false;
    while (p < end) {
        const unsigned char kind = *p++;
        if (kind == kJoin) {
            joinPending = true;
            joinAt = out.Size();
            beforeJoin = out.Size() > previousStart;
            continue;
        }
        const size_t start = out.Size();
        switch (kind) {
        case kLiteral:
            out.Put(ReadValue<const char*>(p));
            break;
        case kText: {
            const uint32_t length = ReadValue<uint32_t>(p);
            out.Put(reinterpret_cast<const char*>(p), length);
            p += length;
            break;
        }
        case kFormat: {
            const LogFormat* shared = ReadValue<const LogFormat*>(p);
            const char* format = ReadValue<const char*>(p);
            const uint32_t bytes = ReadValue<uint32_t>(p);
            if (shared != nullptr) {
                RenderFormat(out, *shared, p);
            } else {
                LogFormat local;
                if (LogFormat::Parse(format, local)) {
                    RenderFormat(out, local, p);
                }
            }
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
            out.Flush();
            return; // not a capture: nothing more can be read safely
        }
        size_t partStart = start;
        if (joinPending) {
            if (beforeJoin && out.Size() > start) {
                out.Text().insert(joinAt, ", ");
                partStart += 2;
            }
            joinPending = false;
        }
        previousStart = partStart;
    }
    out.Flush();
}

} // namespace kt
