// AsyncThread: start, ready(), the rendezvous cycles and exit.
#include "threads_test_support.h"

#include <kestrel/threads.h>

#include "threads/spawn_hook.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <mutex>

using kestrel::AsyncThread;
using kestrel::AsyncThreadHandler;
using kestrel::Semaphore;
using kestrel::System;
using kestrel::ThreadHandle;
using kestrel_test::kStress;
using kestrel_test::waitUntil;

namespace {

// Counts callbacks, per worker thread and in total.
class CountingHandler : public AsyncThreadHandler {
public:
    void callback() override
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        ++m_perThread[System::getCurrentThread()];
        ++m_total;
    }

    int total() const
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        return m_total;
    }

    std::map<ThreadHandle, int> perThread() const
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        return m_perThread;
    }

private:
    mutable std::mutex m_mutex;
    std::map<ThreadHandle, int> m_perThread;
    int m_total = 0;
};

// Stops the crew even when an assertion leaves the test early.
struct ExitGuard {
    AsyncThread& crew;
    ~ExitGuard() { crew.exitThreads(); }
};

}  // namespace

TEST(AsyncThread, DefaultsAndNeverStartedCrew)
{
    CountingHandler handler;
    AsyncThread crew(&handler, 3);
    EXPECT_EQ(crew.waitAttempts(), AsyncThread::kDefaultWaitAttempts);
    EXPECT_EQ(crew.threadCount(), 3u);
    for (unsigned long i = 0; i < 3; ++i) {
        EXPECT_EQ(crew.threadInfo(i).owner, &crew);
        EXPECT_EQ(crew.threadInfo(i).thread, 0u);
        EXPECT_EQ(crew.pending(i), 0u);
    }
    crew.ready();  // not started: nothing
    EXPECT_EQ(crew.pending(0), 0u);
    EXPECT_EQ(crew.threadInfo(0).semaphore.trywait(), -1);
    EXPECT_EQ(crew.exitThreads(), 0);
    EXPECT_EQ(crew.running(), 0);
    EXPECT_EQ(handler.total(), 0);
}

TEST(AsyncThread, SecondStartIsRefused)
{
    CountingHandler handler;
    AsyncThread crew(&handler, 2);
    ExitGuard stop{crew};
    ASSERT_EQ(crew.startThreads(), 0u);
    EXPECT_EQ(crew.running(), 2);
    EXPECT_EQ(crew.startThreads(), 0xC0000002u);
    EXPECT_EQ(crew.running(), 2);
    EXPECT_EQ(crew.exitThreads(), 0);
    EXPECT_EQ(crew.running(), 0);
    EXPECT_EQ(crew.startThreads(), 0xC0000002u);  // not even after exit
    EXPECT_EQ(crew.exitThreads(), 0);
}

TEST(AsyncThread, ReadyRunsEveryWorkerOnce)
{
    CountingHandler handler;
    AsyncThread crew(&handler, 3);
    ExitGuard stop{crew};
    ASSERT_EQ(crew.startThreads(), 0u);
    for (unsigned long i = 0; i < 3; ++i)
        EXPECT_NE(crew.threadInfo(i).thread, 0u);
    // Waiting without limit: no callback before work is announced.
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(handler.total(), 0);

    for (int round = 1; round <= 3; ++round) {
        crew.ready();
        ASSERT_TRUE(waitUntil([&] { return handler.total() == 3 * round; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(handler.total(), 3 * round) << "one callback per worker per ready()";
    }
    const auto perThread = handler.perThread();
    EXPECT_EQ(perThread.size(), 3u);
    for (const auto& [thread, count] : perThread)
        EXPECT_EQ(count, 3);
    EXPECT_EQ(crew.exitThreads(), 0);
    EXPECT_EQ(crew.running(), 0);
}

TEST(AsyncThread, WithoutReadyWorkersRunAfterEachWait)
{
    CountingHandler handler;
    AsyncThread crew(&handler, 2);
    ExitGuard stop{crew};
    crew.setWaitAttempts(5);
    ASSERT_EQ(crew.startThreads(), 0u);
    ASSERT_TRUE(waitUntil([&] {
        const auto perThread = handler.perThread();
        if (perThread.size() != 2)
            return false;
        for (const auto& [thread, count] : perThread) {
            if (count < 3)
                return false;
        }
        return true;
    }));
    EXPECT_EQ(crew.exitThreads(), 0);
}

namespace {

// A callback that blocks until the test opens the gate, and reports each
// entry.
class GatedHandler : public AsyncThreadHandler {
public:
    Semaphore entered{0};
    std::atomic<int> calls{0};
    std::atomic<bool> open{false};

    void callback() override
    {
        calls.fetch_add(1);
        entered.post();
        while (!open.load())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
};

}  // namespace

TEST(AsyncThread, ThreeReadyCallsKeepTwoUnitsAndPostOnce)
{
    const unsigned long workers = 2;
    GatedHandler handler;
    AsyncThread crew(&handler, workers);
    ExitGuard stop{crew};
    ASSERT_EQ(crew.startThreads(), 0u);
    // Every worker has used up its opening unit and waits for work.
    ASSERT_TRUE(waitUntil([&] {
        for (unsigned long i = 0; i < workers; ++i) {
            if (crew.pending(i) != 0)
                return false;
        }
        return true;
    }));

    crew.ready();
    crew.ready();
    crew.ready();
    for (unsigned long i = 0; i < workers; ++i)
        EXPECT_EQ(crew.pending(i), 2u);
    // Each worker was woken by the one post and is held in its callback.
    for (unsigned long i = 0; i < workers; ++i)
        ASSERT_EQ(handler.entered.wait(), 0);
    for (unsigned long i = 0; i < workers; ++i)
        EXPECT_EQ(crew.threadInfo(i).semaphore.trywait(), -1) << "only the first ready() posts";

    // One more cycle from the kept units, then the workers wait again.
    handler.open = true;
    ASSERT_TRUE(waitUntil([&] { return handler.calls.load() == 2 * static_cast<int>(workers); }));
    ASSERT_TRUE(waitUntil([&] { return crew.pending(0) == 0 && crew.pending(1) == 0; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(handler.calls.load(), 2 * static_cast<int>(workers));
    EXPECT_EQ(crew.exitThreads(), 0);
}

namespace {

// Checks that the workers run their callbacks in lock-step: when a worker
// starts its n-th callback, every other worker has finished its (n-1)-th and
// none has started its (n+1)-th.
class LockStepHandler : public AsyncThreadHandler {
public:
    explicit LockStepHandler(int workers) : m_counts(static_cast<size_t>(workers)) {}

    void callback() override
    {
        const int me = slot();
        const int n = m_counts[static_cast<size_t>(me)].fetch_add(1) + 1;
        for (size_t i = 0; i < m_counts.size(); ++i) {
            const int other = m_counts[i].load();
            if (other < n - 1 || other > n)
                outOfStep.fetch_add(1);
        }
        total.fetch_add(1);
    }

    std::atomic<int> outOfStep{0};
    std::atomic<int> total{0};

private:
    int slot()
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        auto [it, added] = m_slots.emplace(System::getCurrentThread(), static_cast<int>(m_slots.size()));
        return it->second;
    }

    std::mutex m_mutex;
    std::map<ThreadHandle, int> m_slots;
    std::vector<std::atomic<int>> m_counts;
};

}  // namespace

TEST(AsyncThread, WorkersStayInStepOverManyFastCycles)
{
    const int workers = 4;
    LockStepHandler handler(workers);
    AsyncThread crew(&handler, workers);
    ExitGuard stop{crew};
    crew.setWaitAttempts(0);  // no waiting at all: back-to-back cycles
    ASSERT_EQ(crew.startThreads(), 0u);
    const int target = 400 * kStress * workers;
    ASSERT_TRUE(waitUntil([&] { return handler.total.load() >= target; }, 60000));
    EXPECT_EQ(crew.exitThreads(), 0);
    EXPECT_EQ(crew.running(), 0);
    EXPECT_EQ(handler.outOfStep.load(), 0);
}

TEST(AsyncThread, ExitNeverHangsWhateverTheWorkersAreDoing)
{
    // Crews stopped at arbitrary moments: while waiting, inside callbacks,
    // at the rendezvous, with ready() arriving from other threads.
    const int crews = 6 * kStress;
    for (int c = 0; c < crews; ++c) {
        CountingHandler handler;
        AsyncThread crew(&handler, 3);
        crew.setWaitAttempts(c % 3 == 0 ? -1 : c % 3);
        ASSERT_EQ(crew.startThreads(), 0u);
        std::atomic<bool> stop{false};
        std::thread announcer([&] {
            while (!stop.load()) {
                crew.ready();
                std::this_thread::yield();
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(c % 5));
        std::atomic<bool> exited{false};
        std::thread exiter([&] {
            EXPECT_EQ(crew.exitThreads(), 0);
            exited = true;
        });
        EXPECT_TRUE(waitUntil([&] { return exited.load(); }, 10000)) << "crew " << c;
        exiter.join();
        stop = true;
        announcer.join();
        EXPECT_EQ(crew.running(), 0);
    }
}

namespace {

std::atomic<int> sCreateCalls{0};
std::atomic<int> sFailEvery{0};  // fail the n-th, 2n-th ... creation; 0: none

int selectivelyFailingCreate(ThreadHandle* thread, void* (*start)(void*), void* arg)
{
    const int call = sCreateCalls.fetch_add(1) + 1;
    const int every = sFailEvery.load();
    if (every != 0 && call % every == 0)
        return EAGAIN;
    return kestrel::detail::platformThreadCreate(thread, start, arg);
}

struct CreateHookGuard {
    explicit CreateHookGuard(int failEvery)
    {
        sCreateCalls = 0;
        sFailEvery = failEvery;
        previous = kestrel::detail::setThreadCreateFunction(selectivelyFailingCreate);
    }
    ~CreateHookGuard() { kestrel::detail::setThreadCreateFunction(previous); }
    kestrel::detail::ThreadCreateFunction previous;
};

}  // namespace

TEST(AsyncThread, AWorkerThatCannotStartIsNotWaitedFor)
{
    CountingHandler handler;
    AsyncThread crew(&handler, 3);
    {
        CreateHookGuard hook(2);  // the second worker's thread fails
        std::atomic<bool> started{false};
        std::thread starter([&] {
            EXPECT_EQ(crew.startThreads(), 0u);
            started = true;
        });
        ASSERT_TRUE(waitUntil([&] { return started.load(); }, 10000)) << "startThreads hung";
        starter.join();
    }
    ExitGuard stop{crew};
    EXPECT_NE(crew.threadInfo(0).thread, 0u);
    EXPECT_EQ(crew.threadInfo(1).thread, 0u);
    EXPECT_NE(crew.threadInfo(2).thread, 0u);
    EXPECT_EQ(crew.running(), 2);

    // The two workers keep cycling together.
    for (int round = 1; round <= 3; ++round) {
        crew.ready();
        ASSERT_TRUE(waitUntil([&] { return handler.total() == 2 * round; }));
    }
    EXPECT_EQ(handler.perThread().size(), 2u);
    EXPECT_EQ(crew.exitThreads(), 0);
    EXPECT_EQ(crew.running(), 0);
}

TEST(AsyncThread, ACrewWithNoThreadAtAllStillStartsAndExits)
{
    CountingHandler handler;
    AsyncThread crew(&handler, 2);
    {
        CreateHookGuard hook(1);  // every creation fails
        EXPECT_EQ(crew.startThreads(), 0u);
    }
    EXPECT_EQ(crew.running(), 0);
    crew.ready();
    EXPECT_EQ(crew.exitThreads(), 0);
    EXPECT_EQ(handler.total(), 0);
}
