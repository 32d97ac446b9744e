// Feeds arbitrary bytes, read as UTF-8 and as raw UTF-16, to the ISO 8601
// reader. A parse either throws DateTimeParseError with the input in its
// message or gives a value whose text and second count are computed without
// fault; normalised full forms read back to the same fields.
#include <kestrel/datetime.h>

#include <QString>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

bool sameFields(const kestrel::DateTime& a, const kestrel::DateTime& b) {
  return a.year == b.year && a.month == b.month && a.day == b.day && a.hour == b.hour &&
         a.minute == b.minute && a.second == b.second && a.tzHours == b.tzHours &&
         a.tzMinutes == b.tzMinutes;
}

void exercise(const QString& text) {
  kestrel::DateTime value;
  try {
    text >> value;
  } catch (const kestrel::DateTimeParseError& e) {
    check(e.message() == QStringLiteral("Could not parse time value ") + text);
    return;
  }
  const QString shown = value.toString();
  check(!shown.isEmpty());
  kestrel::DateTime normal;
  normal.fromSeconds(value.toSeconds(), value.tzHours, value.tzMinutes);
  check(normal.month >= 1 && normal.month <= 12 && normal.day >= 1 && normal.day <= 31);

  // A normalised value reads back from its text when its zone can be written:
  // minutes of two digits with the sign of the hours, and not negative with
  // 0 hours (that prints "-00:MM", which reads back as +MM minutes).
  const int h = normal.tzHours;
  const int m = normal.tzMinutes;
  const bool writableZone = h >= 0 ? (m >= 0 && m <= 99) : (m <= 0 && m >= -99);
  const QString normalText = normal.toString();
  if (writableZone && normalText.contains(QLatin1Char('T'))) {
    kestrel::DateTime back;
    normalText >> back;
    check(sameFields(back, normal));
  }
  kestrel::DateTime later = value;
  later.add(1, 13, -40, 25, 61, -61);
  (void)(later > value);
  (void)(later == value);
  later -= value;
  (void)kestrel::DateTime::Interpolate(value, normal, 0.25f).toString();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  exercise(QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size)));
  exercise(QString(reinterpret_cast<const QChar*>(data), static_cast<qsizetype>(size / 2)));
  return 0;
}
