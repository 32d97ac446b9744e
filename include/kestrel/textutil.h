// Text and file utilities: small helpers that the library and its clients
// share.
//
//   hexEncode                 percent-encoding of one byte ("%20").
//   unescapeHtmlString        the three basic HTML entities back to text.
//   reformatFileNameString    drops the characters file names may not hold.
//   file::cleanupPathname     tidies a file path or an http URL in place.
//   file::readFile/copy/move  whole files; a failed copy or move leaves both
//                             source and target as they were.
//   toQString / toWString     conversions between QString, wide strings
//                             (32-bit wchar_t), UTF-16 arrays and C strings.
//   populateFilefuncDef_UTF8, unzOpen_UTF8, zipOpen_UTF8
//                             zip archives whose paths are UTF-8 text.
//
// Example:
//
//   QString p = QStringLiteral("C:\\maps\\..\\tiles\\a.kml");
//   kestrel::file::cleanupPathname(p);                 // "C:/tiles/a.kml"
//   QByteArray bytes = kestrel::file::readFile(p);     // empty if unreadable
//   kestrel::file::copy(p, p + ".bak");                // false, nothing lost, on failure
//
// The zip functions take and return the types of the zip library without
// including its headers: the file-function table is the library's
// `zlib_filefunc_def` (declared here as its struct tag), and the archive
// handles `unzFile` and `zipFile` are plain `void*` (as the zip library
// defines them unless STRICTUNZIP/STRICTZIP is set, in which case the caller
// casts). Include <minizip/unzip.h> or <minizip/zip.h> to use the handles.
//
// Thread-safety: every function may be called from any thread; the file
// functions are as safe as the file system operations they make.
#pragma once

#include <kestrel/export.h>

#include <QByteArray>
#include <QString>

#include <string>

struct stat;
struct zlib_filefunc_def_s;

namespace kestrel {

// "%" and two lower-case hexadecimal digits of the byte value of c, from a
// static table of 256 entries: every byte is encoded, the blank too ("%20"),
// 0xFF gives "%ff". The pointer stays valid for the life of the process.
KESTREL_EXPORT const char* hexEncode(char c);

// A copy of s with every "&amp;" replaced by "&", then every "&lt;" by "<",
// then every "&gt;" by ">" (so "&amp;lt;" becomes "<").
KESTREL_EXPORT QString unescapeHtmlString(const QString& s);

// A copy of s without any of the characters \ / : * ? " < > |
// ("a/b:c?.kml" gives "abc.kml").
KESTREL_EXPORT QString reformatFileNameString(const QString& s);

namespace file {

// Whether path names an existing file or folder.
KESTREL_EXPORT bool exists(const QString& path);

// The size in bytes, as its low 32 bits; 0 when the path does not exist.
KESTREL_EXPORT int getSize(const QString& path);

// The whole file: as many bytes as the open file's size (System::getSize,
// low 32 bits) announces, fewer if the file ends sooner. An empty array when
// the file cannot be opened or read, or its size is 0 or reads as negative
// (files of 2 GiB and more).
KESTREL_EXPORT QByteArray readFile(const QString& path);

// Copies the file from to the path to, replacing a file there. The bytes go
// to a temporary file in the target's folder that is then renamed onto to,
// so a failure (missing or unreadable source, missing target folder, a folder
// at to, a full disk) returns false and leaves both from and to as they were.
// Copying a file onto itself keeps it and returns true. False if from does
// not exist.
KESTREL_EXPORT bool copy(const QString& from, const QString& to);

// Moves the file from to the path to, replacing a file there. A rename when
// both are on one file system; otherwise a copy as above and then the source
// is removed. False if from does not exist or the move fails; from and to are
// then as they were, except that when the source of a move across file
// systems cannot be removed, to already holds the copy (nothing is lost).
// Moving a file onto itself keeps it and returns true.
KESTREL_EXPORT bool move(const QString& from, const QString& to);

// path unchanged. When create is true the file is first created if missing
// (opened for writing without truncation, then closed), so that it exists;
// an existing file keeps its content.
KESTREL_EXPORT QString getCompatName(const QString& path, bool create);

// True when the system stat() of path succeeds; out receives the result.
// False for a null path or a null out.
KESTREL_EXPORT bool stat(const char* path, struct ::stat* out);
// The same for a path given as QString, passed as UTF-8.
KESTREL_EXPORT bool wstat(const QString& path, struct ::stat* out);

// Cleans path in place.
// - No "://", or "://" at position 0: a file path. Backslashes become "/"
//   and the path is normalised (QDir::cleanPath: "." and ".." parts and
//   repeated slashes removed).
// - An http or https URL (prefix compared without regard to case): the text
//   from 7 characters after "://" up to the first "?" (or the end) is
//   normalised the same way, keeping a trailing "/"; the query is kept as it
//   is. The offset of 7 counts from "://", so the first seven characters
//   after it are never touched (kept deliberately for compatibility).
// - Any other URL ("ftp://...") is left unchanged.
KESTREL_EXPORT void cleanupPathname(QString& path);

}  // namespace file

// Conversions. Code units are copied: wide strings hold UTF-32, UTF-16 arrays
// hold UTF-16, C strings hold UTF-8. A null pointer gives an empty string.
KESTREL_EXPORT QString toQString(const wchar_t* s);
KESTREL_EXPORT QString toQString(const std::wstring& s);
// A null-terminated UTF-16 array.
KESTREL_EXPORT QString toQString(const unsigned short* s);
// A null-terminated UTF-8 C string.
KESTREL_EXPORT QString toQString(const char* s);
KESTREL_EXPORT std::wstring toWString(const QString& s);

// QString joined with a character (taken as Latin-1, as QChar does) or a wide
// C string (null: nothing appended). QString with a narrow C string needs no
// overload of ours: Qt's own operator+ takes it as UTF-8, and a second one
// would make every `text + "..."` ambiguous.
KESTREL_EXPORT QString operator+(const QString& s, char c);
KESTREL_EXPORT QString operator+(char c, const QString& s);
KESTREL_EXPORT QString operator+(const QString& s, const wchar_t* w);
KESTREL_EXPORT QString operator+(const wchar_t* w, const QString& s);

// Fills the zip library's file-function table with functions that open the
// archive path as UTF-8 text (handed to fopen as it is) and a null opaque
// pointer. A null table is ignored. The open function gives "rb" for
// read-only, "r+b" for an existing file, "wb" for a new one, and no file for
// any other mode or a null path; seek with an unknown origin returns -1.
KESTREL_EXPORT void populateFilefuncDef_UTF8(zlib_filefunc_def_s* table);

// unzOpen2(path, table) with such a table: an `unzFile`, null on failure.
KESTREL_EXPORT void* unzOpen_UTF8(const char* path);

// zipOpen2(path, append, no global comment, table) with such a table: a
// `zipFile`, null on failure. append takes the zip library's APPEND_STATUS_*.
KESTREL_EXPORT void* zipOpen_UTF8(const char* path, int append);

}  // namespace kestrel
