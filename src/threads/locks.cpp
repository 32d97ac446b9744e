// Barrier, TestThenAdd and the two global locks: the parts of the lock family
// that are built on SpinLock and Semaphore rather than on the platform.
#include <kestrel/threads.h>

#include "lazy_lock.h"
#include "rendezvous.h"

namespace kestrel {

long TestThenAdd(long volatile* value, long delta) {
  return __atomic_fetch_add(value, delta, __ATOMIC_SEQ_CST);
}

// ---------------------------------------------------------------------------
// Barrier
// ---------------------------------------------------------------------------

struct BarrierData {
  SpinLock lock{0};
  detail::RendezvousList sleepers;  // early parties of the current cycle
  int parties = 1;
  int arrived = 0;
};

Barrier::Barrier(int parties) : d(new BarrierData) {
  d->parties = parties < 1 ? 1 : parties;
}

Barrier::~Barrier() {
  delete d;
}

int Barrier::enter() {
  d->lock.lock(SpinLock::kForever);
  if (++d->arrived == d->parties) {
    // The last party: one post for each of the parties - 1 early ones.
    d->sleepers.releaseAll();
    d->arrived = 0;
  } else {
    d->sleepers.sleep(d->lock);
  }
  return d->lock.unlock();
}

// ---------------------------------------------------------------------------
// GlobalLock and BlockMainLock
// ---------------------------------------------------------------------------

namespace detail {

template <class Owner>
std::atomic<SpinLock*> ProcessLock<Owner>::globalLock{nullptr};
template <class Owner>
std::atomic<int> ProcessLock<Owner>::globalLockInited{0};
template <class Owner>
long volatile ProcessLock<Owner>::globalLockInterlock = 0;

template <class Owner>
void ProcessLock<Owner>::initGlobalLock() {
  LazyLock<>(globalLock, globalLockInited, globalLockInterlock).init();
}

template <class Owner>
SpinLock* ProcessLock<Owner>::gGlobalLock() {
  return LazyLock<>(globalLock, globalLockInited, globalLockInterlock).get();
}

template <class Owner>
int ProcessLock<Owner>::lock() {
  return LazyLock<>(globalLock, globalLockInited, globalLockInterlock).lock();
}

template <class Owner>
int ProcessLock<Owner>::trylock() {
  return LazyLock<>(globalLock, globalLockInited, globalLockInterlock).trylock();
}

template <class Owner>
int ProcessLock<Owner>::unlock() {
  return LazyLock<>(globalLock, globalLockInited, globalLockInterlock).unlock();
}

template <class Owner>
void ProcessLock<Owner>::shutdown() {
  LazyLock<>(globalLock, globalLockInited, globalLockInterlock).shutdown();
}

template class ProcessLock<GlobalLock>;
template class ProcessLock<BlockMainLock>;

}  // namespace detail

}  // namespace kestrel
