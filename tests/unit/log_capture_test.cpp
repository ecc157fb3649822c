// Captured messages: the worker's text of every format with its captured
// arguments is the C library's printf text, a "%s" is copied when it is
// captured, and a dump keeps 64 KiB and names what it left out.

#include <gtest/gtest.h>

#include <cerrno>
#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <cwchar>
#include <memory>
#include <string>
#include <vector>

#include "log/Log.h"
#include "log/LogCapture.h"
#include "log/LogFn.h"
#include "log/LogUtils.h"
#include "log/StringUtils.h"
#include "log_TestSupport.h"

using kt::LogCapture;

namespace {

std::string Render(const LogCapture& capture) {
    std::vector<unsigned char> entry(capture.Size());
    capture.CopyTo(entry.data());
    std::string text;
    LogCapture::Render(text, entry.data(), entry.size());
    return text;
}

std::string Rendered(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Rendered(const char* format, ...) {
    LogCapture capture;
    va_list args;
    va_start(args, format);
    const bool captured = capture.AddFormat(format, args);
    va_end(args);
    return captured ? Render(capture) : std::string("<not captured>");
}

std::string Printed(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Printed(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = kt::LogUtils::FormatArgsToStdString(format, args);
    va_end(args);
    return text;
}

#define EXPECT_AS_PRINTF(...) EXPECT_EQ(Rendered(__VA_ARGS__), Printed(__VA_ARGS__)) << #__VA_ARGS__

TEST(LogCaptureText, IntegersOfEveryLengthAndBase) {
    EXPECT_AS_PRINTF("%d %i %u %x %X %o", -42, INT_MIN, UINT_MAX, 0xBEEFu, 0xBEEFu, 8u);
    EXPECT_AS_PRINTF("%d|%u|%x", 0, 0u, 0u);
    EXPECT_AS_PRINTF("%ld %lu %lld %llu", LONG_MIN, ULONG_MAX, LLONG_MIN, ULLONG_MAX);
    EXPECT_AS_PRINTF("%zu %zd %jd %td %lx %llX", static_cast<size_t>(-1), static_cast<ssize_t>(-7),
                     static_cast<intmax_t>(INT64_MIN), static_cast<ptrdiff_t>(-3), 0xFFFFFFFFFFul,
                     0xABCull);
    EXPECT_AS_PRINTF("%hd %hu %hhd %hhu", 70000, 70000, 300, 300);
}

TEST(LogCaptureText, ZeroPaddingFlagsWidthsAndPrecisions) {
    EXPECT_AS_PRINTF("%06d %06d %08x %08X %05u %010lld %02x", -42, 42, 0x3D01u, 0xABu, 7u,
                     -1234567LL, 0x1FFu);
    EXPECT_AS_PRINTF("%+d|% d|%#x|%#o|%-6d|%6d|%.3d|%-6u|", 5, 5, 255u, 8u, -3, -3, 7, 9u);
    EXPECT_AS_PRINTF("%*d|%*d|%.*d|%*.*u", 6, 42, -6, 42, 4, 3, 8, 3, 9u);
    EXPECT_AS_PRINTF("%-8s|%8.3s|%.*s|%.*s|%*s", "left", "precision", 3, "abcdef", -1, "all", -5,
                     "x");
    EXPECT_AS_PRINTF("%5c|%-5c|%c%c", 'a', 'b', 'c', 'd');
    EXPECT_AS_PRINTF("%p %p %18p %-18p|", static_cast<void*>(nullptr), reinterpret_cast<void*>(0x1234),
                     reinterpret_cast<void*>(0xdeadbeef), static_cast<void*>(nullptr));
    EXPECT_AS_PRINTF("%%|%5.1f%%|100%%", 99.5);
}

TEST(LogCaptureText, FloatingPoint) {
    EXPECT_AS_PRINTF("%f %.2f %e %E %g %G %a", 3.14159, -2.005, 12345.678, 1e-10, 0.0001, 1e20, 1.0);
    EXPECT_AS_PRINTF("%Lf %.3Le %10.4f %-10.1f|", 1.5L, -2.25L, 2.5, 7.0);
}

TEST(LogCaptureText, StringsNullOnesAndUnterminatedOnesWithAPrecision) {
    // The compiler is not to see that the pointer is null.
    static const char* volatile null = nullptr;
    EXPECT_AS_PRINTF("'%s' '%s' '%.3s' '%10s'", "", null, null, null);
    // Only as many bytes as the precision allows are read (the sanitizers watch).
    const char exact[2] = {'o', 'k'};
    EXPECT_AS_PRINTF("%.2s|%.*s|%.0s|%.*s", exact, 2, exact, exact, 0, exact);
}

TEST(LogCaptureText, ACharacterZeroEndsThePartLikeACString) {
    EXPECT_AS_PRINTF("a%cb", 0);
    EXPECT_AS_PRINTF("%3c|%d", 0, 5);
    EXPECT_EQ(Rendered("x%cy", 0), "x");
}

TEST(LogCaptureText, FormatsThatCannotWaitAreFormattedAtOnce) {
    EXPECT_AS_PRINTF("%ls|%lc", L"wide", static_cast<wint_t>(L'w'));
    EXPECT_AS_PRINTF("%2$s %1$s", "world", "hello");
    errno = ENOENT;
    const std::string now = Rendered("%m");
    errno = 0;
    EXPECT_EQ(now, std::strerror(ENOENT));
    EXPECT_AS_PRINTF("%d %d %d %d %d %d %d %d %d %d %d %d %d %d", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11,
                     12, 13, 14);
    EXPECT_EQ(Rendered("%lc", static_cast<wint_t>(0x20AC)), "<not captured>")
        << "a character the C locale cannot write fails as printf does";
}

bool AddFormat(LogCapture& capture, const char* format, ...) __attribute__((format(printf, 2, 3)));
bool AddFormat(LogCapture& capture, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const bool captured = capture.AddFormat(format, args);
    va_end(args);
    return captured;
}

TEST(LogCaptureText, AStringIsCopiedWhenCapturedNotWhenRendered) {
    char buffer[16];
    std::strcpy(buffer, "before");
    LogCapture capture;
    ASSERT_TRUE(AddFormat(capture, "[%s|%d]", buffer, 1));
    std::strcpy(buffer, "after!");
    EXPECT_EQ(Render(capture), "[before|1]");
}

TEST(LogCaptureText, TextLiteralsNumbersAndJoins) {
    LogCapture capture;
    capture.AddLiteral("lit ");
    capture.AddText("text", 4);
    capture.AddJoin();
    capture.AddUnsigned(18446744073709551615ull);
    capture.AddJoin();
    capture.AddText("", 0);
    EXPECT_EQ(Render(capture), "lit text, 18446744073709551615");
}

TEST(LogCaptureDump, BytesUpToTheLimitAndTheCountLeftOut) {
    for (size_t size : {size_t{1}, size_t{3}, size_t{LogCapture::kDumpLimit},
                        size_t{LogCapture::kDumpLimit + 1}, size_t{LogCapture::kDumpLimit + 4464}}) {
        std::vector<unsigned char> bytes(size);
        for (size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = static_cast<unsigned char>(i * 7);
        }
        LogCapture capture;
        capture.AddLiteral("dump: ");
        capture.AddDump(bytes.data(), bytes.size());
        const size_t kept = std::min<size_t>(size, LogCapture::kDumpLimit);
        const std::string note =
            size > kept ? " (" + std::to_string(size - kept) + " bytes left out)" : "";
        // The bytes that are kept read exactly as the caller's own dump would.
        EXPECT_EQ(Render(capture),
                  "dump: " + kt::StringUtils::ByteArrayToHexString(bytes.data(), kept, ",") + note)
            << size;
        EXPECT_LE(capture.Size(), 64u + LogCapture::kDumpLimit) << "an entry's memory is bounded";
    }
    LogCapture none;
    none.AddLiteral("x");
    none.AddDump(nullptr, 5);
    none.AddDump(reinterpret_cast<const unsigned char*>("ab"), 0);
    EXPECT_EQ(Render(none), "x");
}

TEST(LogCaptureDump, ATracedDumpReachesTheListenerAsOneLine) {
    auto log = std::make_shared<kt::Log>(kt::LogEntry::Debug); // no enter and return lines
    auto listener = std::make_shared<kt_test::RecordingListener>();
    ASSERT_TRUE(log->AddListener(std::static_pointer_cast<kt::ILogListener>(listener)));
    std::vector<unsigned char> frame(LogCapture::kDumpLimit + 10, 0x0A);
    {
        kt::LogFn fn(log, "DDI", "f");
        fn.LogDumpMessage(kt::LogEntry::Debug, frame.data(), frame.size(), "Read %u bytes: ",
                          static_cast<unsigned>(frame.size()));
        // The caller's buffer may change at once: the entry has its own copy.
        std::fill(frame.begin(), frame.end(), 0xFF);
    }
    log->Flush(0);
    const auto lines = listener->Lines();
    ASSERT_EQ(lines.size(), 1u);
    const std::string& m = lines[0].message;
    EXPECT_EQ(m.rfind("f: Read 65546 bytes: 0x0A,0x0A,", 0), 0u) << m.substr(0, 60);
    const std::string tail = "0x0A,0x0A (10 bytes left out)";
    EXPECT_EQ(m.substr(m.size() - tail.size()), tail);
    EXPECT_EQ(m.find("0xFF"), std::string::npos);
    EXPECT_EQ(lines[0].formatted.find('\n'), std::string::npos);
}

} // namespace
