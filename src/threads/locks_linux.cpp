// SpinLock, Conditional and Semaphore on POSIX threads and semaphores.
//
// The lock's mutex is a plain (non-recursive) pthread mutex; recursion and
// ownership are our own count and owner. owner is read without the mutex by
// the re-entry test, so it is an atomic accessed relaxed: a thread can only
// ever read its own handle there while it really is the owner, because it
// writes 0 itself before it releases the mutex.
#include <kestrel/threads.h>

#include "deadline.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <ctime>
#include <pthread.h>
#include <semaphore.h>
#include <sys/time.h>
#include <type_traits>
#include <unistd.h>

namespace kestrel {

static_assert(std::is_same_v<pthread_t, ThreadHandle>,
              "ThreadHandle must hold a pthread_t whole");
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

bool multiProcessor()
{
    static const bool many = sysconf(_SC_NPROCESSORS_ONLN) > 1;
    return many;
}

// Absolute CLOCK_REALTIME time timeoutMs from now, for pthread_mutex_timedlock.
timespec realtimeIn(unsigned int timeoutMs)
{
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    t.tv_sec += static_cast<time_t>(timeoutMs / 1000);
    t.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000L;
    if (t.tv_nsec >= 1000000000L) {
        t.tv_nsec -= 1000000000L;
        t.tv_sec += 1;
    }
    return t;
}

}  // namespace

// ---------------------------------------------------------------------------
// SpinLock
// ---------------------------------------------------------------------------

SpinLock::SpinLock(unsigned long spinCount) : d(new SpinLockData)
{
    d->spinCount = multiProcessor() ? static_cast<unsigned int>(spinCount) : 0;
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    // Deliberate: a non-zero spin count is honoured by letting the mutex spin
    // briefly before it sleeps; otherwise it is the plain default mutex.
    if (d->spinCount != 0)
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ADAPTIVE_NP);
    pthread_mutex_init(&d->region, &attr);
    pthread_mutexattr_destroy(&attr);
}

SpinLock::~SpinLock()
{
    if (d) {
        pthread_mutex_destroy(&d->region);
        delete d;
    }
}

int SpinLock::lock(unsigned int timeoutMs)
{
    const pthread_t self = pthread_self();
    if (d->owner.load(std::memory_order_relaxed) == self) {
        d->count.store(d->count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        return 0;
    }
    int rc;
    if (timeoutMs == kForever) {
        rc = pthread_mutex_lock(&d->region);
    } else if (timeoutMs == 0) {
        rc = pthread_mutex_trylock(&d->region);
    } else {
        const timespec until = realtimeIn(timeoutMs);
        rc = pthread_mutex_timedlock(&d->region, &until);
    }
    if (rc != 0)
        return -1;
    d->count.store(1, std::memory_order_relaxed);
    d->owner.store(self, std::memory_order_relaxed);
    return 0;
}

int SpinLock::trylock()
{
    return lock(0);
}

int SpinLock::unlock()
{
    if (d->owner.load(std::memory_order_relaxed) != pthread_self())
        return -1;
    const int count = d->count.load(std::memory_order_relaxed) - 1;
    d->count.store(count, std::memory_order_relaxed);
    if (count > 0)
        return 0;
    d->owner.store(0, std::memory_order_relaxed);
    pthread_mutex_unlock(&d->region);
    return 0;
}

ThreadHandle SpinLock::stealOwnership()
{
    const pthread_t self = pthread_self();
    d->owner.store(self, std::memory_order_relaxed);
    return self;
}

int SpinLock::forceUnlock()
{
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
int waitWith(pthread_cond_t* cond, SpinLockData* lock, const timespec* until)
{
    const pthread_t self = pthread_self();
    if (lock->owner.load(std::memory_order_relaxed) != self)
        return -1;
    const int count = lock->count.load(std::memory_order_relaxed);
    lock->owner.store(0, std::memory_order_relaxed);
    lock->count.store(0, std::memory_order_relaxed);
    int rc;
    if (until)
        rc = pthread_cond_timedwait(cond, &lock->region, until);
    else
        rc = pthread_cond_wait(cond, &lock->region);
    lock->count.store(count, std::memory_order_relaxed);
    lock->owner.store(self, std::memory_order_relaxed);
    return rc;
}

}  // namespace

Conditional::Conditional() : d(new ConditionalData)
{
    pthread_cond_init(&d->cond, nullptr);
}

Conditional::~Conditional()
{
    if (d) {
        pthread_cond_destroy(&d->cond);
        delete d;
    }
}

int Conditional::wait(SpinLock& lock)
{
    // The system's result is ignored: a wait that returns holds the lock.
    return waitWith(&d->cond, lock.d, nullptr) == -1 ? -1 : 0;
}

int Conditional::timedwait(SpinLock& lock, unsigned long timeoutMs)
{
    timeval now;
    gettimeofday(&now, nullptr);
    const detail::Deadline deadline = detail::conditionalDeadline(now.tv_sec, now.tv_usec, timeoutMs);
    timespec until;
    until.tv_sec = static_cast<time_t>(deadline.seconds);
    until.tv_nsec = deadline.nanoseconds;
    return waitWith(&d->cond, lock.d, &until) == 0 ? 0 : -1;
}

int Conditional::signal()
{
    pthread_cond_signal(&d->cond);
    return 0;
}

int Conditional::broadcast()
{
    pthread_cond_broadcast(&d->cond);
    return 0;
}

// ---------------------------------------------------------------------------
// Semaphore
// ---------------------------------------------------------------------------

Semaphore::Semaphore(long initialCount) : d(new SemaphoreData)
{
    if (initialCount < 0)
        initialCount = 0;
    if (initialCount > kMaxCount)
        initialCount = kMaxCount;
    sem_init(&d->sem, 0, static_cast<unsigned int>(initialCount));
}

Semaphore::~Semaphore()
{
    if (d) {
        sem_destroy(&d->sem);
        delete d;
    }
}

int Semaphore::wait()
{
    // A forever wait is not ended by a signal delivered to the thread.
    int rc;
    do {
        rc = sem_wait(&d->sem);
    } while (rc != 0 && errno == EINTR);
    return rc == 0 ? 0 : -1;
}

int Semaphore::trywait()
{
    return sem_trywait(&d->sem) == 0 ? 0 : -1;
}

int Semaphore::trywait(long attempts)
{
    if (attempts < 0)
        return wait();
    for (long i = 0; i < attempts; ++i) {
        if (sem_trywait(&d->sem) == 0)
            return 0;
        const timespec oneMs{0, 1000000L};
        nanosleep(&oneMs, nullptr);
    }
    return -1;
}

int Semaphore::post()
{
    return sem_post(&d->sem) == 0 ? 0 : -1;
}

}  // namespace kestrel
