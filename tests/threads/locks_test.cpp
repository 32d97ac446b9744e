// SpinLock, CSMutex, Conditional, Semaphore, Barrier, GlobalLock, BlockMainLock
// and the lazily created lock behind the last two.
#include "threads_test_support.h"
#include "wall_clock_shift.h"

#include <kestrel/threads.h>

#include "threads/deadline.h"
#include "threads/lazy_lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <deque>
#include <set>

#include <pthread.h>
#include <time.h>

using namespace kestrel;
using namespace kestrel_test;

namespace {

// Another thread tries the lock without waiting; releases it again if it
// got it. True if it was free.
bool freeForOthers(SpinLock& lock) {
  return onOtherThread([&] { return lock.trylock() == 0 && lock.unlock() == 0; });
}

// Unlocks `levels` times, checking that the lock stays held until the last.
void expectHeldLevels(SpinLock& lock, int levels) {
  for (int i = levels; i > 0; --i) {
    EXPECT_FALSE(freeForOthers(lock)) << i << " levels left";
    EXPECT_EQ(lock.unlock(), 0);
  }
  EXPECT_TRUE(freeForOthers(lock));
}

}  // namespace

TEST(SpinLock, RecursionOwnershipAndTimeouts) {
  SpinLock lock;
  ASSERT_EQ(lock.lock(), 0);
  ASSERT_EQ(lock.lock(), 0);
  ASSERT_EQ(lock.trylock(), 0);  // re-entry by the owner never fails
  // Others fail: unlock (leaving the count), lock(0) and a timed lock.
  EXPECT_EQ(onOtherThread([&] { return lock.unlock(); }), -1);
  EXPECT_EQ(onOtherThread([&] { return lock.lock(0); }), -1);
  EXPECT_EQ(onOtherThread([&] { return lock.lock(10); }), -1);  // bounds: TimedWaits
  expectHeldLevels(lock, 3);
  EXPECT_EQ(lock.unlock(), -1);  // nothing left to release
  EXPECT_EQ(onOtherThread([&] { return lock.unlock(); }), -1);

  // A timed lock succeeds once the holder lets go in time.
  ASSERT_EQ(lock.lock(), 0);
  int result = 0;
  std::thread t([&] { result = lock.lock(10000) == 0 ? lock.unlock() : -1; });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(lock.unlock(), 0);
  t.join();
  EXPECT_EQ(result, 0);

  // Taking over a free lock releases nothing, and the lock still works.
  EXPECT_EQ(lock.stealOwnership(), System::getCurrentThread());
  EXPECT_EQ(lock.unlock(), 0);
  EXPECT_EQ(lock.unlock(), -1);
  EXPECT_EQ(lock.lock(), 0);
  expectHeldLevels(lock, 1);
}

// A thread releasing a mutex it did not lock is what forceUnlock and
// stealOwnership are for; ThreadSanitizer reports every such release of a
// pthread mutex, so this case runs in the other builds only.
TEST(SpinLock, ForceUnlockAndStealOwnershipOfAnotherThreadsLock) {
#if defined(KESTREL_TSAN)
  GTEST_SKIP() << "cross-thread mutex release is reported by TSan";
#endif
  SpinLock lock;
  Semaphore locked(0), released(0);
  int holderUnlock = 0;
  std::thread holder([&] {
    lock.lock();
    lock.lock();
    locked.post();
    released.wait();
    holderUnlock = lock.unlock();  // no longer the owner
  });
  locked.wait();
  EXPECT_EQ(lock.forceUnlock(), 0);  // one of two levels
  expectHeldLevels(lock, 1);         // the caller is the owner now
  released.post();
  holder.join();
  EXPECT_EQ(holderUnlock, -1);

  // The heir of a held lock can release it; the old owner cannot.
  ASSERT_EQ(lock.lock(), 0);
  ThreadHandle heir = 0, stolen = 0;
  EXPECT_EQ(onOtherThread([&] {
              heir = System::getCurrentThread();
              stolen = lock.stealOwnership();
              return lock.unlock();
            }),
            0);
  EXPECT_EQ(stolen, heir);
  EXPECT_EQ(lock.unlock(), -1);
  EXPECT_TRUE(freeForOthers(lock));
}

TEST(Conditional, HandsWorkFromProducersToConsumers) {
  // The producers take the lock every way there is, and re-enter it.
  SpinLock lock;
  Conditional changed;
  std::deque<int> queue;  // deliberately plain: only the lock protects it
  const int producers = 3, items = 500 * kStress;
  int closed = 0, consumedCount = 0;
  long long consumedSum = 0;
  runThreads(6, [&](int index) {
    while (index < 3) {  // a consumer
      CSMutex hold(lock);
      while (queue.empty() && closed < producers) ASSERT_EQ(changed.wait(lock), 0);
      if (queue.empty()) return;
      consumedSum += queue.front();
      ++consumedCount;
      queue.pop_front();
    }
    for (int i = 1; i <= items; ++i) {
      while ((i % 3 == 0 ? lock.lock() : i % 3 == 1 ? lock.trylock() : lock.lock(5)) != 0) {
      }
      CSMutex again(lock);
      queue.push_back(i);
      changed.signal();
      ASSERT_EQ(lock.unlock(), 0);
    }
    CSMutex hold(lock);
    ++closed;
    changed.broadcast();
  });
  EXPECT_EQ(consumedCount, producers * items);
  EXPECT_EQ(consumedSum, static_cast<long long>(producers) * items * (items + 1) / 2);
  EXPECT_TRUE(freeForOthers(lock));
}

TEST(Conditional, WaitsReleaseTheWholeHoldAndRestoreIt) {
  SpinLock lock;
  Conditional cond;
  EXPECT_EQ(cond.wait(lock), -1);  // without holding the lock
  EXPECT_EQ(cond.timedwait(lock, 10), -1);
  ASSERT_EQ(lock.lock(), 0);
  ASSERT_EQ(lock.lock(), 0);                // held twice across the waits
  EXPECT_EQ(cond.timedwait(lock, 10), -1);  // bounds: TimedWaits
  int result = 0;
  bool flag = false;
  std::thread signaller([&] {
    CSMutex hold(lock);  // only possible while the waiter sleeps
    flag = true;
    cond.signal();
  });
  while (!flag && (result = cond.timedwait(lock, 10000)) == 0) {
  }
  EXPECT_EQ(result, 0);
  signaller.join();
  expectHeldLevels(lock, 2);
}

TEST(Conditional, BroadcastWakesEveryWaiter) {
  SpinLock lock;
  Conditional cond;
  constexpr int kWaiters = 3;
  int waiting = 0;
  std::atomic<int> woken{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&] {
      CSMutex hold(lock);
      ++waiting;
      if (cond.timedwait(lock, 2000) == 0) ++woken;  // a lost wake-up times out
    });
  }
  for (;;) {  // every waiter is inside its wait once the count is full
    CSMutex hold(lock);
    if (waiting == kWaiters) {
      EXPECT_EQ(cond.broadcast(), 0);
      break;
    }
  }
  for (std::thread& t : waiters) t.join();
  EXPECT_EQ(woken.load(), kWaiters);
}

TEST(Conditional, DeadlineCarriesMicrosecondsAndKeepsTheThirtyTwoBitSum) {
  // now (s, us), timeout (ms) -> deadline (s, ns)
  const std::int64_t cases[][5] = {
      {12, 900000, 1500, 14, 400000000},
      {5, 999999, 1, 6, 999000},
      {4102444800LL, 500000, 2500, 4102444803LL, 0},     // past 2038
      {1000000, 0, 2147483, 1000000 + 2147, 483000000},  // largest 32-bit sum
      {1000000, 0, 2147484, 997852, 516704000},          // one more wraps into the past
  };
  for (const auto& c : cases) {
    const auto d = detail::conditionalDeadline(c[0], static_cast<long>(c[1]),
                                               static_cast<unsigned long>(c[2]));
    EXPECT_EQ(d.seconds, c[3]) << c[2];
    EXPECT_EQ(d.nanoseconds, c[4]) << c[2];
  }
}

// Timed waits run on the monotonic clock: the wall clock set back (or on)
// by an hour while they wait changes nothing. Measured on the monotonic
// clock as well; the wall clock is only shifted for the code under test.
TEST(TimedWaits, IgnoreTheWallClockBeingSet) {
  for (const long shift : {-3600L, 3600L}) {
    SCOPED_TRACE(shift);
    SpinLock lock;
    Conditional cond;
    ASSERT_EQ(lock.lock(), 0);
    WallClockShift shifted(shift);
    // About as long as asked: not much less, and not ten times longer.
    const std::function<int()> waits[] = {
        [&] { return onOtherThread([&] { return lock.lock(100); }); },
        [&] { return cond.timedwait(lock, 100); }};
    for (const auto& wait : waits) {
      int result = 0;
      const double waited = elapsedMs([&] { result = wait(); });
      EXPECT_EQ(result, -1);
      EXPECT_GE(waited, 80.0);
      EXPECT_LE(waited, 1000.0);
    }
    EXPECT_EQ(lock.unlock(), 0);
  }
}

TEST(TestThenAdd, ReturnsTheValueBeforeTheAddition) {
  long volatile x = 2;
  EXPECT_EQ(TestThenAdd(&x, -9), 2);
  EXPECT_EQ(x, -7);
  // Atomic: every thread sees each value exactly once.
  long volatile counter = 0;
  const int threads = 4, adds = 2000 * kStress;
  std::vector<std::vector<long>> seen(threads);
  runThreads(threads, [&](int index) {
    for (int i = 0; i < adds; ++i)
      seen[static_cast<size_t>(index)].push_back(TestThenAdd(&counter, 1));
  });
  EXPECT_EQ(counter, static_cast<long>(threads) * adds);
  std::set<long> all;
  for (const auto& values : seen) all.insert(values.begin(), values.end());
  EXPECT_EQ(all.size(), static_cast<size_t>(threads) * adds);
  EXPECT_EQ(*all.begin(), 0);
}

TEST(Semaphore, TrywaitAttemptsAndCounts) {
  Semaphore sem(1);
  EXPECT_EQ(sem.trywait(0), -1);  // deliberate: no attempt, not even with a unit there
  EXPECT_EQ(sem.trywait(1), 0);
  int result = 0;
  // About 1 ms per attempt: at least that, and not ten times more.
  const double polled = elapsedMs([&] { result = sem.trywait(20); });
  EXPECT_GE(polled, 20.0);
  EXPECT_LE(polled, 200.0);
  EXPECT_EQ(result, -1);

  // trywait(-1) blocks until a post, and takes the unit.
  std::atomic<int> returned{0};
  std::thread waiter([&] { returned = sem.trywait(-1) == 0 ? 1 : -1; });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(returned.load(), 0);
  EXPECT_EQ(sem.post(), 0);
  waiter.join();
  EXPECT_EQ(returned.load(), 1);
  EXPECT_EQ(sem.trywait(), -1);

  Semaphore full(Semaphore::kMaxCount);
  EXPECT_EQ(full.post(), -1);  // overflow
  EXPECT_EQ(full.wait(), 0);
  EXPECT_EQ(full.post(), 0);
  // Initial counts outside 0 .. kMaxCount are clamped.
  EXPECT_EQ(Semaphore(-5).trywait(), -1);
  EXPECT_EQ(Semaphore(Semaphore::kMaxCount + 10L).post(), -1);
}

TEST(Barrier, KeepsManyThreadsInStepOverManyCycles) {
  Barrier one(1), none(0);  // 0 counts as one party
  EXPECT_TRUE(one.enter() == 0 && one.enter() == 0 && none.enter() == 0 && none.enter() == 0);
  const int parties = 8;
  Barrier barrier(parties);
  std::vector<std::atomic<int>> arrivals(300 * kStress);
  std::atomic<int> outOfStep{0};
  runThreads(parties, [&](int) {
    for (auto& arrived : arrivals) {
      arrived.fetch_add(1);
      ASSERT_EQ(barrier.enter(), 0);
      outOfStep += arrived.load() != parties;  // all arrived before anyone leaves
    }
  });
  EXPECT_EQ(outOfStep.load(), 0);
}

namespace {

// A thread sent SIGUSR1 sits in this handler until thawed, wherever it was,
// for instance asleep in a barrier with its wake-up already posted.
std::atomic<bool> sFrozen{false}, sThaw{false};

void freezeUntilThawed(int) {
  sFrozen = true;
  const timespec oneMs{0, 1000000L};
  while (!sThaw.load()) nanosleep(&oneMs, nullptr);
}

}  // namespace

TEST(Barrier, AWakeUpBelongsToTheCycleItWasPostedFor) {
  // A is the early party of cycle 1 and is held up while its wake-up is
  // pending; B, the last party, leaves and enters cycle 2 at once. B must
  // wait there for A instead of taking A's wake-up and leaving alone.
  struct sigaction freeze = {}, previous = {};
  freeze.sa_handler = freezeUntilThawed;
  sigemptyset(&freeze.sa_mask);
  ASSERT_EQ(sigaction(SIGUSR1, &freeze, &previous), 0);
  sFrozen = sThaw = false;
  Barrier barrier(2);
  std::atomic<int> aCycles{0}, bCycles{0};
  const auto twoCycles = [&](std::atomic<int>* cycles) {
    for (int i = 0; i < 2; ++i) *cycles += barrier.enter() == 0;
  };
  std::thread a, b;
  // Left early by a failed assertion: A thawed and B started if it was not,
  // the two make up both cycles between them, and both are joined.
  JoinOnExit joinBoth{{&a, &b}, [&] {
                        sThaw = true;
                        if (!b.joinable()) b = std::thread(twoCycles, &bCycles);
                      }};
  a = std::thread(twoCycles, &aCycles);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // A waits in cycle 1
  pthread_kill(a.native_handle(), SIGUSR1);
  ASSERT_TRUE(waitUntil([] { return sFrozen.load(); }));
  b = std::thread(twoCycles, &bCycles);
  ASSERT_TRUE(waitUntil([&] { return bCycles.load() >= 1; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const int bEarly = bCycles.load();
  EXPECT_EQ(bEarly, 1) << "B left cycle 2 on A's wake-up of cycle 1";
  EXPECT_EQ(aCycles.load(), 0);
  sThaw = true;
  for (int cycle = 1; bEarly == 2 && cycle <= 2; ++cycle) {      // the fault: see A through
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // A asleep again
    barrier.enter();
    waitUntil([&] { return aCycles.load() >= cycle; });
  }
  ASSERT_TRUE(waitUntil([&] { return aCycles.load() == 2 && bCycles.load() == 2; }));
  EXPECT_EQ(aCycles.load(), 2);
  EXPECT_EQ(bCycles.load(), 2);
  sigaction(SIGUSR1, &previous, nullptr);
}

namespace {

// Runs body(index) on `count` threads released at the same moment; returns
// the distinct locks the bodies returned.
std::set<SpinLock*> race(int count, const std::function<SpinLock*()>& body) {
  std::atomic<int> arrived{0};
  std::vector<SpinLock*> seen(static_cast<size_t>(count), nullptr);
  runThreads(count, [&](int index) {
    for (arrived.fetch_add(1); arrived.load() < count;) std::this_thread::yield();
    seen[static_cast<size_t>(index)] = body();
  });
  return {seen.begin(), seen.end()};
}

}  // namespace

// Under ctest every test runs in a process of its own, so this is the first
// use of the lock: the threads race to create it.
TEST(GlobalLock, ThreadsRacingTheFirstLockShareOneLock) {
  int inside = 0;
  std::atomic<int> overlaps{0};
  const std::set<SpinLock*> seen = race(16, [&] {
    EXPECT_EQ(GlobalLock::lock(), 0);
    overlaps += ++inside != 1;
    std::this_thread::yield();
    --inside;
    SpinLock* lock = GlobalLock::gGlobalLock();
    EXPECT_EQ(GlobalLock::unlock(), 0);
    return lock;
  });
  EXPECT_EQ(seen, std::set<SpinLock*>{GlobalLock::gGlobalLock()});
  EXPECT_NE(GlobalLock::gGlobalLock(), nullptr);
  EXPECT_EQ(overlaps.load(), 0);
}

TEST(BlockMainLock, IsADifferentLockThatOthersCannotTakeWhileHeld) {
  ASSERT_EQ(BlockMainLock::trylock(), 0);
  EXPECT_NE(BlockMainLock::gGlobalLock(), GlobalLock::gGlobalLock());
  EXPECT_EQ(onOtherThread([] { return BlockMainLock::trylock(); }), -1);
  EXPECT_EQ(onOtherThread([] { return BlockMainLock::unlock(); }), -1);
  EXPECT_EQ(onOtherThread([] { return GlobalLock::trylock() == 0 ? GlobalLock::unlock() : -1; }),
            0);
  EXPECT_EQ(BlockMainLock::unlock(), 0);
  EXPECT_EQ(onOtherThread([] { return BlockMainLock::lock() == 0 ? BlockMainLock::unlock() : -1; }),
            0);
}

namespace {

// Creates the lock, counting creations, and widens the window between the
// election of the creator and the publication of the lock.
struct CountingFactory {
  std::atomic<int>* created;
  SpinLock* operator()() const {
    created->fetch_add(1);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return new SpinLock(0);
  }
};

}  // namespace

// On statics of the test's own, so that creation and shutdown can be
// repeated from scratch.
TEST(LazyLock, ExactlyOneThreadCreatesTheLockAndShutdownIsFinal) {
  for (int round = 0; round < 10 * kStress; ++round) {
    std::atomic<SpinLock*> lock{nullptr};
    std::atomic<int> inited{0}, created{0};
    long volatile interlock = 0;
    detail::LazyLock<CountingFactory> lazy(lock, inited, interlock, CountingFactory{&created});
    const auto seen = race(8, [&] {
      EXPECT_EQ(lazy.lock(), 0);
      EXPECT_EQ(lazy.unlock(), 0);
      return lazy.get();
    });
    ASSERT_EQ(created.load(), 1) << "round " << round;
    EXPECT_EQ(seen, std::set<SpinLock*>{lock.load()});
    EXPECT_EQ(inited.load(), 1);
    EXPECT_EQ(interlock, 1);  // the creator's add stays, the waiters' are undone

    // Shut down, the lock is gone for good: the operations fail.
    lazy.shutdown();
    EXPECT_EQ(lock.load(), nullptr);
    EXPECT_EQ(inited.load(), 1);
    EXPECT_EQ(lazy.get(), nullptr);
    EXPECT_TRUE(lazy.lock() == -1 && lazy.trylock() == -1 && lazy.unlock() == -1);
    EXPECT_EQ(created.load(), 1);
    lazy.shutdown();  // a second shutdown has nothing to destroy
  }
}
