// The library's log set-up, end to end: a child process sets the environment,
// loads the shipped library as the core does, maybe calls one entry point,
// unloads it, and the parent reads the log file line by line.

#include <gtest/gtest.h>

#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <tavik/tavik_ddi.h>

#include "support/ThreadCount.h"

namespace {

const char* const kLibrary = TAVIK_DDI_LIBRARY_PATH;
const std::string kSeparator = "[" + std::string(62, '=') + "]";

enum ChildCode {
    kOk = 0,
    kLoadFailed = 10,
    kWorkerDuringLoad = 11,
    kNoEntryPoint = 12,
    kUnloadFailed = 13,
    kStillLoaded = 14,
    kThreadLeft = 15,
    kDescriptorLeft = 16,
};

size_t CountEntries(const char* path) {
    size_t n = 0;
    if (DIR* d = opendir(path)) {
        while (dirent* e = readdir(d)) {
            n += e->d_name[0] != '.' ? 1 : 0;
        }
        closedir(d);
    }
    return n;
}

struct LoadRun {
    const char* logFile = nullptr;  // null: unset
    const char* logLevel = nullptr; // null: unset
    bool callVersion = false;
    const char* workDir = nullptr;
};

// Loads and unloads the library once in a child; returns a ChildCode.
int LoadOnce(const LoadRun& run) {
    const pid_t pid = fork();
    if (pid == 0) {
        // A hang at unload (the worker and the loader waiting on each other) ends
        // the child with SIGALRM instead of stalling the suite.
        alarm(30);
        if (run.workDir != nullptr && chdir(run.workDir) != 0) {
            _exit(90);
        }
        run.logFile ? setenv("TAVIK_DDI_LOG_FILE", run.logFile, 1) : unsetenv("TAVIK_DDI_LOG_FILE");
        run.logLevel ? setenv("TAVIK_DDI_LOG_LEVEL", run.logLevel, 1)
                     : unsetenv("TAVIK_DDI_LOG_LEVEL");
        // Counted after a first thread came and went, so that any runtime helper
        // thread (a sanitizer's, for one) is already in the baseline.
        const size_t threads = tavik_test::CountThreadsSettled();
        const size_t fds = CountEntries("/proc/self/fd");
        void* lib = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
        if (lib == nullptr) {
            _exit(kLoadFailed);
        }
        // The static set-up must not start the log's worker while loading.
        if (CountEntries("/proc/self/task") != threads) {
            _exit(kWorkerDuringLoad);
        }
        if (run.callVersion) {
            auto version = reinterpret_cast<tavik_ddi_get_lib_version_fn>(
                dlvsym(lib, "tavik_ddi_get_lib_version", "TAVIK_DDI_3.0"));
            if (version == nullptr) {
                dlclose(lib);
                _exit(kNoEntryPoint);
            }
            uns16 major = 0, minor = 0, build = 0;
            version(&major, &minor, &build);
        }
        if (dlclose(lib) != 0) {
            _exit(kUnloadFailed);
        }
        if (void* again = dlopen(kLibrary, RTLD_NOW | RTLD_NOLOAD)) {
            dlclose(again);
            _exit(kStillLoaded);
        }
        if (tavik_test::SettledThreadCount(threads) != threads) {
            _exit(kThreadLeft);
        }
        if (CountEntries("/proc/self/fd") != fds) {
            _exit(kDescriptorLeft);
        }
        _exit(kOk);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::vector<std::string> ReadLines(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<std::string> lines;
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string Exe() {
    char exe[4096] = {};
    return readlink("/proc/self/exe", exe, sizeof(exe) - 1) > 0 ? std::string(exe) : "";
}

class LibraryLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/tavik-liblog-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_dir = pattern;
        m_path = m_dir + "/ddi.log";
    }
    void TearDown() override {
        unlink(m_path.c_str());
        rmdir(m_dir.c_str());
    }
    // Body lines of the single block in the file (between header and footer).
    std::vector<std::string> Body() {
        const auto lines = ReadLines(m_path);
        if (lines.size() < 7) {
            ADD_FAILURE() << "no complete block:\n" << ReadFile(m_path);
            return {};
        }
        return std::vector<std::string>(lines.begin() + 4, lines.end() - 3);
    }
    std::string m_dir;
    std::string m_path;
};

TEST_F(LibraryLogTest, NoFileVariableMeansNoLogAndNoFile) {
    LoadRun run;
    run.workDir = m_dir.c_str();
    run.logLevel = "T";
    run.callVersion = true;
    const int rc = LoadOnce(run);
    if (rc == kNoEntryPoint) {
        GTEST_SKIP() << "library has no tavik_ddi_get_lib_version yet";
    }
    EXPECT_EQ(rc, kOk);
    EXPECT_EQ(CountEntries(m_dir.c_str()), 0u);
}

TEST_F(LibraryLogTest, EmptyFileVariableIsTheSameAsUnset) {
    LoadRun run;
    run.workDir = m_dir.c_str();
    run.logFile = "";
    EXPECT_EQ(LoadOnce(run), kOk);
    EXPECT_EQ(CountEntries(m_dir.c_str()), 0u);
}

TEST_F(LibraryLogTest, UnopenablePathLoadsAndUnloadsCleanly) {
    const std::string bad = m_dir + "/missing/folder/ddi.log";
    LoadRun run;
    run.logFile = bad.c_str();
    run.callVersion = true;
    const int rc = LoadOnce(run);
    EXPECT_TRUE(rc == kOk || rc == kNoEntryPoint) << rc;
    EXPECT_EQ(CountEntries(m_dir.c_str()), 0u);
}

TEST_F(LibraryLogTest, TwoLoadsAppendTwoCompleteBlocks) {
    LoadRun run;
    run.logFile = m_path.c_str();
    ASSERT_EQ(LoadOnce(run), kOk);
    ASSERT_EQ(LoadOnce(run), kOk);
    const auto lines = ReadLines(m_path);
    ASSERT_EQ(lines.size(), 14u) << ReadFile(m_path);
    const std::regex started(
        R"(\[Logging started, date \d{4}-\d{2}-\d{2}, time \d{6}\.\d{6}, PID \d+\])");
    const std::regex stopped(R"(\[Logging stopped, date \d{4}-\d{2}-\d{2}, \d{6}\.\d{6}, PID \d+\])");
    for (size_t at : {0u, 7u}) {
        EXPECT_EQ(lines[at], kSeparator);
        EXPECT_TRUE(std::regex_match(lines[at + 1], started)) << lines[at + 1];
        EXPECT_EQ(lines[at + 2], "[Executable: '" + Exe() + "']");
        EXPECT_EQ(lines[at + 3], std::string("[Library: '") + kLibrary + "']");
        EXPECT_TRUE(std::regex_match(lines[at + 4], stopped)) << lines[at + 4];
        EXPECT_EQ(lines[at + 5], kSeparator);
        EXPECT_EQ(lines[at + 6], "");
    }
    // Each block names the process that wrote it.
    EXPECT_NE(lines[1].substr(lines[1].find("PID")), lines[8].substr(lines[8].find("PID")));
}

// The level set at load decides whether the entry points' trace lines appear.
class LibraryLevelTest : public LibraryLogTest,
                         public ::testing::WithParamInterface<std::pair<const char*, bool>> {};

TEST_P(LibraryLevelTest, TraceLinesFollowTheLevelText) {
    LoadRun run;
    run.logFile = m_path.c_str();
    run.logLevel = GetParam().first;
    run.callVersion = true;
    const int rc = LoadOnce(run);
    if (rc == kNoEntryPoint) {
        GTEST_SKIP() << "library has no tavik_ddi_get_lib_version yet";
    }
    ASSERT_EQ(rc, kOk);
    const auto body = Body();
    if (!GetParam().second) {
        EXPECT_TRUE(body.empty()) << body.front();
        return;
    }
    ASSERT_EQ(body.size(), 2u) << ReadFile(m_path);
    const std::string fn = "int16 tavik_ddi_get_lib_version\\(uns16\\*, uns16\\*, uns16\\*\\)";
    EXPECT_TRUE(std::regex_match(
        body[0], std::regex(R"(\[\d{6}\.\d{6} DDI \d{5,}:\d{5,} T\] )" + fn +
                            R"(: ENTER \(pVerMajor=0x.*, pVerMinor=0x.*, pVerBuild=0x.*\))")))
        << body[0];
    EXPECT_TRUE(std::regex_match(
        body[1], std::regex(R"(\[\d{6}\.\d{6} DDI \d{5,}:\d{5,} T\] )" + fn +
                            R"(: RETURN \(KZ_ERR_NONE, version 3\.1\.88\) \[\d+us\])")))
        << body[1];
}

INSTANTIATE_TEST_SUITE_P(
    Levels, LibraryLevelTest,
    ::testing::Values(std::make_pair(static_cast<const char*>(nullptr), true),
                      std::make_pair("", true), std::make_pair("2", true),
                      std::make_pair("e", false), std::make_pair("Error", false),
                      std::make_pair("warning", false), std::make_pair("debug", false)));

// Each load logs two lines and unloads at once, so the worker formats its first
// entries while the loader is running the library's destructors.
TEST_F(LibraryLogTest, RepeatedLoadsLeaveNoThreadNoDescriptorAndCompleteBlocks) {
    LoadRun run;
    run.logFile = m_path.c_str();
    run.callVersion = true;
    for (int i = 0; i < 20; ++i) {
        const int rc = LoadOnce(run);
        if (rc == kNoEntryPoint) {
            GTEST_SKIP() << "library has no tavik_ddi_get_lib_version yet";
        }
        ASSERT_EQ(rc, kOk) << "load " << i;
    }
    const auto lines = ReadLines(m_path);
    int headers = 0;
    int footers = 0;
    for (const auto& line : lines) {
        headers += line.rfind("[Logging started", 0) == 0 ? 1 : 0;
        footers += line.rfind("[Logging stopped", 0) == 0 ? 1 : 0;
    }
    EXPECT_EQ(headers, 20);
    EXPECT_EQ(footers, 20);
}

} // namespace
