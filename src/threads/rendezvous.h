// Private: the wake-up list shared by Barrier and the AsyncThread rendezvous.
//
// Every early party of a cycle sleeps on a semaphore of its own, and the last
// party posts each of them once. A wake-up therefore belongs to the party and
// the cycle it was posted for: a party that leaves a cycle and re-enters the
// next one at once sleeps on a fresh semaphore and cannot take the wake-up of
// a party still asleep in the previous cycle, so the parties never fall out
// of step. The number of posts per cycle is still parties - 1.
#pragma once

#include <kestrel/threads.h>

namespace kestrel::detail {

struct RendezvousWaiter {
  Semaphore wake{0};
  RendezvousWaiter* next = nullptr;
  bool released = false;
};

// The early parties of the current cycle. Every member is guarded by the
// lock of the object that owns the list.
class RendezvousList {
 public:
  // Posts every waiter once and empties the list. Returns the number of
  // posts made.
  unsigned long releaseAll() {
    unsigned long posts = 0;
    while (RendezvousWaiter* w = m_head) {
      m_head = w->next;
      w->released = true;
      w->wake.post();
      ++posts;
    }
    return posts;
  }

  // Sleeps as an early party of the current cycle. `lock` is held once by
  // the caller on entry; it is released while sleeping and held again on
  // return, which also guarantees that the post that woke this party has
  // completed before its semaphore is destroyed. Returns the wait's result.
  int sleep(SpinLock& lock) {
    RendezvousWaiter self;
    self.next = m_head;
    m_head = &self;
    lock.unlock();
    int result = self.wake.wait();
    lock.lock(SpinLock::kForever);
    if (!self.released) unlink(self);
    return result;
  }

 private:
  void unlink(RendezvousWaiter& w) {
    for (RendezvousWaiter** p = &m_head; *p; p = &(*p)->next) {
      if (*p == &w) {
        *p = w.next;
        return;
      }
    }
  }

  RendezvousWaiter* m_head = nullptr;
};

}  // namespace kestrel::detail
