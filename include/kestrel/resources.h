// Application resources: images, cursors and other data shipped as loose
// files in per-language folders, and a small keyed text table.
//
// Which type to use:
//   BinRes               finds the best file for a name, a type (the file
//                        extension) and the current locale, and reads it as
//                        bytes or decodes it as a pixmap;
//   FindResName and the  map the numeric resource ids of the interface code
//   id-taking functions  to file names (resIDNameMap);
//   ResourceDictionary   a table from ResourceId (a name and an optional
//                        qualifier) to text, read from and written to lines
//                        such as "<title> <Globe> <short>".
//
// Resource folders sit in the resource directory (System::getResourceDirectory,
// "<install path>../Resources"), one per language tag: "en-US.lproj",
// "en_US.lproj", "en.lproj", and an unlocalised copy directly in the
// resource directory. The lookup walks the current locale from specific to
// general and takes the first file that exists:
//
//   System::setCurrentLocale(LanguageCode(QStringLiteral("en_US")));
//   QString path = BinRes::GetResourcePath(QStringLiteral("png"), QStringLiteral("dglogo"));
//   // <res>/en-US.lproj/dglogo.png, <res>/en_US.lproj/dglogo.png,
//   // <res>/en.lproj/dglogo.png, <res>/dglogo.png; empty if none exists
//   QPixmap logo = BinRes::ExtractPixmap(QStringLiteral("png"), 211);   // "dglogo" too
//
//   ResourceDictionary dict;
//   dict.loadFromString(QStringLiteral("<title> <Globe>\r\n<title> <Globus> <de>\r\n"));
//   dict.entries().value(ResourceId(QStringLiteral("title"), QStringLiteral("de")));  // "Globus"
//
// Thread-safety: nothing here locks. The lookups read the current locale and
// the install path at each call, which belong to the main thread; pixmaps
// follow Qt's rules (a QGuiApplication must exist, main thread only).
// Dictionaries are values: distinct objects may be used from different
// threads, and copies share their table until one of them changes it.
#pragma once

#include <kestrel/export.h>

#include <QByteArray>
#include <QMap>
#include <QPixmap>
#include <QString>

namespace kestrel {

class LanguageCode;

// One row of the resource id table: a numeric id and a file base name.
struct ResIDName {
  int id;
  const char* name;
};

// The resource id table, searched from the first row; the first row with an
// id wins. Ids 252 and 521 both name "cursor_hand_open" on purpose (two
// interface ids share the cursor).
KESTREL_EXPORT extern const ResIDName resIDNameMap[43];

// The base name for id from resIDNameMap, or a null string when the id is
// not in the table.
KESTREL_EXPORT QString FindResName(int id);

// BinRes::GetResourcePath(type, FindResName(id)). An unknown id searches for
// a file named "." + type, which normally does not exist: empty result.
KESTREL_EXPORT QString MakeBinResourcePath(int id, const QString& type);

// The bytes of BinRes::GetResourcePath(type, name); empty when no file is
// found or it cannot be read.
KESTREL_EXPORT QByteArray ExtractBinResource(const QString& type, const QString& name);

// The bytes of MakeBinResourcePath(id, type); empty as above.
KESTREL_EXPORT QByteArray ExtractBinResource(const QString& type, int id);

// Finds, reads and decodes resource files. In every call the first string is
// the type (file extension, e.g. "png") and the second the base name; the
// file looked for is name + "." + type, both lower-cased.
class KESTREL_EXPORT BinRes {
 public:
  // The full path of the best existing file in the resource directory
  // (System::getResourceDirectory) for the current locale
  // (System::getCurrentLocale), or an empty string.
  static QString GetResourcePath(const QString& type, const QString& name);

  // The same search below getInstallPath() + "../Resources", with the
  // current locale completed by the user's region
  // (System::adjustLocaleForRegion): with locale "en" and the user in
  // en_GB, en-GB.lproj is tried first.
  static QString GetResourcePathWithRegionEmphasis(const QString& type, const QString& name);

  // The search itself. file = lower-cased name + "." + lower-cased type.
  // For code and then each parent (LanguageCode::parent()):
  //   - a code that prints as "" ends the search: base + "/" + file if that
  //     exists, else an empty string;
  //   - base + "/" + tag + "." + suffix + "/" + file, tag being the printed
  //     code ("en-US");
  //   - if tag has a "-", the same with every "-" replaced by "_" ("en_US").
  // The first path that exists (file or folder) is returned. Every parent is
  // tried, even one that prints like the code before it.
  static QString SearchLocaleDirsForResource(const QString& type, const QString& name,
                                             const QString& base, const QString& suffix,
                                             const LanguageCode& code);

  // The bytes of GetResourcePath(type, name); empty when not found.
  static QByteArray ExtractFileResource(const QString& type, const QString& name);

  // A pixmap decoded from ExtractFileResource(type, name), the format
  // detected from the data; a null pixmap when there are no bytes or they
  // do not decode. Needs a QGuiApplication (Qt stops the program otherwise).
  static QPixmap ExtractPixmap(const QString& type, const QString& name);
  // The same for the file of MakeBinResourcePath(id, type).
  static QPixmap ExtractPixmap(const QString& type, int id);

  // MakeBinResourcePath(id, type): resources already are files, so nothing
  // is written and the third argument is not used.
  static QString ExtractToDisk(const QString& type, int id, QString = QString());

  // Does nothing: nothing extracted needs removing.
  static void cleanup();

  // A process-wide flag, false at start, that the interface code reads to
  // decide its styling; this library only stores it. Safe from any thread.
  static bool useKestrelStyle();
  static void setUseKestrelStyle(bool use);
};

// The key of a dictionary entry: a name and an optional qualifier (for
// example a language or a size). Ids order by name, then by qualifier
// (QString ordering); a null and an empty qualifier are the same key.
struct KESTREL_EXPORT ResourceId {
  ResourceId() = default;
  explicit ResourceId(const QString& name, const QString& qualifier = QString())
      : name(name), qualifier(qualifier) {}

  bool operator<(const ResourceId& other) const;
  bool operator==(const ResourceId& other) const;

  QString name;
  QString qualifier;
};

// A table from ResourceId to text with a line format of its own: two or
// three fields, each in angle brackets, optionally preceded by white space
// and with white space allowed just after "<": name, value, qualifier.
//
//   <title> <Globe>            name "title", value "Globe", no qualifier
//   <title> <Globus> <de>      the same name qualified by "de"
//
// A field cannot contain ">"; white space before ">" stays in the field.
// Copies share their table until one of them changes it.
class KESTREL_EXPORT ResourceDictionary {
 public:
  ResourceDictionary() = default;
  ResourceDictionary(const ResourceDictionary&) = default;
  ResourceDictionary& operator=(const ResourceDictionary&) = default;
  virtual ~ResourceDictionary();

  // The line for one entry: "<name> <value>", then " <qualifier>" if the
  // qualifier is not empty. No line break.
  static QString createDictionaryEntryString(const ResourceId& id, const QString& value);

  // Parses one line: the pattern "\s*<\s*([^>]+)>" is searched from the
  // start of the line, then from the end of each match, at most three times;
  // the captures fill name, value and qualifier in that order (fields not
  // found are left null). Text before a field and after the third is
  // skipped. Returns true when name and value are both non-empty.
  static bool decodeDictionaryEntryString(const QString& line, ResourceId& id, QString& value);

  // Decodes line and, if it decodes, inserts or replaces that entry.
  // Returns whether it decoded; a bad line changes nothing.
  bool insertEntryFromString(const QString& line);

  // Splits text at runs of "\n" and "\r" (empty lines dropped) and inserts
  // the lines in order. Stops at the first line that does not decode and
  // returns false; the entries inserted before it stay, later lines are
  // ignored. True when every line decoded, also for an empty text.
  bool loadFromString(const QString& text);

  // Sets out to a null string, then appends each entry's line followed by
  // "\r\n", in key order. An empty dictionary gives a null string.
  void exportToString(QString& out) const;

  // Inserts or replaces one entry.
  void insert(const ResourceId& id, const QString& value);

  // The entries in key order.
  const QMap<ResourceId, QString>& entries() const { return mEntries; }

 private:
  QMap<ResourceId, QString> mEntries;
};

}  // namespace kestrel
