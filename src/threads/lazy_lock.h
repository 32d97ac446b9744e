// Private: the lazily created lock behind GlobalLock and BlockMainLock.
#pragma once

#include <kestrel/system.h>
#include <kestrel/threads.h>

#include <atomic>

namespace kestrel::detail {

struct NewSpinLock {
  SpinLock* operator()() const { return new SpinLock(0); }
};

// Operates on the three statics of one global-lock class. The first thread to
// need the lock is elected by an atomic add on `interlock` and creates it;
// the others sleep 1 ms at a time until `inited` is set (after the pointer
// is stored, so a thread that sees the flag sees the lock). shutdown()
// destroys the lock and leaves `inited` set, so the lock is never created
// again; operations after it find no lock and fail with -1.
template <class Factory = NewSpinLock>
class LazyLock {
 public:
  LazyLock(std::atomic<SpinLock*>& lock, std::atomic<int>& inited, long volatile& interlock,
           Factory factory = Factory())
      : m_lock(lock), m_inited(inited), m_interlock(interlock), m_factory(factory) {}

  void init() {
    if (m_inited.load(std::memory_order_acquire)) return;
    if (TestThenAdd(&m_interlock, 1) == 0) {
      m_lock.store(m_factory(), std::memory_order_release);
      m_inited.store(1, std::memory_order_release);  // the interlock stays at 1
      return;
    }
    while (!m_inited.load(std::memory_order_acquire)) System::sleep(1);
    TestThenAdd(&m_interlock, -1);
  }

  SpinLock* get() {
    init();
    return m_lock.load(std::memory_order_acquire);
  }

  int lock() {
    SpinLock* l = get();
    return l ? l->lock(SpinLock::kForever) : -1;
  }

  int trylock() {
    SpinLock* l = get();
    return l ? l->trylock() : -1;
  }

  int unlock() {
    SpinLock* l = get();
    return l ? l->unlock() : -1;
  }

  void shutdown() { delete m_lock.exchange(nullptr, std::memory_order_acq_rel); }

 private:
  std::atomic<SpinLock*>& m_lock;
  std::atomic<int>& m_inited;
  long volatile& m_interlock;
  Factory m_factory;
};

}  // namespace kestrel::detail
