// `kestrel-info memory`: a short workload through the memory front, then the
// "Memory" counters, the pools with their mapped ranges and their mspace
// statistics.
#include <kestrel/memory.h>
#include <kestrel/settings.h>

#include <vector>

#include "command.h"

namespace kestrel::info {
namespace {

// Allocates `blocks` blocks of 16 B to 4 KiB through a manager on a pool of
// its own and the default pool, frees every other one with the plain
// operator delete, and copies the counters into the settings.
struct Workload {
  MemoryPool* pool = new MemoryPool("demo", 0x400000);
  HeapManager own{pool};
  HeapManager shared{nullptr};
  std::vector<void*> live;

  explicit Workload(int blocks) {
    for (int i = 0; i < blocks; ++i) {
      HeapManager& mgr = i % 3 == 0 ? shared : own;
      live.push_back(doNew(16 + static_cast<unsigned long>(i * 97 % 4080), &mgr));
    }
    for (std::size_t i = 0; i < live.size(); i += 2) {
      Free(live[i]);
      live[i] = nullptr;
    }
    MemInfo::UpdateMemSettings(0, 0);
  }
  ~Workload() {
    for (void* p : live) Free(p);
  }
  Workload(const Workload&) = delete;
  Workload& operator=(const Workload&) = delete;
};

void printCounters(QTextStream& out) {
  out << "Memory settings:\n";
  SettingGroup* group = SettingGroup::getGroup(QStringLiteral("Memory"));
  for (int i = 0; group != nullptr && i < group->getSettingCount(); ++i) {
    Setting* s = group->getSetting(i);
    out << "  " << qSetFieldWidth(14) << Qt::left << s->getName() << qSetFieldWidth(0) << " "
        << s->toString() << "\n";
  }
}

void printPool(QTextStream& out, MemoryPool& pool, unsigned long managerBytes) {
  const mspace_mallinfo_record stats = pool.getStats();
  out << "Pool \"" << pool.getName() << "\": " << pool.getAllocatedMemory()
      << " bytes allocated (manager " << managerBytes << "), references " << pool.getRefCount()
      << "\n";
  for (const MMapRange& r : pool.getRanges()) {
    out << "  range 0x" << QString::number(reinterpret_cast<quintptr>(r.start), 16) << " + 0x"
        << QString::number(r.size, 16) << " (" << r.size / 1024 << " KiB)\n";
  }
  out << "  mspace: system " << stats.arena << ", in use " << stats.uordblks << ", free "
      << stats.fordblks << ", free chunks " << stats.ordblks << ", peak " << stats.usmblks << "\n";
}

void report(QTextStream& out, int blocks) {
  Workload work(blocks);
  out << "Workload: " << blocks << " blocks of 16 B-4 KiB from two managers, every other one"
      << " freed with Free\n";
  printCounters(out);
  printPool(out, *work.pool, work.own.getAllocatedSize());
  printPool(out, *work.shared.getPool(), work.shared.getAllocatedSize());
  int probe = 0;
  out << "isPointerFromPool: live block " << MemoryPool::isPointerFromPool(work.live[1])
      << ", stack " << MemoryPool::isPointerFromPool(&probe) << ", process-wide ranges "
      << MemoryPool::getAllRanges().size() << "\n";
}

int runMemory(const QStringList& args, QTextStream& out, QTextStream& err) {
  int blocks = 2000;
  if (args.size() == 2 && args[0] == QLatin1String("--blocks")) {
    bool ok = false;
    blocks = args[1].toInt(&ok);
    if (!ok || blocks < 2 || blocks > 1000000) {
      err << "kestrel-info memory: --blocks needs a number from 2 to 1000000\n";
      return 2;
    }
  } else if (!args.isEmpty()) {
    err << "kestrel-info memory: unknown arguments: " << args.join(QLatin1Char(' ')) << "\n";
    return 2;
  }
  report(out, blocks);
  return 0;
}

void tourMemory(QTextStream& out) {
  report(out, 300);
}

const Command kMemory{
    "memory",
    "runs a small workload on memory pools and prints the counters and pools",
    "memory [--blocks N]\n"
    "  Allocates N blocks (default 2000, 2 to 1000000) of 16 B to 4 KiB through two heap\n"
    "  managers, one on a pool of its own (\"demo\") and one on the shared \"default\" pool,\n"
    "  and frees every other block with kestrel::Free, which finds each block's owner from\n"
    "  its address. Then prints the eight settings of the \"Memory\" group (updated with\n"
    "  MemInfo::UpdateMemSettings), each pool's allocated bytes, its 4 MiB-aligned mapped\n"
    "  ranges and its mspace statistics, and isPointerFromPool for a pool block and a stack\n"
    "  address.\n",
    runMemory,
    tourMemory,
    35};

}  // namespace

KESTREL_INFO_COMMAND(kMemory);

}  // namespace kestrel::info
