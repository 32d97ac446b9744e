// SpinLock, Conditional and Semaphore on POSIX threads and semaphores.
//
// The lock's mutex is a plain (non-recursive) pthread mutex; recursion and
// ownership are our own count and owner. owner is read without the mutex by
// the re-entry test, so it is an atomic accessed relaxed: a thread can only
// ever read its own handle there while it really is the owner, because it
// writes 0 itself before it releases the mutex.
#include <kestrel/threads.h>

#include "deadline.h"

#include <pthread.h>
#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif
#include <semaphore.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <climits>
#include <ctime>
#include <type_traits>

namespace kestrel {

static_assert(std::is_same_v<pthread_t, ThreadHandle>, "ThreadHandle must hold a pthread_t whole");
static_assert(SEM_VALUE_MAX == Semaphore::kMaxCount, "semaphore maximum");

struct SpinLockData {
  pthread_mutex_t region;  // first, as the condition variable waits on it
  std::atomic<int> count{0};
  unsigned int spinCount = 0;
  std::atomic<pthread_t> owner{0};
};

struct ConditionalData {
  pthread_cond_t cond;
};

struct SemaphoreData {
  sem_t sem;
};

namespace {

// The calling thread's handle, cached per thread: the lock's hot paths need
// it on every lock and unlock, and reading it here is a single thread-local
// load where pthread_self() is a call into the C library. Initial-exec
// keeps the access free of a TLS lookup call; the 8 bytes fit the static TLS
// reserve even when the library is loaded with dlopen.
thread_local pthread_t tSelf __attribute__((tls_model("initial-exec"))) = 0;

// Fills the cache; the callers' first use on a thread goes through here.
[[gnu::noinline, gnu::cold]] pthread_t fillCurrentThread() {
  return tSelf = pthread_self();
}

inline pthread_t currentThread() {
  const pthread_t self = tSelf;
  return __builtin_expect(self != 0, 1) ? self : fillCurrentThread();
}

bool multiProcessor() {
  static const bool many = sysconf(_SC_NPROCESSORS_ONLN) > 1;
  return many;
}

// Absolute CLOCK_MONOTONIC time timeoutMs from now: timed waits end after
// the time asked for whatever happens to the wall clock meanwhile.
timespec monotonicIn(unsigned int timeoutMs) {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  t.tv_sec += static_cast<time_t>(timeoutMs / 1000);
  t.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000L;
  if (t.tv_nsec >= 1000000000L) {
    t.tv_nsec -= 1000000000L;
    t.tv_sec += 1;
  }
  return t;
}

// A timed acquisition against the monotonic clock. ThreadSanitizer does not
// know pthread_mutex_clocklock, so that build tells it about the acquisition
// itself (the release goes through pthread_mutex_unlock, which it knows).
int clockLock(pthread_mutex_t* mutex, const timespec& until) {
#if defined(__SANITIZE_THREAD__)
  __tsan_mutex_pre_lock(mutex, __tsan_mutex_try_lock);
  const int rc = pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &until);
  __tsan_mutex_post_lock(mutex, rc == 0 ? __tsan_mutex_try_lock : __tsan_mutex_try_lock_failed, 0);
  return rc;
#else
  return pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &until);
#endif
}

}  // namespace

// ---------------------------------------------------------------------------
// SpinLock
// ---------------------------------------------------------------------------

SpinLock::SpinLock(unsigned long spinCount) : d(new SpinLockData) {
  d->spinCount = multiProcessor() ? static_cast<unsigned int>(spinCount) : 0;
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  // Deliberate: a non-zero spin count is honoured by letting the mutex spin
  // briefly before it sleeps; otherwise it is the plain default mutex.
  if (d->spinCount != 0) pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ADAPTIVE_NP);
  pthread_mutex_init(&d->region, &attr);
  pthread_mutexattr_destroy(&attr);
}

SpinLock::~SpinLock() {
  if (d) {
    pthread_mutex_destroy(&d->region);
    delete d;
  }
}

namespace {

// A thread's first lock or unlock fills the cache, then starts again; kept
// out of line so that the hot paths stay small.
[[gnu::noinline, gnu::cold]] int lockOnFirstUse(SpinLock& lock, unsigned int timeoutMs) {
  fillCurrentThread();
  return lock.lock(timeoutMs);
}

[[gnu::noinline, gnu::cold]] int unlockOnFirstUse(SpinLock& lock) {
  fillCurrentThread();
  return lock.unlock();
}

[[gnu::noinline]] int acquireWithin(SpinLockData* data, pthread_t self, unsigned int timeoutMs) {
  const int rc = timeoutMs == 0 ? pthread_mutex_trylock(&data->region)
                                : clockLock(&data->region, monotonicIn(timeoutMs));
  if (rc != 0) return -1;
  data->count.store(1, std::memory_order_relaxed);
  data->owner.store(self, std::memory_order_relaxed);
  return 0;
}

// The caller took ownership of a free lock (stealOwnership): there is no
// mutex to release.
[[gnu::noinline, gnu::cold]] int releaseStolen(SpinLockData* data) {
  data->count.store(0, std::memory_order_relaxed);
  return 0;
}

}  // namespace

// The uncontended paths make exactly one call, the mutex's own, and no
// other: the owner test, the count and the owner are plain loads and stores.
int SpinLock::lock(unsigned int timeoutMs) {
  SpinLockData* const data = d;
  const pthread_t self = tSelf;
  const pthread_t owner = data->owner.load(std::memory_order_relaxed);
  if (__builtin_expect(self == 0, 0)) return lockOnFirstUse(*this, timeoutMs);
  if (owner == self) {
    data->count.store(data->count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return 0;
  }
  if (__builtin_expect(timeoutMs != kForever, 0)) return acquireWithin(data, self, timeoutMs);
  if (__builtin_expect(pthread_mutex_lock(&data->region) != 0, 0)) return -1;
  data->count.store(1, std::memory_order_relaxed);
  data->owner.store(self, std::memory_order_relaxed);
  return 0;
}

int SpinLock::trylock() {
  return lock(0);
}

// The mutex is a normal or adaptive one, whose unlock by the thread that
// holds it always succeeds, so its result is ours (a tail call).
int SpinLock::unlock() {
  SpinLockData* const data = d;
  const pthread_t self = tSelf;
  if (__builtin_expect(self == 0, 0)) return unlockOnFirstUse(*this);
  if (data->owner.load(std::memory_order_relaxed) != self) return -1;
  const int count = data->count.load(std::memory_order_relaxed) - 1;
  data->count.store(count, std::memory_order_relaxed);
  if (count > 0) return 0;
  data->owner.store(0, std::memory_order_relaxed);
  if (__builtin_expect(count < 0, 0)) return releaseStolen(data);
  return pthread_mutex_unlock(&data->region);
}

ThreadHandle SpinLock::stealOwnership() {
  const pthread_t self = currentThread();
  d->owner.store(self, std::memory_order_relaxed);
  return self;
}

int SpinLock::forceUnlock() {
  stealOwnership();
  return unlock();
}

// ---------------------------------------------------------------------------
// Conditional
// ---------------------------------------------------------------------------

namespace {

// Waits on cond with the lock's own mutex. The lock's count and owner are
// cleared for the wait (another thread takes the mutex meanwhile) and
// restored once the mutex is ours again. until == nullptr waits without limit.
int waitWith(pthread_cond_t* cond, SpinLockData* lock, const timespec* until) {
  const pthread_t self = currentThread();
  if (lock->owner.load(std::memory_order_relaxed) != self) return -1;
  const int count = lock->count.load(std::memory_order_relaxed);
  lock->owner.store(0, std::memory_order_relaxed);
  lock->count.store(0, std::memory_order_relaxed);
  int rc;
  if (until)
    rc = pthread_cond_clockwait(cond, &lock->region, CLOCK_MONOTONIC, until);
  else
    rc = pthread_cond_wait(cond, &lock->region);
  lock->count.store(count, std::memory_order_relaxed);
  lock->owner.store(self, std::memory_order_relaxed);
  return rc;
}

}  // namespace

Conditional::Conditional() : d(new ConditionalData) {
  pthread_cond_init(&d->cond, nullptr);
}

Conditional::~Conditional() {
  if (d) {
    pthread_cond_destroy(&d->cond);
    delete d;
  }
}

int Conditional::wait(SpinLock& lock) {
  // The system's result is ignored: a wait that returns holds the lock.
  return waitWith(&d->cond, lock.d, nullptr) == -1 ? -1 : 0;
}

int Conditional::timedwait(SpinLock& lock, unsigned long timeoutMs) {
  // The deadline is on the monotonic clock, so setting the wall clock
  // neither stretches nor shortens the wait.
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const detail::Deadline deadline =
      detail::conditionalDeadline(now.tv_sec, now.tv_nsec / 1000, timeoutMs);
  timespec until;
  until.tv_sec = static_cast<time_t>(deadline.seconds);
  until.tv_nsec = deadline.nanoseconds;
  return waitWith(&d->cond, lock.d, &until) == 0 ? 0 : -1;
}

int Conditional::signal() {
  pthread_cond_signal(&d->cond);
  return 0;
}

int Conditional::broadcast() {
  pthread_cond_broadcast(&d->cond);
  return 0;
}

// ---------------------------------------------------------------------------
// Semaphore
// ---------------------------------------------------------------------------

Semaphore::Semaphore(long initialCount) : d(new SemaphoreData) {
  if (initialCount < 0) initialCount = 0;
  if (initialCount > kMaxCount) initialCount = kMaxCount;
  sem_init(&d->sem, 0, static_cast<unsigned int>(initialCount));
}

Semaphore::~Semaphore() {
  if (d) {
    sem_destroy(&d->sem);
    delete d;
  }
}

int Semaphore::wait() {
  // A forever wait is not ended by a signal delivered to the thread.
  int rc;
  do {
    rc = sem_wait(&d->sem);
  } while (rc != 0 && errno == EINTR);
  return rc == 0 ? 0 : -1;
}

int Semaphore::trywait() {
  return sem_trywait(&d->sem) == 0 ? 0 : -1;
}

int Semaphore::trywait(long attempts) {
  if (attempts < 0) return wait();
  for (long i = 0; i < attempts; ++i) {
    if (sem_trywait(&d->sem) == 0) return 0;
    const timespec oneMs{0, 1000000L};
    nanosleep(&oneMs, nullptr);
  }
  return -1;
}

int Semaphore::post() {
  return sem_post(&d->sem) == 0 ? 0 : -1;
}

}  // namespace kestrel
