// Feeds arbitrary bytes, read as UTF-8, to fromString of every setting kind
// and reads back every form. Inside a restore frame, so that recording and
// roll-back run too.
#include <kestrel/settings.h>

#include <QString>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

void exercise(kestrel::Setting& setting, const QString& text) {
  setting.fromString(text);
  const QString shown = setting.toString();
  const QString logged = setting.toLogString();
  // A log form is either null or a run of "&key:mark=value" entries.
  check(logged.isNull() || logged.startsWith(QLatin1Char('&')));
  setting.setVal(setting.getVal());
  setting.fromString(shown);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const QString text =
      QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));

  kestrel::SettingGroup group(QStringLiteral("fuzz"));
  kestrel::BoolSetting boolean(group, QStringLiteral("b"), false, true, false);
  kestrel::IntSetting integer(group, QStringLiteral("i"), 0, true, false);
  kestrel::CountSetting count(group, QStringLiteral("c"), 0, true, false);
  kestrel::FloatSetting real(group, QStringLiteral("f"), 0.0f, true, false);
  kestrel::DoubleSetting precise(group, QStringLiteral("d"), 0.0, true, false);
  kestrel::StringSetting string(group, QStringLiteral("s"), QString(), true, false);
  kestrel::HashedStringSetting hashed(group, QStringLiteral("h"), text, true, false);
  kestrel::QDateTimeSetting date(group, QStringLiteral("t"), QDateTime(), true, false);
  kestrel::IntPairSetting pair(group, QStringLiteral("p"), {0, 0}, true, false);
  kestrel::TimeSetting time(group, QStringLiteral("time"), {0, 0}, true, false);
  kestrel::IntHistogram histogram(-100, 100, 7);
  kestrel::IntHistogramSetting hist(group, QStringLiteral("hist"), histogram, true, false);

  kestrel::Setting::pushAllSettings();
  for (int i = 0; i < group.getSettingCount(); ++i) exercise(*group.getSetting(i), text);

  // The int read from the text also drives a histogram sample.
  hist.addIntSample(integer.get());
  check(!hist.toLogString().isEmpty());

  // String-to-word: what comes back is one word of the input at most.
  check(string.get().size() <= text.size());
  check(!string.get().contains(QLatin1Char(' ')));

  kestrel::Setting::popAllSettings();
  check(integer.get() == 0 && !boolean.get() && pair.get() == std::pair<int, int>(0, 0));
  return 0;
}
