// ResourceDictionary: keyed text entries and their "<name> <value> <qualifier>"
// line format.
#include <kestrel/resources.h>

#include <QRegularExpression>

namespace kestrel {
namespace {

// One field: optional white space, "<", optional white space, the captured
// text up to the next ">". White space is Unicode white space, as QChar
// counts it. Compiled once and shared; matching is thread-safe.
const QRegularExpression& fieldPattern() {
  static const QRegularExpression pattern(QStringLiteral("(?:\\s*<\\s*)([^>]+)(?:>)"),
                                          QRegularExpression::UseUnicodePropertiesOption);
  return pattern;
}

const QRegularExpression& lineBreaks() {
  static const QRegularExpression pattern(QStringLiteral("[\\n\\r]+"));
  return pattern;
}

}  // namespace

bool ResourceId::operator<(const ResourceId& other) const {
  if (name != other.name) return name < other.name;
  return qualifier < other.qualifier;
}

bool ResourceId::operator==(const ResourceId& other) const {
  return name == other.name && qualifier == other.qualifier;
}

ResourceDictionary::~ResourceDictionary() = default;

QString ResourceDictionary::createDictionaryEntryString(const ResourceId& id,
                                                        const QString& value) {
  // One arg() call with both strings: a "%2" inside the name stays text.
  QString line = QStringLiteral("<%1> <%2>").arg(id.name, value);
  if (!id.qualifier.isEmpty()) line += QStringLiteral(" <%1>").arg(id.qualifier);
  return line;
}

bool ResourceDictionary::decodeDictionaryEntryString(const QString& line, ResourceId& id,
                                                     QString& value) {
  QString fields[3];
  qsizetype offset = 0;
  for (QString& field : fields) {
    const QRegularExpressionMatch match = fieldPattern().match(line, offset);
    if (!match.hasMatch()) break;
    field = match.captured(1);
    offset = match.capturedEnd(0);
  }
  id = ResourceId(fields[0], fields[2]);
  value = fields[1];
  return !id.name.isEmpty() && !value.isEmpty();
}

bool ResourceDictionary::insertEntryFromString(const QString& line) {
  ResourceId id;
  QString value;
  if (!decodeDictionaryEntryString(line, id, value)) return false;
  insert(id, value);
  return true;
}

bool ResourceDictionary::loadFromString(const QString& text) {
  const QStringList lines = text.split(lineBreaks(), Qt::SkipEmptyParts);
  for (const QString& line : lines) {
    if (!insertEntryFromString(line)) return false;
  }
  return true;
}

void ResourceDictionary::exportToString(QString& out) const {
  out = QString();
  for (auto entry = mEntries.cbegin(); entry != mEntries.cend(); ++entry)
    out += createDictionaryEntryString(entry.key(), entry.value()) + QStringLiteral("\r\n");
}

void ResourceDictionary::insert(const ResourceId& id, const QString& value) {
  mEntries.insert(id, value);
}

}  // namespace kestrel
