// Timer, main-thread calls (Timer::execute / executeAsync) and
// System::AsyncMessageBox.
//
// A call is a SyncMethodEvent living on the application's thread, to which a
// SyncCustomEvent is posted. The links between a method, its calls and their
// events are changed from several threads (the caller, the main thread, a
// thread destroying the method), so all of them are guarded by one lock, the
// call lock, held only for a few pointer updates and never while a method
// runs. The hand-over between the main thread and a waiting caller also goes
// through that lock: the main thread posts `done` while holding it and never
// touches the call after releasing it, and the waiting caller takes it before
// deleting the call.
#include <kestrel/threads.h>

#include <QApplication>
#include <QCoreApplication>
#include <QMessageBox>
#include <QThread>
#include <QTimerEvent>

#include <climits>

namespace kestrel {

static_assert(SyncMethodEvent::kEventType == QEvent::User + 1, "the call event type is User + 1");

namespace {

// Deliberately never destroyed: calls can still be discarded while the
// process exits, after static destructors have run.
SpinLock& callLock() {
  static SpinLock* lock = new SpinLock(0);
  return *lock;
}

// Signalled (under the call lock) whenever a call has finished running its
// method, for detach() waiting for that. Never destroyed, like the lock.
Conditional& callFinished() {
  static Conditional* finished = new Conditional;
  return *finished;
}

}  // namespace

// ---------------------------------------------------------------------------
// CustomEvent
// ---------------------------------------------------------------------------

CustomEvent::CustomEvent(int type, void* data)
    : QEvent(static_cast<QEvent::Type>(type)), m_data(data) {}

CustomEvent::~CustomEvent() = default;

// ---------------------------------------------------------------------------
// Timer
// ---------------------------------------------------------------------------

Timer::Timer() : QObject(nullptr), timerId(0), singleShot(0) {}

Timer::~Timer() {
  if (timerId > 0) killTimer(timerId);
}

void Timer::start(unsigned int milliseconds, bool singleShotTimer) {
  stop();
  timerId = milliseconds > static_cast<unsigned int>(INT_MAX)
                ? 0
                : startTimer(static_cast<int>(milliseconds));
  singleShot = singleShotTimer ? 1 : 0;
}

void Timer::stop() {
  if (timerId > 0) {
    killTimer(timerId);
    timerId = 0;
  }
}

bool Timer::isActive() const {
  return timerId > 0;
}

void Timer::timerEvent(QTimerEvent*) {
  if (singleShot) {
    killTimer(timerId);
    timerId = 0;
  }
  timeout();
}

// ---------------------------------------------------------------------------
// Timer::SyncMethod
// ---------------------------------------------------------------------------

Timer::SyncMethod::SyncMethod() : event(nullptr) {}

Timer::SyncMethod::SyncMethod(const SyncMethod&) : event(nullptr) {}

Timer::SyncMethod& Timer::SyncMethod::operator=(const SyncMethod&) {
  return *this;  // the pending calls stay with the object they were made for
}

Timer::SyncMethod::~SyncMethod() {
  detach();
}

void Timer::SyncMethod::detach() {
  SpinLock& lock = callLock();
  lock.lock(SpinLock::kForever);
  const ThreadHandle self = System::getCurrentThread();
  // Every call that is not running the method is unlinked at once, so none
  // can start running it from now on; a call that is running it on another
  // thread stays linked until it has finished, and is unlinked then.
  for (;;) {
    bool runningElsewhere = false;
    SyncMethodEvent** link = &event;
    while (SyncMethodEvent* call = *link) {
      if (call->runningOn != 0 && call->runningOn != self) {
        runningElsewhere = true;
        link = &call->nextForMethod;
        continue;
      }
      *link = call->nextForMethod;
      call->method = nullptr;
      call->nextForMethod = nullptr;
    }
    if (!runningElsewhere) break;
    callFinished().wait(lock);
  }
  lock.unlock();
}

void Timer::SyncMethod::destroy(SyncMethod* method) {
  if (!method) return;
  method->detach();
  delete method;
}

// ---------------------------------------------------------------------------
// SyncMethodEvent
// ---------------------------------------------------------------------------

SyncMethodEvent::SyncCustomEvent::SyncCustomEvent(SyncMethodEvent* target)
    : CustomEvent(kEventType), m_target(target) {}

SyncMethodEvent::SyncCustomEvent::~SyncCustomEvent() {
  // Delivery clears m_target; if it is still set, Qt is discarding the
  // event undelivered (for instance when the application is destroyed).
  SpinLock& lock = callLock();
  lock.lock(SpinLock::kForever);
  SyncMethodEvent* call = m_target;
  m_target = nullptr;
  if (!call) {
    lock.unlock();
    return;
  }
  call->event = nullptr;
  if (call->done) {
    call->done->post();  // the waiting caller returns -1 and deletes it
    lock.unlock();
    return;
  }
  lock.unlock();
  delete call;
}

SyncMethodEvent* SyncMethodEvent::SyncCustomEvent::target() const {
  CSMutex hold(callLock());
  return m_target;
}

SyncMethodEvent::SyncMethodEvent(Timer::SyncMethod& m, bool wait, bool owns)
    : QObject(nullptr),
      done(nullptr),
      event(nullptr),
      method(nullptr),
      nextForMethod(nullptr),
      ownsMethod(owns),
      ran(false),
      runningOn(0) {
  // Posted events are delivered on the thread of their receiver.
  if (QCoreApplication* app = QCoreApplication::instance()) moveToThread(app->thread());
  event = new SyncCustomEvent(this);
  if (wait) {
    done = new Semaphore(1);
    done->trywait();  // taken at once: the main thread posts it back
  }
  CSMutex hold(callLock());
  method = &m;
  nextForMethod = m.event;
  m.event = this;
}

SyncMethodEvent::~SyncMethodEvent() {
  Timer::SyncMethod* owned = nullptr;
  {
    CSMutex hold(callLock());
    if (event) {
      event->m_target = nullptr;
      event = nullptr;
    }
    if (method) {
      if (ownsMethod) owned = method;
      unlinkMethod();
    }
  }
  delete owned;
  delete done;
  done = nullptr;
}

// Call lock held.
void SyncMethodEvent::unlinkMethod() {
  for (SyncMethodEvent** link = &method->event; *link; link = &(*link)->nextForMethod) {
    if (*link == this) {
      *link = nextForMethod;
      break;
    }
  }
  method = nullptr;
  nextForMethod = nullptr;
}

int SyncMethodEvent::post() {
  // Read under the call lock: once posted, the main thread may change both,
  // and the ordering through Qt's event queue is one the race detector
  // cannot see.
  SyncCustomEvent* ev;
  Semaphore* wake;
  {
    CSMutex hold(callLock());
    ev = event;
    wake = done;
  }
  QCoreApplication::postEvent(this, ev);
  if (!wake) return 0;  // from here on the main thread owns this object
  wake->wait();
  CSMutex hold(callLock());  // the main thread is done with this object
  return ran ? 0 : -1;
}

void SyncMethodEvent::customEvent(QEvent* e) {
  // The call lock is taken before the event is even looked at: it orders
  // this thread after the poster's set-up of the event and of this object
  // in a way the race detector can see (Qt's event queue it cannot).
  SpinLock& lock = callLock();
  lock.lock(SpinLock::kForever);
  if (e->type() != static_cast<QEvent::Type>(kEventType)) {
    lock.unlock();
    QObject::customEvent(e);
    return;
  }
  SyncCustomEvent* ev = static_cast<SyncCustomEvent*>(e);
  if (ev->m_target != this) {
    lock.unlock();
    return;
  }
  ev->m_target = nullptr;
  event = nullptr;
  // While it runs, the method stays linked to this call and marked as
  // running, so that a thread detaching it waits; run() may also destroy it
  // (detach() on this thread does not wait), so it is not touched after.
  Timer::SyncMethod* m = method;
  if (m) runningOn = System::getCurrentThread();
  lock.unlock();

  if (m) m->run();

  lock.lock(SpinLock::kForever);
  ran = m != nullptr;
  if (m) {
    runningOn = 0;
    callFinished().broadcast();
  }
  if (done) {
    done->post();  // the waiting caller deletes this object
    lock.unlock();
    return;
  }
  lock.unlock();
  delete this;
}

// ---------------------------------------------------------------------------
// Timer::execute / executeAsync
// ---------------------------------------------------------------------------

int Timer::execute(SyncMethod& method, bool wait) {
  if (System::isMainThread()) return method.run();
  QCoreApplication* app = QCoreApplication::instance();
  if (!app) return -1;  // nobody could ever deliver the call
  if (!wait) return executeAsync(method);
  if (QThread::currentThread() == app->thread())
    return method.run();                         // waiting for itself would never end
  if (BlockMainLock::trylock() != 0) return -1;  // deliberate: another waiting call is in progress
  SyncMethodEvent* call = new SyncMethodEvent(method, true);
  const int result = call->post();
  delete call;
  const int unlocked = BlockMainLock::unlock();
  return result == 0 ? unlocked : -1;
}

int Timer::executeAsync(SyncMethod& method) {
  if (!QCoreApplication::instance()) return -1;
  return (new SyncMethodEvent(method, false))->post();
}

// ---------------------------------------------------------------------------
// System::AsyncMessageBox
// ---------------------------------------------------------------------------

// The call behind System::AsyncMessageBox; owned by its SyncMethodEvent.
class AsyncMessageBox : public Timer::SyncMethod {
 public:
  AsyncMessageBox(System::MessageType type, const QString& title, const QString& text)
      : m_type(type), m_title(title), m_text(text) {}

  // Posts a new box; 0 once posted, -1 without an application object.
  static int post(System::MessageType type, const QString& title, const QString& text) {
    if (!QCoreApplication::instance()) return -1;
    AsyncMessageBox* method = new AsyncMessageBox(type, title, text);
    return (new SyncMethodEvent(*method, false, true))->post();
  }

  int run() override {
    // Widgets need a widget application; a core application shows nothing.
    if (!qobject_cast<QApplication*>(QCoreApplication::instance())) return -1;
    QMessageBox* box = new QMessageBox(icon(), m_title, m_text, QMessageBox::Ok);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowModality(Qt::NonModal);
    box->show();
    return 0;
  }

 private:
  QMessageBox::Icon icon() const {
    switch (m_type) {
      case System::Information:
        return QMessageBox::Information;
      case System::Warning:
        return QMessageBox::Warning;
      case System::Critical:
        return QMessageBox::Critical;
      case System::Question:
        return QMessageBox::Question;
    }
    return QMessageBox::NoIcon;
  }

  System::MessageType m_type;
  QString m_title;
  QString m_text;
};

int System::AsyncMessageBox(MessageType type, const QString& title, const QString& text) {
  return kestrel::AsyncMessageBox::post(type, title, text);
}

}  // namespace kestrel
