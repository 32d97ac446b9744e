// CacheObserver: the bytes a cache holds outside the pools, its place in the
// global cache's list of reclaimable observers, and one LRU search step.
#include "kestrel/memory.h"
#include "kestrel/system.h"

namespace kestrel {

GlobalCache* CacheObserver::sGlobalCache = nullptr;

GlobalCache::~GlobalCache() = default;

CacheObserver::CacheObserver() {
  if (sGlobalCache != nullptr) {
    if (CacheObserver** list = sGlobalCache->getObserverList()) linkInto(list);
  }
}

CacheObserver::~CacheObserver() {
  unlinkFromCache();
}

void CacheObserver::linkInto(CacheObserver** list) {
  mCacheList = list;
  mCachePrev = nullptr;
  mCacheNext = *list;
  if (mCacheNext != nullptr) mCacheNext->mCachePrev = this;
  *list = this;
}

void CacheObserver::unlinkFromCache() {
  if (mCachePrev != nullptr) {
    mCachePrev->mCacheNext = mCacheNext;
  } else if (mCacheList != nullptr && *mCacheList == this) {
    *mCacheList = mCacheNext;
  }
  if (mCacheNext != nullptr) mCacheNext->mCachePrev = mCachePrev;
  mCacheList = nullptr;
  mCacheNext = nullptr;
  mCachePrev = nullptr;
}

void CacheObserver::changeUnpooledBytes(int delta) {
  mUnpooledBytes += delta;
  if (mReclaimable && sGlobalCache != nullptr) sGlobalCache->changeReclaimableBytes(delta);
}

void CacheObserver::setIsReclaimable(bool reclaimable) {
  if (reclaimable == mReclaimable) return;
  mReclaimable = reclaimable;
  if (!reclaimable) {
    if (sGlobalCache != nullptr) sGlobalCache->changeReclaimableBytes(-mUnpooledBytes);
    unlinkFromCache();
    return;
  }
  if (sGlobalCache == nullptr) return;
  CacheObserver** list = sGlobalCache->getObserverList();
  unlinkFromCache();
  if (list != nullptr) linkInto(list);
  sGlobalCache->changeReclaimableBytes(mUnpooledBytes);
}

void CacheObserver::getLru(Event& event) {
  const int frame = lastUseFrame();
  if (frame < 0) return;
  if (event.ignoreAge == 0) {
    if (frame >= System::sCurFrame - 4) return;  // used in the last four frames
    if (frame >= event.oldestFrame) return;      // ties keep the earlier candidate
  }
  event.oldestFrame = frame;
  event.candidate = this;
}

}  // namespace kestrel
