#include "log/LogEntry.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "log/LogCapture.h"
#include "log/LogEntryPool.h"

namespace kt {

namespace {

constexpr size_t kDepthLevels = 32;
constexpr size_t kMaxIndentWidth = 60;

// Two blanks per depth; the last slot replaces indentation that would no longer
// fit with a marker of the same width, so deep traces stay aligned and visible.
struct IndentTable {
    std::array<std::array<char, kMaxIndentWidth + 1>, kDepthLevels> text{};
};

constexpr IndentTable BuildIndentTable() {
    IndentTable t{};
    for (size_t d = 0; d + 1 < kDepthLevels; ++d) {
        for (size_t i = 0; i < 2 * d; ++i) {
            t.text[d][i] = ' ';
        }
    }
    constexpr char kMarker[] = "-log-depth-limit-exceeded-";
    size_t i = 0;
    for (; kMarker[i] != '\0'; ++i) {
        t.text[kDepthLevels - 1][i] = kMarker[i];
    }
    for (; i < kMaxIndentWidth; ++i) {
        t.text[kDepthLevels - 1][i] = ' ';
    }
    return t;
}

constexpr IndentTable kIndent = BuildIndentTable();

char LevelChar(LogEntry::Level level) {
    static constexpr char kLetters[] = "EWIDT";
    const auto index = static_cast<uint32_t>(level);
    return index < 5 ? kLetters[index] : '?';
}

} // namespace

LogEntry::LogEntry(const char* category, Level level, uint16_t depth, std::string message)
    : LogEntry(category, level, depth, 0, nullptr) {
    m_message = std::move(message);
}

LogEntry::LogEntry(const char* category, Level level, uint16_t depth, size_t captureSize,
                   const TimePoint* time)
    : m_formattedMessage(),
      m_levelChar(LevelChar(level)),
      m_category(category != nullptr && category[0] != '\0' ? category : "???"),
      m_level(level),
      m_pid(LogUtils::GetCurrentProcessId()),
      m_tid(LogUtils::GetCurrentThreadId()),
      m_time(time != nullptr ? *time
                             : std::chrono::time_point_cast<std::chrono::nanoseconds>(
                                   std::chrono::system_clock::now())),
      m_depth(depth),
      m_message(),
      m_captureSize(captureSize) {}

LogEntry::LogEntry(const LogEntry& other)
    : m_formattedMessage(other.m_formattedMessage),
      m_levelChar(other.m_levelChar),
      m_category(other.m_category),
      m_level(other.m_level),
      m_pid(other.m_pid),
      m_tid(other.m_tid),
      m_time(other.m_time),
      m_depth(other.m_depth),
      m_message(other.m_message) {}

LogEntry& LogEntry::operator=(const LogEntry& other) {
    if (this != &other) {
        m_formattedMessage = other.m_formattedMessage;
        m_levelChar = other.m_levelChar;
        m_category = other.m_category;
        m_level = other.m_level;
        m_pid = other.m_pid;
        m_tid = other.m_tid;
        m_time = other.m_time;
        m_depth = other.m_depth;
        m_message = other.m_message;
        m_captureSize = 0;
    }
    return *this;
}

LogEntry* LogEntry::Create(const char* category, Level level, uint16_t depth,
                           const LogCapture& message, const TimePoint* time,
                           LogEntryPool* pool) noexcept {
    if (!message.Ok()) {
        return nullptr;
    }
    const size_t captureSize = message.Size();
    const size_t size = sizeof(LogEntry) + captureSize;
    LogEntryPool::SlotId slot = 0;
    void* memory = pool != nullptr ? pool->Allocate(size, &slot) : nullptr;
    if (memory == nullptr) {
        pool = nullptr;
        memory = std::malloc(size);
        if (memory == nullptr) {
            return nullptr;
        }
    }
    LogEntry* entry = nullptr;
    try {
        entry = new (memory) LogEntry(category, level, depth, captureSize, time);
    } catch (...) {
        // a long category that found no memory
        if (pool != nullptr) {
            pool->Release(slot);
        } else {
            std::free(memory);
        }
        return nullptr;
    }
    entry->m_pool = pool;
    entry->m_poolSlot = slot;
    message.CopyTo(reinterpret_cast<unsigned char*>(entry + 1));
    return entry;
}

void LogEntry::Destroy(LogEntry* entry) noexcept {
    if (entry == nullptr) {
        return;
    }
    LogEntryPool* pool = entry->m_pool;
    const LogEntryPool::SlotId slot = entry->m_poolSlot;
    entry->~LogEntry();
    if (pool != nullptr) {
        pool->Release(slot);
    } else {
        std::free(entry);
    }
}

void* LogEntry::operator new(std::size_t size) {
    if (void* p = std::malloc(size)) {
        return p;
    }
    throw std::bad_alloc();
}

void* LogEntry::operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return std::malloc(size);
}

void LogEntry::operator delete(void* p) noexcept {
    std::free(p);
}

void LogEntry::operator delete(void* p, const std::nothrow_t&) noexcept {
    std::free(p);
}

namespace {

constexpr size_t kHeaderCapacity = 102; // the header never exceeds 102 characters

struct DigitPairs {
    char text[200];
};

constexpr DigitPairs BuildDigitPairs() {
    DigitPairs t{};
    for (int i = 0; i < 100; ++i) {
        t.text[2 * i] = static_cast<char>('0' + i / 10);
        t.text[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return t;
}

constexpr DigitPairs kDigitPairs = BuildDigitPairs();

// Writes the decimal digits of value, zero-padded on the left to minWidth, at
// out; returns the position after the last digit. Two digits a step: every line
// carries three such numbers.
char* PutUnsigned(char* out, uint32_t value, int minWidth) {
    char digits[10];
    char* const end = digits + sizeof(digits);
    char* p = end;
    while (value >= 100) {
        const uint32_t pair = value % 100;
        value /= 100;
        p -= 2;
        std::memcpy(p, kDigitPairs.text + 2 * pair, 2);
    }
    if (value >= 10) {
        p -= 2;
        std::memcpy(p, kDigitPairs.text + 2 * value, 2);
    } else {
        *--p = static_cast<char>('0' + value);
    }
    const int n = static_cast<int>(end - p);
    for (int i = n; i < minWidth; ++i) {
        *out++ = '0';
    }
    std::memcpy(out, p, static_cast<size_t>(n));
    return out + n;
}

// The ids of one entry are nearly always those of the entry before: the worker
// keeps the last text of each (trivially destructible, like the time cache below).
struct IdText {
    uint32_t value;
    bool valid;
    uint8_t length;
    char text[12];
};

// In static TLS, like the trace depth (see Log.cpp): the worker must not die for
// want of memory on its first entry.
__attribute__((tls_model("initial-exec"))) thread_local IdText t_lastPid{0, false, 0, {}};
__attribute__((tls_model("initial-exec"))) thread_local IdText t_lastTid{0, false, 0, {}};

char* PutId(char* out, uint32_t value, IdText& cache) {
    if (!cache.valid || cache.value != value) {
        cache.length = static_cast<uint8_t>(PutUnsigned(cache.text, value, 5) - cache.text);
        cache.value = value;
        cache.valid = true;
    }
    std::memcpy(out, cache.text, cache.length);
    return out + cache.length;
}

// The worker formats every entry; breaking the same second into local time again
// and again is most of the cost of a time stamp, so each thread keeps the hours,
// minutes and seconds of the last second it saw. The cache is trivially
// destructible on purpose: a thread-local with a destructor registers it with the
// loader, which takes the loader's lock (a worker formatting its last entries
// while the library is being unloaded would wait on it forever) and pins the
// library in memory until the thread ends.
struct SecondText {
    long long second;
    bool valid;
    uint8_t length;
    char hms[16];
};

__attribute__((tls_model("initial-exec"))) thread_local SecondText t_lastSecond{0, false, 0, {}};

// Writes "HHMMSS.uuuuuu" at out; returns the position after it.
char* PutTimeStamp(char* out, const TimePoint& time) {
    const long long ns = time.time_since_epoch().count();
    const long long second = ns / 1000000000LL;
    if (!t_lastSecond.valid || t_lastSecond.second != second) {
        // GetTimeStamp gives "HHMMSS.uuuuuu"; only the part before the point is kept.
        const std::string stamp = LogUtils::GetTimeStamp(time);
        const size_t length = std::min<size_t>(stamp.find('.'), sizeof(t_lastSecond.hms));
        std::memcpy(t_lastSecond.hms, stamp.data(), length);
        t_lastSecond.length = static_cast<uint8_t>(length);
        t_lastSecond.second = second;
        t_lastSecond.valid = true;
    }
    const long long us = ns / 1000;
    const unsigned micros = static_cast<unsigned>(us - (us / 1000000) * 1000000);
    out = std::copy_n(t_lastSecond.hms, t_lastSecond.length, out);
    *out++ = '.';
    return PutUnsigned(out, micros, 6);
}

} // namespace

LogEntry& LogEntry::FormatMessage() {
    if (m_captureSize != 0) {
        m_message.clear();
        LogCapture::Render(m_message, Capture(), m_captureSize);
    }
    const char* indent = kIndent.text[m_depth < kDepthLevels ? m_depth : kDepthLevels - 1].data();
    // The header "[%s %.3s %05u:%05u %c] %s" (time stamp, category cut to three
    // characters, ids, level letter, indentation) is assembled by hand: it is the
    // hot part of the worker, and printf-style parsing would double its cost.
    char header[kHeaderCapacity + 64];
    char* p = header;
    *p++ = '[';
    p = PutTimeStamp(p, m_time);
    *p++ = ' ';
    p = std::copy_n(m_category.data(), std::min<size_t>(m_category.size(), 3), p);
    *p++ = ' ';
    p = PutId(p, m_pid, t_lastPid);
    *p++ = ':';
    p = PutId(p, m_tid, t_lastTid);
    *p++ = ' ';
    *p++ = m_levelChar;
    *p++ = ']';
    *p++ = ' ';
    const size_t indentLength = std::strlen(indent);
    const size_t headerLength =
        std::min<size_t>(static_cast<size_t>(p - header) + indentLength, kHeaderCapacity);
    const size_t fixedLength = static_cast<size_t>(p - header);
    m_formattedMessage.clear();
    m_formattedMessage.reserve(headerLength + m_message.size());
    m_formattedMessage.append(header, std::min(fixedLength, headerLength));
    if (headerLength > fixedLength) {
        m_formattedMessage.append(indent, headerLength - fixedLength);
    }
    // Every entry is one physical line: line feeds of the message become the raw
    // byte 0xB6, deliberately without any character-set encoding.
    const size_t start = m_formattedMessage.size();
    m_formattedMessage += m_message;
    for (size_t lf = m_formattedMessage.find('\n', start); lf != std::string::npos;
         lf = m_formattedMessage.find('\n', lf + 1)) {
        m_formattedMessage[lf] = static_cast<char>(0xB6);
    }
    return *this;
}

} // namespace kt
