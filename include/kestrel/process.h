// Processes, libraries and the browser: small facades over the platform.
//
//   Process   starts an external program at once, with its arguments handed
//             over verbatim (no shell ever sees them), and lets the caller
//             watch it, wait for it or stop it.
//   Library   loads a dynamic library of the application by base name
//             ("lib" + name + ".so" under the install path) and resolves
//             symbols in it.
//   System::LaunchExternalBrowser (system.h) hands a URL to the desktop's
//             opener; externalBrowserArgument() is the check and the form of
//             the URL it uses.
//
// Example:
//
//   kestrel::Process tool(QStringLiteral("/usr/bin/gzip"), {QStringLiteral("-k"), path});
//   tool.block();
//   if (tool.status() != 0) ...;
//
//   kestrel::Library plugin(QStringLiteral("render"));  // <install>/librender.so
//   if (plugin.load(false))
//     auto* entry = reinterpret_cast<void (*)()>(plugin.resolve(QStringLiteral("entry")));
//
// Thread-safety: one object is used by one thread at a time; distinct objects
// may be used from any threads.
#pragma once

#include <kestrel/export.h>

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace kestrel {

class KESTREL_EXPORT Process {
 public:
  // Starts the executable at path (no search of PATH) with the arguments in
  // order; the child's argv[0] is path. Every argument reaches the child
  // byte for byte as UTF-8; nothing is interpreted by a shell. The child
  // gets the caller's environment, an empty signal mask and default signal
  // handlers. A program that cannot be started (missing, not executable, an
  // argument holding a NUL character) is not reported here: started() is
  // false, isRunning() false and status() -1.
  Process(const QString& path, const QStringList& arguments);
  // If the child is still running it is asked to terminate (SIGTERM); the
  // child is reaped, at once if it has ended within a short grace time,
  // otherwise later by a background waiter, so no zombie remains.
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // Whether the child was started.
  bool started() const;
  // Whether the child is still running (it is reaped once it has ended).
  bool isRunning();
  // Asks the child to terminate (SIGTERM). Nothing if it has ended.
  void kill();
  // Waits until the child has ended. Returns at once if it was never
  // started or has been reaped.
  void block();
  // The child's exit status (0 to 255) once it has ended, the number of the
  // signal that ended it, or -1 while it runs or if it never started.
  int status();

 private:
  struct Record;
  Record* d;
};

class KESTREL_EXPORT Library {
 public:
  // Stores name (a base name, optionally after a relative folder); nothing
  // is loaded yet. Reads the kernel version (major * 65536 + minor * 256 +
  // patch, each part at most 255).
  explicit Library(const QString& name);
  // Frees the record; a loaded library stays loaded.
  ~Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  // The name as given.
  QString getLibraryName() const;
  // The kernel version read at construction (6.1.0 gives 0x060100).
  int getOSVersion() const;

  // path = the install path (System::getInstallPath()); baseName = the name.
  // If the name holds a "/", path gets the name up to its last "/" and
  // baseName the rest from that "/" on (so "plugins/foo" gives the install
  // path + "plugins" and "/foo").
  void calculatePathAndBaseName(QString& path, QString& baseName) const;
  // "" for an empty name; otherwise path + "lib" + baseName + ".so". The
  // separator stays in the base name: "plugins/foo" gives the install path
  // + "pluginslib/foo.so" (kept for compatibility).
  QString getFilePath() const;

  // Loads getFilePath() with lazy binding and global symbol visibility. An
  // empty name counts as loaded (true, and nothing is opened). False if
  // already loaded (nothing changes). On failure returns false and, unless
  // quiet, writes "Failed to load \"<path>\" because \"<loader error>\"\n"
  // to standard error.
  bool load(bool quiet = false);
  bool isLoaded() const;
  // The address of symbol (its UTF-8 name); null if not loaded, if nothing
  // was opened (empty name) or if the library has no such symbol.
  void* resolve(const QString& symbol) const;
  // False if not loaded. Otherwise closes the library and marks it not
  // loaded; true when the loader closed it (or nothing was opened).
  bool unload();

 private:
  struct Record;
  Record* d;
};

// The argument LaunchExternalBrowser hands to the opener for url: spaces
// written as "%20", then the fully encoded form of the URL (QUrl::toEncoded,
// printable ASCII only). Empty when the URL is refused: an empty URL, a URL
// that begins with "-" (it would read as an option), or one that QUrl in
// strict mode rejects.
KESTREL_EXPORT QByteArray externalBrowserArgument(const QString& url);

}  // namespace kestrel
