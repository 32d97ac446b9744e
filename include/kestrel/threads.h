// Concurrency: locks, waiting, worker crews and calls onto the main thread.
//
// Which type for which job:
//
//   SpinLock       a recursive, owner-tracked mutex with timed acquisition
//                  (despite its name it sleeps, it does not spin). Hold it
//                  through CSMutex.
//   CSMutex        scoped holder of a SpinLock: locks in the constructor,
//                  unlocks in the destructor.
//   Conditional    a condition variable that waits with a SpinLock.
//   Semaphore      a counting semaphore (0 .. 2147483647).
//   Barrier        an N-party rendezvous that can be used for many cycles.
//   TestThenAdd    atomic fetch-and-add on a long.
//   GlobalLock     one process-wide lock for small shared state that has no
//                  lock of its own.
//   BlockMainLock  the lock that lets one worker at a time wait for the main
//                  thread (used by Timer::execute).
//   AsyncThread    a fixed crew of worker threads that run one callback of an
//                  AsyncThreadHandler in lock-step cycles.
//   Timer          a one-shot or repeating Qt timer with one timeout
//                  operation; its static execute()/executeAsync() run a
//                  Timer::SyncMethod on the main thread.
//
// Result convention: the lock, wait and post operations return 0 on success
// and -1 on any failure (timeout, not acquired, not owner, system error);
// Timer::execute passes on the result of the method it runs. Nothing here
// throws or logs.
//
// Every lock and semaphore object is one pointer wide: it owns a private
// record that carries the system handle, so this header needs no system
// header and the objects can be members of many small objects.
//
// Example:
//
//   kestrel::SpinLock lock;
//   kestrel::Conditional ready;
//   bool haveWork = false;
//
//   // producer
//   { kestrel::CSMutex hold(lock); haveWork = true; ready.signal(); }
//
//   // consumer
//   lock.lock();
//   while (!haveWork)
//       ready.wait(lock);
//   lock.unlock();
#pragma once

#include <kestrel/export.h>
#include <kestrel/system.h>

#include <QEvent>
#include <QObject>

#include <atomic>

class QTimerEvent;

namespace kestrel {

struct SpinLockData;
struct ConditionalData;
struct SemaphoreData;
struct BarrierData;
struct AsyncThreadData;
class SyncMethodEvent;
class AsyncMessageBox;

// ---------------------------------------------------------------------------
// Lock primitives
// ---------------------------------------------------------------------------

// A recursive mutex that records its owner. The owner may lock it again (each
// lock needs its own unlock); other threads wait, up to a time limit.
// Thread-safe; not copyable.
class KESTREL_EXPORT SpinLock {
 public:
  // Timeout meaning "wait without limit" (what -1 converts to).
  static constexpr unsigned int kForever = 0xFFFFFFFFu;

  // spinCount: how long a contended acquisition may spin before it sleeps.
  // Honoured only as "spin a little" (an adaptive mutex) when it is not 0
  // and the machine has more than one processor; every caller in the
  // library passes 0. Construction never fails visibly.
  explicit SpinLock(unsigned long spinCount = 0);
  // Frees the lock. Does not check that it is free; destroying a lock that
  // another thread holds or waits for is undefined.
  ~SpinLock();

  SpinLock(const SpinLock&) = delete;
  SpinLock& operator=(const SpinLock&) = delete;

  // Acquires the lock. The owner re-enters at once (the count goes up, no
  // system call). Otherwise waits up to timeoutMs milliseconds, measured on
  // the monotonic clock (setting the wall clock changes nothing); kForever
  // (pass -1) waits without limit, 0 does not wait. Returns 0 when held,
  // -1 on timeout or error (the lock is then not held by the caller).
  int lock(unsigned int timeoutMs = kForever);

  // lock(0): 0 if acquired or already held by the caller, -1 otherwise.
  int trylock();

  // Releases one level. Returns -1 and changes nothing if the caller is not
  // the recorded owner; otherwise 0. The last level clears the owner before
  // the lock is released.
  int unlock();

  // Records the calling thread as the owner without touching the count or
  // the underlying mutex, and returns the caller's handle. Lets a thread
  // that inherited a held lock (a hand-over between threads) release it.
  // The hand-over itself must be synchronised by the caller. Taking over a
  // free lock makes the next unlock() a no-op that returns 0.
  ThreadHandle stealOwnership();

  // stealOwnership() then unlock(): releases one level of a lock that
  // another thread holds. Returns unlock()'s result (0).
  int forceUnlock();

 private:
  friend class Conditional;
  SpinLockData* d;
};

// Scoped holder: locks without limit on construction, unlocks on
// destruction. The lock must outlive the holder.
class CSMutex {
 public:
  explicit CSMutex(SpinLock& lock) : m_lock(lock) { m_lock.lock(SpinLock::kForever); }
  ~CSMutex() { m_lock.unlock(); }

  CSMutex(const CSMutex&) = delete;
  CSMutex& operator=(const CSMutex&) = delete;

 private:
  SpinLock& m_lock;
};

// A condition variable used with a SpinLock. All waiters of one Conditional
// must use the same SpinLock. Thread-safe; not copyable.
class KESTREL_EXPORT Conditional {
 public:
  Conditional();
  ~Conditional();

  Conditional(const Conditional&) = delete;
  Conditional& operator=(const Conditional&) = delete;

  // Releases lock, waits for signal() or broadcast() (or a spurious wake-up,
  // so wait in a loop over the predicate), and holds lock again, with the
  // same recursion count, when it returns. The caller must hold lock.
  // Returns 0; -1 without waiting if the caller does not hold lock.
  int wait(SpinLock& lock);

  // Like wait(), with a deadline of now + timeoutMs on the monotonic clock,
  // so setting the wall clock neither stretches nor shortens the wait. The
  // deadline is computed as the 32-bit build did: now's microseconds plus
  // timeoutMs x 1000 in signed 32-bit arithmetic, so a timeout above
  // 2147483 ms (about 35 minutes) wraps and times out at once.
  // Returns 0 when woken, -1 on timeout, error or if lock is not held by
  // the caller; the lock is held again on return in every case but the
  // last.
  int timedwait(SpinLock& lock, unsigned long timeoutMs);

  // Wakes one waiter. Returns 0.
  int signal();

  // Wakes all waiters. Returns 0.
  int broadcast();

 private:
  ConditionalData* d;
};

// A counting semaphore, value 0 .. kMaxCount. Thread-safe; not copyable.
class KESTREL_EXPORT Semaphore {
 public:
  static constexpr long kMaxCount = 2147483647;

  // initialCount is clamped to 0 .. kMaxCount.
  explicit Semaphore(long initialCount = 0);
  ~Semaphore();

  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  // Takes one unit, waiting without limit. 0 on success, -1 on error.
  int wait();

  // One attempt without waiting: 0 if a unit was taken, -1 otherwise.
  int trywait();

  // Bounded polling: attempts < 0 waits without limit (like wait());
  // otherwise makes `attempts` attempts, sleeping 1 ms after each failed
  // one, and returns -1 after the last; 0 as soon as a unit is taken.
  // Deliberate: trywait(0) makes no attempt at all and returns -1 at once,
  // unlike trywait().
  int trywait(long attempts);

  // Adds one unit, waking a waiter. 0 on success, -1 if the value is
  // already kMaxCount (overflow) or on error.
  int post();

 private:
  SemaphoreData* d;
};

// An N-party rendezvous: enter() blocks until `parties` threads have entered,
// then all of them return and the next cycle begins. Every cycle's wake-ups
// belong to that cycle: a party that re-enters at once cannot take the
// wake-up of a party still asleep in the previous cycle. Thread-safe; not
// copyable.
class KESTREL_EXPORT Barrier {
 public:
  // parties below 1 count as 1 (enter() returns at once).
  explicit Barrier(int parties);
  ~Barrier();

  Barrier(const Barrier&) = delete;
  Barrier& operator=(const Barrier&) = delete;

  // Blocks until `parties` threads (this one included) have entered the
  // current cycle. The last one to arrive never sleeps and releases the
  // others with one wake-up each. Returns 0.
  int enter();

 private:
  BarrierData* d;
};

// Atomically adds delta to *value and returns the value held before. Full
// memory barrier. The library's only atomic read-modify-write.
KESTREL_EXPORT long TestThenAdd(long volatile* value, long delta);

// ---------------------------------------------------------------------------
// Global locks
// ---------------------------------------------------------------------------

namespace detail {

// A process-wide SpinLock created on first use from any thread: exactly one
// lock is created however many threads race for it (the first to count
// itself in creates it; the others sleep 1 ms at a time until it exists).
// GlobalLock and BlockMainLock derive from it with themselves as `Owner`,
// which gives each a lock of its own. All members static; the lock is
// recursive.
template <class Owner>
class KESTREL_EXPORT ProcessLock {
 public:
  // Creates the lock if it does not exist yet.
  static void initGlobalLock();
  // The lock, created if needed. Never null before shutdown().
  static SpinLock* gGlobalLock();
  // Locks without limit. 0 on success.
  static int lock();
  // 0 if acquired or already held by the caller, -1 otherwise.
  static int trylock();
  // Releases one level; -1 if the caller does not hold it.
  static int unlock();
  // Destroys the lock. Deliberate: the "created" flag stays set, so the
  // lock is not created again and the operations above return -1 from then
  // on; call it only at the very end of the process.
  static void shutdown();

 private:
  static std::atomic<SpinLock*> globalLock;
  static std::atomic<int> globalLockInited;
  static long volatile globalLockInterlock;
};

}  // namespace detail

class GlobalLock;
class BlockMainLock;
extern template class detail::ProcessLock<GlobalLock>;
extern template class detail::ProcessLock<BlockMainLock>;

// The library's general process-wide lock, for small shared state that has
// no lock of its own (status registry, error log, clock set-up).
class KESTREL_EXPORT GlobalLock : public detail::ProcessLock<GlobalLock> {};

// The lock a worker holds for the whole of a waiting call into the main
// thread (Timer::execute with wait), so that at most one worker at a time
// waits for the main thread. Taken with trylock(): a second waiting call is
// dropped, never queued.
class KESTREL_EXPORT BlockMainLock : public detail::ProcessLock<BlockMainLock> {};

// ---------------------------------------------------------------------------
// Asynchronous workers
// ---------------------------------------------------------------------------

// The work an AsyncThread crew runs. callback() runs on every worker of the
// crew, possibly on all of them at once, without any lock held.
class KESTREL_EXPORT AsyncThreadHandler {
 public:
  virtual void callback() = 0;
  virtual ~AsyncThreadHandler();
};

// A fixed crew of worker threads that run the handler's callback in cycles:
// in each cycle every worker waits for announced work (ready()) or for
// waitAttempts() milliseconds, runs the callback, and meets the other workers
// at a rendezvous before the next cycle.
//
// Lifecycle: construct, optionally setWaitAttempts(), startThreads() once,
// ready() any number of times from any thread, exitThreads() once, destroy.
// startThreads(), exitThreads() and the destructor belong to one controlling
// thread, which must not be a worker of the crew.
//
//   struct Render : kestrel::AsyncThreadHandler { void callback() override; };
//   Render r;
//   kestrel::AsyncThread crew(&r, 2);
//   crew.startThreads();
//   crew.ready();          // every worker runs r.callback() once more
//   ...
//   crew.exitThreads();
class KESTREL_EXPORT AsyncThread {
 public:
  // Per-worker record.
  struct KESTREL_EXPORT ThreadInfo {
    ThreadInfo();
    AsyncThread* owner;     // the crew
    ThreadHandle thread;    // 0 until started, for a worker that could
                            // not be started, and again once
                            // exitThreads() has joined the worker
    Semaphore semaphore;    // the worker waits here for work
    unsigned long pending;  // announced work units, 0 .. 2; guarded by
                            // the crew's lock (read it with pending())
  };

  // Status word returned by a second startThreads().
  static constexpr unsigned int kAlreadyStarted = 0xC0000002u;
  // Default of waitAttempts(): wait for ready() without limit.
  static constexpr int kDefaultWaitAttempts = -1;

  // handler is not owned and must outlive the crew. No thread starts yet.
  AsyncThread(AsyncThreadHandler* handler, unsigned long threadCount);
  // Frees the records. Does not stop workers: exitThreads() must have been
  // called if startThreads() was.
  ~AsyncThread();

  AsyncThread(const AsyncThread&) = delete;
  AsyncThread& operator=(const AsyncThread&) = delete;

  // Number of one-millisecond polls a waiting worker makes for announced
  // work before running the callback anyway; negative waits for ready()
  // without limit (the default, kDefaultWaitAttempts). Set it before
  // startThreads(); it is read under the crew's lock.
  void setWaitAttempts(int attempts);
  int waitAttempts() const;

  // Starts the workers and returns once every started worker is running.
  // Each worker then waits for ready() (or waitAttempts() ms) before its
  // first callback. Returns 0; kAlreadyStarted (0xC0000002) if called
  // before, changing nothing. A worker whose thread cannot be created is
  // left out: its record keeps thread 0 and the crew runs with the others
  // (the call still returns 0 and never waits for a missing worker).
  unsigned int startThreads();

  // Announces one unit of work to every worker. At most two units are kept
  // per worker; a waiting worker is woken by one post. Does nothing before
  // startThreads(). Thread-safe.
  void ready();

  // Stops every worker and waits until all have left their loops (polling
  // every 10 ms), then joins their threads and clears every record's
  // thread handle to 0 (a joined id may name another thread from then on).
  // Returns 0, also at once when never started or already stopped. A crew
  // is started at most once, so after this the object can only be
  // destroyed. Must not be called from the handler's callback.
  int exitThreads();

  // The crew's rendezvous: counts the caller as one arrival in the current
  // cycle and blocks until the cycle is complete, which is when an arrival
  // finds at least `parties` arrivals counted. Returns 0. The workers meet
  // here with the number of running workers as parties (startThreads() with
  // that number plus one); an outside caller takes the place of a worker
  // in the count, so it is meant for the crew itself.
  int syncThreads(unsigned long parties);

  // Number of workers the crew was built with.
  unsigned long threadCount() const;
  // The record of worker `index` (< threadCount()).
  ThreadInfo& threadInfo(unsigned long index);
  // Announced work units of worker `index`, read under the crew's lock.
  unsigned long pending(unsigned long index) const;
  // Number of workers currently inside their thread function.
  long running() const;

 private:
  static void* asyncFunc(void* info);
  void asyncHandler(ThreadInfo* info);
  int arriveLocked(unsigned long parties);
  void leaveLocked();

  AsyncThreadData* d;
};

// ---------------------------------------------------------------------------
// Timers and main-thread calls
// ---------------------------------------------------------------------------

// A Qt custom event (type QEvent::User and above) that can carry a pointer.
class KESTREL_EXPORT CustomEvent : public QEvent {
 public:
  explicit CustomEvent(int type, void* data = nullptr);
  ~CustomEvent() override;

  void* data() const { return m_data; }
  void setData(void* data) { m_data = data; }

 private:
  void* m_data;
};

// A one-shot or repeating timer. Subclasses implement timeout(). It runs on
// the thread that owns the object, which must run a Qt event loop.
class KESTREL_EXPORT Timer : public QObject {
  Q_OBJECT

 public:
  // A unit of work for the main thread. Subclasses implement run().
  //
  // Destroying a method that may still have a posted call: the call is
  // delivered on the main thread, so a method destroyed on another thread
  // races with the delivery. The base destructor runs only after the
  // subclass's destructor has already taken the object apart, too late to
  // stop a call from running it. Detach it first, in one of two ways:
  //   - the owner destroys it with SyncMethod::destroy(method), which
  //     detaches and then deletes; or
  //   - the most derived destructor calls detach() as its first statement
  //     (the way for a method that lives on the stack or as a member).
  //
  //   struct Refresh : kestrel::Timer::SyncMethod {
  //     ~Refresh() override { detach(); }
  //     int run() override;
  //   };
  //
  // After detach() no call runs the method any more: pending calls are
  // dropped unrun, and a call the main thread is running at that moment has
  // returned. On the main thread itself a plain delete is safe too (no call
  // can be delivered while it runs the destructor), and run() may destroy
  // its own method. Copies are not linked to any pending call.
  class KESTREL_EXPORT SyncMethod {
   public:
    SyncMethod();
    SyncMethod(const SyncMethod& other);
    SyncMethod& operator=(const SyncMethod& other);
    // Detaches (see detach()). This is a last resort that does not make a
    // destruction on another thread safe: see the class comment.
    virtual ~SyncMethod();

    // Detaches from every pending call, which is then dropped unrun. If the
    // main thread is running this method for one of its calls at that
    // moment, waits until run() has returned (unless the caller is that
    // very thread: run() may destroy its method). Thread-safe, cheap when
    // nothing is pending, and may be called any number of times; a later
    // execute()/executeAsync() posts new calls as usual. A thread that
    // detaches must not hold anything the running method waits for.
    void detach();

    // Detaches method, then deletes it; null does nothing. The way to
    // destroy a heap method on any thread while calls may be pending.
    static void destroy(SyncMethod* method);

    // The work; its result is returned by execute() on the main thread.
    virtual int run() = 0;

   private:
    friend class SyncMethodEvent;
    // The newest pending call carrying this method (older ones chain
    // through SyncMethodEvent::nextForMethod); null when none.
    SyncMethodEvent* event;
  };

  Timer();
  ~Timer() override;

  // Stops the timer (through the virtual stop()), then starts a Qt timer
  // with the interval; a single-shot timer fires once. An interval the
  // event loop refuses (above 2147483647 ms, or no event loop in this
  // thread) leaves the timer inactive.
  virtual void start(unsigned int milliseconds, bool singleShot);
  // Stops the timer if it runs.
  virtual void stop();
  // True while the timer runs.
  virtual bool isActive() const;

  // The timer fired. A single-shot timer is already inactive when this is
  // called, so timeout() may restart it.
  virtual void timeout() = 0;

  // Runs method on the main thread.
  // - On the main thread (System::isMainThread()): runs it at once and
  //   returns run()'s result; nothing is posted.
  // - Elsewhere with wait: posts it and blocks until the main thread has
  //   run it; returns 0. Only one thread at a time can wait for the main
  //   thread (BlockMainLock): if another waiting call is in progress, this
  //   one is dropped: nothing is posted, the method is not run, and -1 is
  //   returned. Returns -1 too if the call was discarded unrun (the
  //   application was destroyed first).
  // - Elsewhere without wait: posts it like executeAsync() and returns 0.
  // A waiting call blocks until the main thread processes events; a main
  // thread that instead waits for the caller deadlocks with it.
  // Without an application object (QCoreApplication) a call from another
  // thread cannot be delivered: it returns -1 at once and does not run the
  // method. A waiting call made on the application's own thread when that
  // thread is not marked as the main thread runs the method at once like
  // the main thread (it could never be delivered while the thread blocks).
  static int execute(SyncMethod& method, bool wait);

  // Posts method for the main thread and returns at once, from any thread
  // (the main thread included: the call runs when events are next
  // processed). Calls run in posting order. Returns 0 once posted, -1
  // without an application object.
  static int executeAsync(SyncMethod& method);

 protected:
  void timerEvent(QTimerEvent* event) override;

 private:
  int timerId;
  int singleShot;
};

// Carries one Timer::SyncMethod to the main thread: a QObject living on the
// application's thread to which a SyncCustomEvent is posted. Created and
// destroyed only by Timer::execute()/executeAsync(): a waiting call is
// deleted by the waiting thread once the main thread has run the method, an
// asynchronous one deletes itself after delivery (or when Qt discards its
// event undelivered).
class KESTREL_EXPORT SyncMethodEvent : public QObject {
  Q_OBJECT

 public:
  // Type of SyncCustomEvent: QEvent::User + 1.
  static constexpr int kEventType = 1001;

  // The event posted to a SyncMethodEvent.
  class KESTREL_EXPORT SyncCustomEvent : public CustomEvent {
   public:
    explicit SyncCustomEvent(SyncMethodEvent* target);
    // If Qt discards the event undelivered, its call is released
    // (a waiting caller returns -1; an asynchronous call is freed).
    ~SyncCustomEvent() override;
    SyncMethodEvent* target() const;

   private:
    friend class SyncMethodEvent;
    SyncMethodEvent* m_target;  // guarded by the call lock
  };

 protected:
  void customEvent(QEvent* event) override;

 private:
  friend class Timer;
  friend class Timer::SyncMethod;
  friend class AsyncMessageBox;

  // Links the call to method; ownsMethod: the call deletes the method when
  // it is itself deleted.
  SyncMethodEvent(Timer::SyncMethod& method, bool wait, bool ownsMethod = false);
  ~SyncMethodEvent() override;

  // Posts the event. Asynchronous: returns 0, and this object may be gone
  // on return. Waiting: blocks until the main thread has handled the call;
  // 0 if the method ran, -1 if the call was discarded unrun.
  int post();
  void unlinkMethod();

  Semaphore* done;                 // present only for a waiting call
  SyncCustomEvent* event;          // the event until delivered/discarded
  Timer::SyncMethod* method;       // null once the method has gone away
  SyncMethodEvent* nextForMethod;  // older pending call of the same method
  bool ownsMethod;
  bool ran;                // the method was run
  ThreadHandle runningOn;  // the thread running the method now; 0 if none
};

}  // namespace kestrel
