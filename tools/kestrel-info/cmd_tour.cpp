// `kestrel-info tour`: a short demonstration of every family the library has.
#include "command.h"

#include <algorithm>

namespace kestrel::info {
namespace {

int runTour(const QStringList& args, QTextStream& out, QTextStream& err) {
  if (!args.isEmpty()) {
    err << "kestrel-info tour: takes no arguments\n";
    return 2;
  }
  std::vector<const Command*> parts;
  for (const Command* command : registry()) {
    if (command->tour) parts.push_back(command);
  }
  std::stable_sort(parts.begin(), parts.end(),
                   [](const Command* a, const Command* b) { return a->tourOrder < b->tourOrder; });
  out << "libbase tour: " << parts.size() << " parts\n";
  for (const Command* command : parts) {
    out << "\n== " << command->name << ": " << command->summary << "\n";
    command->tour(out);
  }
  return 0;
}

const Command kTour{"tour", "runs a short demonstration of each family",
                    "tour\n"
                    "  Runs a short demonstration of each part of the library, in order.\n",
                    runTour};

}  // namespace

KESTREL_INFO_COMMAND(kTour);

}  // namespace kestrel::info
