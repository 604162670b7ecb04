#include "KvStore.h"

#include <vector>

namespace TarvoKv {

namespace {

bool expired(const KvStore::Entry& entry, int64_t now) {
  return entry.expireAt != KvStore::noExpiry && entry.expireAt <= now;
}

}  // namespace

void KvStore::eraseEntry(Map::iterator it) {
  if (it->second.expireAt != noExpiry) {
    --volatileCount_;
  }
  map_.erase(it);
}

KvStore::Entry* KvStore::find(const std::string& key, int64_t now) {
  auto it = map_.find(key);
  if (it == map_.end()) {
    return nullptr;
  }
  if (expired(it->second, now)) {
    eraseEntry(it);
    ++expiredCount_;
    return nullptr;
  }
  return &it->second;
}

KvStore::Entry& KvStore::findOrCreate(const std::string& key, int64_t now) {
  auto [it, inserted] = map_.try_emplace(key);
  if (!inserted && expired(it->second, now)) {
    ++expiredCount_;
    expireAtIs(it->second, noExpiry);
    it->second.value.clear();
  }
  return it->second;
}

bool KvStore::erase(const std::string& key, int64_t now) {
  if (find(key, now) == nullptr) {
    return false;
  }
  eraseEntry(map_.find(key));
  return true;
}

void KvStore::expireAtIs(Entry& entry, int64_t expireAt) {
  if ((entry.expireAt == noExpiry) != (expireAt == noExpiry)) {
    if (expireAt == noExpiry) {
      --volatileCount_;
    } else {
      ++volatileCount_;
    }
  }
  entry.expireAt = expireAt;
}

void KvStore::clear() {
  map_.clear();
  volatileCount_ = 0;
  cursor_ = 0;
}

size_t KvStore::expireSome(int64_t now, size_t buckets) {
  if (volatileCount_ == 0 || map_.empty()) {
    return 0;
  }
  // Local iterators cannot erase: collect the expired keys of the slice, then remove them.
  std::vector<std::string> dead;
  const size_t count = map_.bucket_count();
  for (size_t i = 0; i < buckets && i < count; ++i) {
    if (cursor_ >= count) {
      cursor_ = 0;
    }
    for (auto it = map_.begin(cursor_); it != map_.end(cursor_); ++it) {
      if (expired(it->second, now)) {
        dead.push_back(it->first);
      }
    }
    ++cursor_;
  }
  for (const std::string& key : dead) {
    eraseEntry(map_.find(key));
  }
  expiredCount_ += dead.size();
  return dead.size();
}

}  // namespace TarvoKv
