// AsyncThread: a crew of workers running a handler's callback in cycles.
//
// Two deliberate departures from a literal reading of the crew's algorithm,
// neither visible to a caller except that nothing hangs:
// - rendezvous wake-ups belong to their cycle (see rendezvous.h), so a worker
//   that re-enters the rendezvous at once cannot take a wake-up meant for a
//   worker still asleep in the previous cycle;
// - the rendezvous counts the workers that actually run: a worker whose
//   thread could not be created is not waited for, and a worker that leaves
//   during exitThreads() is no longer counted, which releases workers
//   already waiting for it.
#include <kestrel/threads.h>

#include "rendezvous.h"

#include <memory>

namespace kestrel {

struct AsyncThreadData {
  AsyncThreadHandler* handler = nullptr;
  int exiting = 0;  // guarded
  int started = 0;  // guarded
  unsigned long threadCount = 0;
  long volatile running = 0;  // changed through TestThenAdd only
  std::unique_ptr<AsyncThread::ThreadInfo[]> threads;
  mutable SpinLock guard{0};
  detail::RendezvousList sleepers;                       // guarded: early arrivals of the cycle
  unsigned long syncCount = 0;                           // guarded: arrivals in the current cycle
  unsigned long firstParties = 0;                        // guarded: parties of the opening cycle
  unsigned long members = 0;                             // guarded: workers still in their loop
  int waitAttempts = AsyncThread::kDefaultWaitAttempts;  // guarded
  bool reaped = false;                                   // guarded: workers joined
};

AsyncThreadHandler::~AsyncThreadHandler() = default;

AsyncThread::ThreadInfo::ThreadInfo() : owner(nullptr), thread(0), semaphore(0), pending(0) {}

AsyncThread::AsyncThread(AsyncThreadHandler* handler, unsigned long threadCount)
    : d(new AsyncThreadData) {
  d->handler = handler;
  d->threadCount = threadCount;
  d->threads.reset(new ThreadInfo[threadCount]);
  for (unsigned long i = 0; i < threadCount; ++i) d->threads[i].owner = this;
}

AsyncThread::~AsyncThread() {
  delete d;
}

void AsyncThread::setWaitAttempts(int attempts) {
  CSMutex hold(d->guard);
  d->waitAttempts = attempts;
}

int AsyncThread::waitAttempts() const {
  CSMutex hold(d->guard);
  return d->waitAttempts;
}

unsigned long AsyncThread::threadCount() const {
  return d->threadCount;
}

AsyncThread::ThreadInfo& AsyncThread::threadInfo(unsigned long index) {
  return d->threads[index];
}

unsigned long AsyncThread::pending(unsigned long index) const {
  CSMutex hold(d->guard);
  return d->threads[index].pending;
}

long AsyncThread::running() const {
  return __atomic_load_n(&d->running, __ATOMIC_SEQ_CST);
}

unsigned int AsyncThread::startThreads() {
  d->guard.lock(SpinLock::kForever);
  if (d->started) {
    d->guard.unlock();
    return kAlreadyStarted;
  }
  d->exiting = 0;
  // Until every spawn is done, no arrival count can complete the opening
  // cycle: it needs this thread too.
  d->firstParties = d->threadCount + 1;
  d->guard.unlock();

  for (unsigned long i = 0; i < d->threadCount; ++i) {
    ThreadInfo& info = d->threads[i];
    info.thread = 0;
    // Deliberate: trywait(0) makes no attempt, so this drains nothing.
    while (info.semaphore.trywait(0) == 0) {
    }
    info.pending = 1;
  }

  unsigned long spawned = 0;
  for (unsigned long i = 0; i < d->threadCount; ++i) {
    ThreadInfo& info = d->threads[i];
    const ThreadHandle thread = System::spawn(&AsyncThread::asyncFunc, &info);
    d->guard.lock(SpinLock::kForever);
    info.thread = thread;
    d->guard.unlock();
    if (thread != 0) ++spawned;
  }

  // The opening rendezvous: this thread and every worker that exists.
  d->guard.lock(SpinLock::kForever);
  d->members = spawned;
  d->firstParties = spawned + 1;
  arriveLocked(d->firstParties);

  d->guard.lock(SpinLock::kForever);
  d->started = 1;
  d->guard.unlock();
  return 0;
}

void AsyncThread::ready() {
  CSMutex hold(d->guard);
  if (!d->started) return;
  for (unsigned long i = 0; i < d->threadCount; ++i) {
    ThreadInfo& info = d->threads[i];
    if (info.pending < 2) {
      if (info.pending == 0) info.semaphore.post();
      ++info.pending;
    }
  }
}

int AsyncThread::exitThreads() {
  {
    CSMutex hold(d->guard);
    if (!d->started || d->reaped) return 0;
    d->exiting = 1;
    for (unsigned long i = 0; i < d->threadCount; ++i) {
      if (d->threads[i].pending == 0) d->threads[i].semaphore.post();  // wakes a waiting worker
    }
  }
  while (running() != 0) System::sleep(10);
  // The workers have left their loops; reclaim their threads. A joined
  // handle is cleared: the system may reuse the id for another thread.
  for (unsigned long i = 0; i < d->threadCount; ++i) {
    const ThreadHandle thread = d->threads[i].thread;
    if (thread != 0) System::join(thread);
  }
  CSMutex hold(d->guard);
  for (unsigned long i = 0; i < d->threadCount; ++i) d->threads[i].thread = 0;
  d->exiting = 0;
  d->reaped = true;
  return 0;
}

int AsyncThread::syncThreads(unsigned long parties) {
  d->guard.lock(SpinLock::kForever);
  return arriveLocked(parties);
}

// Called with the guard held once; returns with it released.
int AsyncThread::arriveLocked(unsigned long parties) {
  if (++d->syncCount < parties) {
    const int result = d->sleepers.sleep(d->guard);
    d->guard.unlock();
    return result;
  }
  // The last arrival: one post for each other party.
  d->sleepers.releaseAll();
  d->syncCount = 0;
  d->guard.unlock();
  return 0;
}

// A worker leaves its loop (guard held). If the workers already waiting at
// the rendezvous are now all the members there are, their cycle is complete.
void AsyncThread::leaveLocked() {
  --d->members;
  if (d->syncCount > 0 && d->syncCount >= d->members) {
    d->sleepers.releaseAll();
    d->syncCount = 0;
  }
}

void* AsyncThread::asyncFunc(void* info) {
  ThreadInfo* record = static_cast<ThreadInfo*>(info);
  record->owner->asyncHandler(record);
  return nullptr;
}

void AsyncThread::asyncHandler(ThreadInfo* info) {
  TestThenAdd(&d->running, 1);
  bool opening = true;
  for (;;) {
    d->guard.lock(SpinLock::kForever);
    arriveLocked(opening ? d->firstParties : d->members);
    opening = false;

    d->guard.lock(SpinLock::kForever);
    if (d->exiting) {
      info->pending = 0;
      leaveLocked();
      d->guard.unlock();
      break;
    }
    // A unit that brings the count to 0 is the one the wait serves.
    bool mustWait = true;
    if (info->pending > 0) mustWait = --info->pending == 0;
    const int attempts = d->waitAttempts;
    d->guard.unlock();

    if (mustWait) info->semaphore.trywait(attempts);  // the outcome does not matter

    d->guard.lock(SpinLock::kForever);
    const bool leave = d->exiting != 0;
    if (leave) {
      info->pending = 0;
      leaveLocked();
    }
    d->guard.unlock();
    if (leave) break;

    d->handler->callback();
  }
  TestThenAdd(&d->running, -1);
}

}  // namespace kestrel
