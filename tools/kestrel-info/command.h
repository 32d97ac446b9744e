// kestrel-info commands.
//
// Each command lives in one file that defines a `Command` and registers it
// with KESTREL_INFO_COMMAND. main() lists, explains and runs the registered
// commands; `kestrel-info tour` runs the `tour` part of every command that has
// one, in ascending `tourOrder`.
//
//   static int runHello(const QStringList&, QTextStream& out) {
//     out << "hello\n";
//     return 0;
//   }
//   static const kestrel::info::Command kHello{
//       "hello", "says hello", "hello\n  Prints a greeting.\n", runHello};
//   KESTREL_INFO_COMMAND(kHello);
#pragma once

#include <QStringList>
#include <QTextStream>

#include <vector>

namespace kestrel::info {

struct Command {
  // The word typed after `kestrel-info`.
  const char* name;
  // One line for the command list.
  const char* summary;
  // The full help text: synopsis lines and what each option does.
  const char* help;
  // Runs the command with the words after its name; returns the exit status.
  // Usage errors print to `err` and return 2.
  int (*run)(const QStringList& args, QTextStream& out, QTextStream& err);
  // Prints a short demonstration for `kestrel-info tour`; null for none.
  void (*tour)(QTextStream& out) = nullptr;
  // Position of this command's part in the tour (lower first).
  int tourOrder = 0;
};

// The registered commands, sorted by name once main() starts.
std::vector<const Command*>& registry();

// Registers `command` during static initialisation.
struct Registration {
  explicit Registration(const Command& command) { registry().push_back(&command); }
};

}  // namespace kestrel::info

#define KESTREL_INFO_COMMAND(command) \
  static const ::kestrel::info::Registration command##Registration_(command)
