// `kestrel-info status`: decodes status words.
#include "command.h"

#include <kestrel/status.h>

#include <QRegularExpression>

namespace kestrel::info {
namespace {

// A status word typed as 0x-prefixed hex or as decimal, at most 32 bits.
bool parseStatusWord(const QString& text, unsigned int* word) {
  static const QRegularExpression hex(
      QRegularExpression::anchoredPattern(QStringLiteral("0[xX]([0-9A-Fa-f]+)")));
  static const QRegularExpression decimal(
      QRegularExpression::anchoredPattern(QStringLiteral("[0-9]+")));
  bool ok = false;
  if (const QRegularExpressionMatch match = hex.match(text); match.hasMatch()) {
    *word = match.captured(1).toUInt(&ok, 16);
  } else if (decimal.match(text).hasMatch()) {
    *word = text.toUInt(&ok, 10);
  }
  return ok;
}

void printStatus(unsigned int word, QTextStream& out) {
  const QString message = StatusGetErrorString(word);
  out << "status 0x" << QString::number(word, 16) << " (" << word << ")\n"
      << "  severity   " << StatusGetSeverity(word) << "  " << StatusGetSeverityString(word) << '\n'
      << "  subsystem  " << StatusGetSubsys(word) << "  " << StatusGetSubsysName(word) << '\n'
      << "  code       " << StatusGetCode(word) << "  (0x"
      << QStringLiteral("%1").arg(StatusGetCode(word), 4, 16, QLatin1Char('0')) << ")\n"
      << "  message    " << (message.isNull() ? QStringLiteral("(none)") : message) << '\n'
      << "  printable  " << StatusGetPrintable(word) << '\n';
}

int runStatus(const QStringList& args, QTextStream& out, QTextStream& err) {
  if (args.isEmpty()) {
    err << "kestrel-info status: give one or more status words (try kestrel-info status "
           "--help)\n";
    return 2;
  }
  QList<unsigned int> words;
  for (const QString& arg : args) {
    unsigned int word = 0;
    if (!parseStatusWord(arg, &word)) {
      err << "kestrel-info status: '" << arg
          << "' is not a status word (32-bit number, decimal or 0x-prefixed hex)\n";
      return 2;
    }
    words.append(word);
  }
  for (qsizetype i = 0; i < words.size(); ++i) {
    if (i) out << '\n';
    printStatus(words[i], out);
  }
  return 0;
}

// A client's subsystem for the tour, with severity names of its own.
class TourSubsys : public StatusSubsys {
 public:
  TourSubsys() : StatusSubsys(5, QStringLiteral("TOUR")) {}
  const QString& getSeverityString(unsigned int status) const override {
    static const QString names[4] = {QStringLiteral("ok"), QStringLiteral("note"),
                                     QStringLiteral("careful"), QStringLiteral("failed")};
    return names[StatusGetSeverity(status)];
  }
  QString getErrorString(unsigned int status) const override {
    return StatusGetCode(status) == 3 ? QStringLiteral("Tour interrupted") : QString();
  }
};

void tourStatus(QTextStream& out) {
  const unsigned int words[] = {StatusMake(StatusError, 0, StatusSubsysApp::NoMoreMemory),
                                StatusMake(StatusInfo, 0, StatusSubsysApp::ActionAlreadyQueued),
                                StatusMake(StatusWarning, 0, 3)};
  for (unsigned int word : words)
    out << "0x" << QString::number(word, 16) << "  " << StatusGetPrintable(word) << '\n';

  const unsigned int tourWord = StatusMake(StatusError, 5, 3);
  out << "\nsubsystem 5 before it is registered:\n  " << StatusGetPrintable(tourWord) << '\n';
  {
    TourSubsys tour;
    out << "while a client subsystem \"TOUR\" is registered as 5:\n  "
        << StatusGetPrintable(tourWord) << '\n';
  }
  out << "after it is destroyed:\n  " << StatusGetPrintable(tourWord) << '\n';
}

const Command kStatus{
    "status",
    "decodes status words into severity, subsystem, code and message",
    "status WORD...\n"
    "  Decodes each 32-bit status word, given in decimal or as 0x-prefixed hex\n"
    "  (kestrel-info status 0xC0000008): its severity (bits 31-30), subsystem\n"
    "  (bits 29-16) and code (bits 15-0) with their names, the code's message,\n"
    "  and the printable form. A subsystem that is not registered in this process\n"
    "  (only \"APP\", number 0, is) decodes as \"Invalid\" with the fallback form\n"
    "  \"Could not decode error 0x...\".\n",
    runStatus,
    tourStatus,
    5};

}  // namespace

KESTREL_INFO_COMMAND(kStatus);

}  // namespace kestrel::info
