// `kestrel-info system`: what the System facade reads from the machine.
#include "command.h"

#include <kestrel/system.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

namespace kestrel::info {
namespace {

QString hex(unsigned int value) {
  return QStringLiteral("0x%1").arg(QString::number(value, 16).toUpper(), 8, QLatin1Char('0'));
}

void row(QTextStream& out, const char* name, const QString& value) {
  out << "  " << qSetFieldWidth(22) << Qt::left << name << qSetFieldWidth(0) << value << '\n';
}

void printOs(QTextStream& out) {
  out << "Operating system\n";
  System::OSVersion os;
  int major, minor, build, patch;
  System::getOSVersion(os, major, minor, build, patch);
  row(out, "name", System::getOSVersionString());
  row(out, "family", QStringLiteral("%1 (%2)").arg(int(os)).arg(System::getOSName(os)));
  row(out, "kernel numbers",
      QStringLiteral("%1 %2 %3 %4").arg(major).arg(minor).arg(build).arg(patch));
}

void printProcessor(QTextStream& out) {
  out << "Processor\n";
  row(out, "type", QString::number(System::getProcessorType()));
  row(out, "processors online", QString::number(System::getNumProcessors()));
  const double hz = System::getProcessorClockSpeed();
  row(out, "clock",
      hz > 0 ? QStringLiteral("%1 MHz").arg(hz / 1e6, 0, 'f', 0) : QStringLiteral("unknown"));
}

void printMemory(QTextStream& out) {
  out << "Memory (MB)\n";
  int a, b;
  System::getTotalMemoryMB(a, b);
  row(out, "total", QStringLiteral("%1 (second figure %2)").arg(a).arg(b));
  System::getAvailableMemoryMB(a, b);
  row(out, "available", QStringLiteral("%1 (32-bit field, at most 2047; second %2)").arg(a).arg(b));
  System::getUsedMemoryMB(a, b);
  row(out, "locked", QString::number(a));
  row(out, "paged out", QString::number(b));
}

void printFolders(QTextStream& out) {
  out << "Folders\n";
  row(out, "application data", System::getAppDirectory());
  row(out, "cache", System::getCacheDirectory());
  row(out, "documents", System::getMyDocumentsDirectory());
  row(out, "temporary", System::getTempDirectory());
  row(out, "resources", System::getResourceDirectory());
  row(out, "install path",
      System::getInstallPath().isEmpty() ? QStringLiteral("(not set)") : System::getInstallPath());
}

void printClock(QTextStream& out) {
  out << "Clock\n";
  row(out, "application clock", QStringLiteral("%1 s").arg(System::getTime(), 0, 'f', 6));
  row(out, "system time", QStringLiteral("%1 ms since 1970").arg(System::getSystemTime()));
  row(out, "start time",
      QStringLiteral("%1 s since year 0").arg(System::getStartTime(), 0, 'f', 0));
  const long now = System::getCurrTime();
  row(out, "current time", System::wctime(&now).trimmed());
  int hours, minutes;
  System::getLocalTimeZone(hours, minutes);
  row(out, "time zone", QStringLiteral("%1 h %2 min").arg(hours).arg(minutes));
}

void printGpu(QTextStream& out) {
  out << "Graphics card\n";
  int megabytes = 0;
  row(out, "memory",
      GfxCardInfo::GetSingleton()->getGraphicsCardMemoryInMB(megabytes)
          ? QStringLiteral("%1 MB").arg(megabytes)
          : QStringLiteral("none found"));
}

int runSystem(const QStringList& args, QTextStream& out, QTextStream& err) {
  if (!args.isEmpty()) {
    err << "kestrel-info system: unknown option '" << args.join(QLatin1Char(' ')) << "'\n";
    return 2;
  }
  printOs(out);
  printProcessor(out);
  printMemory(out);
  printFolders(out);
  printClock(out);
  printGpu(out);
  return 0;
}

// A few facts, a folder walk in a temporary place, the generator and a
// fixed frame rate.
void tourSystem(QTextStream& out) {
  out << System::getOSVersionString() << ", " << System::getNumProcessors() << " processors\n";
  QTemporaryDir tmp;
  const QString deep = tmp.path() + QStringLiteral("/a/b/Zürich");
  out << "makeAbsDirPath(<temp>/a/b/Zürich) = " << hex(System::makeAbsDirPath(deep))
      << (QDir(deep).exists() ? " (created)\n" : "\n");
  out << "makeAbsDirPath(\"\") = " << hex(System::makeAbsDirPath(QString())) << '\n';
  QFile blocker(tmp.path() + QStringLiteral("/file"));
  blocker.open(QIODevice::WriteOnly);
  blocker.close();
  out << "makeAbsDirPath(<temp>/file/sub), file being a file = "
      << hex(System::makeAbsDirPath(blocker.fileName() + QStringLiteral("/sub"))) << '\n';
  System::seed(1);
  out << "seed(1): random(2, 10) gives";
  for (int i = 0; i < 8; ++i) out << ' ' << System::random(2, 10);
  out << "; randf gives " << System::randf() << ' ' << System::randf() << '\n';
  System::setFixedFrameRate(true, 25.0);
  out << "fixed frame rate 25: step " << System::getGlobalDT() << " s\n";
  System::setFixedFrameRate(false, 0.0);
  const System::GUID guid = System::getGUID();
  out << "a new GUID: " << hex(guid.words[0]) << ' ' << hex(guid.words[1]) << ' '
      << hex(guid.words[2]) << ' ' << hex(guid.words[3]) << '\n';
}

const Command kSystem{
    "system",
    "shows the operating system, processor, memory, folders, clock and graphics card",
    "system\n"
    "  Prints what the System facade reads from the machine: the OS family and\n"
    "  kernel numbers; the processor code, count and clock; memory in MB\n"
    "  (total, available in its 32-bit field, locked, paged out); the user's\n"
    "  folders (the application and cache folders are created if missing); the\n"
    "  application clock, wall clock, start time and time zone; the memory of\n"
    "  the graphics card.\n",
    runSystem,
    tourSystem,
    40};

}  // namespace

KESTREL_INFO_COMMAND(kSystem);

}  // namespace kestrel::info
