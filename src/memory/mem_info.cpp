// MemInfo: the process-wide allocation counters and the "Memory" settings
// group that mirrors them.
#include <atomic>

#include "kestrel/memory.h"
#include "kestrel/settings.h"
#include "memory/heap_path.h"

namespace kestrel {
namespace {

struct CounterPair {
  std::atomic<unsigned> bytes{0};
  std::atomic<unsigned> allocs{0};

  unsigned change(int delta, MemInfo::Operation op) {
    if (op == MemInfo::kAlloc) allocs.fetch_add(1, std::memory_order_relaxed);
    if (op == MemInfo::kFree) allocs.fetch_sub(1, std::memory_order_relaxed);
    return bytes.fetch_add(static_cast<unsigned>(delta), std::memory_order_relaxed) +
           static_cast<unsigned>(delta);
  }
};

constinit CounterPair gHeap;
constinit CounterPair gPool;

// The group and its eight settings, in their order of creation.
struct MemorySettings {
  SettingGroup group{QStringLiteral("Memory")};
  IntSetting heapBytes{group, QStringLiteral("heapBytes"), 0, false, false};
  IntSetting poolBytes{group, QStringLiteral("poolBytes"), 0, false, false};
  IntSetting heapAllocs{group, QStringLiteral("heapAllocs"), 0, false, false};
  IntSetting poolAllocs{group, QStringLiteral("poolAllocs"), 0, false, false};
  IntSetting alchemyBytes{group, QStringLiteral("alchemyBytes"), 0, false, false};
  IntSetting unpooledBytes{group, QStringLiteral("unpooledBytes"), 0, false, false};
  IntSetting qtBytes{group, QStringLiteral("qtBytes"), 0, false, false};
  IntSetting qtAllocs{group, QStringLiteral("qtAllocs"), 0, false, false};
};

constinit bool gSettingsCreated = false;

struct MemorySettingsOwner {
  MemorySettings settings;
  MemorySettingsOwner() { gSettingsCreated = true; }
  ~MemorySettingsOwner() { gSettingsCreated = false; }
};

MemorySettingsOwner gMemorySettings;

int asSettingValue(unsigned long value) {
  return static_cast<int>(static_cast<unsigned>(value));
}

}  // namespace

unsigned MemInfo::ChangeHeapBytes(int delta, Operation op) {
  return gHeap.change(delta, op);
}

unsigned MemInfo::ChangePoolBytes(int delta, Operation op) {
  return gPool.change(delta, op) + static_cast<unsigned>(memory_detail::HeapPath::totals().bytes);
}

void MemInfo::UpdateMemSettings(unsigned long alchemyBytes, unsigned long unpooledBytes) {
  if (!gSettingsCreated) return;
  MemorySettings& s = gMemorySettings.settings;
  s.alchemyBytes.set(asSettingValue(alchemyBytes));
  s.unpooledBytes.set(asSettingValue(unpooledBytes));
  s.poolBytes.set(asSettingValue(getPoolBytes()));
  s.poolAllocs.set(asSettingValue(getPoolAllocs()));
  s.heapBytes.set(asSettingValue(getHeapBytes()));
  s.heapAllocs.set(asSettingValue(getHeapAllocs()));
}

unsigned MemInfo::getHeapBytes() {
  return gHeap.bytes.load(std::memory_order_relaxed);
}

unsigned MemInfo::getHeapAllocs() {
  return gHeap.allocs.load(std::memory_order_relaxed);
}

unsigned MemInfo::getPoolBytes() {
  return gPool.bytes.load(std::memory_order_relaxed) +
         static_cast<unsigned>(memory_detail::HeapPath::totals().bytes);
}

unsigned MemInfo::getPoolAllocs() {
  return gPool.allocs.load(std::memory_order_relaxed) +
         static_cast<unsigned>(memory_detail::HeapPath::totals().allocs);
}

}  // namespace kestrel
