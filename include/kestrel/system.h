// kestrel::System — the library's static facade over the operating system.
//
// Every platform service the library and its clients need is reached through
// the static members of this one class, so that no client includes a system
// header. The class is organised by family; each family has its own section
// below, and new families are added as further sections:
//
//   Threads        start and join threads, thread-local storage, the
//                  main-thread mark, sleeping.
//   Message boxes  non-blocking message boxes shown on the main thread from
//                  any thread.
//   Operating system, processor and memory, folders, clock and frames,
//   pseudo-random numbers, identifiers, files
//                  facts of the machine (read from /proc and /sys), the
//                  user's folders (XDG), the monotonic application clock and
//                  the per-frame step, thin POSIX file wrappers.
//   GfxCardInfo    memory of the graphics card.
//   Locale and language
//                  the user's languages from the environment, the saved
//                  choice, the current locale, localised URL templates.
//
// Handles of the platform (threads, storage keys) are plain integers here;
// their relation to the system types is checked where the platform code is
// compiled.
//
// Example: run a function on a thread of its own and wait for it.
//
//   void* work(void* arg) { ... return nullptr; }
//   kestrel::ThreadHandle t = kestrel::System::spawn(work, &data);
//   if (t != 0)
//       kestrel::System::join(t);
//
// The application's GUI thread marks itself once, early:
//
//   kestrel::System::setMainThreadId(kestrel::System::kMainThreadMark);
//
// after which isMainThread() tells, on any thread, whether it is that thread.
//
// Example: time a step on the application clock and make its folder.
//
//   double t0 = kestrel::System::getTime();
//   if (kestrel::System::makeAbsDirPath(kestrel::System::getCacheDirectory() + "/tiles") != 0)
//     ...;  // 0xC0000008: a folder could not be created
//   double seconds = kestrel::System::getTime() - t0;
#pragma once

#include <kestrel/export.h>

#include <QString>
#include <QStringList>

struct tm;

namespace kestrel {

class LanguageCode;

// Identity of a thread: the value of the platform's thread handle, held whole
// (64 bits on a 64-bit target). 0 never names a running thread.
using ThreadHandle = unsigned long;

class KESTREL_EXPORT System {
 public:
  // ------------------------------------------------------------------
  // Threads
  // ------------------------------------------------------------------

  // Entry function of a thread started by spawn().
  using ThreadEntry = void* (*)(void*);

  // The value the main thread stores with setMainThreadId() to mark itself.
  static constexpr unsigned int kMainThreadMark = 0xC0FFEE;

  // Starts a joinable thread with default attributes that runs entry(arg).
  // Returns its handle, or 0 if the thread could not be created (nothing is
  // leaked then). Thread-safe.
  static ThreadHandle spawn(ThreadEntry entry, void* arg);

  // Waits for the thread to end. Returns 0, or the platform's error number
  // (for example ESRCH for a handle of 0 or of an unknown thread, EDEADLK
  // when a thread joins itself). A thread may be joined once.
  static int join(ThreadHandle thread);

  // A new thread-local storage key without destructor; every thread's value
  // starts as null. Returns 0xFFFFFFFF if the process has run out of keys.
  static unsigned int createThreadKey();

  // The calling thread's value for key; null if never set or key invalid.
  static void* getThreadStorage(unsigned int key);

  // Sets the calling thread's value for key. Returns 0, or -1 if the key is
  // invalid or the value could not be stored.
  static int setThreadStorage(unsigned int key, void* value);

  // The calling thread's handle. Never 0.
  static ThreadHandle getCurrentThread();

  // Stores id as the calling thread's main-thread mark; creates the
  // library's main-thread key on first use (safe against concurrent first
  // use). Only kMainThreadMark marks a thread as the main thread; any other
  // value clears the mark of the calling thread. If the system cannot give
  // the library a key (the process has used up its thread-local keys),
  // nothing is stored anywhere: isMainThread() stays false, and a later call
  // tries to create the key again.
  static void setMainThreadId(unsigned int id);

  // True when the calling thread's mark equals kMainThreadMark (0xC0FFEE).
  // False on every thread before any setMainThreadId() call, and on threads
  // that never stored the mark. Valid on any thread at any time.
  static bool isMainThread();

  // Sleeps ms / 1000 seconds plus (ms mod 1000) milliseconds; -1 sleeps
  // 2147483647 seconds (for ever in practice). Returns 0, or -1 if the
  // sleep was interrupted by a signal or the duration is invalid (other
  // negative values). sleep(0) returns 0 at once.
  static int sleep(int ms);

  // ------------------------------------------------------------------
  // Message boxes
  // ------------------------------------------------------------------

  // Kind of a message box; chooses its icon.
  enum MessageType { Information, Warning, Critical, Question };

  // Shows a message box with an OK button on the main thread and returns at
  // once, from any thread: the box is posted as an asynchronous main-thread
  // call (Timer::executeAsync) and appears when the main thread next
  // processes events. The box is not modal for the caller and deletes
  // itself when closed. Returns 0 once posted, -1 if there is no
  // application object to post to. Nothing is shown if the application is
  // not a widget application (a QApplication).
  static int AsyncMessageBox(MessageType type, const QString& title, const QString& text);

  // ------------------------------------------------------------------
  // The instance and the planet model
  // ------------------------------------------------------------------

  // The one instance, built when the library is loaded. Its constructor
  // fixes the zero of the application clock, seeds the generators with the
  // current time and sets sStartTime; its destructor closes nothing that
  // this family owns.
  static System theSystem;
  System();
  ~System();
  System(const System&) = delete;
  System& operator=(const System&) = delete;

  // Mean planet radius in metres (6371000.0) and its reciprocal.
  static double sPlanetRadius;
  static double sInvPlanetRadius;

  // ------------------------------------------------------------------
  // Operating system
  // ------------------------------------------------------------------

  // Operating-system families; getOSName() gives each its name text. The
  // underlying type is int, so any int (a stored value, say) is a valid
  // OSVersion.
  enum OSVersion : int {
    OS_UNKNOWN = 0,
    OS_WIN32S = 1,
    OS_WIN95 = 2,
    OS_WIN98 = 3,
    OS_WINME = 4,
    OS_WINNT = 5,
    OS_WIN2000 = 6,
    OS_WINXP = 7,
    OS_WINSERVER = 8,
    OS_WINVISTA = 9,
    OS_MACOSX = 10,
    OS_LINUX = 11,
    OS_PS3 = 12,
  };

  // The family (always OS_LINUX here) and the numbers of the kernel release
  // ("6.1.0-18-amd64" gives 6, 1, 0, 18). Numbers the release does not have
  // are 0; an unreadable release gives 0 for all four.
  static void getOSVersion(OSVersion& os, int& major, int& minor, int& build, int& patch);
  // Only the family: OS_LINUX.
  static OSVersion getOSVersion();
  // The family's name ("Linux" for 11); "UNKNOWN" for 0 and any value
  // outside the enumeration.
  static QString getOSName(OSVersion& os);
  // The family name and its numbers: "Linux (6.1.0.18)" for Linux (major,
  // minor, build, patch), "Mac OS X (10.4.11)" for Mac OS X, and
  // "<name> (Service Pack <patch>)" for every other family.
  static QString getOSVersionString();

  // ------------------------------------------------------------------
  // Processor and memory
  // ------------------------------------------------------------------

  // x86 and x86-64 processors: 6 for CPUID family 6 and later, 5 for 5, 4
  // for 4, 3 otherwise. Every other architecture: 0.
  static unsigned int getProcessorType();
  // The highest clock of the first processor in hertz (cpufreq, else the
  // largest "cpu MHz" of the processor table); 0 if neither can be read.
  // Rounded through single precision.
  static double getProcessorClockSpeed();
  // Processors online; at least 1.
  static int getNumProcessors();
  // Always false.
  static bool supportsIntelMMX();
  static bool supportsIntelSIMD();

  // Physical memory in megabytes, and 4 times that as `second`. Both 0 if
  // the memory table cannot be read; both saturate at 2147483647.
  static void getTotalMemoryMB(int& total, int& second);
  // Memory available to programs in megabytes, counted in a 32-bit byte
  // field that saturates at 2147483647 bytes (so at most 2047); `second` is
  // always 2047. 0 if the memory table cannot be read.
  static void getAvailableMemoryMB(int& available, int& second);
  // Memory that cannot be paged out (`first`) and the bytes paged out since
  // boot (`second`), in megabytes, each saturated at 2147483647 bytes before
  // the division (so at most 2047). Unreadable figures give 0.
  static void getUsedMemoryMB(int& first, int& second);

  // ------------------------------------------------------------------
  // Folders
  // ------------------------------------------------------------------

  // The user's data folder ($XDG_DATA_HOME, by default ~/.local/share) plus
  // "/Orvane Kestrel"; created if missing.
  static QString getAppDirectory();
  // The user's cache folder ($XDG_CACHE_HOME, by default ~/.cache) plus
  // "/Orvane Kestrel"; created if missing.
  static QString getCacheDirectory();
  // The user's documents folder (XDG_DOCUMENTS_DIR of the XDG user-dirs file,
  // by default ~/Documents); not created, so it may not exist.
  static QString getMyDocumentsDirectory();
  // The temporary folder ($TMPDIR, else /tmp).
  static QString getTempDirectory();
  // The install path followed by "../Resources"; while no install path was
  // set, the folder of the running program (with a "/") stands for it.
  static QString getResourceDirectory();
  // Stores path, with a "/" appended unless it ends in one already.
  static void setInstallPath(const QString& path);
  // The stored install path; empty until setInstallPath().
  static QString getInstallPath();
  // Creates every missing folder of path, from "/" down (a relative path is
  // taken from "/" as well). Returns 0 on success, 0xC0000001 for an empty
  // path, 0xC0000008 when a folder cannot be created (the walk stops there).
  // A file where a folder should be makes the walk fail.
  static unsigned int makeAbsDirPath(const QString& path);
  // A path in the temporary folder that does not exist yet: the folder, "/",
  // the first five characters of prefix ("file" when prefix is empty) and
  // six random characters, then "." and extension unless extension is
  // empty. Empty if no free name was found. Nothing is created, so another
  // process may take the name.
  static QString makeTempFilePath(const QString& extension, const QString& prefix);

  // ------------------------------------------------------------------
  // Clock and frames
  // ------------------------------------------------------------------

  // Seconds elapsed on the application clock, whose zero is fixed when the
  // library is loaded, in steps of one microsecond. Monotonic: it never
  // jumps with the wall clock and never decreases. Thread-safe.
  static double getTime();

  // Milliseconds since 1970-01-01T00:00:00 UTC on the wall clock.
  // Thread-safe.
  static long long getSystemTime();

  // The wall-clock moment the library was loaded, in seconds since
  // 0000-01-01T00:00:00 UTC of the proleptic Gregorian calendar (the scale of
  // DateTime::toSeconds). Thread-safe.
  static double getStartTime();

  // The current Unix time in whole seconds, taken from the wall clock once
  // and advanced by the application clock after that, so it never jumps
  // when the wall clock is set. Thread-safe (the first call takes the
  // global lock).
  static long getCurrTime();

  // The offset of the process's time zone (TZ honoured) from UTC now,
  // daylight saving included: hours and minutes, both truncated toward zero
  // and of the same sign (UTC-3:30 gives -3 and -30).
  static void getLocalTimeZone(int& hours, int& minutes);

  // The system library's ctime() and asctime() texts, trailing newline
  // included; empty for a null argument or a time the library cannot show.
  static QString wctime(const long* time);
  static QString wasctime(struct ::tm* time);

  // The step of the current frame in seconds, and the fixed frame rate (0
  // when not fixed). Main thread.
  static double getGlobalDT();
  static double getFrameRate();
  // Fixes the frame rate at rate frames per second (the step becomes
  // 1 / rate at once), or with fixed false returns to measured steps.
  // Main thread.
  static void setFixedFrameRate(bool fixed, double rate);
  // Called once per frame: with a fixed rate the step is 1 / rate;
  // otherwise the step is the time since the last running frame, at most
  // 0.2 seconds. A frame with running false pauses the measure, and the
  // first running frame after it keeps the previous step. Main thread.
  static void updateGlobalDT(bool running);

  // The current frame number, maintained by the application (main thread).
  static int sCurFrame;
  // The fixed frame rate (0: not fixed) and the step of the current frame.
  static double frameRate;
  static double globalDT;

  // ------------------------------------------------------------------
  // Pseudo-random numbers (main thread)
  // ------------------------------------------------------------------

  // Seeds the system generator with s (3141592 when s is 0) and the
  // floating-point generator from two draws of random(2, 10).
  static void seed(unsigned int s);
  // lo + (rand() mod (hi - lo)): lo to hi - 1. 0 when hi < lo; lo when
  // hi == lo.
  static int random(int lo, int hi);
  // The next value of the floating-point generator, in [0, 1): the
  // fractional part of (fseed + pi) to the fifth power.
  static double randf();
  // State of the floating-point generator.
  static double fseed;

  // ------------------------------------------------------------------
  // Identifiers and fixed platform answers
  // ------------------------------------------------------------------

  // 16 bytes of a new random UUID (RFC 4122 byte order, version nibble in
  // byte 6), as four words holding those bytes in order.
  struct GUID {
    unsigned int words[4];
  };
  static GUID getGUID();

  // Filled by no platform the library runs on.
  struct DirectIoInfo {
    unsigned int sectorSize;
    unsigned int alignment;
  };

  // Provider statistics are not persisted here: load sets size to 0 and
  // returns false, save returns false.
  static bool loadProviderStats(void* data, unsigned long& size);
  static bool saveProviderStats(const void* data, unsigned long size);
  // True; restoreKMLAssociation() does nothing.
  static bool doesAppOwnKML();
  static void restoreKMLAssociation();
  // False.
  static bool supportsDirectIo(const QString& path);
  static bool getDirectIoInfo(const QString& path, DirectIoInfo& info);
  // The calling thread's errno.
  static int getLastError();

  // ------------------------------------------------------------------
  // Files: direct POSIX calls, QString paths passed as UTF-8, 64-bit
  // offsets. Each returns what the call returns (-1 with errno set on
  // failure).
  // ------------------------------------------------------------------

  static int open(const char* path, int flags, int mode);
  static int open(const QString& path, int flags, int mode);
  static int close(int fd);
  static long read(int fd, void* buffer, unsigned long count);
  static long write(int fd, const void* buffer, unsigned long count);
  static long long lseek(int fd, long long offset, int whence);
  static int ftruncate(int fd, long long length);
  static int access(const QString& path, int mode);
  static int rename(const QString& from, const QString& to);
  static int unlink(const QString& path);
  // The size of the open file as a signed 32-bit value (the low 32 bits of
  // the size), or -1 if it cannot be read.
  static int getSize(int fd);

  // ------------------------------------------------------------------
  // Browser (process.h has the check of the URL)
  // ------------------------------------------------------------------

  // Hands url to the desktop's opener: the program named by the environment
  // variable KESTREL_URL_OPENER, else xdg-open, found on PATH and started
  // with the single argument externalBrowserArgument(url); no shell is
  // involved. Returns true once the opener has started, false for a refused
  // URL (empty, beginning with "-", rejected by strict QUrl) or an opener
  // that cannot start. Does not wait for the opener, which is reaped in the
  // background. The two flags are accepted and not used on this platform.
  static bool LaunchExternalBrowser(const QString& url, bool = false, bool = false);

  // ------------------------------------------------------------------
  // Locale and language (locale.h has LanguageCode). The user's choices
  // come from the environment: LANGUAGE (a colon-separated list) gives the
  // preferred languages, and the first of LC_ALL, LC_MESSAGES, LANG that is
  // set is the user's locale. Values are canonical: encoding and modifier
  // dropped (en_US.UTF-8@euro is en_US); empty, "C", "POSIX" and "C.UTF-8"
  // count as absent. Main thread only: nothing here locks.
  // ------------------------------------------------------------------

  // The canonical entries of LANGUAGE in order, then the user's locale;
  // absent ones are skipped, so the list may be empty.
  static QStringList getPlatformPreferredLocaleList();
  // getPlatformPreferredLocaleList(), with the "locale" value of the user's
  // application settings in front when that key is present.
  static QStringList getPreferredLocaleList();
  // The region of the user's locale in lower case ("us"), or empty.
  static QString getPlatformCountryCode();
  // A copy of code if it has a region; else the user's locale when its
  // language equals code's (case-sensitive), which carries the user's
  // region; else a copy of code.
  static LanguageCode adjustLocaleForRegion(const LanguageCode& code);
  // Makes a copy of code the current locale and reports its printed form as
  // the "osLocale" setting.
  static void setCurrentLocale(const LanguageCode& code);
  // The current locale; before any setCurrentLocale, a code made from
  // "en_US" (kept from then on).
  static LanguageCode getCurrentLocale();
  // url with every "%1" replaced by the current locale's language, then
  // every "%2" by getPlatformCountryCode(), then every "%3" by the current
  // locale's printed form. "%4" is left alone.
  static QString localizeUrl(const QString& url);
  // url with every "%4" replaced by number in decimal.
  static QString substituteNumberInUrl(const QString& url, int number);
  // substituteNumberInUrl(localizeUrl(url), number).
  static QString computeSupportUrl(const QString& url, int number);
  // URL templates: the product web site (ends in "/"), then base + "intl/%1/",
  // base + "support/", base + "support/bin/", support bin +
  // "request.py?hl=%1", "topic.py?topic=%4&hl=%1", "answer.py?answer=%4&hl=%1".
  static QString getDefaultKestrelUrl();
  static QString getDefaultKestrelIntlUrl();
  static QString getDefaultSupportBaseUrl();
  static QString getDefaultSupportBinUrl();
  static QString getDefaultSupportRequestUrl();
  static QString getDefaultSupportTopicUrl();
  static QString getDefaultSupportAnswerUrl();

 private:
  // The product web site base URL, set at library load.
  static const QString sKestrelUrl;
};

// The value getStartTime() returns.
KESTREL_EXPORT extern double sStartTime;

// Compares two wide strings ignoring case: -1 or 1 at the first pair that
// differs after lowering, -1 if a ends first, 1 if b ends first, 0 if equal.
KESTREL_EXPORT int wcsicmp(const wchar_t* a, const wchar_t* b);

// The graphics card: one instance, created on first use. Queries that this
// platform cannot answer set "unimplemented" and return false.
class KESTREL_EXPORT GfxCardInfo {
 public:
  // The single instance, created on first use. Thread-safe.
  static GfxCardInfo* GetSingleton();
  virtual ~GfxCardInfo();
  // True and the memory of the first card that reports dedicated memory
  // (DRM sysfs, else the NVIDIA management library), in megabytes rounded
  // down, so a card with less than 1 MiB gives true and 0; false if none.
  virtual bool getGraphicsCardMemoryInMB(int& megabytes) = 0;
  // Set "unimplemented" and return false.
  virtual bool getDisplayDeviceID(QString& id) = 0;
  virtual bool getGraphicsCardVendor(QString& vendor) = 0;
  virtual bool getGraphicsCardChipset(QString& chipset) = 0;
  virtual bool getGraphicsCardDriver(QString& driver) = 0;
};

}  // namespace kestrel
