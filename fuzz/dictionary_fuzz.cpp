// Feeds arbitrary bytes, read as UTF-8, to the resource dictionary's line
// decoder and to loadFromString.
// - A decoded field never contains ">", and name and value are not empty.
// - A decoded entry written with createDictionaryEntryString decodes to the
//   same name, value and qualifier.
// - A loaded dictionary exported with exportToString loads back complete
//   into an equal dictionary; the export has one "\r\n" line per entry.
#include <kestrel/resources.h>

#include <QString>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

void checkLine(const QString& line) {
  kestrel::ResourceId id;
  QString value;
  if (!kestrel::ResourceDictionary::decodeDictionaryEntryString(line, id, value)) return;
  check(!id.name.isEmpty() && !value.isEmpty());
  for (const QString* field : {&id.name, &value, &id.qualifier})
    check(!field->contains(QLatin1Char('>')));

  kestrel::ResourceId againId;
  QString againValue;
  const QString written = kestrel::ResourceDictionary::createDictionaryEntryString(id, value);
  check(kestrel::ResourceDictionary::decodeDictionaryEntryString(written, againId, againValue));
  check(againId.name == id.name && againValue == value && againId.qualifier == id.qualifier);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const QString text =
      QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
  checkLine(text);

  kestrel::ResourceDictionary dict;
  dict.loadFromString(text);
  QString exported;
  dict.exportToString(exported);
  check(exported.count(QStringLiteral("\r\n")) == dict.entries().size());
  kestrel::ResourceDictionary back;
  check(back.loadFromString(exported));
  check(back.entries() == dict.entries());
  return 0;
}
