// The named settings: kind codes, log forms, and the hash of
// HashedStringSetting.
#include <kestrel/settings.h>

#include "settings/log_form.h"

#include <zlib.h>

namespace kestrel {

using settings_detail::logEntry;
using settings_detail::truncateToInt;

// Every destructor starts with notifyPreDelete() so that observers run while
// the object is still of its full type (getType(), toLogString() work).

BoolSetting::BoolSetting(SettingGroup& group, const QString& name, bool initial, bool firstFlag,
                         bool secondFlag)
    : TypedSetting<bool>(group, name, initial, firstFlag, secondFlag) {}

BoolSetting::~BoolSetting() {
  notifyPreDelete();
}

QString BoolSetting::toLogString() const {
  // A false value is never logged, so the mark's "f" never appears.
  if (!get()) return QString();
  return QLatin1Char('&') + getName() + QLatin1String(":b=t");
}

SettingType BoolSetting::getType() const {
  return TypeBool;
}

IntSetting::IntSetting(SettingGroup& group, const QString& name, int initial, bool firstFlag,
                       bool secondFlag)
    : TypedSetting<int>(group, name, initial, firstFlag, secondFlag) {}

IntSetting::~IntSetting() {
  notifyPreDelete();
}

QString IntSetting::toLogString() const {
  return logEntry(getName(), 'i', get());
}

SettingType IntSetting::getType() const {
  return TypeInt;
}

CountSetting::CountSetting(SettingGroup& group, const QString& name, int initial, bool firstFlag,
                           bool secondFlag)
    : IntSetting(group, name, initial, firstFlag, secondFlag) {}

CountSetting::~CountSetting() {
  notifyPreDelete();
}

QString CountSetting::toLogString() const {
  if (get() == 0) return QString();
  return logEntry(getName(), 'c', get());
}

SettingType CountSetting::getType() const {
  return TypeCount;
}

FloatSetting::FloatSetting(SettingGroup& group, const QString& name, float initial, bool firstFlag,
                           bool secondFlag)
    : TypedSetting<float>(group, name, initial, firstFlag, secondFlag) {}

FloatSetting::~FloatSetting() {
  notifyPreDelete();
}

QString FloatSetting::toLogString() const {
  return logEntry(getName(), 'i', truncateToInt(get()));
}

SettingType FloatSetting::getType() const {
  return TypeFloat;
}

DoubleSetting::DoubleSetting(SettingGroup& group, const QString& name, double initial,
                             bool firstFlag, bool secondFlag)
    : TypedSetting<double>(group, name, initial, firstFlag, secondFlag) {}

DoubleSetting::~DoubleSetting() {
  notifyPreDelete();
}

QString DoubleSetting::toLogString() const {
  return logEntry(getName(), 'i', truncateToInt(get()));
}

SettingType DoubleSetting::getType() const {
  return TypeDouble;
}

StringSetting::StringSetting(SettingGroup& group, const QString& name, const QString& initial,
                             bool firstFlag, bool secondFlag)
    : TypedSetting<QString>(group, name, initial, firstFlag, secondFlag) {}

StringSetting::~StringSetting() {
  notifyPreDelete();
}

QString StringSetting::toLogString() const {
  // Strings are never reported as text.
  return QString();
}

SettingType StringSetting::getType() const {
  return TypeString;
}

namespace {

quint32 crc32OfUtf8(const QString& text) {
  const QByteArray bytes = text.toUtf8();
  return static_cast<quint32>(crc32(0L, reinterpret_cast<const Bytef*>(bytes.constData()),
                                    static_cast<uInt>(bytes.size())));
}

}  // namespace

// The hash is taken once, here. Deliberate: set() and fromString() are those
// of StringSetting and leave it alone, so the log keeps reporting the hash
// of the initial value.
HashedStringSetting::HashedStringSetting(SettingGroup& group, const QString& name,
                                         const QString& initial, bool firstFlag, bool secondFlag)
    : StringSetting(group, name, initial, firstFlag, secondFlag), mHash(crc32OfUtf8(initial)) {}

HashedStringSetting::~HashedStringSetting() {
  notifyPreDelete();
}

QString HashedStringSetting::toLogString() const {
  return logEntry(getName(), 'i', static_cast<qint32>(mHash));
}

SettingType HashedStringSetting::getType() const {
  return TypeHashedString;
}

QDateTimeSetting::QDateTimeSetting(SettingGroup& group, const QString& name,
                                   const QDateTime& initial, bool firstFlag, bool secondFlag)
    : TypedSetting<QDateTime>(group, name, initial, firstFlag, secondFlag) {}

QDateTimeSetting::~QDateTimeSetting() {
  notifyPreDelete();
}

QString QDateTimeSetting::toLogString() const {
  const settings_detail::DateTimeFields f = settings_detail::fieldsOf(get());
  const QString key = QLatin1String("DateTime-") + getName();
  return logEntry(key + QLatin1String("-yy"), 'i', f.year) +
         logEntry(key + QLatin1String("-mo"), 'i', f.month) +
         logEntry(key + QLatin1String("-dd"), 'i', f.day) +
         logEntry(key + QLatin1String("-hh"), 'i', f.hour) +
         logEntry(key + QLatin1String("-mi"), 'i', f.minute) +
         logEntry(key + QLatin1String("-ss"), 'i', f.second);
}

SettingType QDateTimeSetting::getType() const {
  return TypeDateTime;
}

IntPairSetting::IntPairSetting(SettingGroup& group, const QString& name,
                               std::pair<int, int> initial, bool firstFlag, bool secondFlag)
    : TypedSetting<std::pair<int, int>>(group, name, initial, firstFlag, secondFlag) {}

IntPairSetting::~IntPairSetting() {
  notifyPreDelete();
}

QString IntPairSetting::toLogString() const {
  const std::pair<int, int> value = get();
  return logEntry(getName() + QLatin1String("[0]"), 'i', value.first) +
         logEntry(getName() + QLatin1String("[1]"), 'i', value.second);
}

SettingType IntPairSetting::getType() const {
  return TypeIntPair;
}

TimeSetting::TimeSetting(SettingGroup& group, const QString& name, std::pair<int, int> initial,
                         bool firstFlag, bool secondFlag)
    : IntPairSetting(group, name, initial, firstFlag, secondFlag) {}

TimeSetting::~TimeSetting() {
  notifyPreDelete();
}

SettingType TimeSetting::getType() const {
  return TypeTime;
}

}  // namespace kestrel
