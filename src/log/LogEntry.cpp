#include "log/LogEntry.h"

#include <array>
#include <cstdio>
#include <utility>

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
    : m_formattedMessage(),
      m_levelChar(LevelChar(level)),
      m_category(category != nullptr && category[0] != '\0' ? category : "???"),
      m_level(level),
      m_pid(LogUtils::GetCurrentProcessId()),
      m_tid(LogUtils::GetCurrentThreadId()),
      m_time(std::chrono::time_point_cast<std::chrono::nanoseconds>(
          std::chrono::system_clock::now())),
      m_depth(depth),
      m_message(std::move(message)) {}

LogEntry& LogEntry::FormatMessage() {
    const char* indent = kIndent.text[m_depth < kDepthLevels ? m_depth : kDepthLevels - 1].data();
    const std::string stamp = LogUtils::GetTimeStamp(m_time);
    char header[103];
    int n = std::snprintf(header, sizeof(header), "[%s %.3s %05u:%05u %c] %s", stamp.c_str(),
                          m_category.c_str(), static_cast<unsigned>(m_pid),
                          static_cast<unsigned>(m_tid), m_levelChar, indent);
    if (n < 0) {
        n = 0;
    } else if (static_cast<size_t>(n) >= sizeof(header)) {
        n = sizeof(header) - 1;
    }
    m_formattedMessage.clear();
    m_formattedMessage.reserve(static_cast<size_t>(n) + m_message.size());
    m_formattedMessage.append(header, static_cast<size_t>(n));
    // Every entry is one physical line: line feeds of the message become the raw
    // byte 0xB6, deliberately without any character-set encoding.
    const size_t start = m_formattedMessage.size();
    m_formattedMessage.append(m_message);
    for (size_t i = start; i < m_formattedMessage.size(); ++i) {
        if (m_formattedMessage[i] == '\n') {
            m_formattedMessage[i] = static_cast<char>(0xB6);
        }
    }
    return *this;
}

} // namespace kt
