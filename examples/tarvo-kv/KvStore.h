// The key space of tarvo-kv: binary-safe string keys to string values, each with an optional
// expiry time.
//
// Times are milliseconds of the Unix epoch, passed in by the caller (the server reads the
// wall clock once per command; tests pass what they like), so that absolute expiry times a
// client gives mean the same here as on any other server.
//
// Expiry is lazy and active. find() removes a key whose time has come before answering, so no
// command ever sees an expired key; expireSome() walks the table a slice at a time from where
// the last call stopped and removes what has expired, so keys nobody reads again still go.
//
// Not thread-safe; one store per server thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

namespace TarvoKv {

class KvStore {
 public:
  // 0: the key does not expire.
  static constexpr int64_t noExpiry = 0;

  struct Entry {
    std::string value;
    int64_t expireAt = noExpiry;
  };

  // The live entry of `key`, or null; an expired entry is removed first.
  Entry* find(const std::string& key, int64_t now);
  // The entry of `key`, created empty without expiry when missing (or expired).
  Entry& findOrCreate(const std::string& key, int64_t now);
  // Removes a live key; false when there was none.
  bool erase(const std::string& key, int64_t now);
  // Sets or clears (noExpiry) the expiry time of an entry of this store.
  void expireAtIs(Entry& entry, int64_t expireAt);
  void clear();

  // Keys stored, counting expired ones not removed yet.
  size_t size() const noexcept { return map_.size(); }
  // Keys with an expiry time.
  size_t volatileCount() const noexcept { return volatileCount_; }
  // Keys removed because their time had come, lazily or actively, since construction.
  uint64_t expiredCount() const noexcept { return expiredCount_; }

  // Examines the keys of at most `buckets` hash buckets, continuing where the previous call
  // stopped, and removes the expired ones. Answers how many it removed.
  size_t expireSome(int64_t now, size_t buckets);

 private:
  using Map = std::unordered_map<std::string, Entry>;

  void eraseEntry(Map::iterator it);

  Map map_;
  size_t volatileCount_ = 0;
  uint64_t expiredCount_ = 0;
  size_t cursor_ = 0;
};

}  // namespace TarvoKv
