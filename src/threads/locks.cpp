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

std::atomic<SpinLock*> GlobalLock::globalLock{nullptr};
std::atomic<int> GlobalLock::globalLockInited{0};
long volatile GlobalLock::globalLockInterlock = 0;

std::atomic<SpinLock*> BlockMainLock::globalLock{nullptr};
std::atomic<int> BlockMainLock::globalLockInited{0};
long volatile BlockMainLock::globalLockInterlock = 0;

// Both classes run the same lazily created lock; inside each member the
// unqualified names are that class's own statics.
#define KESTREL_LAZY detail::LazyLock<>(globalLock, globalLockInited, globalLockInterlock)

void GlobalLock::initGlobalLock() {
  KESTREL_LAZY.init();
}

SpinLock* GlobalLock::gGlobalLock() {
  return KESTREL_LAZY.get();
}

int GlobalLock::lock() {
  return KESTREL_LAZY.lock();
}

int GlobalLock::trylock() {
  return KESTREL_LAZY.trylock();
}

int GlobalLock::unlock() {
  return KESTREL_LAZY.unlock();
}

void GlobalLock::shutdown() {
  KESTREL_LAZY.shutdown();
}

void BlockMainLock::initGlobalLock() {
  KESTREL_LAZY.init();
}

SpinLock* BlockMainLock::gGlobalLock() {
  return KESTREL_LAZY.get();
}

int BlockMainLock::lock() {
  return KESTREL_LAZY.lock();
}

int BlockMainLock::trylock() {
  return KESTREL_LAZY.trylock();
}

int BlockMainLock::unlock() {
  return KESTREL_LAZY.unlock();
}

void BlockMainLock::shutdown() {
  KESTREL_LAZY.shutdown();
}

#undef KESTREL_LAZY

}  // namespace kestrel
