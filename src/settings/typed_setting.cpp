// TypedSetting<T>: the value, its stack of saved values, the typed setter and
// the text form shared by every named setting of one value type.
#include <kestrel/settings.h>

#include "settings/log_form.h"
#include "settings/number_text.h"

#include <QIODevice>
#include <QTextStream>

#include <limits>
#include <type_traits>

namespace kestrel {

static_assert(std::numeric_limits<float>::is_iec559,
              "setVal narrows doubles to float the IEEE way (out of range gives infinity)");

namespace {

template <typename T>
constexpr bool kIsNumber = std::is_same_v<T, bool> || std::is_same_v<T, int> ||
                           std::is_same_v<T, float> || std::is_same_v<T, double>;

}  // namespace

template <typename T>
TypedSetting<T>::TypedSetting(SettingGroup& group, const QString& name, T initial, bool firstFlag,
                              bool secondFlag)
    : Setting(group, name, firstFlag, secondFlag), mValue(std::move(initial)) {}

template <typename T>
TypedSetting<T>::~TypedSetting() {
  // The named classes have already done this; a client class derived from
  // TypedSetting that forgot still gets its observers told.
  notifyPreDelete();
  mStack.clear();
}

template <typename T>
T TypedSetting<T>::get() const {
  return mValue;
}

template <typename T>
void TypedSetting<T>::set(T value) {
  stampModifier();
  if (value == mValue) return;
  recordChange();
  mValue = std::move(value);
  notifyChanged();
}

template <typename T>
void TypedSetting<T>::fromString(const QString& text) {
  if constexpr (std::is_same_v<T, bool>) {
    const QString word = text.trimmed().toLower();
    set(word == QLatin1String("true") || word == QLatin1String("1"));
  } else if constexpr (std::is_same_v<T, QDateTime>) {
    set(QDateTime::fromString(text, Qt::TextDate));
  } else if constexpr (std::is_same_v<T, int> || std::is_same_v<T, std::pair<int, int>>) {
    // Deliberate: integers are read as decimal only ("010" is ten, "0x1f"
    // reads 0) and saturate at the int limits instead of wrapping. A number
    // that cannot be read is 0.
    qsizetype pos = 0;
    const int first = settings_detail::readInt(text, pos).value_or(0);
    if constexpr (std::is_same_v<T, int>) {
      set(first);
    } else {
      set({first, settings_detail::readInt(text, pos).value_or(0)});
    }
  } else {
    QString source = text;
    QTextStream in(&source, QIODevice::ReadOnly);
    T value{};
    in >> value;
    set(std::move(value));
  }
}

template <typename T>
QString TypedSetting<T>::toString() const {
  QString text;
  QTextStream out(&text, QIODevice::WriteOnly);
  if constexpr (std::is_same_v<T, bool>) {
    out << (mValue ? 1 : 0);
  } else if constexpr (std::is_same_v<T, std::pair<int, int>>) {
    out << mValue.first << ' ' << mValue.second;
  } else if constexpr (std::is_same_v<T, QDateTime>) {
    const settings_detail::DateTimeFields f = settings_detail::fieldsOf(mValue);
    out << f.year << '-' << f.month << '-' << f.day << "__" << f.hour << '-' << f.minute << '-'
        << f.second;
  } else if constexpr (std::is_same_v<T, float> || std::is_same_v<T, double>) {
    out << settings_detail::realText(mValue);
  } else {
    out << mValue;
  }
  out.flush();
  return text;
}

template <typename T>
double TypedSetting<T>::getVal() const {
  if constexpr (std::is_same_v<T, bool>) {
    return mValue ? 1.0 : 0.0;
  } else if constexpr (kIsNumber<T>) {
    return static_cast<double>(mValue);
  } else {
    return 0.0;
  }
}

template <typename T>
void TypedSetting<T>::setVal(double value) {
  if constexpr (std::is_same_v<T, bool>) {
    set(value != 0.0);
  } else if constexpr (std::is_same_v<T, int>) {
    set(settings_detail::truncateToInt(value));
  } else if constexpr (kIsNumber<T>) {
    set(static_cast<T>(value));
  } else {
    // No numeric value: only the modifier is stamped.
    set(mValue);
  }
}

template <typename T>
void TypedSetting<T>::pushSetting() {
  mStack.prepend(mValue);
}

template <typename T>
bool TypedSetting<T>::popSetting() {
  if (mStack.isEmpty()) return false;
  mValue = mStack.takeFirst();
  return true;
}

template class TypedSetting<bool>;
template class TypedSetting<int>;
template class TypedSetting<float>;
template class TypedSetting<double>;
template class TypedSetting<QString>;
template class TypedSetting<QDateTime>;
template class TypedSetting<std::pair<int, int>>;

}  // namespace kestrel
