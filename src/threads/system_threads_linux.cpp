// The thread members of System on POSIX threads.
#include <kestrel/system.h>

#include "main_thread_key.h"
#include "spawn_hook.h"

#include <pthread.h>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <type_traits>

namespace kestrel {

static_assert(std::is_same_v<pthread_t, ThreadHandle>, "ThreadHandle must hold a pthread_t whole");
static_assert(sizeof(pthread_key_t) <= sizeof(unsigned int), "thread keys fit an unsigned int");

namespace {

// What a new thread runs: freed by the thread when the entry returns, or by
// spawn() if the thread could not be created.
struct StartRecord {
  System::ThreadEntry entry;
  void* arg;
};

void* threadWrapper(void* p) {
  StartRecord* record = static_cast<StartRecord*>(p);
  void* result = record->entry(record->arg);
  delete record;
  return result;
}

std::atomic<detail::ThreadCreateFunction> sThreadCreate{&detail::platformThreadCreate};

// The main-thread key, created on the first setMainThreadId(). Never
// destroyed: any thread may ask isMainThread() while the process exits.
detail::MainThreadKey& mainKey() {
  static detail::MainThreadKey* key = new detail::MainThreadKey;
  return *key;
}

}  // namespace

namespace detail {

int platformThreadCreate(ThreadHandle* thread, void* (*start)(void*), void* arg) {
  pthread_t t;
  const int rc = pthread_create(&t, nullptr, start, arg);
  if (rc == 0) *thread = t;
  return rc;
}

ThreadCreateFunction setThreadCreateFunction(ThreadCreateFunction fn) {
  return sThreadCreate.exchange(fn ? fn : &platformThreadCreate);
}

}  // namespace detail

ThreadHandle System::spawn(ThreadEntry entry, void* arg) {
  StartRecord* record = new StartRecord{entry, arg};
  ThreadHandle thread = 0;
  if (sThreadCreate.load()(&thread, threadWrapper, record) != 0) {
    delete record;
    return 0;
  }
  return thread;
}

int System::join(ThreadHandle thread) {
  // A handle of 0 never names a thread; the platform would crash on it.
  if (thread == 0) return ESRCH;
  return pthread_join(thread, nullptr);
}

unsigned int System::createThreadKey() {
  pthread_key_t key;
  if (pthread_key_create(&key, nullptr) != 0) return 0xFFFFFFFFu;
  return static_cast<unsigned int>(key);
}

void* System::getThreadStorage(unsigned int key) {
  return pthread_getspecific(static_cast<pthread_key_t>(key));
}

int System::setThreadStorage(unsigned int key, void* value) {
  return pthread_setspecific(static_cast<pthread_key_t>(key), value) == 0 ? 0 : -1;
}

ThreadHandle System::getCurrentThread() {
  return pthread_self();
}

void System::setMainThreadId(unsigned int id) {
  // The mark is stored as the value itself, not as a pointer to it.
  mainKey().store(id);
}

bool System::isMainThread() {
  return mainKey().load() == kMainThreadMark;
}

int System::sleep(int ms) {
  timespec duration;
  if (ms == -1) {
    duration.tv_sec = 2147483647;
    duration.tv_nsec = 0;
  } else {
    duration.tv_sec = ms / 1000;
    duration.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
  }
  return nanosleep(&duration, nullptr);
}

}  // namespace kestrel
