// Number text forms of the settings (see number_text.h).
#include "settings/number_text.h"

#include <algorithm>
#include <charconv>

namespace kestrel::settings_detail {

QString realText(double value) {
  // to_chars with a precision is defined as printf in the "C" locale, so the
  // decimal point is a point even when the application set another locale.
  char buffer[32];
  const std::to_chars_result result =
      std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::general, 6);
  return QString::fromLatin1(buffer, result.ptr - buffer);
}

std::optional<int> readInt(QStringView text, qsizetype& pos) {
  const qsizetype size = text.size();
  while (pos < size && text[pos].isSpace()) ++pos;
  bool negative = false;
  if (pos < size && (text[pos] == u'+' || text[pos] == u'-')) {
    negative = text[pos] == u'-';
    ++pos;
  }
  // The magnitude stops growing at the limit of its sign: saturation.
  const long long limit = negative ? 2147483648LL : 2147483647LL;
  long long magnitude = 0;
  const qsizetype firstDigit = pos;
  for (; pos < size && text[pos].isDigit(); ++pos) {
    magnitude = std::min(magnitude * 10 + text[pos].digitValue(), limit);
  }
  if (pos == firstDigit) return std::nullopt;
  return static_cast<int>(negative ? -magnitude : magnitude);
}

}  // namespace kestrel::settings_detail
