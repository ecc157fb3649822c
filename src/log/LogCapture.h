#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kt {

struct LogFormat;

// The message of one log entry as the calling thread captures it: copied texts,
// printf-style formats with copies of their arguments, and the raw bytes of a hex
// dump. The caller pays for copies only; the log's worker renders the text later
// (Render), with exactly the characters that formatting on the spot would have
// given. A "%s" argument is copied, because the caller's buffer may be gone by the
// time the worker formats. Nothing here throws: a capture that runs out of memory
// says so through Ok(), and its entry is not logged.
class LogCapture {
public:
    // Bytes of one dump that an entry keeps; the line names how many it left out.
    static constexpr unsigned long kDumpLimit = 64 * 1024;

    LogCapture() noexcept = default;
    ~LogCapture() {
        if (m_heap != nullptr) {
            Free();
        }
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Empties the capture; memory it grew into is kept for reuse.
    void Clear() noexcept;
    bool Ok() const noexcept { return !m_failed; }
    bool Empty() const noexcept { return m_size == 0 && m_dump == nullptr; }

    // A text of static storage duration, kept by its address.
    void AddLiteral(const char* text) noexcept;
    // A text copied now.
    void AddText(const char* text, size_t length) noexcept;
    // A printf-style format of static storage duration with its arguments. Formats
    // that cannot be deferred (wide characters, "%m", "%n", positional arguments)
    // are formatted on the spot. False, with nothing added, when the format cannot
    // be formatted at all.
    bool AddFormat(const char* format, va_list args) noexcept;
    // ", " between the parts before and after it, when both turn out non-empty.
    void AddJoin() noexcept;
    void AddUnsigned(unsigned long long value) noexcept;
    // Everything another capture holds (which must have no dump).
    void Append(const LogCapture& other) noexcept;
    // The bytes as "0x01,0x02,...", after every other part. Only the first
    // kDumpLimit bytes are kept. The bytes are copied once, into the entry, so
    // they must stay valid until CopyTo.
    void AddDump(const unsigned char* data, unsigned long size) noexcept;

    // Bytes the entry needs for this capture, and the copy into them.
    size_t Size() const noexcept;
    void CopyTo(unsigned char* out) const noexcept;

    // Appends the text of a capture copied by CopyTo.
    static void Render(std::string& out, const unsigned char* data, size_t size);

private:
    static constexpr size_t kInline = 192;

    // Room for more bytes at the end, null (and the capture failed) without memory.
    unsigned char* Grow(size_t more) noexcept {
        if (m_size + more <= m_capacity && !m_failed) {
            unsigned char* at = Data() + m_size;
            m_size += more;
            return at;
        }
        return GrowSlow(more);
    }
    unsigned char* GrowSlow(size_t more) noexcept;
    void Free() noexcept;
    bool AddParsed(const LogFormat& parsed, const LogFormat* shared, va_list args) noexcept;
    unsigned char* Data() noexcept { return m_heap != nullptr ? m_heap : m_inline; }
    const unsigned char* Data() const noexcept { return m_heap != nullptr ? m_heap : m_inline; }

    unsigned char* m_heap = nullptr;
    size_t m_size = 0;
    size_t m_capacity = kInline;
    bool m_failed = false;
    const unsigned char* m_dump = nullptr;
    unsigned long m_dumpSize = 0;
    unsigned char m_inline[kInline];
};

} // namespace kt
