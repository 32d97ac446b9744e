// The thread members of System: spawn/join, thread storage, the main-thread
// mark and sleep.
#include "threads_test_support.h"

#include <kestrel/system.h>

#include "threads/spawn_hook.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>

using kestrel::System;
using kestrel::ThreadHandle;
using kestrel_test::elapsedMs;

namespace {

template <class Fn>
auto onSpawnedThread(Fn fn) -> decltype(fn())
{
    using Result = decltype(fn());
    struct Call {
        Fn* fn;
        Result result;
    } call{&fn, Result{}};
    const ThreadHandle t = System::spawn(
        [](void* p) -> void* {
            Call* c = static_cast<Call*>(p);
            c->result = (*c->fn)();
            return nullptr;
        },
        &call);
    EXPECT_NE(t, 0u);
    EXPECT_EQ(System::join(t), 0);
    return call.result;
}

// Restores the main-thread mark of the test program's main thread.
struct MainMarkGuard {
    ~MainMarkGuard() { System::setMainThreadId(System::kMainThreadMark); }
};

}  // namespace

TEST(SystemThreads, SpawnRunsTheEntryAndJoinWaitsForIt)
{
    struct Work {
        std::atomic<int> ran{0};
        ThreadHandle self = 0;
    } work;
    const ThreadHandle t = System::spawn(
        [](void* p) -> void* {
            Work* w = static_cast<Work*>(p);
            w->self = System::getCurrentThread();
            w->ran.fetch_add(1);
            return p;
        },
        &work);
    ASSERT_NE(t, 0u);
    EXPECT_EQ(System::join(t), 0);
    EXPECT_EQ(work.ran.load(), 1);
    EXPECT_EQ(work.self, t);  // the handle names the thread
    EXPECT_NE(t, System::getCurrentThread());
}

TEST(SystemThreads, JoinOfNoThreadFailsWithoutCrashing)
{
    EXPECT_EQ(System::join(0), ESRCH);
    EXPECT_EQ(System::join(System::getCurrentThread()), EDEADLK);
}

TEST(SystemThreads, SpawnFailureReturnsZeroAndRunsNothing)
{
    const auto failing = [](ThreadHandle*, void* (*)(void*), void*) { return EAGAIN; };
    const auto previous = kestrel::detail::setThreadCreateFunction(failing);
    std::atomic<int> ran{0};
    const ThreadHandle t = System::spawn(
        [](void* p) -> void* {
            static_cast<std::atomic<int>*>(p)->fetch_add(1);
            return nullptr;
        },
        &ran);
    kestrel::detail::setThreadCreateFunction(previous);
    EXPECT_EQ(t, 0u);
    EXPECT_EQ(ran.load(), 0);
    // The platform's creation is back.
    EXPECT_EQ(onSpawnedThread([] { return 5; }), 5);
}

TEST(SystemThreads, ThreadStorageIsPerThread)
{
    const unsigned int key = System::createThreadKey();
    ASSERT_NE(key, 0xFFFFFFFFu);
    int mine = 1, theirs = 2;
    EXPECT_EQ(System::getThreadStorage(key), nullptr);
    EXPECT_EQ(System::setThreadStorage(key, &mine), 0);
    EXPECT_EQ(System::getThreadStorage(key), &mine);

    void* seenBefore = &mine;
    void* seenAfter = nullptr;
    onSpawnedThread([&] {
        seenBefore = System::getThreadStorage(key);
        System::setThreadStorage(key, &theirs);
        seenAfter = System::getThreadStorage(key);
        return 0;
    });
    EXPECT_EQ(seenBefore, nullptr);  // a new thread starts with null
    EXPECT_EQ(seenAfter, &theirs);
    EXPECT_EQ(System::getThreadStorage(key), &mine);  // untouched here

    const unsigned int other = System::createThreadKey();
    EXPECT_NE(other, key);
    EXPECT_EQ(System::getThreadStorage(other), nullptr);
    System::setThreadStorage(key, nullptr);

    EXPECT_EQ(System::setThreadStorage(0xFFFFFFFFu, &mine), -1);
    EXPECT_EQ(System::getThreadStorage(0xFFFFFFFFu), nullptr);
}

TEST(SystemThreads, IsMainThreadFollowsTheMark)
{
    MainMarkGuard restore;
    // The test program marked its main thread, like the application does.
    EXPECT_TRUE(System::isMainThread());
    System::setMainThreadId(1);
    EXPECT_FALSE(System::isMainThread());
    System::setMainThreadId(0xC0FFEE);
    EXPECT_TRUE(System::isMainThread());

    // A new thread is not the main thread, until it marks itself.
    EXPECT_FALSE(onSpawnedThread([] { return System::isMainThread(); }));
    EXPECT_TRUE(onSpawnedThread([] {
        System::setMainThreadId(System::kMainThreadMark);
        return System::isMainThread();
    }));
    EXPECT_TRUE(System::isMainThread());  // marks are per thread
    EXPECT_FALSE(onSpawnedThread([] {
        System::setMainThreadId(12648431);  // any other value marks nothing
        return System::isMainThread();
    }));
}

TEST(SystemThreads, SleepZeroReturnsAtOnceAndInvalidDurationsFail)
{
    int result = -2;
    const double ms = elapsedMs([&] { result = System::sleep(0); });
    EXPECT_EQ(result, 0);
    EXPECT_LT(ms, 5000.0);
    EXPECT_EQ(System::sleep(-2), -1);  // only -1 means "for ever"
}

TEST(SystemThreads, SleepSplitsSecondsAndMilliseconds)
{
    int result = -2;
    // 1 s and 50,000,000 ns: the remainder is milliseconds, not microseconds.
    const double ms = elapsedMs([&] { result = System::sleep(1050); });
    EXPECT_EQ(result, 0);
    EXPECT_GE(ms, 1045.0);
    EXPECT_LT(ms, 10000.0);

    const double shortMs = elapsedMs([&] { result = System::sleep(20); });
    EXPECT_EQ(result, 0);
    EXPECT_GE(shortMs, 19.0);
}
