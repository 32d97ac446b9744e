// Feeds arbitrary bytes, read as UTF-8, to the language tag parser.
// - Language, script and region hold no "." and no separator; a script has
//   four characters, a region two; a code of no parts has no language.
// - The printed form is the parts joined with "-" and does not change when
//   asked again, nor in a copy.
// - The fallback chain loses one part per step, never carries the region and
//   ends at a code of no parts that is its own parent.
#include <kestrel/locale.h>

#include <QString>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

bool hasNoSeparator(const QString& part) {
  return !part.contains(QLatin1Char('.')) && !part.contains(QLatin1Char('-')) &&
         !part.contains(QLatin1Char('_'));
}

void checkCode(const kestrel::LanguageCode& code) {
  check(code.partCount() >= 0);
  check(hasNoSeparator(code.language()) && hasNoSeparator(code.script()) &&
        hasNoSeparator(code.region()));
  check(code.script().isEmpty() || code.script().size() == 4);
  check(code.region().isEmpty() || code.region().size() == 2);
  if (code.partCount() == 0)
    check(code.language().isEmpty() && code.script().isEmpty() && code.region().isEmpty());
  QString expected = code.language();
  if (!code.script().isEmpty()) expected += QLatin1Char('-') + code.script();
  if (!code.region().isEmpty()) expected += QLatin1Char('-') + code.region();
  check(code.string() == expected);
  check(code.string() == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const QString tag =
      QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
  const kestrel::LanguageCode code(tag);
  checkCode(code);
  const kestrel::LanguageCode copy(code);
  check(copy.string() == code.string() && copy.partCount() == code.partCount());

  const kestrel::LanguageCode* at = &code;
  for (int steps = 0;; ++steps) {
    check(steps <= code.partCount());
    const kestrel::LanguageCode* up = at->parent();
    if (up == at) {
      check(at->partCount() == 0);
      break;
    }
    check(up->partCount() == at->partCount() - 1);
    check(up->region().isEmpty());
    check(up->language() == (up->partCount() >= 1 ? code.language() : QString()));
    checkCode(*up);
    at = up;
  }
  return 0;
}
