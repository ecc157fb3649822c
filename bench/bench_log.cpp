// Cost of logging on the caller's side and throughput of the file sink, each as
// a ratio against a baseline measured in the same run: the plain write() of a
// line to the same file, or spdlog's asynchronous logger doing the same work
// with the same durability (every line reaches the file with its own write()).
//
//   build/<dir>/bin/bench_log --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
//       --benchmark_out=bench_log.json --benchmark_out_format=json
//
// The paired figures (ours against write() or spdlog) are measured in the same
// benchmark iteration, round after round, so that a change of the machine's load
// hits both sides alike; the counters carry the ratios.

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <tavik/tavik_types.h>

#include "error/tavik_error_strings.h"
#include "log/ILogListener.h"
#include "log/Log.h"
#include "log/LogDdi.h"
#include "log/LogFileBound.h"
#include "log/LogFn.h"
#include "log/LogSetupFile.h"
#include "log/LoggerFile.h"

// ---------------------------------------------------------------------------
// Every allocation of the process (operator new ends in malloc) is counted while
// a benchmark asks for it, so "allocations per call" is counted, not estimated.

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* p, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* p);
}

namespace {
std::atomic<bool> g_counting{false};
std::atomic<unsigned long long> g_allocations{0};

inline void CountAllocation() {
    if (g_counting.load(std::memory_order_relaxed)) {
        g_allocations.fetch_add(1, std::memory_order_relaxed);
    }
}
} // namespace

extern "C" {
void* malloc(size_t size) noexcept {
    CountAllocation();
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) noexcept {
    CountAllocation();
    return __libc_calloc(count, size);
}
void* realloc(void* p, size_t size) noexcept {
    CountAllocation();
    return __libc_realloc(p, size);
}
void free(void* p) noexcept {
    __libc_free(p);
}
void* memalign(size_t alignment, size_t size) noexcept {
    CountAllocation();
    return __libc_memalign(alignment, size);
}
void* aligned_alloc(size_t alignment, size_t size) noexcept {
    CountAllocation();
    return __libc_memalign(alignment, size);
}
int posix_memalign(void** out, size_t alignment, size_t size) noexcept {
    CountAllocation();
    void* p = __libc_memalign(alignment, size);
    if (p == nullptr) {
        return ENOMEM;
    }
    *out = p;
    return 0;
}
}

namespace {

using Clock = std::chrono::steady_clock;

// Counts the allocations made while it lives.
struct AllocationCount {
    AllocationCount() : start(g_allocations.load()) { g_counting.store(true); }
    ~AllocationCount() { g_counting.store(false); }
    unsigned long long Taken() const { return g_allocations.load() - start; }
    unsigned long long start;
};

double Percentile(std::vector<double>& sorted, double fraction) {
    if (sorted.empty()) {
        return 0;
    }
    const size_t index =
        std::min(sorted.size() - 1, static_cast<size_t>(fraction * static_cast<double>(sorted.size())));
    return sorted[index];
}

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

struct TempDir {
    TempDir() {
        char pattern[] = "/tmp/tavik-bench-log-XXXXXX";
        dir = mkdtemp(pattern) ? pattern : "/tmp";
    }
    ~TempDir() {
        for (const std::string& f : files) {
            unlink(f.c_str());
        }
        rmdir(dir.c_str());
    }
    std::string File(const char* name) {
        files.push_back(dir + "/" + name);
        return files.back();
    }
    std::string dir;
    std::vector<std::string> files;
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

// The message of every entry in the caller-side and throughput figures: a short
// text, a string and a number, as most of the library's lines are.
constexpr const char kFormat[] = "%s: frame %06d delivered to the acquisition buffer";
constexpr const char kSpdlogFormat[] = "{}: frame {:06d} delivered to the acquisition buffer";

void LogOurs(kt::Log& log, int i) {
    if (log.WillBeLogged(kt::LogEntry::Info)) {
        log.AddEntry("DDI", kt::LogEntry::Info, kFormat, "bench", i);
    }
}

// spdlog's asynchronous logger on its own worker thread, writing the same line
// shape ("[time category pid:tid level] message") to a file, flushed after every
// line; its queue holds a whole round so that the blocking policy never blocks.
struct Spdlog {
    explicit Spdlog(const std::string& path)
        : pool(std::make_shared<spdlog::details::thread_pool>(65536, 1)),
          logger(std::make_shared<spdlog::async_logger>(
              "DDI", std::make_shared<spdlog::sinks::basic_file_sink_mt>(path), pool,
              spdlog::async_overflow_policy::block)) {
        logger->set_pattern("[%H%M%S.%f %n %P:%t %L] %v");
        logger->set_level(spdlog::level::info);
        logger->flush_on(spdlog::level::trace);
    }
    void Log(int i) { logger->info(kSpdlogFormat, "bench", i); }
    // Waits until the worker has taken the last message. The one it may still be
    // writing is not waited for, which favours spdlog by at most one line.
    void Drain() {
        while (pool->queue_size() != 0) {
            std::this_thread::yield();
        }
    }
    std::shared_ptr<spdlog::details::thread_pool> pool;
    std::shared_ptr<spdlog::async_logger> logger;
};

// ---------------------------------------------------------------------------
// A traced call: no log, a log that filters its level out, a log at Trace.

void BM_TracedCall_NoLog(benchmark::State& state) {
    ScopedSetup setup(nullptr, "");
    uns16 value = 0;
    AllocationCount count;
    for (auto _ : state) {
        benchmark::DoNotOptimize(TracedCall(&value));
    }
    state.counters["allocs_per_call"] =
        benchmark::Counter(static_cast<double>(count.Taken()) / state.iterations());
}
BENCHMARK(BM_TracedCall_NoLog);

void BM_TracedCall_LogFilteredOut(benchmark::State& state) {
    TempDir dir;
    const std::string path = dir.File("filtered.log");
    ScopedSetup setup(path.c_str(), "E");
    uns16 value = 0;
    TracedCall(&value); // the worker is started outside the count
    AllocationCount count;
    for (auto _ : state) {
        benchmark::DoNotOptimize(TracedCall(&value));
    }
    state.counters["allocs_per_call"] =
        benchmark::Counter(static_cast<double>(count.Taken()) / state.iterations());
}
BENCHMARK(BM_TracedCall_LogFilteredOut);

// Two entries a call (enter and return). Bursts stay far below the overload
// threshold and the worker drains between them outside the timing, so no entry
// is dropped.
void BM_TracedCall_Trace(benchmark::State& state) {
    TempDir dir;
    const std::string path = dir.File("trace.log");
    ScopedSetup setup(path.c_str(), "T");
    const std::shared_ptr<kt::Log> log = kt::LogDdi::GetLog();
    constexpr int kBurst = 1000;
    uns16 value = 0;
    TracedCall(&value);
    log->Flush(0);
    for (auto _ : state) {
        const auto t0 = Clock::now();
        for (int i = 0; i < kBurst; ++i) {
            benchmark::DoNotOptimize(TracedCall(&value));
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - t0).count());
        if (log->Flush(0) != 0) {
            state.SkipWithError("entries were dropped");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(BM_TracedCall_Trace)->UseManualTime()->Iterations(200);

// Raw baseline for the caller-side figures: one write() of a line to a file.
void BM_Baseline_WriteOneLine(benchmark::State& state) {
    TempDir dir;
    const std::string path = dir.File("write.log");
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    const std::string line(88, 'x');
    for (auto _ : state) {
        benchmark::DoNotOptimize(write(fd, line.data(), line.size()));
    }
    close(fd);
}
BENCHMARK(BM_Baseline_WriteOneLine);

// ---------------------------------------------------------------------------
// Caller's cost of one Info entry, timed call by call, ours and spdlog's in
// alternating bursts of the same iteration. Every producer thread logs a burst
// of 10000 entries at once; the loggers drain between bursts outside the timing,
// so no call meets a full queue. The first call of a burst finds the worker
// asleep and pays for waking it (a system call, for spdlog as for us); it is
// reported on its own, the percentiles are those of the calls that follow.

struct Samples {
    std::mutex mutex;
    std::vector<double> ns;
    std::vector<double> first;
    // Page faults the producers took inside their timed calls' loop.
    long faults = 0;
    void Add(const std::vector<double>& more, long moreFaults) {
        std::lock_guard<std::mutex> lock(mutex);
        first.push_back(more.front());
        ns.insert(ns.end(), more.begin() + 1, more.end());
        faults += moreFaults;
    }
};

long ThreadPageFaults() {
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_minflt + usage.ru_majflt;
}

// A new thread's stack is faulted in page by page as calls first reach down
// into it: the C library hands the unused part of a finished thread's stack back
// to the system, and every burst starts new threads. A rig's threads live for
// hours, so each producer touches its stack before its calls are timed.
__attribute__((noinline)) void TouchStack() {
    volatile char pages[64 * 1024];
    for (size_t i = 0; i < sizeof(pages); i += 4096) {
        pages[i] = 0;
    }
}

// Returns the time of one producer's burst: the sum of its timed calls,
// averaged over the producers.
template <class LogOne>
double TimedBurst(int producers, int burst, Samples& samples, LogOne logOne) {
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::atomic<long long> totalNs{0};
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p] {
            // Touched before the timing, so that its pages fault here.
            std::vector<double> mine(static_cast<size_t>(burst), 0.0);
            TouchStack();
            ready.fetch_add(1);
            while (!go.load()) {
            }
            const long faultsBefore = ThreadPageFaults();
            double sum = 0;
            for (int i = 0; i < burst; ++i) {
                const auto a = Clock::now();
                logOne(p * burst + i);
                const auto b = Clock::now();
                const double ns = std::chrono::duration<double, std::nano>(b - a).count();
                mine[static_cast<size_t>(i)] = ns;
                sum += ns;
            }
            const long faults = ThreadPageFaults() - faultsBefore;
            totalNs.fetch_add(static_cast<long long>(sum));
            samples.Add(mine, faults);
        });
    }
    while (ready.load() != producers) {
    }
    go.store(true);
    for (auto& t : threads) {
        t.join();
    }
    return static_cast<double>(totalNs.load()) * 1e-9 / producers;
}

void BM_InfoEntry_CallerSide(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    constexpr int kBurst = 10000;
    TempDir dir;
    const std::string ours = dir.File("ours.log");
    const std::string theirs = dir.File("spdlog.log");
    ScopedSetup setup(ours.c_str(), "I");
    const std::shared_ptr<kt::Log> log = kt::LogDdi::GetLog();
    Spdlog spd(theirs);
    LogOurs(*log, -1);
    spd.Log(-1);
    log->Flush(0);
    spd.Drain();
    Samples oursNs;
    Samples spdNs;
    for (auto _ : state) {
        const double seconds =
            TimedBurst(producers, kBurst, oursNs, [&](int i) { LogOurs(*log, i); });
        state.SetIterationTime(seconds);
        if (log->Flush(0) != 0) {
            state.SkipWithError("entries were dropped");
            break;
        }
        TimedBurst(producers, kBurst, spdNs, [&](int i) { spd.Log(i); });
        spd.Drain();
    }
    std::sort(oursNs.ns.begin(), oursNs.ns.end());
    std::sort(spdNs.ns.begin(), spdNs.ns.end());
    std::sort(oursNs.first.begin(), oursNs.first.end());
    std::sort(spdNs.first.begin(), spdNs.first.end());
    state.counters["wake_p50_ns"] = Percentile(oursNs.first, 0.50);
    state.counters["spdlog_wake_p50_ns"] = Percentile(spdNs.first, 0.50);
    state.counters["p50_ns"] = Percentile(oursNs.ns, 0.50);
    state.counters["p99_ns"] = Percentile(oursNs.ns, 0.99);
    state.counters["p999_ns"] = Percentile(oursNs.ns, 0.999);
    state.counters["spdlog_p50_ns"] = Percentile(spdNs.ns, 0.50);
    state.counters["spdlog_p99_ns"] = Percentile(spdNs.ns, 0.99);
    state.counters["spdlog_p999_ns"] = Percentile(spdNs.ns, 0.999);
    state.counters["p50_vs_spdlog"] = Percentile(oursNs.ns, 0.50) / Percentile(spdNs.ns, 0.50);
    const double calls = static_cast<double>(oursNs.ns.size() + oursNs.first.size());
    state.counters["faults_per_1k_calls"] = 1000.0 * static_cast<double>(oursNs.faults) / calls;
    state.counters["spdlog_faults_per_1k_calls"] =
        1000.0 * static_cast<double>(spdNs.faults) / calls;
}
BENCHMARK(BM_InfoEntry_CallerSide)
    ->ArgName("producers")
    ->Arg(1)
    ->Arg(2)
    ->UseManualTime()
    ->Iterations(40);

// ---------------------------------------------------------------------------
// Sustained throughput with a flush of every line: a plain write() loop, our
// file sink and spdlog, one round of each per iteration on the same kind of
// file. A round of ours stays under the overload threshold, so every entry
// reaches the file; spdlog's queue holds a whole round.

void BM_FileSinkThroughput(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    constexpr int kEntries = 40000;
    TempDir dir;
    const std::string ours = dir.File("ours.log");
    const std::string theirs = dir.File("spdlog.log");
    ScopedSetup setup(ours.c_str(), "I");
    const std::shared_ptr<kt::Log> log = kt::LogDdi::GetLog();
    Spdlog spd(theirs);
    LogOurs(*log, 0);
    log->Flush(0);
    spd.Log(0);
    spd.Drain();

    // The baseline writes lines of our length into our file.
    size_t lineLength = 0;
    {
        std::ifstream in(ours);
        std::string line;
        while (std::getline(in, line)) {
            if (line.find("frame") != std::string::npos) {
                lineLength = line.size() + 1;
                break;
            }
        }
    }
    const std::string withLf = std::string(lineLength > 1 ? lineLength - 1 : 87, 'x') + "\n";
    const int fd = open(ours.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);

    double writeSeconds = 0;
    double oursSeconds = 0;
    double spdSeconds = 0;
    for (auto _ : state) {
        auto t0 = Clock::now();
        for (int i = 0; i < kEntries; ++i) {
            benchmark::DoNotOptimize(write(fd, withLf.data(), withLf.size()));
        }
        writeSeconds += std::chrono::duration<double>(Clock::now() - t0).count();

        t0 = Clock::now();
        {
            std::vector<std::thread> threads;
            for (int p = 0; p < producers; ++p) {
                threads.emplace_back([&, p] {
                    for (int i = p; i < kEntries; i += producers) {
                        LogOurs(*log, i);
                    }
                });
            }
            for (auto& t : threads) {
                t.join();
            }
        }
        const uint64_t dropped = log->Flush(0);
        const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
        oursSeconds += seconds;
        state.SetIterationTime(seconds);
        if (dropped != 0) {
            state.SkipWithError("entries were dropped");
            break;
        }

        t0 = Clock::now();
        {
            std::vector<std::thread> threads;
            for (int p = 0; p < producers; ++p) {
                threads.emplace_back([&, p] {
                    for (int i = p; i < kEntries; i += producers) {
                        spd.Log(i);
                    }
                });
            }
            for (auto& t : threads) {
                t.join();
            }
        }
        spd.Drain();
        spdSeconds += std::chrono::duration<double>(Clock::now() - t0).count();
    }
    close(fd);
    const double entries = static_cast<double>(state.iterations()) * kEntries;
    state.counters["write_lines_per_s"] = entries / writeSeconds;
    state.counters["log_entries_per_s"] = entries / oursSeconds;
    state.counters["spdlog_entries_per_s"] = entries / spdSeconds;
    state.counters["ratio_vs_write"] = writeSeconds / oursSeconds;
    state.counters["ratio_vs_spdlog"] = spdSeconds / oursSeconds;
    state.counters["line_bytes"] = static_cast<double>(withLf.size());
    state.SetItemsProcessed(state.iterations() * kEntries);
}
BENCHMARK(BM_FileSinkThroughput)
    ->ArgName("producers")
    ->Arg(1)
    ->Arg(2)
    ->UseManualTime()
    ->Iterations(10);

// The worker alone: entries queued while the load flag keeps the worker from
// starting, then drained into the file, against a write() loop of lines of the
// same length.
void BM_FileSinkDrain(benchmark::State& state) {
    constexpr int kEntries = 40000;
    TempDir dir;
    const std::string path = dir.File("drain.log");
    double logSeconds = 0;
    for (auto _ : state) {
        kt::Log::LibInitHelper::NotifyLibProcessDetachDone();
        auto log = std::make_shared<kt::Log>(kt::LogEntry::Info);
        auto sink = std::make_unique<kt::LoggerFile>(log, path.c_str());
        for (int i = 0; i < kEntries; ++i) {
            log->AddEntry("DDI", kt::LogEntry::Info, kFormat, "bench", i);
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
    const std::string withLf = std::string(87, 'x') + "\n";
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
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

// The worker's own cost per entry, without a system call: the same drain into a
// sink that keeps nothing but the line's length.
class CountingListener final : public kt::ILogListener {
public:
    void OnLogEntryAdded(const kt::LogEntry& entry) override { bytes += entry.m_formattedMessage.size(); }
    size_t bytes = 0;
};

void BM_WorkerCostPerEntry(benchmark::State& state) {
    constexpr int kEntries = 40000;
    for (auto _ : state) {
        kt::Log::LibInitHelper::NotifyLibProcessDetachDone();
        auto log = std::make_shared<kt::Log>(kt::LogEntry::Info);
        auto sink = std::make_shared<CountingListener>();
        log->AddListener(std::static_pointer_cast<kt::ILogListener>(sink));
        for (int i = 0; i < kEntries; ++i) {
            log->AddEntry("DDI", kt::LogEntry::Info, kFormat, "bench", i);
        }
        kt::Log::LibInitHelper::NotifyLibProcessAttachDone();
        const auto t0 = Clock::now();
        log->WillBeLogged(kt::LogEntry::Info);
        log->Flush(0);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - t0).count());
        benchmark::DoNotOptimize(sink->bytes);
    }
    state.SetItemsProcessed(state.iterations() * kEntries);
}
BENCHMARK(BM_WorkerCostPerEntry)->UseManualTime()->Iterations(10);

// ---------------------------------------------------------------------------
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
                log.AddEntry("DDI", kt::LogEntry::Info, kFormat, "bench", static_cast<int>(i));
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

// ---------------------------------------------------------------------------
// End to end, as a program that uses the library sees it: a fresh log and file
// sink (as the library's load makes them, outside the timing), then the time from
// the first logging call, which starts the worker, until Flush returns with every
// line in the file. Against a plain write() loop of the very same lines into a
// fresh file of the same kind, in the same iteration; which of the two goes first
// alternates from one iteration to the next. Run it alone or after the others: it
// gives back the memory they freed before each round.

void BM_FileSinkEndToEnd(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    constexpr int kEntries = 40000;
    TempDir dir;
    const std::string ours = dir.File("end-to-end.log");
    const std::string plain = dir.File("end-to-end-write.log");

    // One timed run of ours; returns its seconds, or a negative value when an
    // entry was dropped.
    const auto runOurs = [&]() -> double {
        unlink(ours.c_str());
        // As in a process that starts logging: the memory that earlier rounds and
        // benchmarks freed goes back to the system first, so that the log's entries
        // meet pages never touched, not ones the C allocator kept.
        malloc_trim(0);
        ScopedSetup setup(ours.c_str(), "I");
        const std::shared_ptr<kt::Log> log = kt::LogDdi::GetLog();
        std::atomic<int> ready{0};
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        for (int p = 0; p < producers; ++p) {
            threads.emplace_back([&, p] {
                TouchStack();
                ready.fetch_add(1);
                while (!go.load()) {
                    std::this_thread::yield();
                }
                for (int i = p; i < kEntries; i += producers) {
                    LogOurs(*log, i);
                }
            });
        }
        while (ready.load() != producers) {
            std::this_thread::yield();
        }
        const auto t0 = Clock::now();
        go.store(true);
        for (auto& t : threads) {
            t.join();
        }
        const uint64_t dropped = log->Flush(1000);
        const auto t1 = Clock::now();
        return dropped != 0 ? -1.0 : std::chrono::duration<double>(t1 - t0).count();
    };

    // The lines the baseline writes: those of a first run of ours, untimed.
    if (runOurs() < 0) {
        state.SkipWithError("entries were dropped");
        return;
    }
    std::vector<std::string> lines;
    {
        std::ifstream in(ours);
        std::string line;
        while (std::getline(in, line)) {
            if (line.find("frame") != std::string::npos) {
                lines.push_back(line + "\n");
            }
        }
    }
    if (lines.size() != static_cast<size_t>(kEntries)) {
        state.SkipWithError("the first run did not write every line");
        return;
    }
    const auto runWrite = [&]() -> double {
        unlink(plain.c_str());
        const int fd = open(plain.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        const auto t0 = Clock::now();
        for (const std::string& line : lines) {
            benchmark::DoNotOptimize(write(fd, line.data(), line.size()));
        }
        const auto t1 = Clock::now();
        close(fd);
        return std::chrono::duration<double>(t1 - t0).count();
    };

    std::vector<double> ratios;
    double writeSeconds = 0;
    double oursSeconds = 0;
    bool writeFirst = true;
    for (auto _ : state) {
        double w = 0;
        double o = 0;
        if (writeFirst) {
            w = runWrite();
            o = runOurs();
        } else {
            o = runOurs();
            w = runWrite();
        }
        writeFirst = !writeFirst;
        if (o < 0) {
            state.SkipWithError("entries were dropped");
            break;
        }
        state.SetIterationTime(o);
        writeSeconds += w;
        oursSeconds += o;
        ratios.push_back(w / o);
    }
    std::sort(ratios.begin(), ratios.end());
    const double entries = static_cast<double>(state.iterations()) * kEntries;
    state.counters["write_lines_per_s"] = entries / writeSeconds;
    state.counters["log_entries_per_s"] = entries / oursSeconds;
    state.counters["ratio_vs_write"] = writeSeconds / oursSeconds;
    state.counters["ratio_vs_write_p50"] = Percentile(ratios, 0.5);
    state.SetItemsProcessed(state.iterations() * kEntries);
}
BENCHMARK(BM_FileSinkEndToEnd)
    ->ArgName("producers")
    ->Arg(1)
    ->Arg(2)
    ->UseManualTime()
    ->Iterations(20);

// ---------------------------------------------------------------------------
// The file with a size bound against the file without, in the same run: two
// set-ups as the library makes them from its environment, their rounds
// alternating within every iteration (the first of the pair swapped each time,
// so that the machine's drift falls on both alike). The bound of 16 MiB is
// passed every few rounds, so the figure includes the rotations.

struct BoundedPair {
    explicit BoundedPair(TempDir& dir)
        : plainPath(dir.File("plain.log")), boundedPath(dir.File("bounded.log")) {
        for (const char* k : {".1", ".2", ".3", ".4"}) {
            dir.files.push_back(boundedPath + k);
        }
        plain = std::make_shared<kt::LogSetupFile>(plainPath.c_str(), "I");
        bounded = std::make_shared<kt::LogSetupFile>(boundedPath.c_str(), "I",
                                                     kt::LogFileBound::FromTexts("16M", "4"));
    }
    std::string plainPath, boundedPath;
    std::shared_ptr<kt::LogSetupFile> plain, bounded;
};

template <class Round>
void Alternate(int64_t iteration, Round round, double& plainSeconds, double& boundedSeconds) {
    for (int k = 0; k < 2; ++k) {
        const bool bounded = (k == 0) == (iteration % 2 == 1);
        (bounded ? boundedSeconds : plainSeconds) += round(bounded);
    }
}

void BM_FileSinkThroughput_Bounded(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    constexpr int kEntries = 40000;
    TempDir dir;
    BoundedPair pair(dir);
    const std::shared_ptr<kt::Log> logs[2] = {pair.plain->GetLog(), pair.bounded->GetLog()};
    for (const auto& log : logs) {
        LogOurs(*log, 0);
        log->Flush(0);
    }
    double plainSeconds = 0;
    double boundedSeconds = 0;
    int64_t iteration = 0;
    bool dropped = false;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        Alternate(iteration++, [&](bool bounded) {
            kt::Log& log = *logs[bounded ? 1 : 0];
            const auto start = Clock::now();
            std::vector<std::thread> threads;
            for (int p = 0; p < producers; ++p) {
                threads.emplace_back([&, p] {
                    for (int i = p; i < kEntries; i += producers) {
                        LogOurs(log, i);
                    }
                });
            }
            for (auto& t : threads) {
                t.join();
            }
            dropped = dropped || log.Flush(0) != 0;
            return std::chrono::duration<double>(Clock::now() - start).count();
        }, plainSeconds, boundedSeconds);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - t0).count());
        if (dropped) {
            state.SkipWithError("entries were dropped");
            break;
        }
    }
    const double entries = static_cast<double>(state.iterations()) * kEntries;
    state.counters["plain_entries_per_s"] = entries / plainSeconds;
    state.counters["bounded_entries_per_s"] = entries / boundedSeconds;
    state.counters["bounded_vs_plain"] = plainSeconds / boundedSeconds;
}
BENCHMARK(BM_FileSinkThroughput_Bounded)
    ->ArgName("producers")
    ->Arg(1)
    ->Arg(2)
    ->UseManualTime()
    ->Iterations(20);


// The caller's side of an Info entry with and without a bound: the bound lives
// on the worker, so the two must not differ.
void BM_InfoEntry_CallerSide_Bounded(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    constexpr int kBurst = 10000;
    TempDir dir;
    BoundedPair pair(dir);
    const std::shared_ptr<kt::Log> logs[2] = {pair.plain->GetLog(), pair.bounded->GetLog()};
    for (const auto& log : logs) {
        LogOurs(*log, -1);
        log->Flush(0);
    }
    Samples samples[2];
    int64_t iteration = 0;
    double plainSeconds = 0;
    double boundedSeconds = 0;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        Alternate(iteration++, [&](bool bounded) {
            kt::Log& log = *logs[bounded ? 1 : 0];
            const double seconds =
                TimedBurst(producers, kBurst, samples[bounded ? 1 : 0], [&](int i) { LogOurs(log, i); });
            log.Flush(0);
            return seconds;
        }, plainSeconds, boundedSeconds);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - t0).count());
    }
    for (Samples& s : samples) {
        std::sort(s.ns.begin(), s.ns.end());
    }
    state.counters["plain_p50_ns"] = Percentile(samples[0].ns, 0.50);
    state.counters["bounded_p50_ns"] = Percentile(samples[1].ns, 0.50);
    state.counters["plain_p99_ns"] = Percentile(samples[0].ns, 0.99);
    state.counters["bounded_p99_ns"] = Percentile(samples[1].ns, 0.99);
}
BENCHMARK(BM_InfoEntry_CallerSide_Bounded)
    ->ArgName("producers")
    ->Arg(1)
    ->Arg(2)
    ->UseManualTime()
    ->Iterations(40);

} // namespace

BENCHMARK_MAIN();
