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

using kestrel::BlockMainLock;
using kestrel::Semaphore;
using kestrel::System;
using kestrel::Timer;
using kestrel_test::kStress;
using kestrel_test::processEventsUntil;

namespace {

class RecordingMethod : public Timer::SyncMethod {
public:
    explicit RecordingMethod(int result = 0, std::function<void()> body = {})
        : m_result(result), m_body(std::move(body))
    {
    }

    int run() override
    {
        onMain = System::isMainThread();
        if (m_body)
            m_body();
        runs.fetch_add(1);
        return m_result;
    }

    std::atomic<int> runs{0};
    std::atomic<bool> onMain{false};

private:
    int m_result;
    std::function<void()> m_body;
};

// Counts the main-thread call events delivered anywhere in the application.
class CallEventCounter : public QObject {
public:
    CallEventCounter() { QCoreApplication::instance()->installEventFilter(this); }
    ~CallEventCounter() override { QCoreApplication::instance()->removeEventFilter(this); }
    bool eventFilter(QObject*, QEvent* e) override
    {
        if (e->type() == static_cast<QEvent::Type>(kestrel::SyncMethodEvent::kEventType))
            ++delivered;
        return false;
    }
    int delivered = 0;
};

void processEventsFor(int ms)
{
    processEventsUntil([] { return false; }, ms);
}

QMessageBox* findBox(const QString& title)
{
    for (QWidget* w : QApplication::topLevelWidgets()) {
        if (auto* box = qobject_cast<QMessageBox*>(w); box && box->windowTitle() == title)
            return box;
    }
    return nullptr;
}

class MainThreadCalls : public ::testing::Test {
protected:
    void SetUp() override
    {
        kestrel_test::application();
        ASSERT_TRUE(System::isMainThread());
    }
};

}  // namespace

TEST_F(MainThreadCalls, ExecuteOnTheMainThreadRunsAtOnceAndPostsNothing)
{
    CallEventCounter counter;
    RecordingMethod method(42);
    EXPECT_EQ(Timer::execute(method, true), 42);
    EXPECT_EQ(method.runs.load(), 1);
    EXPECT_TRUE(method.onMain.load());
    EXPECT_EQ(Timer::execute(method, false), 42);  // with or without wait
    EXPECT_EQ(method.runs.load(), 2);
    processEventsFor(20);
    EXPECT_EQ(counter.delivered, 0);
    EXPECT_EQ(method.runs.load(), 2);
}

TEST_F(MainThreadCalls, WaitingExecuteFromAWorkerReturnsAfterTheMainThreadRanIt)
{
    CallEventCounter counter;
    RecordingMethod method(7);
    std::atomic<bool> finished{false};
    int result = -2;
    int runsSeenOnReturn = -1;
    std::thread worker([&] {
        result = Timer::execute(method, true);
        runsSeenOnReturn = method.runs.load();
        finished = true;
    });
    ASSERT_TRUE(processEventsUntil([&] { return finished.load(); }));
    worker.join();
    EXPECT_EQ(result, 0);  // the call's result, not the method's
    EXPECT_EQ(runsSeenOnReturn, 1);
    EXPECT_TRUE(method.onMain.load());
    EXPECT_EQ(counter.delivered, 1);
    // The worker released the block-main lock.
    EXPECT_EQ(BlockMainLock::trylock(), 0);
    EXPECT_EQ(BlockMainLock::unlock(), 0);
}

TEST_F(MainThreadCalls, ASecondWaitingCallIsDroppedNotQueued)
{
    Semaphore secondGo(0), secondDone(0);
    RecordingMethod second;
    std::atomic<int> secondResult{-2};
    // While the first call runs on the main thread, its worker holds the
    // block-main lock; the second worker calls then.
    RecordingMethod first(0, [&] {
        secondGo.post();
        secondDone.wait();
    });
    std::atomic<bool> firstFinished{false};
    int firstResult = -2;
    std::thread secondWorker([&] {
        secondGo.wait();
        secondResult = Timer::execute(second, true);
        secondDone.post();
    });
    std::thread firstWorker([&] {
        firstResult = Timer::execute(first, true);
        firstFinished = true;
    });
    ASSERT_TRUE(processEventsUntil([&] { return firstFinished.load(); }));
    firstWorker.join();
    secondWorker.join();
    processEventsFor(20);
    EXPECT_EQ(firstResult, 0);
    EXPECT_EQ(first.runs.load(), 1);
    EXPECT_EQ(secondResult.load(), -1);
    EXPECT_EQ(second.runs.load(), 0);
}

TEST_F(MainThreadCalls, ExecuteWithoutWaitFromAWorkerRunsLater)
{
    RecordingMethod method;
    int result = -2;
    std::thread worker([&] { result = Timer::execute(method, false); });
    worker.join();  // returned without the main thread doing anything
    EXPECT_EQ(result, 0);
    ASSERT_TRUE(processEventsUntil([&] { return method.runs.load() == 1; }));
    EXPECT_TRUE(method.onMain.load());
}

TEST_F(MainThreadCalls, ExecuteAsyncRunsInPostingOrder)
{
    std::vector<int> order;
    std::vector<std::unique_ptr<RecordingMethod>> methods;
    for (int i = 0; i < 5; ++i)
        methods.push_back(std::make_unique<RecordingMethod>(0, [&order, i] { order.push_back(i); }));
    // Posted from the main thread too: nothing runs before events are processed.
    for (auto& m : methods)
        EXPECT_EQ(Timer::executeAsync(*m), 0);
    EXPECT_TRUE(order.empty());
    ASSERT_TRUE(processEventsUntil([&] { return order.size() == 5; }));
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST_F(MainThreadCalls, AMethodDestroyedBeforeDeliveryIsNotRun)
{
    CallEventCounter counter;
    std::atomic<int> runs{0};
    struct Counting : Timer::SyncMethod {
        std::atomic<int>* runs;
        explicit Counting(std::atomic<int>* r) : runs(r) {}
        int run() override { return runs->fetch_add(1); }
    };
    auto doomed = std::make_unique<Counting>(&runs);
    auto kept = std::make_unique<Counting>(&runs);
    EXPECT_EQ(Timer::executeAsync(*doomed), 0);
    EXPECT_EQ(Timer::executeAsync(*kept), 0);
    EXPECT_EQ(Timer::executeAsync(*doomed), 0);  // two pending calls of one method
    EXPECT_EQ(Timer::executeAsync(*kept), 0);
    doomed.reset();
    ASSERT_TRUE(processEventsUntil([&] { return counter.delivered == 4; }));
    processEventsFor(20);
    EXPECT_EQ(runs.load(), 2);  // kept, twice; doomed never

    // Destroyed from another thread while its call waits in the queue.
    auto remote = std::make_shared<Counting>(&runs);
    std::thread worker([&] {
        EXPECT_EQ(Timer::executeAsync(*remote), 0);
        remote.reset();
    });
    worker.join();
    processEventsFor(30);
    EXPECT_EQ(runs.load(), 2);
}

TEST_F(MainThreadCalls, CallsDiscardedUndeliveredAreReleasedUnrun)
{
    const auto discardCalls = [] {
        QCoreApplication::removePostedEvents(nullptr, kestrel::SyncMethodEvent::kEventType);
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
    EXPECT_EQ(BlockMainLock::trylock(), 0);
    EXPECT_EQ(BlockMainLock::unlock(), 0);

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
    later.reset();  // its call is gone: nothing left to unlink
    EXPECT_EQ(findBox(title), nullptr);
}

TEST_F(MainThreadCalls, ACopyOfAMethodIsNotLinkedToItsCalls)
{
    std::atomic<int> runs{0};
    struct Counting : Timer::SyncMethod {
        std::atomic<int>* runs;
        explicit Counting(std::atomic<int>* r) : runs(r) {}
        int run() override { return runs->fetch_add(1); }
    };
    Counting original(&runs);
    EXPECT_EQ(Timer::executeAsync(original), 0);
    {
        Counting copy(original);
        copy = original;
    }  // destroying the copy must not cancel the original's call
    ASSERT_TRUE(processEventsUntil([&] { return runs.load() == 1; }));
}

TEST_F(MainThreadCalls, AWaitingCallOnAnUnmarkedApplicationThreadRunsAtOnce)
{
    System::setMainThreadId(0);
    RecordingMethod method(3);
    const int result = Timer::execute(method, true);
    System::setMainThreadId(System::kMainThreadMark);
    EXPECT_EQ(result, 3);
    EXPECT_EQ(method.runs.load(), 1);
}

TEST_F(MainThreadCalls, ManyWorkersCallingAtOnce)
{
    const int workers = 4;
    const int callsEach = 40 * kStress;
    std::atomic<int> asyncRuns{0}, waitRuns{0};
    std::atomic<int> waitOk{0}, waitDropped{0}, asyncOk{0};
    std::atomic<int> finished{0};
    struct Counting : Timer::SyncMethod {
        std::atomic<int>* runs;
        explicit Counting(std::atomic<int>* r) : runs(r) {}
        int run() override { return runs->fetch_add(1); }
    };
    std::vector<std::thread> threads;
    for (int w = 0; w < workers; ++w) {
        threads.emplace_back([&, w] {
            std::vector<std::unique_ptr<Counting>> asyncMethods;
            for (int i = 0; i < callsEach; ++i) {
                if ((i + w) % 2 == 0) {
                    asyncMethods.push_back(std::make_unique<Counting>(&asyncRuns));
                    if (Timer::executeAsync(*asyncMethods.back()) == 0)
                        asyncOk.fetch_add(1);
                } else {
                    Counting method(&waitRuns);
                    if (Timer::execute(method, true) == 0)
                        waitOk.fetch_add(1);
                    else
                        waitDropped.fetch_add(1);
                }
            }
            // Keep the asynchronous methods alive until they have run.
            while (asyncRuns.load() < asyncOk.load())
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            finished.fetch_add(1);
        });
    }
    ASSERT_TRUE(processEventsUntil([&] { return finished.load() == workers; }, 60000));
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(asyncOk.load(), workers * callsEach / 2);
    EXPECT_EQ(asyncRuns.load(), asyncOk.load());
    EXPECT_EQ(waitOk.load() + waitDropped.load(), workers * callsEach / 2);
    EXPECT_EQ(waitRuns.load(), waitOk.load());  // a dropped call never runs
    EXPECT_GT(waitOk.load(), 0);
}

// ---------------------------------------------------------------------------
// Timer
// ---------------------------------------------------------------------------

namespace {

class CountingTimer : public Timer {
public:
    void timeout() override { ++fired; }
    int fired = 0;
};

}  // namespace

TEST_F(MainThreadCalls, ASingleShotTimerFiresOnce)
{
    CountingTimer timer;
    EXPECT_FALSE(timer.isActive());
    timer.start(10, true);
    EXPECT_TRUE(timer.isActive());
    ASSERT_TRUE(processEventsUntil([&] { return timer.fired == 1; }));
    EXPECT_FALSE(timer.isActive());
    processEventsFor(60);
    EXPECT_EQ(timer.fired, 1);
}

TEST_F(MainThreadCalls, ARepeatingTimerFiresUntilStopped)
{
    CountingTimer timer;
    timer.start(5, false);
    ASSERT_TRUE(processEventsUntil([&] { return timer.fired >= 3; }));
    EXPECT_TRUE(timer.isActive());
    timer.stop();
    EXPECT_FALSE(timer.isActive());
    const int fired = timer.fired;
    processEventsFor(40);
    EXPECT_EQ(timer.fired, fired);
    timer.stop();  // stopping a stopped timer is harmless
    EXPECT_FALSE(timer.isActive());
}

// ---------------------------------------------------------------------------
// System::AsyncMessageBox
// ---------------------------------------------------------------------------


TEST_F(MainThreadCalls, AsyncMessageBoxFromAWorkerDoesNotBlock)
{
    const QString title = QStringLiteral("kestrel threads test box");
    int result = -2;
    std::thread worker(
        [&] { result = System::AsyncMessageBox(System::Warning, title, QStringLiteral("text body")); });
    worker.join();  // returned while the main thread processed nothing
    EXPECT_EQ(result, 0);
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

// ---------------------------------------------------------------------------
// Without an application object
// ---------------------------------------------------------------------------

namespace {

// Runs the current test alone in a new process of this program, which
// creates no application object; true if it passed there. Spawned with
// posix_spawn rather than QProcess, whose child runs code in the parent's
// address space before exec, which confuses ThreadSanitizer.
bool passesInProcessWithoutApplication()
{
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string filter = std::string("--gtest_filter=") + info->test_suite_name() + "." + info->name();
    char program[] = "/proc/self/exe";
    char* argv[] = {program, filter.data(), nullptr};
    pid_t child = 0;
    if (posix_spawn(&child, program, nullptr, nullptr, argv, environ) != 0)
        return false;
    int status = 0;
    if (waitpid(child, &status, 0) != child)
        return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

TEST(NoApplication, CallsFromOtherThreadsFailWithoutRunning)
{
    if (QCoreApplication::instance()) {
        EXPECT_TRUE(passesInProcessWithoutApplication());
        return;
    }
    RecordingMethod method;
    int waiting = -2, posting = -2, async = -2, box = -2;
    std::thread worker([&] {
        waiting = Timer::execute(method, true);
        posting = Timer::execute(method, false);
        async = Timer::executeAsync(method);
        box = System::AsyncMessageBox(System::Information, QStringLiteral("t"), QStringLiteral("x"));
    });
    worker.join();
    EXPECT_EQ(waiting, -1);
    EXPECT_EQ(posting, -1);
    EXPECT_EQ(async, -1);
    EXPECT_EQ(box, -1);
    EXPECT_EQ(method.runs.load(), 0);
    // The block-main lock was not left held.
    std::thread other([] {
        EXPECT_EQ(BlockMainLock::trylock(), 0);
        EXPECT_EQ(BlockMainLock::unlock(), 0);
    });
    other.join();
}

TEST(NoApplication, TheMainThreadStillRunsCallsDirectly)
{
    if (QCoreApplication::instance()) {
        EXPECT_TRUE(passesInProcessWithoutApplication());
        return;
    }
    ASSERT_TRUE(System::isMainThread());
    RecordingMethod method(9);
    EXPECT_EQ(Timer::execute(method, true), 9);
    EXPECT_EQ(Timer::execute(method, false), 9);
    EXPECT_EQ(method.runs.load(), 2);
    // Posting needs an application, even from the main thread.
    EXPECT_EQ(Timer::executeAsync(method), -1);
    EXPECT_EQ(method.runs.load(), 2);
}
