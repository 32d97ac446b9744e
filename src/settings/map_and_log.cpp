// MapAndLog: a bounded int -> int map whose entries are IntPairSettings.
#include <kestrel/settings.h>

namespace kestrel {

MapAndLog::MapAndLog(const QString& name, int maxEntries, SettingGroup& group, bool logEnabled)
    : mName(name), mMaxEntries(maxEntries), mGroup(&group), mLogEnabled(logEnabled) {}

MapAndLog::~MapAndLog() {
  for (const auto& entry : mEntries) delete entry.second;
  mEntries.clear();
}

void MapAndLog::addEntry(int key, int value) {
  const int n = getEntryCount();
  if (n >= mMaxEntries) return;
  auto* setting = new IntPairSetting(*mGroup, mName + QLatin1Char('-') + QString::number(n),
                                     {key, value}, mLogEnabled, false);
  // Kept as it always was: a key already present loses its slot to the new
  // setting, and the old one stays in the group, no longer owned by the map.
  mEntries[key] = setting;
}

void MapAndLog::set(int key, int value) {
  const auto found = mEntries.find(key);
  if (found == mEntries.end()) {
    addEntry(key, value);
    return;
  }
  found->second->set({key, value});
}

void MapAndLog::incrementValue(int key) {
  const auto found = mEntries.find(key);
  if (found == mEntries.end()) {
    addEntry(key, 1);
    return;
  }
  // Wraps at the int limit instead of overflowing.
  const int next = static_cast<int>(static_cast<unsigned int>(found->second->get().second) + 1u);
  found->second->set({key, next});
}

bool MapAndLog::get(int key, int& value) const {
  const auto found = mEntries.find(key);
  if (found == mEntries.end()) return false;
  value = found->second->get().second;
  return true;
}

bool MapAndLog::hasKey(int key) const {
  return mEntries.find(key) != mEntries.end();
}

}  // namespace kestrel
