// IntHistogram and the setting that exposes it.
#include <kestrel/settings.h>

#include "settings/log_form.h"
#include "settings/number_text.h"

#include <QIODevice>
#include <QTextStream>

#include <cstdint>

namespace kestrel {

using settings_detail::logEntry;
using settings_detail::truncateToInt;

// The shared count list: bins 0 .. binCount - 1, then the overflow slot, then
// the underflow slot. Counts are 32-bit and wrap like the original list.
struct IntHistogram::Bins {
  std::vector<std::uint32_t> counts;
  int minValue = 0;
  int maxValue = 0;
  // 64-bit: (maxValue - minValue) / 1 over a wide range does not fit an int.
  long long width = 0;
};

IntHistogram::IntHistogram() = default;

IntHistogram::IntHistogram(int minValue, int maxValue, int binCount)
    : mBins(std::make_shared<Bins>()) {
  const long long entries = static_cast<long long>(binCount) + 2;
  mBins->counts.assign(entries > 0 ? static_cast<std::size_t>(entries) : 0, 0u);
  mBins->minValue = minValue;
  mBins->maxValue = maxValue;
  mBins->width = binCount > 0 ? (static_cast<long long>(maxValue) - minValue) / binCount : 0;
}

IntHistogram::IntHistogram(const IntHistogram&) = default;
IntHistogram& IntHistogram::operator=(const IntHistogram&) = default;
IntHistogram::~IntHistogram() = default;

int IntHistogram::getMinValue() const {
  return mBins ? mBins->minValue : 0;
}

int IntHistogram::getMaxValue() const {
  return mBins ? mBins->maxValue : 0;
}

int IntHistogram::getBinCount() const {
  if (!mBins || mBins->counts.size() < 2) return 0;
  return static_cast<int>(mBins->counts.size()) - 2;
}

int IntHistogram::getSampleCount(int bin) const {
  // Deliberate: an index outside the count list reads 0 instead of memory
  // past its end.
  if (!mBins || bin < 0 || static_cast<std::size_t>(bin) >= mBins->counts.size()) return 0;
  return static_cast<int>(mBins->counts[static_cast<std::size_t>(bin)]);
}

int IntHistogram::getOverflowSampleCount() const {
  return getSampleCount(getBinCount());
}

int IntHistogram::getUnderflowSampleCount() const {
  return getSampleCount(getBinCount() + 1);
}

void IntHistogram::addIntSample(int value) {
  if (!mBins || mBins->counts.size() <= 2) return;
  std::vector<std::uint32_t>& counts = mBins->counts;
  const std::size_t binCount = counts.size() - 2;
  std::size_t slot;
  if (value >= mBins->maxValue) {
    slot = binCount;
  } else if (value < mBins->minValue) {
    slot = binCount + 1;
  } else if (mBins->width == 0) {
    // More bins than values: no bin can take the sample (the engine divided
    // by zero here); it is counted as overflow.
    slot = binCount;
  } else {
    // Values past the last whole bin (the width is truncated) land in the
    // overflow slot, like those at or above maxValue. Deliberate and kept.
    const long long bin = (static_cast<long long>(value) - mBins->minValue) / mBins->width;
    slot = static_cast<std::size_t>(bin) < binCount ? static_cast<std::size_t>(bin) : binCount;
  }
  ++counts[slot];

  if (mNumSamples == 0 || value < mMinSample) mMinSample = value;
  if (mNumSamples == 0 || value > mMaxSample) mMaxSample = value;
  const float n = static_cast<float>(mNumSamples);
  mAvgSample = (n / (n + 1.0f)) * mAvgSample + (1.0f / (n + 1.0f)) * static_cast<float>(value);
  ++mNumSamples;
}

void IntHistogram::updateMinSample(int value) {
  if (mNumSamples == 0 || value < mMinSample) mMinSample = value;
}

void IntHistogram::updateMaxSample(int value) {
  if (mNumSamples == 0 || value > mMaxSample) mMaxSample = value;
}

IntHistogramSetting::IntHistogramSetting(SettingGroup& group, const QString& name,
                                         IntHistogram& histogram, bool firstFlag, bool secondFlag)
    : Setting(group, name, firstFlag, secondFlag), mHistogram(&histogram) {}

IntHistogramSetting::~IntHistogramSetting() {
  notifyPreDelete();
}

// The three sample operations notify every time without comparing states,
// and restore frames do not record them.
void IntHistogramSetting::addIntSample(int value) {
  stampModifier();
  mHistogram->addIntSample(value);
  notifyChanged();
}

void IntHistogramSetting::updateMinSample(int value) {
  stampModifier();
  mHistogram->updateMinSample(value);
  notifyChanged();
}

void IntHistogramSetting::updateMaxSample(int value) {
  stampModifier();
  mHistogram->updateMaxSample(value);
  notifyChanged();
}

void IntHistogramSetting::fromString(const QString&) {}

QString IntHistogramSetting::toString() const {
  QString text;
  QTextStream out(&text, QIODevice::WriteOnly);
  out << mHistogram->getMinSample() << ' ' << mHistogram->getMaxSample() << ' '
      << settings_detail::realText(mHistogram->getAvgSample());
  out.flush();
  return text;
}

QString IntHistogramSetting::toLogString() const {
  const IntHistogram& h = *mHistogram;
  const QString& name = getName();
  QString log = logEntry(name + QLatin1String("-minv"), 'i', h.getMinValue()) +
                logEntry(name + QLatin1String("-maxv"), 'i', h.getMaxValue()) +
                logEntry(name + QLatin1String("-bins"), 'i', h.getBinCount()) +
                logEntry(name + QLatin1String("-mins"), 'i', h.getMinSample()) +
                logEntry(name + QLatin1String("-maxs"), 'i', h.getMaxSample()) +
                logEntry(name + QLatin1String("-avgs"), 'i', truncateToInt(h.getAvgSample()));
  const int binCount = h.getBinCount();
  for (int i = 0; i < binCount; ++i) {
    const int count = h.getSampleCount(i);
    if (count != 0) log += logEntry(name + QLatin1Char('-') + QString::number(i), 'i', count);
  }
  return log;
}

double IntHistogramSetting::getVal() const {
  return 0.0;
}

void IntHistogramSetting::setVal(double) {}

SettingType IntHistogramSetting::getType() const {
  return TypeIntHistogram;
}

void IntHistogramSetting::pushSetting() {}

bool IntHistogramSetting::popSetting() {
  return false;
}

}  // namespace kestrel
