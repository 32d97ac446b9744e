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
              {3, 0, 1, 0xC0000001u},
              {1, 0, 0x81, 0x40000081u},
              {2, 5, 3, 0x80050003u},
              {0, 0, 0, 0u},
              {0, 0x3FFF, 0xFFFF, 0x3FFFFFFFu},
              {3, 0x3FFF, 0xFFFF, 0xFFFFFFFFu},
              {1, 0x2A5C, 0x1234, 0x6A5C1234u}};
  for (const auto& row : rows) {
    EXPECT_EQ(StatusMake(row.severity, row.subsys, row.code), row.word) << std::hex << row.word;
    EXPECT_EQ(StatusGetSeverity(row.word), row.severity) << std::hex << row.word;
    EXPECT_EQ(StatusGetSubsys(row.word), row.subsys) << std::hex << row.word;
    EXPECT_EQ(StatusGetCode(row.word), row.code) << std::hex << row.word;
  }
}

TEST(StatusWord, FieldsAreCutToTheirWidth) {
  EXPECT_EQ(StatusMake(7, 0x4001, 0x10005), 0xC0010005u);
}

struct StringRow {
  unsigned int status;
  const char* expected;  // null: a null QString
};

void expectStrings(QString (*function)(unsigned int), std::initializer_list<StringRow> rows) {
  for (const StringRow& row : rows) {
    const QString got = function(row.status);
    if (row.expected) {
      EXPECT_EQ(got, QString::fromUtf8(row.expected)) << std::hex << row.status;
    } else {
      EXPECT_TRUE(got.isNull()) << std::hex << row.status << " gave " << got.toStdString();
    }
  }
}

TEST(StatusApp, ErrorMessagesByCode) {
  expectStrings(StatusGetErrorString, {{0xC0000000u, "Invalid argument"},
                                       {0xC0000001u, "Object already active"},
                                       {0xC0000002u, "Cache node not valid"},
                                       {0xC0000003u, "No reference held"},
                                       {0xC0000004u, "Decode failed"},
                                       {0xC0000005u, "No more memory"},
                                       {0xC0000006u, "File not found"},
                                       {0xC0000007u, "File open failed"},
                                       {0xC0000008u, "I/O failed"},
                                       {0xC0000009u, "No sockets available"},
                                       {0xC000000Au, "Hostname not valid"},
                                       {0xC000000Bu, "Connect failed"},
                                       {0xC000000Cu, "Socket not connected"},
                                       {0xC000000Du, "Socket receive timed out"},
                                       {0xC000000Eu, "Received invalid response"},
                                       {0xC000000Fu, "Texture already defined"},
                                       {0xC0000010u, "Object already exists"},
                                       {0xC0000011u, "Entry is defunct"},
                                       {0xC0000012u, "Not implemented"},
                                       {0xC0000013u, "Requested URL not found"},
                                       {0xC0000014u, "Requested URL not valid"},
                                       {0xC0000015u, nullptr},
                                       {0xC0000016u, "Attempt to read past end of file"}});
}

TEST(StatusApp, InformationMessagesAndStatusesWithoutMessage) {
  expectStrings(StatusGetErrorString, {{0x40000080u, "Action in progress"},
                                       {0x40000081u, "Action already queued"},
                                       {0x40000082u, nullptr},
                                       {0x40000000u, nullptr},
                                       {0x4000007Fu, nullptr},
                                       {0x80000005u, nullptr},  // warning: no table
                                       {0x00000005u, nullptr},  // no error: no table
                                       {0xC0000017u, nullptr},  // past the error table
                                       {0xC0000080u, nullptr},
                                       {0xC000FFFFu, nullptr},
                                       {0xC0050005u, nullptr}});  // subsystem 5 unregistered
}

TEST(StatusApp, CodeNamesMatchTheirMessages) {
  const unsigned int error = StatusMake(StatusError, 0, 0);
  EXPECT_EQ(StatusGetErrorString(error | StatusSubsysApp::IOFailed), QStringLiteral("I/O failed"));
  EXPECT_EQ(StatusGetErrorString(error | StatusSubsysApp::ReadPastEndOfFile),
            QStringLiteral("Attempt to read past end of file"));
  EXPECT_EQ(StatusGetErrorString(StatusMake(StatusInfo, 0, StatusSubsysApp::ActionInProgress)),
            QStringLiteral("Action in progress"));
}

TEST(StatusPrintable, PlacesMessageAtThreeAndPaddedDecimalCodeAtFour) {
  expectStrings(StatusGetPrintable,
                {{0xC0000005u, "Error|APP|Error code No more memory (0x    5)"},
                 {0xC0000016u, "Error|APP|Error code Attempt to read past end of file (0x   22)"},
                 {0x40000081u, "Info|APP|Error code Action already queued (0x  129)"},
                 {0x80000003u, "Warning|APP|Error code  (0x    3)"},
                 {0x00000000u, "No Error|APP|Error code  (0x    0)"},
                 {0xC0000015u, "Error|APP|Error code  (0x   21)"},
                 {0xC000FFFFu, "Error|APP|Error code  (0x65535)"}});
}

TEST(StatusPrintable, UnregisteredSubsystemGivesTheFallbackInLowerCaseHex) {
  expectStrings(StatusGetPrintable, {{0x80050003u, "Could not decode error 0x80050003"},
                                     {0xFFFFFFFFu, "Could not decode error 0xffffffff"},
                                     {0x00010000u, "Could not decode error 0x10000"},
                                     {0x3FFF00ABu, "Could not decode error 0x3fff00ab"}});
}

QStringList gQtMessages;
void recordQtMessage(QtMsgType, const QMessageLogContext&, const QString& message) {
  gQtMessages.append(message);
}

// Qt 6 reports "Argument missing" for an arg() that finds no placeholder;
// the printable form must never pass one.
TEST(StatusPrintable, EmitsNoQtWarning) {
  gQtMessages.clear();
  const QtMessageHandler previous = qInstallMessageHandler(recordQtMessage);
  (void)QStringLiteral("%1").arg(1).arg(2);  // proves the handler sees such warnings
  const qsizetype probe = gQtMessages.size();
  for (unsigned int severity = 0; severity < 4; ++severity) {
    for (unsigned int code : {0u, 5u, 21u, 0x80u, 0x81u, 0xFFFFu}) {
      (void)StatusGetPrintable(StatusMake(severity, 0, code));
      (void)StatusGetPrintable(StatusMake(severity, 9, code));
    }
  }
  qInstallMessageHandler(previous);
  EXPECT_EQ(probe, 1);
  EXPECT_EQ(gQtMessages.size(), probe) << gQtMessages.join(QLatin1Char('\n')).toStdString();
}

TEST(StatusNames, SeverityOfAnyStatusRegisteredOrNot) {
  const struct {
    unsigned int status;
    const char* expected;
  } rows[] = {{0x00000000u, "No Error"}, {0x40000081u, "Info"}, {0x80000003u, "Warning"},
              {0xC0000005u, "Error"},    {0x40070000u, "Info"}, {0x00070000u, "No Error"},
              {0x80070000u, "Warning"},  {0xFFFFFFFFu, "Error"}};
  for (const auto& row : rows) {
    EXPECT_EQ(StatusGetSeverityString(row.status), QString::fromUtf8(row.expected))
        << std::hex << row.status;
  }
}

TEST(StatusNames, SubsystemNameOrInvalid) {
  EXPECT_EQ(StatusGetSubsysName(0xC0000005u), QStringLiteral("APP"));
  EXPECT_EQ(StatusGetSubsysName(0x00000000u), QStringLiteral("APP"));
  EXPECT_EQ(StatusGetSubsysName(0x00070000u), QStringLiteral("Invalid"));
  EXPECT_EQ(StatusGetSubsysName(0xFFFFFFFFu), QStringLiteral("Invalid"));
}

// A client subsystem that keeps the built-in severity names.
class PlainSubsys : public StatusSubsys {
 public:
  PlainSubsys(unsigned short number, const QString& name) : StatusSubsys(number, name) {}
  QString getErrorString(unsigned int status) const override {
    return QStringLiteral("%1 #%2").arg(getName()).arg(StatusGetCode(status));
  }
};

// A client subsystem with severity names of its own.
class NamedSeveritySubsys : public PlainSubsys {
 public:
  NamedSeveritySubsys() : PlainSubsys(31, QStringLiteral("NET")) {}
  const QString& getSeverityString(unsigned int status) const override {
    static const QString names[4] = {QStringLiteral("fine"), QStringLiteral("fyi"),
                                     QStringLiteral("hmm"), QStringLiteral("broken")};
    return names[StatusGetSeverity(status)];
  }
};

TEST(StatusSubsys, EmptyNameBecomesUnknownWithTheNumber) {
  PlainSubsys subsys(12, QString());
  EXPECT_EQ(subsys.getName(), QStringLiteral("Unknown (12)"));
  EXPECT_EQ(StatusGetSubsysName(StatusMake(StatusError, 12, 0)), QStringLiteral("Unknown (12)"));
}

TEST(StatusSubsys, RegisteredWhileAliveOnly) {
  const unsigned int status = StatusMake(StatusWarning, 40, 7);
  // Built in storage that outlives it, so that a registry still pointing at
  // the destroyed object would find its old number there.
  alignas(PlainSubsys) unsigned char storage[sizeof(PlainSubsys)];
  PlainSubsys* subsys = new (storage) PlainSubsys(40, QStringLiteral("DISK"));
  EXPECT_EQ(StatusGetSubsysName(status), QStringLiteral("DISK"));
  EXPECT_EQ(StatusGetErrorString(status), QStringLiteral("DISK #7"));
  EXPECT_EQ(StatusGetPrintable(status),
            QStringLiteral("Warning|DISK|Error code DISK #7 (0x    7)"));
  subsys->~PlainSubsys();
  EXPECT_EQ(StatusGetSubsysName(status), QStringLiteral("Invalid"));
  EXPECT_TRUE(StatusGetErrorString(status).isNull());
  EXPECT_EQ(StatusGetPrintable(status), QStringLiteral("Could not decode error 0x80280007"));
}

// The base getSeverityString answers with the built-in names rather than
// dispatching to itself again.
TEST(StatusSubsys, BaseSeverityStringGivesBuiltInNamesWithoutRecursion) {
  PlainSubsys subsys(41, QStringLiteral("GFX"));
  EXPECT_EQ(subsys.getSeverityString(0x40000000u), QStringLiteral("Info"));
  EXPECT_EQ(StatusGetSeverityString(StatusMake(StatusError, 41, 1)), QStringLiteral("Error"));
  EXPECT_EQ(StatusGetPrintable(StatusMake(StatusNoError, 41, 2)),
            QStringLiteral("No Error|GFX|Error code GFX #2 (0x    2)"));
}

TEST(StatusSubsys, OverriddenSeverityNamesAreUsedEverywhere) {
  NamedSeveritySubsys subsys;
  const unsigned int status = StatusMake(StatusError, 31, 300);
  EXPECT_EQ(StatusGetSeverityString(status), QStringLiteral("broken"));
  EXPECT_EQ(StatusGetPrintable(status), QStringLiteral("broken|NET|Error code NET #300 (0x  300)"));
  EXPECT_EQ(StatusGetSeverityString(StatusMake(StatusInfo, 0, 0)), QStringLiteral("Info"))
      << "other subsystems keep theirs";
}

TEST(StatusSubsys, SecondSubsystemWithTheSameNumberWinsUntilDestroyed) {
  const unsigned int status = StatusMake(StatusError, 42, 0);
  PlainSubsys first(42, QStringLiteral("FIRST"));
  {
    PlainSubsys second(42, QStringLiteral("SECOND"));
    EXPECT_EQ(StatusGetSubsysName(status), QStringLiteral("SECOND"));
  }
  EXPECT_EQ(StatusGetSubsysName(status), QStringLiteral("FIRST"));
}

TEST(StatusSubsys, AppCanBeShadowedByAClientAndComesBack) {
  {
    PlainSubsys client(0, QStringLiteral("CLIENT"));
    EXPECT_EQ(StatusGetSubsysName(0xC0000005u), QStringLiteral("CLIENT"));
  }
  EXPECT_EQ(StatusGetPrintable(0xC0000005u),
            QStringLiteral("Error|APP|Error code No more memory (0x    5)"));
}

// Threads register, look up and remove subsystems at once; the global lock
// keeps the registry whole.
TEST(StatusSubsys, RegistryIsSafeAcrossThreads) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 300;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &failures] {
      const auto number = static_cast<unsigned short>(100 + t);
      const QString name = QStringLiteral("T%1").arg(t);
      const unsigned int status = StatusMake(StatusError, number, 1);
      for (int round = 0; round < kRounds; ++round) {
        {
          PlainSubsys subsys(number, name);
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
