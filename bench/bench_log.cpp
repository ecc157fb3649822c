// Cost of logging on the caller's side and throughput of the file sink, each as
// a ratio against the plain system call measured in the same run.
//
//   build/<dir>/bin/bench_log --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <tavik/tavik_types.h>

#include "error/tavik_error_strings.h"
#include "log/ILogListener.h"
#include "log/Log.h"
#include "log/LogDdi.h"
#include "log/LogFn.h"
#include "log/LogSetupFile.h"
#include "log/LoggerFile.h"

// ---------------------------------------------------------------------------
// The replaced global operators below pair malloc with free; GCC cannot see that
// the replacement makes new/free a matching pair once they are inlined.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

// Every allocation of the program is counted, so a benchmark can prove that its
// loop allocated nothing.

namespace {
std::atomic<unsigned long long> g_allocations{0};
} // namespace

void* operator new(std::size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size)) {
        return p;
    }
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    return operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size == 0 ? 1 : size);
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
    return operator new(size, tag);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}

namespace {

using Clock = std::chrono::steady_clock;

// A library operation traced the way every entry point is traced.
__attribute__((noinline)) int16 TracedCall(uns16* value) {
    auto fn = kt::LogDdi::CreateLogFn("int16 bench_traced_call(uns16*)");
    if (fn && fn->WillBeLogged()) {
        fn->LogEnterMessage("pValue=0x%p", static_cast<void*>(value));
    }
    *value = 88;
    if (fn && fn->WillBeLogged()) {
        fn->SetReturnArgs("value %u", static_cast<unsigned>(*value));
        fn->SetReturnResult("%s", GetErrCodeName(0));
    }
    return 0;
}

struct TempLog {
    TempLog() {
        char pattern[] = "/tmp/tavik-bench-log-XXXXXX";
        dir = mkdtemp(pattern) ? pattern : "/tmp";
        path = dir + "/bench.log";
    }
    ~TempLog() {
        unlink(path.c_str());
        rmdir(dir.c_str());
    }
    std::string dir;
    std::string path;
};

// Replaces the library's set-up for one benchmark, as if loaded with this
// environment, and puts the original back afterwards.
struct ScopedSetup {
    ScopedSetup(const char* file, const char* level) : saved(kt::LogDdi::setup) {
        kt::LogDdi::setup = std::make_shared<kt::LogSetupFile>(file, level);
    }
    ~ScopedSetup() { kt::LogDdi::setup = saved; }
    std::shared_ptr<kt::LogSetup> saved;
};

void BM_TracedCall_NoLog(benchmark::State& state) {
    ScopedSetup setup(nullptr, "");
    uns16 value = 0;
    const auto before = g_allocations.load();
    for (auto _ : state) {
        benchmark::DoNotOptimize(TracedCall(&value));
    }
    const auto allocations = g_allocations.load() - before;
    state.counters["allocs_per_call"] =
        benchmark::Counter(static_cast<double>(allocations) / state.iterations());
    if (allocations != 0) {
        state.SkipWithError("a traced call without a log allocated");
    }
}
BENCHMARK(BM_TracedCall_NoLog);

void BM_TracedCall_LogFilteredOut(benchmark::State& state) {
    TempLog file;
    ScopedSetup setup(file.path.c_str(), "E");
    uns16 value = 0;
    const auto before = g_allocations.load();
    for (auto _ : state) {
        benchmark::DoNotOptimize(TracedCall(&value));
    }
    state.counters["allocs_per_call"] = benchmark::Counter(
        static_cast<double>(g_allocations.load() - before) / state.iterations());
}
BENCHMARK(BM_TracedCall_LogFilteredOut);

// Raw baseline for the caller-side figures: one write() of a line to the file.
void BM_Baseline_WriteOneLine(benchmark::State& state) {
    TempLog file;
    const int fd = open(file.path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    const std::string line(100, 'x');
    for (auto _ : state) {
        benchmark::DoNotOptimize(write(fd, line.data(), line.size()));
    }
    close(fd);
}
BENCHMARK(BM_Baseline_WriteOneLine);

// Caller's cost of one Info entry with the file sink attached, timed call by call.
// Bursts stay far below the overload threshold so that no call takes the
// dropping path; the worker drains between bursts outside the timing.
void BM_InfoEntry_CallerSide(benchmark::State& state) {
    TempLog file;
    ScopedSetup setup(file.path.c_str(), "I");
    const std::shared_ptr<kt::Log> log = kt::LogDdi::GetLog();
    constexpr int kBurst = 1000;
    std::vector<double> samples;
    samples.reserve(200000);
    for (auto _ : state) {
        double total = 0;
        for (int i = 0; i < kBurst; ++i) {
            const auto t0 = Clock::now();
            if (log->WillBeLogged(kt::LogEntry::Info)) {
                log->AddEntry("DDI", kt::LogEntry::Info, "%s: frame %d of %d done", "bench", i,
                              kBurst);
            }
            const auto t1 = Clock::now();
            const double ns = std::chrono::duration<double, std::nano>(t1 - t0).count();
            samples.push_back(ns);
            total += ns;
        }
        state.SetIterationTime(total * 1e-9);
        log->Flush(0);
    }
    std::sort(samples.begin(), samples.end());
    state.counters["p50_ns"] = samples[samples.size() / 2];
    state.counters["p99_ns"] = samples[samples.size() * 99 / 100];
    state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(BM_InfoEntry_CallerSide)->UseManualTime()->Iterations(100);

// Sustained throughput into the file sink against a loop of one write() per line
// of the same length on the same file. Each round stays under the overload
// threshold, so every entry reaches the file.
void BM_FileSinkThroughput(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    constexpr int kEntries = 40000;
    TempLog file;
    double logSeconds = 0;
    double writeSeconds = 0;
    size_t lineLength = 0;
    {
        ScopedSetup setup(file.path.c_str(), "I");
        const std::shared_ptr<kt::Log> log = kt::LogDdi::GetLog();
        log->WillBeLogged(kt::LogEntry::Info); // worker started outside the timing
        for (auto _ : state) {
            const auto t0 = Clock::now();
            std::vector<std::thread> threads;
            for (int p = 0; p < producers; ++p) {
                threads.emplace_back([&log, p, producers] {
                    for (int i = p; i < kEntries; i += producers) {
                        if (log->WillBeLogged(kt::LogEntry::Info)) {
                            log->AddEntry("DDI", kt::LogEntry::Info,
                                          "%s: frame %06d delivered to the acquisition buffer",
                                          "bench", i);
                        }
                    }
                });
            }
            for (auto& t : threads) {
                t.join();
            }
            const uint64_t dropped = log->Flush(0);
            const auto t1 = Clock::now();
            if (dropped != 0) {
                state.SkipWithError("entries were dropped");
                break;
            }
            const double seconds = std::chrono::duration<double>(t1 - t0).count();
            logSeconds += seconds;
            state.SetIterationTime(seconds);
        }
    }
    // The same number of lines of the same length, one write() each.
    {
        std::ifstream in(file.path);
        std::string line;
        for (int i = 0; i < 10 && std::getline(in, line);) {
            if (line.find("frame") != std::string::npos) {
                lineLength = line.size() + 1;
                break;
            }
        }
    }
    const std::string line(lineLength > 1 ? lineLength - 1 : 99, 'x');
    const std::string withLf = line + "\n";
    const int fd = open(file.path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    for (int64_t round = 0; round < state.iterations(); ++round) {
        const auto t0 = Clock::now();
        for (int i = 0; i < kEntries; ++i) {
            benchmark::DoNotOptimize(write(fd, withLf.data(), withLf.size()));
        }
        writeSeconds += std::chrono::duration<double>(Clock::now() - t0).count();
    }
    close(fd);
    const double entries = static_cast<double>(state.iterations()) * kEntries;
    state.counters["log_entries_per_s"] = entries / logSeconds;
    state.counters["write_lines_per_s"] = entries / writeSeconds;
    state.counters["ratio_vs_write"] = writeSeconds / logSeconds;
    state.counters["line_bytes"] = static_cast<double>(withLf.size());
    state.SetItemsProcessed(state.iterations() * kEntries);
}
BENCHMARK(BM_FileSinkThroughput)->Arg(1)->Arg(2)->UseManualTime()->Iterations(10);

// The worker alone: entries queued while the load flag keeps the worker from
// starting, then drained into the file. Same baseline as above.
void BM_FileSinkDrain(benchmark::State& state) {
    constexpr int kEntries = 40000;
    TempLog file;
    double logSeconds = 0;
    for (auto _ : state) {
        kt::Log::LibInitHelper::NotifyLibProcessDetachDone();
        auto log = std::make_shared<kt::Log>(kt::LogEntry::Info);
        {
            kt::LogSetupFile unused(nullptr, nullptr); // keeps the set-up types linked
        }
        auto sink = std::make_unique<kt::LoggerFile>(log, file.path.c_str());
        for (int i = 0; i < kEntries; ++i) {
            log->AddEntry("DDI", kt::LogEntry::Info,
                          "%s: frame %06d delivered to the acquisition buffer", "bench", i);
        }
        kt::Log::LibInitHelper::NotifyLibProcessAttachDone();
        const auto t0 = Clock::now();
        log->WillBeLogged(kt::LogEntry::Info);
        const uint64_t dropped = log->Flush(0);
        const auto t1 = Clock::now();
        if (dropped != 0) {
            state.SkipWithError("entries were dropped");
            break;
        }
        const double seconds = std::chrono::duration<double>(t1 - t0).count();
        logSeconds += seconds;
        state.SetIterationTime(seconds);
        sink.reset();
    }
    const std::string withLf(90, 'x');
    const int fd = open(file.path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    double writeSeconds = 0;
    for (int64_t round = 0; round < state.iterations(); ++round) {
        const auto t0 = Clock::now();
        for (int i = 0; i < kEntries; ++i) {
            benchmark::DoNotOptimize(write(fd, withLf.data(), withLf.size()));
        }
        writeSeconds += std::chrono::duration<double>(Clock::now() - t0).count();
    }
    close(fd);
    state.counters["ratio_vs_write"] = writeSeconds / logSeconds;
    state.SetItemsProcessed(state.iterations() * kEntries);
}
BENCHMARK(BM_FileSinkDrain)->UseManualTime()->Iterations(10);

// Resident memory while the queue is held just above the overload threshold by a
// listener that does not return.
class HoldingListener final : public kt::ILogListener {
public:
    void OnLogEntryAdded(const kt::LogEntry&) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_held = true;
        m_cond.notify_all();
        m_cond.wait(lock, [this] { return m_released; });
    }
    void WaitHeld() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cond.wait(lock, [this] { return m_held; });
    }
    void Release() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_released = true;
        m_cond.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    bool m_held = false;
    bool m_released = false;
};

long ReadStatusKb(const char* key) {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(key, 0) == 0) {
            return std::strtol(line.c_str() + std::strlen(key), nullptr, 10);
        }
    }
    return -1;
}

void BM_OverloadResidentMemory(benchmark::State& state) {
    for (auto _ : state) {
        const long rssBefore = ReadStatusKb("VmRSS:");
        const size_t heapBefore = mallinfo2().uordblks;
        size_t heapHeld = 0;
        long rssHeld = 0;
        {
            kt::Log log(kt::LogEntry::Trace);
            auto holder = std::make_shared<HoldingListener>();
            log.AddListener(std::static_pointer_cast<kt::ILogListener>(holder));
            log.AddEntry("DDI", kt::LogEntry::Info, "%s", "held");
            holder->WaitHeld();
            for (size_t i = 0; i < kt::Log::kOverloadThreshold + 10; ++i) {
                log.AddEntry("DDI", kt::LogEntry::Info,
                             "%s: frame %06zu delivered to the acquisition buffer", "bench", i);
            }
            rssHeld = ReadStatusKb("VmRSS:");
            heapHeld = mallinfo2().uordblks;
            holder->Release();
            log.Flush(0);
        }
        state.counters["rss_before_MiB"] = rssBefore / 1024.0;
        state.counters["rss_held_MiB"] = rssHeld / 1024.0;
        state.counters["queue_heap_MiB"] =
            static_cast<double>(heapHeld - heapBefore) / (1024.0 * 1024.0);
        state.counters["rss_growth_MiB"] = (rssHeld - rssBefore) / 1024.0;
        state.counters["peak_rss_MiB"] = ReadStatusKb("VmHWM:") / 1024.0;
    }
}
BENCHMARK(BM_OverloadResidentMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
