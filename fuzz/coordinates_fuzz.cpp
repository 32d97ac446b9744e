// Feeds arbitrary text to the angle, latitude, longitude and pair parsers
// and checks what every caller relies on: failure writes nothing, results
// lie in their ranges, and a plain angle reads the same as a latitude and a
// longitude without letter or sign. The first byte picks how the rest is
// read: UTF-8 (even) or raw UTF-16 (odd, so lone surrogates occur too).
#include <kestrel/coordinates.h>

#include <QString>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

constexpr double kUntouched = -9999.0;
// 180 degrees, 60 minutes and 60 seconds (or a comma fraction) at most.
constexpr double kMaxAngle = 180.0 + 1.0 + 1.0 / 60.0;

void check(bool condition) {
  if (!condition) std::abort();
}

bool isAngle(double value) {
  return std::isfinite(value) && value >= 0.0 && value <= kMaxAngle;
}

QString decode(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return QString();
  const char* rest = reinterpret_cast<const char*>(data + 1);
  if (data[0] % 2 == 0) return QString::fromUtf8(rest, static_cast<qsizetype>(size - 1));
  return QString(reinterpret_cast<const QChar*>(rest), static_cast<qsizetype>((size - 1) / 2));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const QString text = decode(data, size);

  double angle = kUntouched;
  const bool isAngleText = kestrel::LatLngValue::Parse(text, &angle);
  check(isAngleText ? isAngle(angle) : angle == kUntouched);

  double latitude = kUntouched, longitude = kUntouched;
  const bool isLatitude = kestrel::LatValue::Parse(text, &latitude);
  const bool isLongitude = kestrel::LngValue::Parse(text, &longitude);
  check(isLatitude ? isAngle(std::fabs(latitude)) : latitude == kUntouched);
  check(isLongitude ? isAngle(std::fabs(longitude)) : longitude == kUntouched);
  // (The latitude and longitude forms take point decimals only.)
  if (isAngleText && !text.contains(u',')) {
    check(isLatitude && isLongitude && latitude == angle && longitude == angle);
  }

  double pairLat = kUntouched, pairLng = kUntouched;
  if (kestrel::LatLngPair::Parse(text, &pairLat, &pairLng)) {
    check(pairLat >= -90.0 && pairLat <= 90.0 && isAngle(std::fabs(pairLng)));
  } else {
    check(pairLat == kUntouched && pairLng == kUntouched);
  }

  // The single forms agree with the combined parse: an angle text is exactly
  // one of the six notations.
  kestrel::LatLngValue value;
  int forms = 0;
  for (bool comma : {false, true}) {
    forms += value.TryDF(text, comma) + value.TryDMF(text, comma) + value.TryDMSF(text, comma);
  }
  check(forms == (isAngleText ? 1 : 0));
  return 0;
}
