// `kestrel-info threads`: a worker crew, a barrier and a call onto the main
// thread.
#include "command.h"

#include <kestrel/system.h>
#include <kestrel/threads.h>

#include <QCoreApplication>

#include <atomic>
#include <vector>

namespace kestrel::info {
namespace {

// Each callback counts itself and tells the controlling thread.
class CountingHandler : public AsyncThreadHandler {
 public:
  void callback() override {
    TestThenAdd(&callbacks, 1);
    finished.post();
  }
  long volatile callbacks = 0;
  Semaphore finished{0};
};

// Runs `cycles` announced cycles of a crew of `workers` threads.
void runCrew(unsigned long workers, int cycles, QTextStream& out) {
  CountingHandler handler;
  AsyncThread crew(&handler, workers);
  crew.startThreads();
  for (int cycle = 0; cycle < cycles; ++cycle) {
    crew.ready();
    for (unsigned long i = 0; i < workers; ++i) handler.finished.wait();
  }
  const unsigned int again = crew.startThreads();
  crew.exitThreads();
  out << "AsyncThread: " << workers << " workers, " << cycles
      << " cycles of ready(): " << handler.callbacks
      << " callbacks; a second startThreads() returns 0x" << Qt::hex << Qt::uppercasedigits << again
      << Qt::dec << '\n';
}

struct BarrierRun {
  Barrier barrier{3};
  int cycles = 0;
  std::atomic<int> arrivals{0};
};

void* enterBarrier(void* arg) {
  auto* run = static_cast<BarrierRun*>(arg);
  for (int cycle = 0; cycle < run->cycles; ++cycle) {
    run->arrivals.fetch_add(1);
    run->barrier.enter();
  }
  return nullptr;
}

void runBarrier(int cycles, QTextStream& out) {
  BarrierRun run;
  run.cycles = cycles;
  std::vector<ThreadHandle> threads;
  for (int i = 0; i < 3; ++i) threads.push_back(System::spawn(enterBarrier, &run));
  for (ThreadHandle thread : threads) System::join(thread);
  out << "Barrier(3): 3 threads met " << cycles << " times (" << run.arrivals.load()
      << " arrivals)\n";
}

// Records where it ran.
class WhereAmI : public Timer::SyncMethod {
 public:
  int run() override {
    ranOnMainThread = System::isMainThread();
    return 0;
  }
  bool ranOnMainThread = false;
};

struct MainThreadCall {
  WhereAmI method;
  int result = -1;
  bool workerIsMain = true;
  std::atomic<bool> done{false};
};

void* callMainThread(void* arg) {
  auto* call = static_cast<MainThreadCall*>(arg);
  call->workerIsMain = System::isMainThread();
  call->result = Timer::execute(call->method, true);
  call->done = true;
  return nullptr;
}

// A worker asks the main thread to run a method and waits for it while the
// main thread processes events.
void runMainThreadCall(QTextStream& out) {
  System::setMainThreadId(System::kMainThreadMark);
  MainThreadCall call;
  const ThreadHandle worker = System::spawn(callMainThread, &call);
  while (!call.done) QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
  System::join(worker);
  out << "Timer::execute from a worker (isMainThread there: "
      << (call.workerIsMain ? "true" : "false") << "): result " << call.result
      << ", ran on the main thread: " << (call.method.ranOnMainThread ? "true" : "false") << '\n';
}

bool readCount(const QStringList& args, qsizetype at, int limit, int& value, QTextStream& err) {
  bool ok = at < args.size();
  const int parsed = ok ? args[at].toInt(&ok) : 0;
  if (!ok || parsed < 1 || parsed > limit) {
    err << "kestrel-info threads: " << args[at - 1] << " takes a number from 1 to " << limit
        << '\n';
    return false;
  }
  value = parsed;
  return true;
}

int runThreads(const QStringList& args, QTextStream& out, QTextStream& err) {
  int workers = 2;
  int cycles = 5;
  for (qsizetype i = 0; i < args.size(); i += 2) {
    if (args[i] == QLatin1String("--workers")) {
      if (!readCount(args, i + 1, 64, workers, err)) return 2;
    } else if (args[i] == QLatin1String("--cycles")) {
      if (!readCount(args, i + 1, 100000, cycles, err)) return 2;
    } else {
      err << "kestrel-info threads: unknown option '" << args[i] << "'\n";
      return 2;
    }
  }
  runCrew(static_cast<unsigned long>(workers), cycles, out);
  runBarrier(cycles, out);
  runMainThreadCall(out);
  return 0;
}

void tourThreads(QTextStream& out) {
  runCrew(2, 3, out);
  runBarrier(3, out);
  runMainThreadCall(out);
}

const Command kThreads{
    "threads",
    "runs a worker crew, a barrier and a main-thread call",
    "threads [--workers N] [--cycles C]\n"
    "  Starts an AsyncThread crew of N workers (default 2, at most 64) and\n"
    "  announces C cycles of work (default 5, at most 100000), counting the\n"
    "  callbacks; has three threads meet C times at a Barrier; and has a worker\n"
    "  run a method on the main thread with Timer::execute, waiting for it.\n",
    runThreads,
    tourThreads,
    20};

}  // namespace

KESTREL_INFO_COMMAND(kThreads);

}  // namespace kestrel::info
