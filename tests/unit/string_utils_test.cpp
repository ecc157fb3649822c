// Text helpers: byte dumps, printf-style formatting, time and date stamps,
// error texts, ids and file names.

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>
#include <sys/syscall.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "log/LogUtils.h"
#include "log/StringUtils.h"
#include "log_TestSupport.h"

using kt::LogUtils;
using kt::StringUtils;

namespace {

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = LogUtils::FormatArgsToStdString(format, args);
    va_end(args);
    return text;
}

// Formats twice from one list: the helper must not consume the caller's list.
std::string FormatTwice(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = LogUtils::FormatArgsToStdString(format, args);
    text += "|";
    text += LogUtils::FormatArgsToStdString(format, args);
    va_end(args);
    return text;
}

kt::TimePoint At(long long seconds, long long micros) {
    return kt::TimePoint(std::chrono::nanoseconds(seconds * 1000000000LL + micros * 1000LL));
}

TEST(ByteTexts, EveryByteHasUpperCaseDigitsAfterLowerCasePrefix) {
    EXPECT_STREQ(StringUtils::ByteToHexString(0x00), "0x00");
    EXPECT_STREQ(StringUtils::ByteToHexString(0x0A), "0x0A");
    EXPECT_STREQ(StringUtils::ByteToHexString(0x7F), "0x7F");
    EXPECT_STREQ(StringUtils::ByteToHexString(0xFF), "0xFF");
    std::set<std::string> all;
    for (int b = 0; b < 256; ++b) {
        const char* text = StringUtils::ByteToHexString(static_cast<unsigned char>(b));
        ASSERT_EQ(std::string(text).size(), 4u);
        ASSERT_EQ(std::strtol(text, nullptr, 16), b);
        all.insert(text);
        // A fixed table: the same pointer on every call.
        ASSERT_EQ(text, StringUtils::ByteToHexString(static_cast<unsigned char>(b)));
    }
    EXPECT_EQ(all.size(), 256u);
}

TEST(ByteTexts, DumpsSeparateBytesWithoutLeadingOrTrailingSeparator) {
    const unsigned char three[] = {1, 2, 10};
    EXPECT_EQ(LogUtils::FormatByteArrayToHexString(three, 3), "0x01,0x02,0x0A");
    const unsigned char one[] = {0x7F};
    EXPECT_EQ(LogUtils::FormatByteArrayToHexString(one, 1), "0x7F");
    EXPECT_EQ(LogUtils::FormatByteArrayToHexString(nullptr, 5), "");
    EXPECT_EQ(LogUtils::FormatByteArrayToHexString(three, 0), "");

    const unsigned char ends[] = {0, 255};
    EXPECT_EQ(StringUtils::ByteArrayToHexString(ends, 2, ", "), "0x00, 0xFF");
    std::string target = "dump: ";
    StringUtils::ByteArrayToHexString(target, ends, 2, "");
    EXPECT_EQ(target, "dump: 0x000xFF");
    StringUtils::ByteArrayToHexString(target, ends, 0, ",");
    EXPECT_EQ(target, "dump: 0x000xFF");
}

TEST(Formatting, FollowsPrintfRulesToFullLength) {
    EXPECT_EQ(Format("pDdi=0x%p", reinterpret_cast<void*>(0x1234)), "pDdi=0x0x1234");
    EXPECT_EQ(Format("%s %d %05u %.3s", "a", -7, 42u, "abcdef"), "a -7 00042 abc");
    EXPECT_EQ(Format("%s", ""), "");
    const std::string big(100000, 'q');
    EXPECT_EQ(Format("[%s]", big.c_str()), "[" + big + "]");
    EXPECT_EQ(FormatTwice("%d-%s", 5, "x"), "5-x|5-x");
}

TEST(Formatting, TextEndsAtAnEmbeddedNul) {
    EXPECT_EQ(Format("ab%cde", 0), "ab");
}

TEST(Formatting, RejectedFormatRaisesLogicError) {
    // The C locale cannot encode this wide character, so the formatter fails.
    EXPECT_THROW(Format("%lc", static_cast<wint_t>(0x20AC)), std::logic_error);
}

// Time and date stamps use local time; the child fixes the time zone so the
// expected texts are exact.
TEST(Stamps, TimeAndDateInAFixedZone) {
    EXPECT_EQ(kt_test::RunInChild([] {
            setenv("TZ", "UTC", 1);
            tzset();
            // 2023-11-14 22:13:20 UTC
            const bool ok = LogUtils::GetTimeStamp(At(1700000000, 4817)) == "221320.004817" &&
                            LogUtils::GetTimeStamp(At(1700000000, 0)) == "221320.000000" &&
                            LogUtils::GetTimeStamp(At(1700000000, 999999)) == "221320.999999" &&
                            LogUtils::GetDateStamp(At(1700000000, 4817)) == "2023-11-14" &&
                            LogUtils::GetTimeStamp(At(0, 5)) == "000000.000005" &&
                            LogUtils::GetDateStamp(At(0, 0)) == "1970-01-01";
            setenv("TZ", "UTC-2", 1); // two hours east of UTC
            tzset();
            const bool shifted = LogUtils::GetTimeStamp(At(1700000000, 1)) == "001320.000001" &&
                                 LogUtils::GetDateStamp(At(1700000000, 1)) == "2023-11-15";
            return ok && shifted ? 0 : 1;
        }), 0);
}

TEST(SystemTexts, ErrorNumbersGiveTheCLibraryTextOnly) {
    EXPECT_EQ(LogUtils::GetErrorString(ENOENT), "No such file or directory");
    EXPECT_EQ(LogUtils::GetErrorString(ENOTTY), "Inappropriate ioctl for device");
    EXPECT_EQ(LogUtils::GetErrorString(123456), "Unknown error 123456");
}

TEST(SystemTexts, LoaderErrorIsReportedOnceThenUnknown) {
    LogUtils::GetDynLibErrorString(); // clear anything pending
    EXPECT_EQ(dlopen("/nonexistent/tavik_missing.x86_64.umd", RTLD_NOW), nullptr);
    const std::string first = LogUtils::GetDynLibErrorString();
    EXPECT_NE(first.find("/nonexistent/tavik_missing.x86_64.umd"), std::string::npos) << first;
    EXPECT_EQ(LogUtils::GetDynLibErrorString(), "Unknown error");
}

TEST(SystemTexts, ModuleNameByHandle) {
    EXPECT_EQ(LogUtils::GetLibFullFileNameByHandle(nullptr),
              "Failed to get library full name (invalid handle)");
    void* libm = dlopen("libm.so.6", RTLD_NOW);
    ASSERT_NE(libm, nullptr);
    const std::string name = LogUtils::GetLibFullFileNameByHandle(libm);
    EXPECT_NE(name.find("libm.so.6"), std::string::npos) << name;
    dlclose(libm);
}

TEST(SystemTexts, ExecutableAndLibraryNames) {
    char exe[PATH_MAX] = {};
    ASSERT_GT(readlink("/proc/self/exe", exe, sizeof(exe) - 1), 0);
    EXPECT_EQ(LogUtils::GetAppFullFileName(), exe);
    // Linked statically into this test, the library's code lives in the executable;
    // the loader names the main program as it was started.
    const std::string lib = LogUtils::GetLibFullFileName();
    const std::string tail = "tavik_unit_tests";
    ASSERT_GE(lib.size(), tail.size());
    EXPECT_EQ(lib.substr(lib.size() - tail.size()), tail) << lib;
    // Cached: later calls give the same text.
    EXPECT_EQ(LogUtils::GetAppFullFileName(), LogUtils::GetAppFullFileName());
}

TEST(SystemTexts, ConcurrentFirstCallsAgreeOnTheCachedNames) {
    EXPECT_EQ(kt_test::RunInChild([] {
            std::vector<std::thread> threads;
            std::vector<std::string> apps(8), libs(8);
            for (int i = 0; i < 8; ++i) {
                threads.emplace_back([&, i] {
                    apps[i] = LogUtils::GetAppFullFileName();
                    libs[i] = LogUtils::GetLibFullFileName();
                });
            }
            for (auto& t : threads) {
                t.join();
            }
            bool same = true;
            for (int i = 1; i < 8; ++i) {
                same = same && apps[i] == apps[0] && libs[i] == libs[0] && !apps[0].empty();
            }
            return same ? 0 : 1;
        }), 0);
}

TEST(SystemTexts, IdsAreTheKernelsProcessAndThreadIds) {
    EXPECT_EQ(LogUtils::GetCurrentProcessId(), static_cast<uint32_t>(getpid()));
    EXPECT_EQ(LogUtils::GetCurrentThreadId(), static_cast<uint32_t>(getpid())); // main thread
    uint32_t other = 0;
    uint32_t otherSys = 1;
    std::thread([&] {
        other = LogUtils::GetCurrentThreadId();
        otherSys = static_cast<uint32_t>(syscall(SYS_gettid));
    }).join();
    EXPECT_EQ(other, otherSys);
    EXPECT_NE(other, LogUtils::GetCurrentThreadId());
}

TEST(SystemTexts, IdsAreFreshInTheChildOfAFork) {
    // Prime whatever the parent may remember.
    const uint32_t parentPid = LogUtils::GetCurrentProcessId();
    const uint32_t parentTid = LogUtils::GetCurrentThreadId();
    EXPECT_EQ(kt_test::RunInChild([&] {
                  const bool fresh =
                      LogUtils::GetCurrentProcessId() == static_cast<uint32_t>(getpid()) &&
                      LogUtils::GetCurrentThreadId() == static_cast<uint32_t>(syscall(SYS_gettid)) &&
                      LogUtils::GetCurrentProcessId() != parentPid &&
                      LogUtils::GetCurrentThreadId() != parentTid;
                  return fresh ? 0 : 1;
              }),
              0);
    // A thread started in a child gets its own id too.
    EXPECT_EQ(kt_test::RunInChild([] {
                  uint32_t id = 0;
                  uint32_t sys = 1;
                  std::thread([&] {
                      id = LogUtils::GetCurrentThreadId();
                      sys = static_cast<uint32_t>(syscall(SYS_gettid));
                  }).join();
                  return id == sys ? 0 : 1;
              }),
              0);
}

} // namespace
