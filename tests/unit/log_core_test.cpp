// The asynchronous log: registration rules, level filter, lazy worker, ordering
// under several producers, flush with a time limit, the overload rule with its
// single report, the load phase, dead listeners, and threads left behind.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "log/Log.h"
#include "log_TestSupport.h"

using kt::Log;
using kt::LogEntry;
using kt_test::CountThreads;
using kt_test::SettledThreadCount;
using kt_test::RecordingListener;

namespace {

using namespace std::chrono_literals;

std::weak_ptr<kt::ILogListener> Weak(const std::shared_ptr<RecordingListener>& l) {
    return std::static_pointer_cast<kt::ILogListener>(l);
}

// ---------------------------------------------------------------------------
// Registration and the level filter

TEST(LogListeners, RegistrationRules) {
    Log log(LogEntry::Trace);
    auto a = std::make_shared<RecordingListener>();
    auto b = std::make_shared<RecordingListener>();
    EXPECT_TRUE(log.AddListener(Weak(a)));
    EXPECT_FALSE(log.AddListener(Weak(a))) << "duplicate accepted";
    EXPECT_FALSE(log.RemoveListener(Weak(b))) << "removed one never registered";
    std::weak_ptr<kt::ILogListener> expired;
    {
        auto gone = std::make_shared<RecordingListener>();
        expired = Weak(gone);
    }
    EXPECT_FALSE(log.AddListener(expired));
    EXPECT_FALSE(log.RemoveListener(expired));
    EXPECT_TRUE(log.AddListener(Weak(b)));
    EXPECT_TRUE(log.RemoveListener(Weak(a)));
    EXPECT_FALSE(log.RemoveListener(Weak(a)));
    EXPECT_TRUE(log.RemoveListener(Weak(b)));
    EXPECT_FALSE(log.WillBeLogged(LogEntry::Error)) << "no listener left";
}

TEST(LogListeners, WithoutListenersNothingIsLoggedNoThreadStartsAndFlushIsImmediate) {
    const size_t threads = CountThreads();
    Log log(LogEntry::Trace);
    for (auto level : {LogEntry::Error, LogEntry::Warning, LogEntry::Info, LogEntry::Debug,
                       LogEntry::Trace}) {
        EXPECT_FALSE(log.WillBeLogged(level));
    }
    log.AddEntry("DDI", LogEntry::Error, "%s", "dropped before formatting");
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(log.Flush(0), 0u);
    EXPECT_EQ(log.Flush(1000), 0u);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 200ms);
    EXPECT_EQ(SettledThreadCount(threads), threads);
}

TEST(LogLevels, MaximumLevelPassesAndMoreVerboseDoesNot) {
    Log log(LogEntry::Info);
    auto l = std::make_shared<RecordingListener>();
    ASSERT_TRUE(log.AddListener(Weak(l)));
    EXPECT_TRUE(log.WillBeLogged(LogEntry::Error));
    EXPECT_TRUE(log.WillBeLogged(LogEntry::Warning));
    EXPECT_TRUE(log.WillBeLogged(LogEntry::Info));
    EXPECT_FALSE(log.WillBeLogged(LogEntry::Debug));
    EXPECT_FALSE(log.WillBeLogged(LogEntry::Trace));
    EXPECT_TRUE(log.WillBeLogged(static_cast<LogEntry::Level>(-3))) << "signed comparison";
    log.AddEntry("DDI", LogEntry::Debug, "%s", "filtered");
    log.AddEntry("DDI", LogEntry::Info, "%s", "kept");
    log.Flush(0);
    EXPECT_EQ(l->Messages(), std::vector<std::string>{"kept"});
}

// ---------------------------------------------------------------------------
// Worker life cycle

TEST(LogWorker, FirstLevelTestStartsOneWorkerAndDestructionLeavesNoThread) {
    const size_t before = CountThreads();
    {
        Log log(LogEntry::Error);
        auto l = std::make_shared<RecordingListener>();
        ASSERT_TRUE(log.AddListener(Weak(l)));
        EXPECT_EQ(SettledThreadCount(before), before) << "registration must not start the worker";
        // Even a level that does not pass starts the worker.
        EXPECT_FALSE(log.WillBeLogged(LogEntry::Trace));
        EXPECT_EQ(SettledThreadCount(before + 1), before + 1);
        EXPECT_FALSE(log.Start()) << "second worker";
        log.WillBeLogged(LogEntry::Error);
        EXPECT_EQ(SettledThreadCount(before + 1), before + 1);
    }
    EXPECT_EQ(SettledThreadCount(before), before);
}

TEST(LogWorker, ManyLogsCreatedAndDestroyedLeaveNoThread) {
    const size_t before = CountThreads();
    for (int i = 0; i < 50; ++i) {
        Log log(LogEntry::Trace);
        auto l = std::make_shared<RecordingListener>();
        log.AddListener(Weak(l));
        log.AddEntry("DDI", LogEntry::Info, "cycle %d", i);
        if (i % 2 == 0) {
            log.Flush(0);
        }
    }
    EXPECT_EQ(SettledThreadCount(before), before);
}

TEST(LogWorker, UndeliveredEntriesAreDiscardedAtDestruction) {
    auto l = std::make_shared<RecordingListener>();
    std::thread release;
    {
        Log log(LogEntry::Trace);
        log.AddListener(Weak(l));
        l->Block();
        log.AddEntry("DDI", LogEntry::Info, "%s", "first");
        ASSERT_TRUE(l->WaitUntilBlocked());
        for (int i = 0; i < 100; ++i) {
            log.AddEntry("DDI", LogEntry::Info, "queued %d", i);
        }
        release = std::thread([l] {
            std::this_thread::sleep_for(50ms);
            l->Open();
        });
        // The destructor stops the worker after the entry it is delivering.
    }
    release.join();
    const auto messages = l->Messages();
    ASSERT_GE(messages.size(), 1u);
    EXPECT_EQ(messages[0], "first");
    EXPECT_LE(messages.size(), 2u) << "worker went on delivering after stop";
}

// ---------------------------------------------------------------------------
// Producers

TEST(LogOrdering, SeveralProducersLoseNothingAndKeepTheirOwnOrder) {
    constexpr int kProducers = 4;
    constexpr int kPerProducer = 5000;
    Log log(LogEntry::Trace);
    auto l = std::make_shared<RecordingListener>();
    ASSERT_TRUE(log.AddListener(Weak(l)));
    std::atomic<bool> go{false};
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            while (!go.load()) {
            }
            for (int i = 0; i < kPerProducer; ++i) {
                log.AddEntry("SEQ", LogEntry::Info, "%d %d", p, i);
            }
        });
    }
    go = true;
    for (auto& t : producers) {
        t.join();
    }
    EXPECT_EQ(log.Flush(0), 0u);
    const auto lines = l->Lines();
    ASSERT_EQ(lines.size(), static_cast<size_t>(kProducers * kPerProducer));
    std::vector<int> next(kProducers, 0);
    std::vector<uint32_t> tids(kProducers, 0);
    for (const auto& line : lines) {
        int p = -1;
        int i = -1;
        ASSERT_EQ(std::sscanf(line.message.c_str(), "%d %d", &p, &i), 2);
        ASSERT_GE(p, 0);
        ASSERT_LT(p, kProducers);
        ASSERT_EQ(i, next[p]) << "producer " << p << " out of order";
        ++next[p];
        if (tids[p] == 0) {
            tids[p] = line.tid;
        }
        ASSERT_EQ(line.tid, tids[p]) << "entry carries another thread's id";
    }
}

// ---------------------------------------------------------------------------
// Listeners dying and order of delivery

TEST(LogListeners, DeadListenerIsSkippedAndTheOthersKeepOrder) {
    Log log(LogEntry::Trace);
    auto a = std::make_shared<RecordingListener>();
    auto b = std::make_shared<RecordingListener>();
    auto c = std::make_shared<RecordingListener>();
    ASSERT_TRUE(log.AddListener(Weak(a)));
    ASSERT_TRUE(log.AddListener(Weak(b)));
    ASSERT_TRUE(log.AddListener(Weak(c)));
    log.AddEntry("DDI", LogEntry::Info, "%s", "one");
    log.Flush(0);
    b.reset();
    log.AddEntry("DDI", LogEntry::Info, "%s", "two");
    log.AddEntry("DDI", LogEntry::Info, "%s", "three");
    log.Flush(0);
    const std::vector<std::string> all{"one", "two", "three"};
    EXPECT_EQ(a->Messages(), all);
    EXPECT_EQ(c->Messages(), all);
    // The dead one is gone from the list: registering a new listener works and it
    // is served after the survivors.
    auto d = std::make_shared<RecordingListener>();
    EXPECT_TRUE(log.AddListener(Weak(d)));
    log.AddEntry("DDI", LogEntry::Info, "%s", "four");
    log.Flush(0);
    EXPECT_EQ(d->Messages(), std::vector<std::string>{"four"});
    EXPECT_EQ(a->Messages().size(), 4u);
}

class ThrowingListener final : public kt::ILogListener {
public:
    void OnLogEntryAdded(const kt::LogEntry&) override { throw std::runtime_error("sink failed"); }
};

TEST(LogListeners, ThrowingListenerNeitherStopsTheWorkerNorStarvesOthers) {
    Log log(LogEntry::Trace);
    auto bad = std::make_shared<ThrowingListener>();
    auto good = std::make_shared<RecordingListener>();
    ASSERT_TRUE(log.AddListener(std::static_pointer_cast<kt::ILogListener>(bad)));
    ASSERT_TRUE(log.AddListener(Weak(good)));
    log.AddEntry("DDI", LogEntry::Info, "%s", "a");
    log.AddEntry("DDI", LogEntry::Info, "%s", "b");
    log.Flush(0);
    EXPECT_EQ(good->Messages(), (std::vector<std::string>{"a", "b"}));
}

// ---------------------------------------------------------------------------
// Flush

TEST(LogFlush, BlockedSinkMakesFlushReturnAfterTheLimitWithTheDiscardedCount) {
    Log log(LogEntry::Trace);
    auto l = std::make_shared<RecordingListener>();
    ASSERT_TRUE(log.AddListener(Weak(l)));
    l->Block();
    log.AddEntry("DDI", LogEntry::Info, "%s", "in delivery");
    ASSERT_TRUE(l->WaitUntilBlocked());
    for (int i = 0; i < 10; ++i) {
        log.AddEntry("DDI", LogEntry::Info, "waiting %d", i);
    }
    const auto t0 = std::chrono::steady_clock::now();
    const uint64_t discarded = log.Flush(1000);
    const auto elapsed = std::chrono::steady_clock::now() - t0;
    EXPECT_EQ(discarded, 10u);
    EXPECT_GE(elapsed, 990ms);
    EXPECT_LT(elapsed, 1500ms);
    l->Open();
    log.AddEntry("DDI", LogEntry::Info, "%s", "after");
    EXPECT_EQ(log.Flush(0), 0u);
    EXPECT_EQ(l->Messages(), (std::vector<std::string>{"in delivery", "after"}));
}

TEST(LogFlush, IdleQueueReturnsZeroWithoutWaiting) {
    Log log(LogEntry::Trace);
    auto l = std::make_shared<RecordingListener>();
    log.AddListener(Weak(l));
    log.AddEntry("DDI", LogEntry::Info, "%s", "x");
    log.Flush(0);
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(log.Flush(1000), 0u);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 100ms);
}

TEST(LogFlush, ReturnsOnlyAfterTheLastEntryHasReachedTheSink) {
    // A flush that returned while the worker still wrote the last line would let
    // a sink's footer overtake it.
    Log log(LogEntry::Trace);
    auto l = std::make_shared<RecordingListener>();
    log.AddListener(Weak(l));
    for (int round = 0; round < 200; ++round) {
        log.AddEntry("DDI", LogEntry::Info, "r%d", round);
        EXPECT_EQ(log.Flush(5000), 0u);
        ASSERT_EQ(l->Lines().size(), static_cast<size_t>(round + 1)) << "round " << round;
    }
}

// ---------------------------------------------------------------------------
// Overload

TEST(LogOverload, CountsEntriesWhileOverloadedAndReportsOnceWhenDrained) {
    constexpr int kBacklog = 60000;
    Log log(LogEntry::Trace);
    auto l = std::make_shared<RecordingListener>();
    ASSERT_TRUE(log.AddListener(Weak(l)));
    l->Block();
    log.AddEntry("DDI", LogEntry::Info, "%s", "first");
    ASSERT_TRUE(l->WaitUntilBlocked());
    for (int i = 0; i < kBacklog; ++i) {
        log.AddEntry("DDI", LogEntry::Info, std::to_string(i));
    }
    // Let the worker finish "first" and take entry 0: that removal leaves 59999
    // queued, above the threshold, so the log starts dropping.
    l->Allow(1);
    ASSERT_TRUE(l->WaitForLines(1));
    ASSERT_TRUE(l->WaitUntilBlocked());
    for (int i = 0; i < 7; ++i) {
        log.AddEntry("DDI", LogEntry::Info, "late %d", i);
        log.AddEntry("DDI", LogEntry::Error, "%s", "late formatted");
    }
    l->Open();
    ASSERT_TRUE(l->WaitForLines(1 + kBacklog + 1, std::chrono::seconds(60)));
    log.AddEntry("DDI", LogEntry::Info, "%s", "after");
    EXPECT_EQ(log.Flush(0), 0u);

    const auto lines = l->Lines();
    ASSERT_EQ(lines.size(), static_cast<size_t>(1 + kBacklog + 2));
    EXPECT_EQ(lines[0].message, "first");
    for (int i = 0; i < kBacklog; ++i) {
        ASSERT_EQ(lines[1 + i].message, std::to_string(i));
    }
    const auto& report = lines[1 + kBacklog];
    EXPECT_EQ(report.category, "***");
    EXPECT_EQ(report.level, LogEntry::Warning);
    EXPECT_EQ(report.depth, 0);
    EXPECT_TRUE(std::regex_match(
        report.message, std::regex(R"(Too many messages in log queue, 14 new messages dropped )"
                                   R"(during \d+us while processing the queue)")))
        << report.message;
    EXPECT_TRUE(std::regex_search(report.formatted, std::regex(R"( \*\*\* \d{5,}:\d{5,} W\] Too)")))
        << report.formatted;
    EXPECT_EQ(lines.back().message, "after") << "queuing did not resume";
    int reports = 0;
    for (const auto& line : lines) {
        reports += line.category == "***" ? 1 : 0;
    }
    EXPECT_EQ(reports, 1);
}

// ---------------------------------------------------------------------------
// Load phase

TEST(LogLoadPhase, EntriesWaitWithoutWorkerAndAreDeliveredInOrderAfterLoad) {
    const size_t before = CountThreads();
    auto l = std::make_shared<RecordingListener>();
    {
        Log log(LogEntry::Trace);
        ASSERT_TRUE(log.AddListener(Weak(l)));
        {
            Log::LibInitHelper pre(Log::LibInitHelper::PreInit, Log::LibInitHelper::Immediate);
            EXPECT_TRUE(log.WillBeLogged(LogEntry::Trace));
            log.AddEntry("DDI", LogEntry::Info, "%s", "during load 1");
            log.AddEntry("DDI", LogEntry::Debug, "%s", "during load 2");
            // Notified mode leaves the flag as it is: still loading.
            Log::LibInitHelper notified(Log::LibInitHelper::PostInit,
                                        Log::LibInitHelper::Notified);
            log.AddEntry("DDI", LogEntry::Info, "%s", "during load 3");
            // An unlimited flush cannot wait for a worker that may not start: it
            // returns at once and discards what is queued.
            EXPECT_EQ(log.Flush(0), 3u);
            log.AddEntry("DDI", LogEntry::Info, "%s", "during load 4");
            EXPECT_EQ(SettledThreadCount(before), before) << "worker started during load";
            EXPECT_TRUE(l->Messages().empty());
            Log::LibInitHelper post(Log::LibInitHelper::PostInit, Log::LibInitHelper::Immediate);
            // The flag is down again: the next level test starts the worker.
            EXPECT_TRUE(log.WillBeLogged(LogEntry::Error));
            EXPECT_EQ(SettledThreadCount(before + 1), before + 1);
            log.AddEntry("DDI", LogEntry::Info, "%s", "after load");
            EXPECT_EQ(log.Flush(0), 0u);
        }
        // Destroying the markers raises the flag again (unload phase).
        Log::LibInitHelper::NotifyLibProcessAttachDone();
    }
    EXPECT_EQ(l->Messages(), (std::vector<std::string>{"during load 4", "after load"}))
        << "the unlimited flush discards what it could not wait for";
    EXPECT_EQ(SettledThreadCount(before), before);
}

TEST(LogLoadPhase, QueuedDuringLoadAreDeliveredInOrderOnceLoadEnds) {
    const size_t before = CountThreads();
    Log log(LogEntry::Trace);
    auto l = std::make_shared<RecordingListener>();
    ASSERT_TRUE(log.AddListener(Weak(l)));
    Log::LibInitHelper::NotifyLibProcessDetachDone();
    for (int i = 0; i < 5; ++i) {
        log.AddEntry("DDI", LogEntry::Info, "load %d", i);
    }
    EXPECT_EQ(SettledThreadCount(before), before);
    Log::LibInitHelper::NotifyLibProcessAttachDone();
    log.AddEntry("DDI", LogEntry::Info, "%s", "first after load");
    EXPECT_EQ(log.Flush(0), 0u);
    EXPECT_EQ(l->Messages(), (std::vector<std::string>{"load 0", "load 1", "load 2", "load 3",
                                                       "load 4", "first after load"}));
}

// ---------------------------------------------------------------------------
// Depth

TEST(LogDepth, PerThreadCounterNeverGoesBelowZero) {
    EXPECT_EQ(Log::GetThreadDepth(), 0);
    EXPECT_FALSE(Log::DecreaseThreadDepth());
    EXPECT_EQ(Log::GetThreadDepth(), 0);
    Log::IncreaseThreadDepth();
    Log::IncreaseThreadDepth();
    uint16_t other = 99;
    std::thread([&] { other = Log::GetThreadDepth(); }).join();
    EXPECT_EQ(other, 0) << "depth leaked into another thread";
    EXPECT_TRUE(Log::DecreaseThreadDepth());
    EXPECT_TRUE(Log::DecreaseThreadDepth());
    EXPECT_FALSE(Log::DecreaseThreadDepth());
}

} // namespace
