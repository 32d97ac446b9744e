// Helpers shared by the settings' text and log forms. Internal to the library.
#pragma once

#include <QDateTime>
#include <QString>

#include <cmath>
#include <limits>

namespace kestrel::settings_detail {

// One query-string entry: "&" key ":" mark "=" value, e.g. "&winSize[0]:i=640".
inline QString logEntry(const QString& key, char mark, long long value) {
  return QLatin1Char('&') + key + QLatin1Char(':') + QLatin1Char(mark) + QLatin1Char('=') +
         QString::number(value);
}

// Truncation toward zero into an int. Deliberate: values beyond the int range
// saturate and NaN gives 0, where a bare conversion would be undefined.
inline int truncateToInt(double value) {
  if (std::isnan(value)) return 0;
  if (value >= 2147483648.0) return std::numeric_limits<int>::max();
  if (value <= -2147483649.0) return std::numeric_limits<int>::min();
  return static_cast<int>(value);
}

// Fields of a date-time as the text and log forms print them. Qt 6 reports
// the fields of a null time as -1; they print as 0, like those of a null date.
struct DateTimeFields {
  int year, month, day, hour, minute, second;
};

inline DateTimeFields fieldsOf(const QDateTime& value) {
  const auto notNegative = [](int field) { return field < 0 ? 0 : field; };
  const QDate date = value.date();
  const QTime time = value.time();
  return {date.year(),
          notNegative(date.month()),
          notNegative(date.day()),
          notNegative(time.hour()),
          notNegative(time.minute()),
          notNegative(time.second())};
}

}  // namespace kestrel::settings_detail
