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
#include <cstring>

namespace {

constexpr double kUntouched = -9999.0;
// 180 degrees, 60 minutes and 60 seconds plus a comma fraction at most.
constexpr double kMaxAngle = 180.0 + 1.0 + 61.0 / 3600.0;

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
  QString utf16((size - 1) / 2, Qt::Uninitialized);
  std::memcpy(utf16.data(), rest, static_cast<std::size_t>(utf16.size()) * sizeof(QChar));
  return utf16;
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
  const bool isPair = kestrel::LatLngPair::Parse(text, &pairLat, &pairLng);
  if (isPair) {
    check(pairLat >= -90.0 && pairLat <= 90.0 && isAngle(std::fabs(pairLng)));
  } else {
    check(pairLat == kUntouched && pairLng == kUntouched);
  }

  // The parsers skip forms that cannot match; trying every form in the
  // documented order must give the same answers. An angle text is in
  // exactly one of the six notations.
  kestrel::LatLngValue value;
  int forms = 0;
  bool reference = false;
  double referenceValue = 0.0;
  for (bool comma : {false, true}) {
    for (int form = 0; form < 3; ++form) {
      const bool found = form == 0   ? value.TryDMSF(text, comma)
                         : form == 1 ? value.TryDMF(text, comma)
                                     : value.TryDF(text, comma);
      if (found && !reference) referenceValue = value.getValue();
      reference = reference || found;
      forms += found;
    }
  }
  check(forms == (isAngleText ? 1 : 0) && reference == isAngleText);
  if (reference) check(referenceValue == angle);

  kestrel::LatValue lat;
  const bool latReference = lat.TryDA(text) || lat.TryDB(text) || lat.TrySB(text);
  check(latReference == isLatitude && (!isLatitude || lat.getValue() == latitude));
  kestrel::LngValue lng;
  const bool lngReference = lng.TryDA(text) || lng.TryDB(text) || lng.TrySB(text);
  check(lngReference == isLongitude && (!isLongitude || lng.getValue() == longitude));

  kestrel::LatLngPair pair;
  bool pairReference = false;
  for (bool comma : {false, true}) {
    pairReference = pair.TryDA(text, comma) || pair.TryDB(text, comma) || pair.TrySB(text, comma);
    if (pairReference) break;
  }
  pairReference = pairReference && pair.getLatitude() >= -90.0 && pair.getLatitude() <= 90.0;
  check(pairReference == isPair);
  if (pairReference) check(pair.getLatitude() == pairLat && pair.getLongitude() == pairLng);
  return 0;
}
