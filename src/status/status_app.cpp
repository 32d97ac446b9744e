// The library's own status subsystem "APP" and its message tables.
#include <kestrel/status.h>

#include <QObject>

#include <array>

namespace kestrel {

namespace {

// Error messages (severity 3) by code; code 21 has none.
const std::array<QString, 23>& errorMessages() {
  static const std::array<QString, 23> messages = {QObject::tr("Invalid argument"),
                                                   QObject::tr("Object already active"),
                                                   QObject::tr("Cache node not valid"),
                                                   QObject::tr("No reference held"),
                                                   QObject::tr("Decode failed"),
                                                   QObject::tr("No more memory"),
                                                   QObject::tr("File not found"),
                                                   QObject::tr("File open failed"),
                                                   QObject::tr("I/O failed"),
                                                   QObject::tr("No sockets available"),
                                                   QObject::tr("Hostname not valid"),
                                                   QObject::tr("Connect failed"),
                                                   QObject::tr("Socket not connected"),
                                                   QObject::tr("Socket receive timed out"),
                                                   QObject::tr("Received invalid response"),
                                                   QObject::tr("Texture already defined"),
                                                   QObject::tr("Object already exists"),
                                                   QObject::tr("Entry is defunct"),
                                                   QObject::tr("Not implemented"),
                                                   QObject::tr("Requested URL not found"),
                                                   QObject::tr("Requested URL not valid"),
                                                   QString(),
                                                   QObject::tr("Attempt to read past end of file")};
  return messages;
}

// Information messages (severity 1) by code - 0x80; not translated.
const std::array<QString, 2>& infoMessages() {
  static const std::array<QString, 2> messages = {QStringLiteral("Action in progress"),
                                                  QStringLiteral("Action already queued")};
  return messages;
}

// Created and registered when the library is loaded; never destroyed.
[[maybe_unused]] const StatusSubsys* const gApp = new StatusSubsysApp;

}  // namespace

StatusSubsysApp::StatusSubsysApp() : StatusSubsys(0, QStringLiteral("APP")) {}

QString StatusSubsysApp::getErrorString(unsigned int status) const {
  const unsigned int code = StatusGetCode(status);
  switch (StatusGetSeverity(status)) {
    case StatusError:
      // Codes outside the table have no message (rather than a read past it).
      return code < errorMessages().size() ? errorMessages()[code] : QString();
    case StatusInfo:
      return code >= 0x80 && code - 0x80 < infoMessages().size() ? infoMessages()[code - 0x80]
                                                                 : QString();
    default:
      return QString();
  }
}

}  // namespace kestrel
