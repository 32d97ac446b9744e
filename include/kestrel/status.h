// Status codes, the subsystem registry, the error log and the assertion hooks.
//
// An operation that can fail in several ways returns one 32-bit status word:
//
//   bits 31-30  severity: 0 no error, 1 information, 2 warning, 3 error
//   bits 29-16  subsystem number (14 bits)
//   bits 15-0   code within the subsystem
//
// Each subsystem is a `StatusSubsys` that registers itself under its number
// when constructed and turns its codes into text. The library's own subsystem
// "APP" (number 0) is registered when the library is loaded; client
// libraries derive their own subsystems from `StatusSubsys`. The free
// functions `StatusGet...` render any status word for people, whichever
// subsystem it belongs to, and answer with a fallback when its subsystem is
// not registered.
//
// Example:
//
//   unsigned int status = kestrel::StatusMake(kestrel::StatusError, 0,
//                                             kestrel::StatusSubsysApp::FileNotFound);
//   // 0xC0000006
//   kestrel::StatusGetErrorString(status);  // "File not found"
//   kestrel::StatusGetPrintable(status);    // "Error|APP|Error code File not found (0x    6)"
//   kestrel::ErrorLog(stderr, kestrel::StatusGetPrintable(status) + '\n');
//
// A client subsystem:
//
//   class NetStatus : public kestrel::StatusSubsys {
//    public:
//     NetStatus() : StatusSubsys(12, QStringLiteral("NET")) {}
//     QString getErrorString(unsigned int status) const override { ... }
//   };
//
// Thread-safety: the registry is guarded by the global lock (GlobalLock), so
// the Status... functions may be called from any thread. ErrorLog may be
// called from any thread; concurrent callers may see mixed deltas.
#pragma once

#include <kestrel/export.h>
#include <kestrel/hashtable.h>

#include <QString>

#include <cstdio>

namespace kestrel {

// ---------------------------------------------------------------------------
// Status words
// ---------------------------------------------------------------------------

// The severity field of a status word.
enum StatusSeverity : unsigned int {
  StatusNoError = 0,
  StatusInfo = 1,
  StatusWarning = 2,
  StatusError = 3,
};

// The status word of (severity, subsystem, code). Each field is cut to its
// width (2, 14 and 16 bits).
constexpr unsigned int StatusMake(unsigned int severity, unsigned int subsys, unsigned int code) {
  return ((severity & 0x3u) << 30) | ((subsys & 0x3FFFu) << 16) | (code & 0xFFFFu);
}

// The severity field (bits 31-30): 0 to 3.
constexpr unsigned int StatusGetSeverity(unsigned int status) {
  return status >> 30;
}

// The subsystem number (bits 29-16).
constexpr unsigned short StatusGetSubsys(unsigned int status) {
  return static_cast<unsigned short>((status >> 16) & 0x3FFFu);
}

// The code within the subsystem (bits 15-0).
constexpr unsigned short StatusGetCode(unsigned int status) {
  return static_cast<unsigned short>(status & 0xFFFFu);
}

// ---------------------------------------------------------------------------
// Subsystems and their registry
// ---------------------------------------------------------------------------

// A status subsystem: a number, a name and the text of its codes. The
// constructor registers the object under its number, the destructor removes
// it. Registering a second subsystem with a number already present is
// allowed; lookups then find the one registered last. The object is
// reachable from other threads from the moment its base part is built, so
// create subsystems before other threads may ask for their statuses (usually
// during static initialisation) and never destroy one while they may.
class KESTREL_EXPORT StatusSubsys {
 public:
  // Stores number and name; an empty name is replaced by "Unknown (N)" with
  // N the number in decimal. Then registers the subsystem.
  StatusSubsys(unsigned short number, const QString& name);

  // Removes the subsystem from the registry.
  virtual ~StatusSubsys();

  StatusSubsys(const StatusSubsys&) = delete;
  StatusSubsys& operator=(const StatusSubsys&) = delete;

  // The printable form "%1|%2|Error code %3 (0x%4)" (translated) with, in
  // turn, the severity string, the subsystem name, the error string and the
  // code in decimal right-aligned in five columns. The order is deliberate:
  // "Error|APP|Error code No more memory (0x    5)".
  virtual QString gString(unsigned int status);

  // The name of the status's severity. This base version answers with the
  // built-in names ("No Error", "Info", "Warning", "Error", translated);
  // subsystems may override it.
  virtual const QString& getSeverityString(unsigned int status) const;

  // The message of the status's code; a null string for a code without one.
  virtual QString getErrorString(unsigned int status) const = 0;

  unsigned short getNumber() const { return m_number; }
  const QString& getName() const { return m_name; }

 private:
  unsigned short m_number;
  QString m_name;
};

// The library's own subsystem "APP", number 0, registered when the library
// is loaded and never destroyed.
class KESTREL_EXPORT StatusSubsysApp : public StatusSubsys {
 public:
  // Codes of "APP". Errors (severity 3) are 0 to 22 (21 has no message);
  // information (severity 1) is 0x80 and 0x81.
  enum Code : unsigned short {
    InvalidArgument = 0,
    ObjectAlreadyActive = 1,
    CacheNodeNotValid = 2,
    NoReferenceHeld = 3,
    DecodeFailed = 4,
    NoMoreMemory = 5,
    FileNotFound = 6,
    FileOpenFailed = 7,
    IOFailed = 8,
    NoSocketsAvailable = 9,
    HostnameNotValid = 10,
    ConnectFailed = 11,
    SocketNotConnected = 12,
    SocketReceiveTimedOut = 13,
    InvalidResponse = 14,
    TextureAlreadyDefined = 15,
    ObjectAlreadyExists = 16,
    EntryIsDefunct = 17,
    NotImplemented = 18,
    URLNotFound = 19,
    URLNotValid = 20,
    ReadPastEndOfFile = 22,
    ActionInProgress = 0x80,
    ActionAlreadyQueued = 0x81,
  };

  StatusSubsysApp();

  // Severity 3: the translated error message of the code; severity 1: the
  // information message of code 0x80 or 0x81. A null string for any other
  // severity and for a code without a message (21, or outside the tables).
  QString getErrorString(unsigned int status) const override;
};

// The registry's table: subsystems keyed by number, the hash of a key being
// the key itself. Used by the registry under the global lock; not for
// direct use.
class StatusSubsysTable : public HashTable<StatusSubsys, unsigned short> {
 public:
  explicit StatusSubsysTable(unsigned int requested) : HashTable(requested) {}

 protected:
  unsigned int hashKey(unsigned short key) const override { return key; }
  unsigned short getKey(const StatusSubsys* elem) const override { return elem->getNumber(); }
  bool keysEqual(unsigned short a, unsigned short b) const override { return a == b; }
};

// ---------------------------------------------------------------------------
// Rendering status words
// ---------------------------------------------------------------------------

// The registered subsystem's getErrorString(status); a null string when the
// status's subsystem is not registered.
KESTREL_EXPORT QString StatusGetErrorString(unsigned int status);

// The registered subsystem's gString(status); when it is not registered,
// "Could not decode error 0x%1" with the whole word in lower-case hex
// without padding ("Could not decode error 0x80050003").
KESTREL_EXPORT QString StatusGetPrintable(unsigned int status);

// The registered subsystem's name; "Invalid" (translated) when none is.
KESTREL_EXPORT const QString& StatusGetSubsysName(unsigned int status);

// The registered subsystem's getSeverityString(status); when none is
// registered, the built-in name of the severity field ("No Error", "Info",
// "Warning", "Error").
KESTREL_EXPORT const QString& StatusGetSeverityString(unsigned int status);

// ---------------------------------------------------------------------------
// Error log and assertion hooks
// ---------------------------------------------------------------------------

// Writes "<frame>(<seconds>, <delta ms>): <message>" to file and flushes it:
// the frame is System::sCurFrame, seconds the application clock
// (System::getTime) with three decimals, delta the milliseconds since the
// previous ErrorLog call with one decimal (the first call counts from the
// clock's zero). The text is written as UTF-8 with narrow output (file does
// not become wide-oriented); the message ends at its first NUL character and
// no line end is added. A null file writes nothing. Always returns true.
KESTREL_EXPORT bool ErrorLog(FILE* file, const QString& message);

// Returns !condition and does nothing else; the other arguments are for the
// convenience of call sites (expression, line, file, a "seen once" flag).
KESTREL_EXPORT bool checkFailed(bool condition, const char* expression, int line, const char* file,
                                bool* once);

// Writes "assertion failure <first> at <second>:<line>\n" to standard error
// and aborts the process. The boolean is not looked at.
[[noreturn]] KESTREL_EXPORT void onCheckFail(bool condition, const char* first, int line,
                                             const char* second);

}  // namespace kestrel
