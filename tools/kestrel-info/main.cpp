// kestrel-info: shows what libbase knows and does, one command per file.
#include "command.h"

#include <QCoreApplication>

#include <algorithm>
#include <cstring>

namespace kestrel::info {

std::vector<const Command*>& registry() {
  static std::vector<const Command*> commands;
  return commands;
}

namespace {

const Command* findCommand(const QString& name) {
  for (const Command* command : registry()) {
    if (name == QLatin1String(command->name)) return command;
  }
  return nullptr;
}

void printHelp(QTextStream& out) {
  out << "usage: kestrel-info <command> [options]\n"
         "       kestrel-info help [<command>]\n\n"
         "Commands:\n";
  for (const Command* command : registry()) {
    out << "  " << qSetFieldWidth(12) << Qt::left << command->name << qSetFieldWidth(0)
        << command->summary << '\n';
  }
  for (const Command* command : registry()) {
    out << "\n" << command->help;
  }
}

bool isHelpWord(const QString& word) {
  return word == QLatin1String("--help") || word == QLatin1String("-h") ||
         word == QLatin1String("help");
}

}  // namespace
}  // namespace kestrel::info

int main(int argc, char** argv) {
  using namespace kestrel::info;
  QCoreApplication app(argc, argv);
  QTextStream out(stdout);
  QTextStream err(stderr);
  std::sort(registry().begin(), registry().end(),
            [](const Command* a, const Command* b) { return std::strcmp(a->name, b->name) < 0; });

  QStringList args = QCoreApplication::arguments().mid(1);
  if (args.isEmpty()) {
    printHelp(err);
    return 2;
  }
  const QString name = args.takeFirst();
  if (isHelpWord(name)) {
    if (args.isEmpty()) {
      printHelp(out);
      return 0;
    }
    const Command* command = findCommand(args.first());
    if (!command) {
      err << "kestrel-info: no command '" << args.first() << "'\n";
      return 2;
    }
    out << command->help;
    return 0;
  }
  const Command* command = findCommand(name);
  if (!command) {
    err << "kestrel-info: no command '" << name << "' (try kestrel-info --help)\n";
    return 2;
  }
  if (args.contains(QLatin1String("--help")) || args.contains(QLatin1String("-h"))) {
    out << command->help;
    return 0;
  }
  return command->run(args, out, err);
}
