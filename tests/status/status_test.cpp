// Status words, the subsystem registry, "APP" and the rendering functions.
#include <kestrel/status.h>

#include <gtest/gtest.h>

#include <QStringList>

#include <atomic>
#include <new>
#include <thread>
#include <vector>

namespace kestrel {
namespace {

TEST(StatusWord, BuildsAndSplitsTheThreeFields) {
  const struct {
    unsigned int severity, subsys, code, word;
  } rows[] = {{3, 0, 8, 0xC0000008u},
              {2, 5, 3, 0x80050003u},
              {0, 0x3FFF, 0xFFFF, 0x3FFFFFFFu},
              {1, 0x2A5C, 0x1234, 0x6A5C1234u}};
  for (const auto& row : rows) {
    EXPECT_EQ(StatusMake(row.severity, row.subsys, row.code), row.word) << std::hex << row.word;
    EXPECT_EQ(StatusGetSeverity(row.word), row.severity) << std::hex << row.word;
    EXPECT_EQ(StatusGetSubsys(row.word), row.subsys) << std::hex << row.word;
    EXPECT_EQ(StatusGetCode(row.word), row.code) << std::hex << row.word;
  }
  EXPECT_EQ(StatusMake(7, 0x4001, 0x10005), 0xC0010005u) << "fields are cut to their width";
}

// (status, expected text); a null expectation means a null QString.
void expectStrings(QString (*function)(unsigned int),
                   std::initializer_list<std::pair<unsigned int, const char*>> rows) {
  for (const auto& [status, expected] : rows) {
    const QString got = function(status);
    if (expected) {
      EXPECT_EQ(got, QString::fromUtf8(expected)) << std::hex << status;
    } else {
      EXPECT_TRUE(got.isNull()) << std::hex << status << " gave " << got.toStdString();
    }
  }
}

TEST(StatusApp, MessagesByCodeForErrorsAndInformationOnly) {
  // Code 21 has no message, nor has anything past 22.
  const QStringList errors =
      QStringLiteral(
          "Invalid argument|Object already active|Cache node not valid|No reference held|Decode "
          "failed|No more memory|File not found|File open failed|I/O failed|No sockets available|"
          "Hostname not valid|Connect failed|Socket not connected|Socket receive timed "
          "out|Received "
          "invalid response|Texture already defined|Object already exists|Entry is defunct|Not "
          "implemented|Requested URL not found|Requested URL not valid||Attempt to read past end "
          "of "
          "file|")
          .split(QLatin1Char('|'));
  for (unsigned int code = 0; code < errors.size(); ++code) {
    const QString got = StatusGetErrorString(StatusMake(StatusError, 0, code));
    EXPECT_EQ(got, errors[code]) << code;
    EXPECT_EQ(got.isNull(), errors[code].isEmpty()) << code;
  }
  expectStrings(StatusGetErrorString, {{0x40000080u, "Action in progress"},
                                       {0x40000081u, "Action already queued"},
                                       {0x40000082u, nullptr},
                                       {0x4000007Fu, nullptr},
                                       {0x80000005u, nullptr},    // warning: no table
                                       {0x00000005u, nullptr},    // no error: no table
                                       {0xC0000080u, nullptr},    // the info offset is not used
                                       {0xC0050005u, nullptr}});  // subsystem 5 unregistered
  EXPECT_EQ(StatusGetErrorString(StatusMake(StatusError, 0, StatusSubsysApp::ReadPastEndOfFile)),
            QStringLiteral("Attempt to read past end of file"));
  EXPECT_EQ(StatusGetErrorString(StatusMake(StatusInfo, 0, StatusSubsysApp::ActionInProgress)),
            QStringLiteral("Action in progress"));
}

TEST(StatusPrintable, MessageAtThreePaddedDecimalCodeAtFourOrTheHexFallback) {
  expectStrings(StatusGetPrintable,
                {{0xC0000005u, "Error|APP|Error code No more memory (0x    5)"},
                 {0x40000081u, "Info|APP|Error code Action already queued (0x  129)"},
                 {0x80000003u, "Warning|APP|Error code  (0x    3)"},
                 {0x00000000u, "No Error|APP|Error code  (0x    0)"},
                 {0xC000FFFFu, "Error|APP|Error code  (0x65535)"},
                 {0x80050003u, "Could not decode error 0x80050003"},
                 {0xFFFFFFFFu, "Could not decode error 0xffffffff"},
                 {0x00010000u, "Could not decode error 0x10000"}});
}

QStringList gQtMessages;

// Qt 6 reports "Argument missing" for an arg() that finds no placeholder;
// the printable form must never pass one.
TEST(StatusPrintable, EmitsNoQtWarning) {
  gQtMessages.clear();
  const QtMessageHandler previous = qInstallMessageHandler(
      [](QtMsgType, const QMessageLogContext&, const QString& text) { gQtMessages.append(text); });
  (void)QStringLiteral("%1").arg(1).arg(2);  // proves the handler sees such warnings
  for (unsigned int severity = 0; severity < 4; ++severity) {
    for (unsigned int code : {0u, 5u, 21u, 0x81u, 0xFFFFu}) {
      (void)StatusGetPrintable(StatusMake(severity, 0, code));
      (void)StatusGetPrintable(StatusMake(severity, 9, code));
    }
  }
  qInstallMessageHandler(previous);
  EXPECT_EQ(gQtMessages.size(), 1) << gQtMessages.join(QLatin1Char('\n')).toStdString();
}

TEST(StatusNames, SeverityOfAnyStatusAndSubsystemNameOrInvalid) {
  const struct {
    unsigned int status;
    const char *severity, *subsys;
  } rows[] = {{0x00000000u, "No Error", "APP"}, {0x40000081u, "Info", "APP"},
              {0x80000003u, "Warning", "APP"},  {0xC0000005u, "Error", "APP"},
              {0x40070000u, "Info", "Invalid"}, {0xFFFFFFFFu, "Error", "Invalid"}};
  for (const auto& row : rows) {
    EXPECT_EQ(StatusGetSeverityString(row.status), QString::fromUtf8(row.severity)) << row.status;
    EXPECT_EQ(StatusGetSubsysName(row.status), QString::fromUtf8(row.subsys)) << row.status;
  }
}

// A client subsystem that keeps the built-in severity names.
class PlainSubsys : public StatusSubsys {
 public:
  PlainSubsys(unsigned short number, const QString& name) : StatusSubsys(number, name) {}
  QString getErrorString(unsigned int status) const override {
    return QStringLiteral("%1 #%2").arg(getName()).arg(StatusGetCode(status));
  }
};

// The base getSeverityString answers with the built-in names rather than
// dispatching to itself again; an empty name becomes "Unknown (<number>)".
TEST(StatusSubsys, ClientSubsystemWithBuiltInSeverityNames) {
  PlainSubsys subsys(12, QString());
  EXPECT_EQ(StatusGetSubsysName(StatusMake(StatusError, 12, 0)), QStringLiteral("Unknown (12)"));
  EXPECT_EQ(subsys.getSeverityString(0x40000000u), QStringLiteral("Info"));
  EXPECT_EQ(StatusGetPrintable(StatusMake(StatusNoError, 12, 2)),
            QStringLiteral("No Error|Unknown (12)|Error code Unknown (12) #2 (0x    2)"));
}

TEST(StatusSubsys, OverriddenSeverityNamesAreUsedEverywhere) {
  struct NamedSeveritySubsys : PlainSubsys {
    NamedSeveritySubsys() : PlainSubsys(31, QStringLiteral("NET")) {}
    const QString& getSeverityString(unsigned int status) const override {
      static const QString names[4] = {QStringLiteral("fine"), QStringLiteral("fyi"),
                                       QStringLiteral("hmm"), QStringLiteral("broken")};
      return names[StatusGetSeverity(status)];
    }
  } subsys;
  const unsigned int status = StatusMake(StatusError, 31, 300);
  EXPECT_EQ(StatusGetSeverityString(status), QStringLiteral("broken"));
  EXPECT_EQ(StatusGetPrintable(status), QStringLiteral("broken|NET|Error code NET #300 (0x  300)"));
  EXPECT_EQ(StatusGetSeverityString(StatusMake(StatusInfo, 0, 0)), QStringLiteral("Info"))
      << "other subsystems keep theirs";
}

TEST(StatusSubsys, RegisteredWhileAliveOnly) {
  const unsigned int status = StatusMake(StatusWarning, 40, 7);
  // Built in storage that outlives it, so that a registry still pointing at
  // the destroyed object would find its old number there.
  alignas(PlainSubsys) unsigned char storage[sizeof(PlainSubsys)];
  PlainSubsys* subsys = new (storage) PlainSubsys(40, QStringLiteral("DISK"));
  EXPECT_EQ(StatusGetErrorString(status), QStringLiteral("DISK #7"));
  EXPECT_EQ(StatusGetPrintable(status),
            QStringLiteral("Warning|DISK|Error code DISK #7 (0x    7)"));
  subsys->~PlainSubsys();
  EXPECT_EQ(StatusGetSubsysName(status), QStringLiteral("Invalid"));
  EXPECT_TRUE(StatusGetErrorString(status).isNull());
  EXPECT_EQ(StatusGetPrintable(status), QStringLiteral("Could not decode error 0x80280007"));
}

// Also for APP: a client registered with its number shadows it until destroyed.
TEST(StatusSubsys, LatestSubsystemWithANumberWinsUntilDestroyed) {
  const unsigned int status = StatusMake(StatusError, 42, 0);
  PlainSubsys first(42, QStringLiteral("FIRST"));
  {
    PlainSubsys second(42, QStringLiteral("SECOND"));
    PlainSubsys client(0, QStringLiteral("CLIENT"));
    EXPECT_EQ(StatusGetSubsysName(status), QStringLiteral("SECOND"));
    EXPECT_EQ(StatusGetSubsysName(0xC0000005u), QStringLiteral("CLIENT"));
  }
  EXPECT_EQ(StatusGetSubsysName(status), QStringLiteral("FIRST"));
  EXPECT_EQ(StatusGetPrintable(0xC0000005u),
            QStringLiteral("Error|APP|Error code No more memory (0x    5)"));
}

// Threads register, look up and remove subsystems at once; the global lock
// keeps the registry whole.
TEST(StatusSubsys, RegistryIsSafeAcrossThreads) {
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &failures] {
      const QString name = QStringLiteral("T%1").arg(t);
      const unsigned int status = StatusMake(StatusError, static_cast<unsigned int>(100 + t), 1);
      for (int round = 0; round < 300; ++round) {
        {
          PlainSubsys subsys(static_cast<unsigned short>(100 + t), name);
          if (StatusGetSubsysName(status) != name) ++failures;
          if (StatusGetErrorString(0xC0000006u) != QStringLiteral("File not found")) ++failures;
        }
        if (StatusGetSubsysName(status) != QStringLiteral("Invalid")) ++failures;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
}

}  // namespace
}  // namespace kestrel
