#include "KvStore.h"

#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace TarvoKv {

namespace {

bool expired(const KvStore::Entry& entry, int64_t now) {
  return entry.expireAt() != KvStore::noExpiry && entry.expireAt() <= now;
}

}  // namespace

KvStore::Entry::Entry(std::string_view key, std::string_view value)
    : bytes_(std::make_unique_for_overwrite<char[]>(key.size() + value.size())),
      keyLength_(static_cast<uint32_t>(key.size())),
      valueLength_(static_cast<uint32_t>(value.size())) {
  std::memcpy(bytes_.get(), key.data(), key.size());
  std::memcpy(bytes_.get() + key.size(), value.data(), value.size());
}

size_t KvStore::Hash::operator()(std::string_view key) const noexcept {
  return std::hash<std::string_view>()(key);
}

void KvStore::eraseEntry(Set::iterator it) {
  if (it->expireAt() != noExpiry) {
    --volatileCount_;
  }
  set_.erase(it);
}

KvStore::Entry* KvStore::find(std::string_view key, int64_t now) {
  auto it = set_.find(key);
  if (it == set_.end()) {
    return nullptr;
  }
  if (expired(*it, now)) {
    eraseEntry(it);
    ++expiredCount_;
    return nullptr;
  }
  return const_cast<Entry*>(&*it);
}

KvStore::Entry& KvStore::set(std::string_view key, std::string_view value, int64_t now) {
  if (Entry* entry = find(key, now)) {
    setValue(*entry, value);
    return *entry;
  }
  return const_cast<Entry&>(*set_.insert(Entry(key, value)).first);
}

void KvStore::setValue(Entry& entry, std::string_view value) {
  if (value.size() != entry.valueLength_) {
    auto bytes = std::make_unique_for_overwrite<char[]>(entry.keyLength_ + value.size());
    std::memcpy(bytes.get(), entry.bytes_.get(), entry.keyLength_);
    entry.bytes_ = std::move(bytes);
    entry.valueLength_ = static_cast<uint32_t>(value.size());
  }
  std::memcpy(entry.bytes_.get() + entry.keyLength_, value.data(), value.size());
}

bool KvStore::erase(std::string_view key, int64_t now) {
  if (find(key, now) == nullptr) {
    return false;
  }
  eraseEntry(set_.find(key));
  return true;
}

void KvStore::expireAtIs(Entry& entry, int64_t expireAt) {
  if ((entry.expireAt_ == noExpiry) != (expireAt == noExpiry)) {
    if (expireAt == noExpiry) {
      --volatileCount_;
    } else {
      ++volatileCount_;
    }
  }
  entry.expireAt_ = expireAt;
}

void KvStore::clear() {
  set_.clear();
  volatileCount_ = 0;
  cursor_ = 0;
}

size_t KvStore::expireSome(int64_t now, size_t buckets) {
  if (volatileCount_ == 0 || set_.empty()) {
    return 0;
  }
  // Local iterators cannot erase: collect the expired keys of the slice, then remove them.
  std::vector<std::string> dead;
  const size_t count = set_.bucket_count();
  for (size_t i = 0; i < buckets && i < count; ++i) {
    if (cursor_ >= count) {
      cursor_ = 0;
    }
    for (auto it = set_.begin(cursor_); it != set_.end(cursor_); ++it) {
      if (expired(*it, now)) {
        dead.emplace_back(it->key());
      }
    }
    ++cursor_;
  }
  for (const std::string& key : dead) {
    eraseEntry(set_.find(std::string_view(key)));
  }
  expiredCount_ += dead.size();
  return dead.size();
}

}  // namespace TarvoKv
