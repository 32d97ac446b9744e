// The thread members of System (spawn/join, thread storage, the main-thread
// mark, sleep) and AsyncThread: start, ready(), the rendezvous cycles and exit.
#include "threads_test_support.h"

#include <kestrel/system.h>
#include <kestrel/threads.h>

#include "threads/main_thread_key.h"
#include "threads/spawn_hook.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <mutex>

#include <pthread.h>

using namespace kestrel;
using kestrel_test::kStress;
using kestrel_test::onOtherThread;
using kestrel_test::waitUntil;

namespace {

std::atomic<int> sCreateCalls{0};
std::atomic<int> sFailEvery{0};  // fail the n-th, 2n-th ... creation

int selectivelyFailingCreate(ThreadHandle* thread, void* (*start)(void*), void* arg) {
  if ((sCreateCalls.fetch_add(1) + 1) % sFailEvery.load() == 0) return EAGAIN;
  return detail::platformThreadCreate(thread, start, arg);
}

// Makes every failEvery-th thread creation from now on fail; returns the
// creation function to restore.
detail::ThreadCreateFunction failCreations(int failEvery) {
  sCreateCalls = 0;
  sFailEvery = failEvery;
  return detail::setThreadCreateFunction(selectivelyFailingCreate);
}

// Runs fn on a thread made by System::spawn, joins it and returns fn's result.
template <class Fn>
auto onSpawnedThread(Fn fn) -> decltype(fn()) {
  using Result = decltype(fn());
  struct Call {
    Fn* fn;
    Result result;
    ThreadHandle self;
  } call{&fn, {}, 0};
  const ThreadHandle t = System::spawn(
      [](void* p) -> void* {
        Call* c = static_cast<Call*>(p);
        c->self = System::getCurrentThread();
        c->result = (*c->fn)();
        return nullptr;
      },
      &call);
  EXPECT_NE(t, 0u);
  EXPECT_EQ(System::join(t), 0);
  EXPECT_EQ(call.self, t);  // the handle names the thread
  return call.result;
}

}  // namespace

TEST(SystemThreads, SpawnAndJoin) {
  int ran = 0;
  EXPECT_EQ(onSpawnedThread([&] { return ++ran; }), 1);
  EXPECT_EQ(ran, 1);  // the entry ran before join returned
  EXPECT_EQ(System::join(0), ESRCH);
  EXPECT_EQ(System::join(System::getCurrentThread()), EDEADLK);

  // A thread that cannot be created: 0, and the entry never runs.
  const auto previous = failCreations(1);
  const ThreadHandle t = System::spawn(
      [](void* p) -> void* {
        ++*static_cast<int*>(p);
        return nullptr;
      },
      &ran);
  detail::setThreadCreateFunction(previous);
  EXPECT_EQ(t, 0u);
  EXPECT_EQ(ran, 1);
  EXPECT_EQ(onSpawnedThread([] { return 5; }), 5);  // the platform's creation is back
}

TEST(SystemThreads, ThreadStorageIsPerThread) {
  const unsigned int key = System::createThreadKey();
  ASSERT_NE(key, 0xFFFFFFFFu);
  int mine = 1, theirs = 2;
  EXPECT_EQ(System::getThreadStorage(key), nullptr);
  EXPECT_EQ(System::setThreadStorage(key, &mine), 0);
  EXPECT_EQ(System::getThreadStorage(key), &mine);
  EXPECT_EQ(onSpawnedThread([&] {
              void* before = System::getThreadStorage(key);  // a new thread starts with null
              System::setThreadStorage(key, &theirs);
              return before == nullptr && System::getThreadStorage(key) == &theirs;
            }),
            true);
  EXPECT_EQ(System::getThreadStorage(key), &mine);  // untouched here
  EXPECT_EQ(System::setThreadStorage(0xFFFFFFFFu, &mine), -1);
  EXPECT_EQ(System::getThreadStorage(0xFFFFFFFFu), nullptr);
}

TEST(SystemThreads, IsMainThreadFollowsTheMark) {
  // The test program marked its main thread, like the application does; any
  // value other than the mark unmarks it.
  EXPECT_TRUE(System::isMainThread());
  System::setMainThreadId(System::kMainThreadMark + 1);
  EXPECT_FALSE(System::isMainThread());
  System::setMainThreadId(0xC0FFEE);
  EXPECT_TRUE(System::isMainThread());

  // A new thread is not the main thread until it marks itself: marks are
  // per thread.
  EXPECT_FALSE(onSpawnedThread([] { return System::isMainThread(); }));
  EXPECT_TRUE(onSpawnedThread([] {
    System::setMainThreadId(System::kMainThreadMark);
    return System::isMainThread();
  }));
  EXPECT_TRUE(System::isMainThread());
}

namespace {

// A key that the failing creation below hands back as if it were new: the
// key of another component, which the library must never write.
pthread_key_t sVictimKey;
int sCreateAttempts = 0;
bool sCreateFails = true;

int createOrFail(pthread_key_t* key, void (*destructor)(void*)) {
  ++sCreateAttempts;
  if (!sCreateFails) return pthread_key_create(key, destructor);
  *key = sVictimKey;  // what is left in the output is unspecified
  return EAGAIN;
}

}  // namespace

// The process has run out of thread-local keys: the mark is stored nowhere
// (not in a key that belongs to someone else), the thread is not marked, and
// a later call creates the key after all.
TEST(SystemThreads, AMainThreadKeyThatCannotBeCreatedStoresNothingAndIsRetried) {
  ASSERT_EQ(pthread_key_create(&sVictimKey, nullptr), 0);
  int victimValue = 0;
  ASSERT_EQ(pthread_setspecific(sVictimKey, &victimValue), 0);
  sCreateAttempts = 0;
  sCreateFails = true;
  detail::MainThreadKey key(&createOrFail);
  EXPECT_FALSE(key.store(System::kMainThreadMark));
  EXPECT_EQ(key.load(), 0u);
  EXPECT_FALSE(key.store(System::kMainThreadMark));
  EXPECT_EQ(sCreateAttempts, 2);
  EXPECT_EQ(pthread_getspecific(sVictimKey), &victimValue);

  sCreateFails = false;
  EXPECT_TRUE(key.store(System::kMainThreadMark));
  EXPECT_EQ(key.load(), System::kMainThreadMark);
  EXPECT_TRUE(key.store(7));
  EXPECT_EQ(sCreateAttempts, 3);  // created once, then kept
  EXPECT_EQ(pthread_getspecific(sVictimKey), &victimValue);
  EXPECT_EQ(onOtherThread([&] { return key.load(); }), 0u);  // per thread
  pthread_key_delete(sVictimKey);
}

TEST(SystemThreads, Sleep) {
  EXPECT_EQ(System::sleep(0), 0);
  EXPECT_EQ(System::sleep(-2), -1);  // only -1 means "for ever"
  // 1 s and 50,000,000 ns: the remainder is milliseconds, not microseconds.
  int result = -2;
  EXPECT_GE(kestrel_test::elapsedMs([&] { result = System::sleep(1050); }), 1045.0);
  EXPECT_EQ(result, 0);
}

namespace {

// Counts callbacks per worker thread. A callback can be held at a gate
// (closed by the test) and checks that the workers run in lock-step: when
// one starts its n-th callback, every other has finished its (n-1)-th and
// none has started its (n+1)-th.
class Handler : public AsyncThreadHandler {
 public:
  explicit Handler(bool gateOpen = true) : open(gateOpen) {}

  void callback() override {
    int n = 0;
    {
      std::lock_guard<std::mutex> hold(m_mutex);
      n = ++m_perThread[System::getCurrentThread()];
      for (const auto& [thread, count] : m_perThread) outOfStep += count < n - 1 || count > n;
    }
    entered.post();
    while (!open.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    total.fetch_add(1);
  }

  std::map<ThreadHandle, int> perThread() const {
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_perThread;
  }

  std::atomic<bool> open;
  std::atomic<int> total{0};
  int outOfStep = 0;  // read once the crew has stopped
  Semaphore entered{0};

 private:
  mutable std::mutex m_mutex;
  std::map<ThreadHandle, int> m_perThread;
};

// Stops the crew even when an assertion leaves the test early.
struct ExitGuard {
  AsyncThread& crew;
  ~ExitGuard() { crew.exitThreads(); }
};

// Runs fn on another thread, so that a hang shows as a failure.
void returnsWithin(const std::function<void()>& fn) {
  std::atomic<bool> returned{false};
  std::thread runner([&] {
    fn();
    returned = true;
  });
  const bool ok = waitUntil([&] { return returned.load(); }, 10000);
  EXPECT_TRUE(ok) << "hung";
  if (!ok) std::abort();  // the runner can be neither joined nor left
  runner.join();
}

}  // namespace

TEST(AsyncThread, ReadyRunsEveryWorkerOnceAndASecondStartIsRefused) {
  Handler handler;
  AsyncThread crew(&handler, 3);
  ExitGuard stop{crew};
  crew.ready();  // not started yet: nothing, not even a unit
  EXPECT_EQ(crew.pending(0), 0u);
  ASSERT_EQ(crew.startThreads(), 0u);
  EXPECT_EQ(crew.startThreads(), 0xC0000002u);
  EXPECT_EQ(crew.running(), 3);
  // Waiting without limit: no callback before work is announced.
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(handler.total.load(), 0);
  for (int round = 1; round <= 3; ++round) {
    crew.ready();
    ASSERT_TRUE(waitUntil([&] { return handler.total.load() == 3 * round; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(handler.total.load(), 3 * round) << "one callback per worker per ready()";
  }
  EXPECT_EQ(handler.perThread().size(), 3u);
  for (unsigned long i = 0; i < 3; ++i) EXPECT_NE(crew.threadInfo(i).thread, 0u);
  EXPECT_EQ(crew.exitThreads(), 0);
  EXPECT_EQ(crew.running(), 0);
  // Joined threads leave no handle behind: the system may reuse the ids.
  for (unsigned long i = 0; i < 3; ++i) EXPECT_EQ(crew.threadInfo(i).thread, 0u) << i;
  EXPECT_EQ(crew.startThreads(), 0xC0000002u);  // not even after exit
  EXPECT_EQ(handler.outOfStep, 0);
}

// Without ready(), a waiting worker polls waitAttempts() times, 1 ms apart,
// before each callback: the cycles come about that far apart, not faster and
// not ten times slower. With 0 there is no waiting at all: back-to-back cycles.
TEST(AsyncThread, WithoutReadyWorkersCycleInStepPacedByWaitAttempts) {
  for (const int attempts : {20, 0}) {
    Handler handler;
    AsyncThread crew(&handler, 4);
    ExitGuard stop{crew};
    crew.setWaitAttempts(attempts);
    EXPECT_EQ(crew.waitAttempts(), attempts);
    ASSERT_EQ(crew.startThreads(), 0u);
    ASSERT_TRUE(waitUntil([&] { return handler.total.load() >= 4; }));
    const int cycles = attempts == 0 ? 400 * kStress : 6;
    const double elapsed = kestrel_test::elapsedMs([&] {
      ASSERT_TRUE(waitUntil([&] { return handler.total.load() >= 4 * (1 + cycles); }, 60000));
    });
    if (attempts > 0) {
      EXPECT_GE(elapsed, (cycles - 1) * attempts * 1.0);
      EXPECT_LE(elapsed, cycles * attempts * 10.0);
    }
    EXPECT_EQ(crew.exitThreads(), 0);
    EXPECT_EQ(crew.running(), 0);
    EXPECT_EQ(handler.perThread().size(), 4u);
    EXPECT_EQ(handler.outOfStep, 0) << attempts;
  }
}

TEST(AsyncThread, ThreeReadyCallsKeepTwoUnitsAndPostOnce) {
  Handler handler(false);
  AsyncThread crew(&handler, 2);
  ExitGuard stop{crew};
  ASSERT_EQ(crew.startThreads(), 0u);
  // Every worker has used up its opening unit and waits for work.
  ASSERT_TRUE(waitUntil([&] { return crew.pending(0) == 0 && crew.pending(1) == 0; }));
  crew.ready();
  crew.ready();
  crew.ready();
  for (unsigned long i = 0; i < 2; ++i) EXPECT_EQ(crew.pending(i), 2u);
  // Each worker was woken by the one post and is held in its callback.
  for (unsigned long i = 0; i < 2; ++i) ASSERT_EQ(handler.entered.wait(), 0);
  for (unsigned long i = 0; i < 2; ++i)
    EXPECT_EQ(crew.threadInfo(i).semaphore.trywait(), -1) << "only the first ready() posts";
  // One more cycle from the kept units, then the workers wait again.
  handler.open = true;
  ASSERT_TRUE(waitUntil([&] { return handler.total.load() == 4; }));
  ASSERT_TRUE(waitUntil([&] { return crew.pending(0) == 0 && crew.pending(1) == 0; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(handler.total.load(), 4);
  EXPECT_EQ(crew.exitThreads(), 0);
}

TEST(AsyncThread, ExitNeverHangsWhateverTheWorkersAreDoing) {
  // Crews stopped at arbitrary moments: while waiting, inside callbacks,
  // at the rendezvous, with ready() arriving from another thread.
  for (int c = 0; c < 6 * kStress; ++c) {
    Handler handler;
    AsyncThread crew(&handler, 3);
    crew.setWaitAttempts(c % 3 == 0 ? -1 : c % 3);
    ASSERT_EQ(crew.startThreads(), 0u);
    std::atomic<bool> stop{false};
    std::thread announcer([&] {
      for (; !stop.load(); std::this_thread::yield()) crew.ready();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(c % 5));
    returnsWithin([&] { EXPECT_EQ(crew.exitThreads(), 0) << "crew " << c; });
    EXPECT_EQ(crew.running(), 0);
    stop = true;
    announcer.join();
  }
}

TEST(AsyncThread, AWorkerThatCannotStartIsNotWaitedFor) {
  Handler handler;
  AsyncThread crew(&handler, 3);
  ExitGuard stop{crew};
  auto previous = failCreations(2);  // the second worker's thread fails
  returnsWithin([&] { EXPECT_EQ(crew.startThreads(), 0u); });
  detail::setThreadCreateFunction(previous);
  EXPECT_NE(crew.threadInfo(0).thread, 0u);
  EXPECT_EQ(crew.threadInfo(1).thread, 0u);
  EXPECT_NE(crew.threadInfo(2).thread, 0u);
  EXPECT_EQ(crew.running(), 2);
  // The two workers keep cycling together.
  for (int round = 1; round <= 3; ++round) {
    crew.ready();
    ASSERT_TRUE(waitUntil([&] { return handler.total.load() == 2 * round; }));
  }
  EXPECT_EQ(handler.perThread().size(), 2u);
  EXPECT_EQ(crew.exitThreads(), 0);
  EXPECT_EQ(crew.running(), 0);

  // A crew with no thread at all still starts and exits.
  AsyncThread empty(&handler, 2);
  previous = failCreations(1);
  returnsWithin([&] { EXPECT_EQ(empty.startThreads(), 0u); });
  detail::setThreadCreateFunction(previous);
  EXPECT_EQ(empty.running(), 0);
  empty.ready();
  EXPECT_EQ(empty.exitThreads(), 0);
  EXPECT_EQ(handler.total.load(), 6);
}
