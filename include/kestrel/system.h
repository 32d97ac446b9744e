// kestrel::System — the library's static facade over the operating system.
//
// Every platform service the library and its clients need is reached through
// the static members of this one class, so that no client includes a system
// header. The class is organised by family; each family has its own section
// below, and new families are added as further sections:
//
//   Threads        start and join threads, thread-local storage, the
//                  main-thread mark, sleeping.
//   Message boxes  non-blocking message boxes shown on the main thread from
//                  any thread.
//
// Handles of the platform (threads, storage keys) are plain integers here;
// their relation to the system types is checked where the platform code is
// compiled.
//
// Example: run a function on a thread of its own and wait for it.
//
//   void* work(void* arg) { ... return nullptr; }
//   kestrel::ThreadHandle t = kestrel::System::spawn(work, &data);
//   if (t != 0)
//       kestrel::System::join(t);
//
// The application's GUI thread marks itself once, early:
//
//   kestrel::System::setMainThreadId(kestrel::System::kMainThreadMark);
//
// after which isMainThread() tells, on any thread, whether it is that thread.
#pragma once

#include <kestrel/export.h>

#include <QString>

namespace kestrel {

// Identity of a thread: the value of the platform's thread handle, held whole
// (64 bits on a 64-bit target). 0 never names a running thread.
using ThreadHandle = unsigned long;

class KESTREL_EXPORT System {
 public:
  // ------------------------------------------------------------------
  // Threads
  // ------------------------------------------------------------------

  // Entry function of a thread started by spawn().
  using ThreadEntry = void* (*)(void*);

  // The value the main thread stores with setMainThreadId() to mark itself.
  static constexpr unsigned int kMainThreadMark = 0xC0FFEE;

  // Starts a joinable thread with default attributes that runs entry(arg).
  // Returns its handle, or 0 if the thread could not be created (nothing is
  // leaked then). Thread-safe.
  static ThreadHandle spawn(ThreadEntry entry, void* arg);

  // Waits for the thread to end. Returns 0, or the platform's error number
  // (for example ESRCH for a handle of 0 or of an unknown thread, EDEADLK
  // when a thread joins itself). A thread may be joined once.
  static int join(ThreadHandle thread);

  // A new thread-local storage key without destructor; every thread's value
  // starts as null. Returns 0xFFFFFFFF if the process has run out of keys.
  static unsigned int createThreadKey();

  // The calling thread's value for key; null if never set or key invalid.
  static void* getThreadStorage(unsigned int key);

  // Sets the calling thread's value for key. Returns 0, or -1 if the key is
  // invalid or the value could not be stored.
  static int setThreadStorage(unsigned int key, void* value);

  // The calling thread's handle. Never 0.
  static ThreadHandle getCurrentThread();

  // Stores id as the calling thread's main-thread mark; creates the
  // library's main-thread key on first use (safe against concurrent first
  // use). Only kMainThreadMark marks a thread as the main thread; any other
  // value clears the mark of the calling thread. If the system cannot give
  // the library a key (the process has used up its thread-local keys),
  // nothing is stored anywhere: isMainThread() stays false, and a later call
  // tries to create the key again.
  static void setMainThreadId(unsigned int id);

  // True when the calling thread's mark equals kMainThreadMark (0xC0FFEE).
  // False on every thread before any setMainThreadId() call, and on threads
  // that never stored the mark. Valid on any thread at any time.
  static bool isMainThread();

  // Sleeps ms / 1000 seconds plus (ms mod 1000) milliseconds; -1 sleeps
  // 2147483647 seconds (for ever in practice). Returns 0, or -1 if the
  // sleep was interrupted by a signal or the duration is invalid (other
  // negative values). sleep(0) returns 0 at once.
  static int sleep(int ms);

  // ------------------------------------------------------------------
  // Message boxes
  // ------------------------------------------------------------------

  // Kind of a message box; chooses its icon.
  enum MessageType { Information, Warning, Critical, Question };

  // Shows a message box with an OK button on the main thread and returns at
  // once, from any thread: the box is posted as an asynchronous main-thread
  // call (Timer::executeAsync) and appears when the main thread next
  // processes events. The box is not modal for the caller and deletes
  // itself when closed. Returns 0 once posted, -1 if there is no
  // application object to post to. Nothing is shown if the application is
  // not a widget application (a QApplication).
  static int AsyncMessageBox(MessageType type, const QString& title, const QString& text);

  // ------------------------------------------------------------------
  // Clock and frames
  // ------------------------------------------------------------------

  // Seconds elapsed on the application clock, whose zero is fixed when the
  // library is loaded. Never decreases. Thread-safe.
  static double getTime();

  // The wall-clock moment the library was loaded, in seconds since
  // 0000-01-01T00:00:00 UTC of the proleptic Gregorian calendar (the scale of
  // DateTime::toSeconds). Thread-safe.
  static double getStartTime();

  // The current frame number, maintained by the application (main thread).
  static int sCurFrame;
};

// The value getStartTime() returns.
KESTREL_EXPORT extern double sStartTime;

}  // namespace kestrel
