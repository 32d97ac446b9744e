// GlobalLock, BlockMainLock and the lazily created lock behind them.
#include "threads_test_support.h"

#include <kestrel/threads.h>

#include "threads/lazy_lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>

using kestrel::BlockMainLock;
using kestrel::GlobalLock;
using kestrel::Semaphore;
using kestrel::SpinLock;
using kestrel_test::kStress;
using kestrel_test::runThreads;

namespace {

template <class Fn>
int onOtherThread(Fn fn)
{
    int result = 0;
    std::thread t([&] { result = fn(); });
    t.join();
    return result;
}

}  // namespace

// Under ctest every test runs in a process of its own, so this is the first
// use of the lock: the threads race to create it.
TEST(GlobalLock, ThreadsRacingTheFirstLockShareOneLock)
{
    const int threads = 16;
    std::atomic<int> arrived{0};
    std::vector<SpinLock*> seen(threads, nullptr);
    int inside = 0;
    std::atomic<int> overlaps{0};
    runThreads(threads, [&](int index) {
        arrived.fetch_add(1);
        while (arrived.load() < threads)
            std::this_thread::yield();
        ASSERT_EQ(GlobalLock::lock(), 0);
        seen[static_cast<size_t>(index)] = GlobalLock::gGlobalLock();
        if (++inside != 1)
            overlaps.fetch_add(1);
        std::this_thread::yield();
        --inside;
        ASSERT_EQ(GlobalLock::unlock(), 0);
    });
    const std::set<SpinLock*> distinct(seen.begin(), seen.end());
    EXPECT_EQ(distinct.size(), 1u);
    EXPECT_NE(*distinct.begin(), nullptr);
    EXPECT_EQ(*distinct.begin(), GlobalLock::gGlobalLock());
    EXPECT_EQ(overlaps.load(), 0);
}

TEST(GlobalLock, IsRecursiveAndOnlyTheHolderUnlocks)
{
    EXPECT_EQ(GlobalLock::unlock(), -1);
    ASSERT_EQ(GlobalLock::lock(), 0);
    EXPECT_EQ(onOtherThread([] { return GlobalLock::unlock(); }), -1);
    ASSERT_EQ(GlobalLock::lock(), 0);
    EXPECT_EQ(GlobalLock::trylock(), 0);  // three levels
    EXPECT_EQ(onOtherThread([] { return GlobalLock::trylock(); }), -1);
    EXPECT_EQ(GlobalLock::unlock(), 0);
    EXPECT_EQ(GlobalLock::unlock(), 0);
    EXPECT_EQ(onOtherThread([] { return GlobalLock::trylock(); }), -1);
    EXPECT_EQ(GlobalLock::unlock(), 0);
    EXPECT_EQ(onOtherThread([] {
                  const int r = GlobalLock::trylock();
                  GlobalLock::unlock();
                  return r;
              }),
              0);
}

TEST(BlockMainLock, TrylockFromASecondThreadFailsWhileHeld)
{
    EXPECT_NE(BlockMainLock::gGlobalLock(), nullptr);
    EXPECT_NE(BlockMainLock::gGlobalLock(), GlobalLock::gGlobalLock());

    Semaphore held(0), release(0);
    std::thread holder([&] {
        ASSERT_EQ(BlockMainLock::trylock(), 0);
        held.post();
        release.wait();
        EXPECT_EQ(BlockMainLock::unlock(), 0);
    });
    held.wait();
    EXPECT_EQ(BlockMainLock::trylock(), -1);
    EXPECT_EQ(BlockMainLock::unlock(), -1);
    // The global lock is a different lock.
    EXPECT_EQ(GlobalLock::trylock(), 0);
    EXPECT_EQ(GlobalLock::unlock(), 0);
    release.post();
    holder.join();
    EXPECT_EQ(BlockMainLock::trylock(), 0);
    EXPECT_EQ(BlockMainLock::unlock(), 0);
}

// The election and shutdown on statics of the test's own, so that they can be
// repeated from scratch.
namespace {

struct CountingFactory {
    std::atomic<int>* created;
    SpinLock* operator()() const
    {
        created->fetch_add(1);
        // Widen the window between election and publication.
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        return new SpinLock(0);
    }
};

}  // namespace

TEST(LazyLock, ExactlyOneThreadCreatesTheLock)
{
    const int rounds = 10 * kStress;
    const int threads = 8;
    for (int round = 0; round < rounds; ++round) {
        std::atomic<SpinLock*> lock{nullptr};
        std::atomic<int> inited{0};
        long volatile interlock = 0;
        std::atomic<int> created{0};
        std::atomic<int> arrived{0};
        std::vector<SpinLock*> seen(threads, nullptr);
        runThreads(threads, [&](int index) {
            kestrel::detail::LazyLock<CountingFactory> lazy(lock, inited, interlock,
                                                            CountingFactory{&created});
            arrived.fetch_add(1);
            while (arrived.load() < threads)
                std::this_thread::yield();
            ASSERT_EQ(lazy.lock(), 0);
            seen[static_cast<size_t>(index)] = lazy.get();
            ASSERT_EQ(lazy.unlock(), 0);
        });
        ASSERT_EQ(created.load(), 1) << "round " << round;
        EXPECT_EQ(std::set<SpinLock*>(seen.begin(), seen.end()).size(), 1u);
        EXPECT_EQ(inited.load(), 1);
        EXPECT_EQ(interlock, 1);  // the creator's add stays, the waiters' are undone
        delete lock.load();
    }
}

TEST(LazyLock, ShutdownLeavesTheCreatedFlagSet)
{
    std::atomic<SpinLock*> lock{nullptr};
    std::atomic<int> inited{0};
    long volatile interlock = 0;
    std::atomic<int> created{0};
    kestrel::detail::LazyLock<CountingFactory> lazy(lock, inited, interlock, CountingFactory{&created});
    ASSERT_EQ(lazy.lock(), 0);
    ASSERT_EQ(lazy.unlock(), 0);
    lazy.shutdown();
    EXPECT_EQ(lock.load(), nullptr);
    EXPECT_EQ(inited.load(), 1);
    // Not created again: the operations find no lock and fail.
    EXPECT_EQ(lazy.get(), nullptr);
    EXPECT_EQ(lazy.lock(), -1);
    EXPECT_EQ(lazy.trylock(), -1);
    EXPECT_EQ(lazy.unlock(), -1);
    EXPECT_EQ(created.load(), 1);
    lazy.shutdown();  // a second shutdown has nothing to destroy
}
