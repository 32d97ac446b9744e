// Timer, Timer::execute / executeAsync and System::AsyncMessageBox, with the
// main thread running the Qt event loop.
#include "threads_test_support.h"

#include <kestrel/threads.h>

#include <QApplication>
#include <QMessageBox>
#include <QPointer>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace kestrel;
using kestrel_test::onOtherThread;
using kestrel_test::processEventsUntil;

namespace {

struct RecordingMethod : Timer::SyncMethod {
  explicit RecordingMethod(int r = 0, std::function<void()> b = {})
      : result(r), body(std::move(b)) {}
  RecordingMethod(const RecordingMethod& o) : SyncMethod(o), result(o.result), body(o.body) {}
  RecordingMethod& operator=(const RecordingMethod& o) { return SyncMethod::operator=(o), *this; }
  int run() override {
    onMain = System::isMainThread();
    if (body) body();
    runs.fetch_add(1);
    return result;
  }
  int result;
  std::function<void()> body;
  std::atomic<int> runs{0};
  std::atomic<bool> onMain{false};
};

void processEventsFor(int ms) {
  processEventsUntil([] { return false; }, ms);
}

QMessageBox* findBox(const QString& title) {
  for (QWidget* w : QApplication::topLevelWidgets()) {
    if (auto* box = qobject_cast<QMessageBox*>(w); box && box->windowTitle() == title) return box;
  }
  return nullptr;
}

// The block-main lock is free (for another thread too).
void expectBlockMainLockFree() {
  EXPECT_EQ(
      onOtherThread([] { return BlockMainLock::trylock() == 0 ? BlockMainLock::unlock() : -1; }),
      0);
}

class MainThreadCalls : public ::testing::Test {
 protected:
  void SetUp() override {
    kestrel_test::application();
    ASSERT_TRUE(System::isMainThread());
  }
};

}  // namespace

TEST_F(MainThreadCalls, ExecuteRunsAtOnceOnTheMainThreadAndIsPostedFromWorkers) {
  RecordingMethod method(42);
  EXPECT_EQ(Timer::execute(method, true), 42);
  EXPECT_TRUE(method.onMain.load());
  EXPECT_EQ(Timer::execute(method, false), 42);  // with or without wait
  EXPECT_EQ(method.runs.load(), 2);
  // The application's thread unmarked: a waiting call still runs at once.
  System::setMainThreadId(0);
  const int unmarked = Timer::execute(method, true);
  System::setMainThreadId(System::kMainThreadMark);
  EXPECT_EQ(unmarked, 42);
  EXPECT_EQ(method.runs.load(), 3);
  processEventsFor(20);
  EXPECT_EQ(method.runs.load(), 3);

  // From a worker, waiting: the call's result, not the method's.
  RecordingMethod waited(7), posted;
  std::atomic<bool> finished{false};
  int result = -2, runsSeenOnReturn = -1;
  std::thread worker([&] {
    result = Timer::execute(waited, true);
    runsSeenOnReturn = waited.runs.load();
    finished = true;
  });
  ASSERT_TRUE(processEventsUntil([&] { return finished.load(); }));
  worker.join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(runsSeenOnReturn, 1);
  EXPECT_TRUE(waited.onMain.load());
  expectBlockMainLockFree();

  // Without wait: returns while the main thread does nothing, runs later.
  EXPECT_EQ(onOtherThread([&] { return Timer::execute(posted, false); }), 0);
  EXPECT_EQ(posted.runs.load(), 0);
  ASSERT_TRUE(processEventsUntil([&] { return posted.runs.load() == 1; }));
  EXPECT_TRUE(posted.onMain.load());
}

TEST_F(MainThreadCalls, ASecondWaitingCallIsDroppedNotQueued) {
  // While the first call runs on the main thread, its worker holds the
  // block-main lock; the second worker calls then.
  Semaphore secondGo(0), secondDone(0);
  RecordingMethod second;
  RecordingMethod first(0, [&] {
    secondGo.post();
    secondDone.wait();
  });
  std::atomic<int> firstResult{-2}, secondResult{-2};
  std::thread secondWorker([&] {
    secondGo.wait();
    secondResult = Timer::execute(second, true);
    secondDone.post();
  });
  std::thread firstWorker([&] { firstResult = Timer::execute(first, true); });
  ASSERT_TRUE(processEventsUntil([&] { return firstResult.load() != -2; }));
  firstWorker.join();
  secondWorker.join();
  processEventsFor(20);
  EXPECT_EQ(firstResult.load(), 0);
  EXPECT_EQ(first.runs.load(), 1);
  EXPECT_EQ(secondResult.load(), -1);
  EXPECT_EQ(second.runs.load(), 0);
}

TEST_F(MainThreadCalls, AMethodDestroyedBeforeDeliveryIsNotRun) {
  std::vector<int> order;
  auto doomed = std::make_unique<RecordingMethod>(0, [&] { order.push_back(0); });
  RecordingMethod kept(0, [&] { order.push_back(1); });
  for (int i = 0; i < 2; ++i) {  // two pending calls of each method
    EXPECT_EQ(Timer::executeAsync(*doomed), 0);
    EXPECT_EQ(Timer::executeAsync(kept), 0);
  }
  {
    RecordingMethod copy(kept);  // a copy is not linked to the calls
    copy = kept;
  }
  doomed.reset();
  EXPECT_TRUE(order.empty());  // nothing runs before events are processed
  ASSERT_TRUE(processEventsUntil([&] { return order.size() == 2; }));
  processEventsFor(20);
  EXPECT_EQ(order, (std::vector<int>{1, 1}));
}

namespace {

// The run() of these methods is only ever reached through the base class,
// like a method whose subclass adds the work: a call that ran one being
// destroyed would call a pure virtual function once the subclass is gone,
// or find the subclass's state torn down.
struct LayeredMethod : Timer::SyncMethod {
  int run() final { return work(); }
  virtual int work() = 0;
};

constexpr int kAlive = 0x600D, kDead = 0xDEAD;

struct Work : LayeredMethod {
  explicit Work(std::atomic<int>* runs_, std::atomic<int>* torn_, bool detachFirst)
      : runs(runs_), torn(torn_), detachInDestructor(detachFirst) {}
  ~Work() override {
    if (detachInDestructor) detach();
    state = kDead;
  }
  int work() override {
    *torn += state != kAlive;
    for (int i = 0; i < 200; ++i) spin.fetch_add(1);  // widens the window
    *torn += state != kAlive;
    runs->fetch_add(1);
    return 0;
  }
  std::atomic<int>* runs;
  std::atomic<int>* torn;
  bool detachInDestructor;
  std::atomic<int> state{kAlive};
  std::atomic<int> spin{0};
};

}  // namespace

// Workers post calls of their own methods and destroy the methods at once,
// while the main thread delivers: the two safe ways (destroy(), or detach()
// first in the subclass's destructor) never let a call run a method that is
// being destroyed, whether the call was still pending or already running.
TEST_F(MainThreadCalls, MethodsDestroyedOnWorkersWhilePostedNeverRunHalfDestroyed) {
  std::atomic<int> runs{0}, torn{0}, posted{0}, workersDone{0};
  const auto duration = std::chrono::milliseconds(kestrel_test::kStress >= 10 ? 2000 : 1000);
  const auto end = std::chrono::steady_clock::now() + duration;
  std::vector<std::thread> workers;
  for (int w = 0; w < 3; ++w) {
    workers.emplace_back([&, w] {
      for (int i = 0; std::chrono::steady_clock::now() < end; ++i) {
        const bool viaDestroy = (i + w) % 2 == 0;
        Work* m = new Work(&runs, &torn, !viaDestroy);
        for (int k = 0; k <= i % 3; ++k) posted += Timer::executeAsync(*m) == 0;
        if (i % 4 == 1) std::this_thread::yield();  // let some calls start running
        if (viaDestroy)
          Timer::SyncMethod::destroy(m);
        else
          delete m;
      }
      workersDone.fetch_add(1);
    });
  }
  kestrel_test::JoinOnExit joinAll{{&workers[0], &workers[1], &workers[2]}};
  ASSERT_TRUE(processEventsUntil([&] { return workersDone.load() == 3; }, 30000));
  processEventsFor(20);
  EXPECT_EQ(torn.load(), 0);
  EXPECT_GT(posted.load(), 0);
  EXPECT_LE(runs.load(), posted.load());
  Timer::SyncMethod::destroy(nullptr);  // does nothing
}

// detach() on a worker while the main thread runs the method waits for run()
// to return, and drops the call still pending; run() may destroy its own
// method (detach() on the running thread does not wait for itself).
TEST_F(MainThreadCalls, DetachWaitsForTheRunningCallAndDropsPendingOnes) {
  std::atomic<bool> entered{false}, detached{false}, detachedDuringRun{false};
  RecordingMethod method(0, [&] {
    entered = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the worker detaches now
    detachedDuringRun = detached.load();
  });
  ASSERT_EQ(Timer::executeAsync(method), 0);
  ASSERT_EQ(Timer::executeAsync(method), 0);
  std::thread worker([&] {
    if (!kestrel_test::waitUntil([&] { return entered.load(); })) return;
    method.detach();
    detached = true;
  });
  kestrel_test::JoinOnExit joinWorker{{&worker}};
  ASSERT_TRUE(processEventsUntil([&] { return detached.load(); }));
  processEventsFor(20);
  EXPECT_FALSE(detachedDuringRun.load());
  EXPECT_EQ(method.runs.load(), 1);
  method.detach();  // again: nothing left to detach

  // Detached, it can be posted again as usual.
  ASSERT_EQ(Timer::executeAsync(method), 0);
  ASSERT_TRUE(processEventsUntil([&] { return method.runs.load() == 2; }));

  struct SelfDestroying : Timer::SyncMethod {
    explicit SelfDestroying(std::atomic<int>* r) : ran(r) {}
    ~SelfDestroying() override { detach(); }
    int run() override {
      ran->fetch_add(1);
      delete this;
      return 0;
    }
    std::atomic<int>* ran;
  };
  std::atomic<int> ran{0};
  SelfDestroying* once = new SelfDestroying(&ran);
  ASSERT_EQ(Timer::executeAsync(*once), 0);
  ASSERT_EQ(Timer::executeAsync(*once), 0);  // dropped with the method
  ASSERT_TRUE(processEventsUntil([&] { return ran.load() == 1; }));
  processEventsFor(20);
  EXPECT_EQ(ran.load(), 1);
}

TEST_F(MainThreadCalls, CallsDiscardedUndeliveredAreReleasedUnrun) {
  const auto discardCalls = [] {
    QCoreApplication::removePostedEvents(nullptr, SyncMethodEvent::kEventType);
  };
  // A waiting caller whose event is thrown away is released with -1.
  RecordingMethod waited;
  std::atomic<int> result{-2};
  std::thread worker([&] { result = Timer::execute(waited, true); });
  ASSERT_TRUE(kestrel_test::waitUntil([&] {
    discardCalls();
    return result.load() != -2;
  }));
  worker.join();
  EXPECT_EQ(result.load(), -1);
  EXPECT_EQ(waited.runs.load(), 0);
  expectBlockMainLockFree();

  // Asynchronous calls go with their events: not run, and their methods
  // can be destroyed afterwards (the address sanitizer build would catch
  // a call freed without letting go of its method).
  auto later = std::make_unique<RecordingMethod>();
  ASSERT_EQ(Timer::executeAsync(*later), 0);
  const QString title = QStringLiteral("kestrel discarded box");
  ASSERT_EQ(System::AsyncMessageBox(System::Information, title, QStringLiteral("x")), 0);
  discardCalls();
  processEventsFor(20);
  EXPECT_EQ(later->runs.load(), 0);
  later.reset();
  EXPECT_EQ(findBox(title), nullptr);
}

// start() goes through stop() first: restarting a running timer replaces it
// rather than adding a second Qt timer that keeps firing.
TEST_F(MainThreadCalls, TimersFireOnceOrRepeatAndARestartStopsThePreviousOne) {
  struct CountingTimer : Timer {
    void timeout() override { ++fired; }
    void stop() override {
      ++stops;
      Timer::stop();
    }
    int fired = 0, stops = 0;
  } once, timer;
  once.start(10, true);
  timer.start(5, false);
  EXPECT_EQ(timer.stops, 1);
  ASSERT_TRUE(processEventsUntil([&] { return once.fired == 1 && timer.fired >= 3; }));
  EXPECT_FALSE(once.isActive());
  timer.start(60000, true);  // far in the future
  EXPECT_EQ(timer.stops, 2);
  EXPECT_TRUE(timer.isActive());
  const int fired = timer.fired;
  processEventsFor(100);
  EXPECT_EQ(timer.fired, fired) << "the 5 ms timer still fires";
  EXPECT_EQ(once.fired, 1);
  timer.stop();
  EXPECT_FALSE(timer.isActive());
}

TEST_F(MainThreadCalls, AsyncMessageBoxFromAWorkerDoesNotBlock) {
  const QString title = QStringLiteral("kestrel threads test box");
  EXPECT_EQ(onOtherThread([&] {
              return System::AsyncMessageBox(System::Warning, title, QStringLiteral("text body"));
            }),
            0);  // returned while the main thread processed nothing
  EXPECT_EQ(findBox(title), nullptr);
  QMessageBox* box = nullptr;
  ASSERT_TRUE(processEventsUntil([&] { return (box = findBox(title)) && box->isVisible(); }));
  EXPECT_EQ(box->text(), QStringLiteral("text body"));
  EXPECT_EQ(box->icon(), QMessageBox::Warning);
  EXPECT_FALSE(box->isModal());
  QPointer<QMessageBox> watch(box);
  box->close();  // deletes itself once closed
  ASSERT_TRUE(processEventsUntil([&] { return watch.isNull(); }));
}

// Without an application object: calls from other threads fail without
// running; the main thread still runs calls directly, but cannot post. The
// test runs itself again in a new process of this program, which creates no
// application object, spawned with posix_spawn rather than QProcess, whose
// child runs code in the parent's address space before exec, which confuses
// ThreadSanitizer.
TEST(NoApplication, CallsFailOrRunDirectly) {
  if (QCoreApplication::instance()) {
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string filter =
        std::string("--gtest_filter=") + info->test_suite_name() + "." + info->name();
    char program[] = "/proc/self/exe";
    char* argv[] = {program, filter.data(), nullptr};
    pid_t child = 0;
    ASSERT_EQ(posix_spawn(&child, program, nullptr, nullptr, argv, environ), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    return;
  }
  RecordingMethod method(9);
  int waiting = -2, posting = -2, async = -2, box = -2;
  std::thread([&] {
    waiting = Timer::execute(method, true);
    posting = Timer::execute(method, false);
    async = Timer::executeAsync(method);
    box = System::AsyncMessageBox(System::Information, QStringLiteral("t"), QStringLiteral("x"));
  }).join();
  EXPECT_EQ(waiting, -1);
  EXPECT_EQ(posting, -1);
  EXPECT_EQ(async, -1);
  EXPECT_EQ(box, -1);
  EXPECT_EQ(method.runs.load(), 0);
  expectBlockMainLockFree();

  ASSERT_TRUE(System::isMainThread());
  EXPECT_EQ(Timer::execute(method, true), 9);
  EXPECT_EQ(Timer::execute(method, false), 9);
  EXPECT_EQ(Timer::executeAsync(method), -1);  // posting needs an application
  EXPECT_EQ(method.runs.load(), 2);
}
