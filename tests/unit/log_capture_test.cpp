// What only capture and rendering can get wrong, and neither a call of the library nor the
// fuzzer reaches: formats whose arguments cannot wait, a "%s" copied before the caller's buffer
// changes, and a dump above the limit kept in part with the count it left out.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "log/LogFn.h"
#include "log/StringUtils.h"
#include "unit_support.h"

using kt::LogCapture;
using kt::LogEntry;
using ut::Strings;

namespace {

struct Texts { std::string format, rendered, printed; };
Texts Both(const char* format, ...) __attribute__((format(printf, 1, 2)));
Texts Both(const char* format, ...) {
    va_list a, b;
    va_start(a, format), va_copy(b, a);
    Texts t{format, "<not captured>", kt::LogUtils::FormatArgsToStdString(format, b)};
    if (LogCapture c; c.AddFormat(format, a)) {
        std::vector<unsigned char> entry(c.Size());
        c.CopyTo(entry.data()), t.rendered.clear(), LogCapture::Render(t.rendered, entry.data(), entry.size());
    }
    return va_end(a), va_end(b), t;
}

// The fuzzer's formats are all ones that wait for the worker; these are formatted at capture.
TEST(LogCapture, FormatsThatCannotWaitReadAsPrintfNow) {
    errno = ENOENT;
    for (const Texts& t : {Both("%ls", L"wide"), Both("%2$s %1$s", "world", "hello"), Both("%m"),
             Both("%d %d %d %d %d %d %d %d %d %d %d %d %d", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13)}) {
        EXPECT_EQ(t.rendered, t.printed) << t.format;
    }
}

TEST(LogCapture, TextsAndDumpsAreTheCallersAsTheyWereAndADumpKeepsTheLimit) {
    static_assert(LogCapture::kDumpLimit >= 64 * 1024);
    const auto rec = std::make_shared<ut::Recorder>();
    const auto log = std::make_shared<kt::Log>(LogEntry::Debug); // no enter and return lines
    ASSERT_TRUE(log->AddListener(rec));
    const size_t sizes[] = {1, LogCapture::kDumpLimit + 1};
    Strings expected;
    for (const size_t size : sizes) {
        std::vector<unsigned char> bytes(size);
        for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i * 7 + 10);
        char text[] = "before";
        const char two[2] = {'o', 'k'}; // unterminated: only the precision may be read
        {
            kt::LogFn fn(log, "DDI", "f");
            fn.LogDumpMessage(LogEntry::Debug, bytes.data(), size, "[%s|%.3s|%.2s|%.0s] ", text, text, two, two);
            std::fill(bytes.begin(), bytes.end(), 0xFF), std::strcpy(text, "AFTER"); // the entry has its own copy
        }
        const size_t kept = std::min<size_t>(size, LogCapture::kDumpLimit);
        for (size_t i = 0; i < kept; ++i) bytes[i] = static_cast<unsigned char>(i * 7 + 10);
        expected.push_back("f: [before|bef|ok|] " + kt::StringUtils::ByteArrayToHexString(bytes.data(), kept, ",") +
                           (size > kept ? " (" + std::to_string(size - kept) + " bytes left out)" : ""));
        LogCapture capture;
        capture.AddDump(bytes.data(), size);
        EXPECT_LE(capture.Size(), LogCapture::kDumpLimit + 64) << "an entry's memory is bounded";
    }
    EXPECT_EQ(log->Flush(10000), 0u);
    Strings messages;
    for (const LogEntry& e : rec->Lines()) messages.push_back(e.m_message);
    EXPECT_EQ(messages, expected);
}

} // namespace
