// `kestrel-info mspace`: an allocation trace on a fresh mspace and its
// statistics.
#include "command.h"

#include <kestrel/memory.h>

#include <cstdio>
#include <memory>
#include <random>
#include <vector>

namespace kestrel::info {
namespace {

// Counts what the mspace asks of the system through its own functions.
struct MappingLog {
  unsigned long mappings = 0;
  unsigned long mappedBytes = 0;
};

void* countingMmap(unsigned long size, void* context) {
  void* region = default_mmap_func(size, context);
  if (region != reinterpret_cast<void*>(~0UL)) {
    auto* log = static_cast<MappingLog*>(context);
    ++log->mappings;
    log->mappedBytes += size;
  }
  return region;
}

struct TraceOptions {
  unsigned long blocks = 1000;
  unsigned long maxSize = 4096;
  unsigned seed = 1;
};

bool parseOptions(const QStringList& args, TraceOptions& options, QTextStream& err) {
  for (qsizetype i = 0; i < args.size(); ++i) {
    const QString& option = args[i];
    bool ok = i + 1 < args.size();
    const unsigned long value = ok ? args[i + 1].toULong(&ok) : 0;
    if (!ok || value == 0) {
      err << "kestrel-info mspace: '" << option << "' needs a positive number\n";
      return false;
    }
    if (option == QLatin1String("--blocks") && value <= 1000000) {
      options.blocks = value;
    } else if (option == QLatin1String("--max-size") && value <= (64UL << 20)) {
      options.maxSize = value;
    } else if (option == QLatin1String("--seed")) {
      options.seed = static_cast<unsigned>(value);
    } else {
      err << "kestrel-info mspace: unknown option or value out of range: " << option << ' '
          << args[i + 1] << '\n';
      return false;
    }
    ++i;
  }
  return true;
}

void printInfo(QTextStream& out, const char* when, mspace msp) {
  const mspace_mallinfo_record info = mspace_mallinfo(msp);
  out << when << ": segments " << info.arena << " B, in use " << info.uordblks << " B, free "
      << info.fordblks << " B in " << info.ordblks << " chunks, top " << info.keepcost << " B\n";
}

// Allocates `blocks` blocks of random sizes on an mspace built in a 64 KiB
// caller buffer, frees every other one, then trims.
int runTrace(const TraceOptions& options, QTextStream& out) {
  constexpr unsigned long kBaseBytes = 64 * 1024;
  auto base = std::make_unique<std::max_align_t[]>(kBaseBytes / sizeof(std::max_align_t));
  MappingLog log;
  mspace msp = create_mspace_with_base_ca(base.get(), kBaseBytes, 0, countingMmap, countingMmap,
                                          default_sbrk_func, &log);
  if (!msp) {
    out << "could not create the mspace\n";
    return 1;
  }
  std::mt19937 random(options.seed);
  std::uniform_int_distribution<unsigned long> size(1, options.maxSize);
  std::vector<void*> blocks;
  for (unsigned long i = 0; i < options.blocks; ++i)
    blocks.push_back(mspace_malloc(msp, size(random)));
  out << "mspace in a " << kBaseBytes / 1024 << " KiB caller buffer, " << options.blocks
      << " blocks of 1.." << options.maxSize << " bytes\n";
  printInfo(out, "after malloc      ", msp);
  for (std::size_t i = 0; i < blocks.size(); i += 2) mspace_free(msp, blocks[i]);
  printInfo(out, "after freeing half", msp);
  for (std::size_t i = 1; i < blocks.size(); i += 2) mspace_free(msp, blocks[i]);
  mspace_trim(msp, 0);
  printInfo(out, "after freeing all ", msp);
  out << "segment mappings through the mspace's own function: " << log.mappings << " ("
      << log.mappedBytes << " B)\n";
  out << "statistics lines (standard error):\n";
  out.flush();
  std::fflush(stdout);
  mspace_malloc_stats(msp);
  std::fflush(stderr);
  out << "destroy_mspace released " << destroy_mspace(msp) << " B\n";
  return 0;
}

int runMspace(const QStringList& args, QTextStream& out, QTextStream& err) {
  TraceOptions options;
  if (!parseOptions(args, options, err)) return 2;
  return runTrace(options, out);
}

void tourMspace(QTextStream& out) {
  TraceOptions options;
  options.blocks = 200;
  runTrace(options, out);
}

const Command kMspace{"mspace",
                      "runs an allocation trace on a fresh mspace",
                      "mspace [--blocks N] [--max-size BYTES] [--seed S]\n"
                      "  Builds an mspace in a 64 KiB caller buffer whose segment mappings are\n"
                      "  counted, allocates N blocks (default 1000, at most 1000000) of random\n"
                      "  sizes from 1 to BYTES (default 4096, at most 64 MiB), frees every other\n"
                      "  one, then the rest, trims, and prints the statistics after each step and\n"
                      "  the allocator's three statistics lines.\n",
                      runMspace,
                      tourMspace,
                      30};

}  // namespace

KESTREL_INFO_COMMAND(kMspace);

}  // namespace kestrel::info
