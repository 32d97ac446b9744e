// Feeds arbitrary bytes, read as UTF-8, to the HTTP-date reader. It never
// throws; a date it finds is in UTC and prints as an ISO 8601 full form or
// date, and a text it rejects leaves the invalid year.
#include <kestrel/datetime.h>

#include <QString>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const QString text =
      QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
  kestrel::DateTime value;
  value.set(1999, 11, 22, 3, 4, 5, 6, 7);
  value.parseHttpDate(text);
  if (value.year != kestrel::DateTime::kInvalidYear) {
    check(value.tzHours == 0 && value.tzMinutes == 0);
    check(value.month >= 1 && value.month <= 12);
    check(text.contains(QLatin1Char(',')) && text.contains(QLatin1Char(':')));
    check(!value.toString().isEmpty());
    (void)value.toSeconds();
  } else {
    check(value.tzHours == 6 && value.tzMinutes == 7);
  }
  return 0;
}
