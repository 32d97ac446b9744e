// Private: the thread-local key behind System::setMainThreadId and
// System::isMainThread.
//
// The key is created on the first setMainThreadId(). If the system refuses
// it (the process has used up its keys), nothing is stored: a key that was
// never created belongs to someone else, so writing through it would change
// another component's thread-local value. A later call tries again.
// The creation function is a parameter so that tests can make it fail.
#pragma once

#include <pthread.h>

#include <atomic>
#include <mutex>

namespace kestrel::detail {

using KeyCreateFunction = int (*)(pthread_key_t* key, void (*destructor)(void*));

class MainThreadKey {
 public:
  explicit MainThreadKey(KeyCreateFunction create = &pthread_key_create) : m_create(create) {}

  MainThreadKey(const MainThreadKey&) = delete;
  MainThreadKey& operator=(const MainThreadKey&) = delete;

  // Stores mark as the calling thread's value. False, storing nothing, if
  // the key does not exist and cannot be created.
  bool store(unsigned long mark) {
    if (!ensureCreated()) return false;
    return pthread_setspecific(m_key, reinterpret_cast<void*>(mark)) == 0;
  }

  // The calling thread's stored mark; 0 when none, or when no key exists.
  unsigned long load() const {
    if (!m_created.load(std::memory_order_acquire)) return 0;
    return reinterpret_cast<unsigned long>(pthread_getspecific(m_key));
  }

 private:
  bool ensureCreated() {
    if (m_created.load(std::memory_order_acquire)) return true;
    std::lock_guard<std::mutex> hold(m_creating);
    if (m_created.load(std::memory_order_relaxed)) return true;
    pthread_key_t key;
    if (m_create(&key, nullptr) != 0) return false;
    m_key = key;
    m_created.store(true, std::memory_order_release);
    return true;
  }

  KeyCreateFunction m_create;
  std::mutex m_creating;
  std::atomic<bool> m_created{false};
  pthread_key_t m_key{};
};

}  // namespace kestrel::detail
