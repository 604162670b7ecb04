// The key space of tarvo-kv: binary-safe string keys to string values, each with an optional
// expiry time.
//
// Times are milliseconds of the Unix epoch, passed in by the caller (the server reads the
// wall clock once per batch of commands; tests pass what they like), so that absolute expiry
// times a client gives mean the same here as on any other server.
//
// Expiry is lazy and active. find() removes a key whose time has come before answering, so no
// command ever sees an expired key; expireSome() walks the table a slice at a time from where
// the last call stopped and removes what has expired, so keys nobody reads again still go.
//
// Memory: each key costs one hash node holding a record and one block holding the key and the
// value bytes side by side (about 100 bytes for a 16-byte key and a 16-byte value).
//
// Not thread-safe; one store per server thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <unordered_set>

namespace TarvoKv {

class KvStore {
 public:
  // 0: the key does not expire.
  static constexpr int64_t noExpiry = 0;

  // One key, its value and its expiry time. Pointers to an entry stay valid until the key is
  // removed (setValue() included); the value's bytes move when its length changes.
  class Entry {
   public:
    std::string_view key() const noexcept { return {bytes_.get(), keyLength_}; }
    std::string_view value() const noexcept { return {bytes_.get() + keyLength_, valueLength_}; }
    int64_t expireAt() const noexcept { return expireAt_; }

   private:
    friend class KvStore;
    Entry(std::string_view key, std::string_view value);

    // The record is a set element (const to the set); only the store changes it.
    mutable std::unique_ptr<char[]> bytes_;
    mutable uint32_t keyLength_ = 0;
    mutable uint32_t valueLength_ = 0;
    mutable int64_t expireAt_ = noExpiry;
  };

  // The live entry of `key`, or null; an expired entry is removed first.
  Entry* find(std::string_view key, int64_t now);
  // Stores `value` under `key`: a new key gets no expiry, an existing one keeps its own.
  Entry& set(std::string_view key, std::string_view value, int64_t now);
  // Replaces the value of an entry of this store.
  void setValue(Entry& entry, std::string_view value);
  // Removes a live key; false when there was none.
  bool erase(std::string_view key, int64_t now);
  // Sets or clears (noExpiry) the expiry time of an entry of this store.
  void expireAtIs(Entry& entry, int64_t expireAt);
  void clear();

  // Keys stored, counting expired ones not removed yet.
  size_t size() const noexcept { return set_.size(); }
  // Keys with an expiry time.
  size_t volatileCount() const noexcept { return volatileCount_; }
  // Keys removed because their time had come, lazily or actively, since construction.
  uint64_t expiredCount() const noexcept { return expiredCount_; }

  // Examines the keys of at most `buckets` hash buckets, continuing where the previous call
  // stopped, and removes the expired ones. Answers how many it removed.
  size_t expireSome(int64_t now, size_t buckets);

 private:
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view key) const noexcept;
    size_t operator()(const Entry& entry) const noexcept { return (*this)(entry.key()); }
  };
  struct Equal {
    using is_transparent = void;
    static std::string_view keyOf(std::string_view key) noexcept { return key; }
    static std::string_view keyOf(const Entry& entry) noexcept { return entry.key(); }
    template <typename A, typename B>
    bool operator()(const A& a, const B& b) const noexcept {
      return keyOf(a) == keyOf(b);
    }
  };
  using Set = std::unordered_set<Entry, Hash, Equal>;

  void eraseEntry(Set::iterator it);

  Set set_;
  size_t volatileCount_ = 0;
  uint64_t expiredCount_ = 0;
  size_t cursor_ = 0;
};

}  // namespace TarvoKv
