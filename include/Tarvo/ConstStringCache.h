// Interned, reference-counted names.
//
// A ConstStringCache holds each distinct string once; a ConstStringRef is a counted handle
// to one of its elements, so copying a name or keying a table by it costs a pointer and a
// count change. When the last reference goes, the element leaves the cache. One cache serves
// a whole scheduler tree and must outlive every reference into it.
//
// Single-threaded: counts are plain integers, used only on the thread that owns the tree.
// Releasing a reference whose count is already 0, or erasing an element its cache does not
// hold, throws AssertException. Destroying a cache that still has elements reports "Destroying
// ConstStringCache with open references" on the standard error stream and frees them; the
// destructor never throws.
#pragma once

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <unordered_set>

namespace Tarvo {

class ConstStringCache;

// A counted handle on one interned string; an empty handle refers to nothing.
class ConstStringRef {
 public:
  // One interned string and its reference count.
  class Elem {
   public:
    // An element of `cache` holding `string`, counted from zero; its string, its count, and
    // one more reference.
    Elem(ConstStringCache* cache, std::string_view string) : cache_(cache), string_(string) {}
    const std::string& str() const noexcept { return string_; }
    uint32_t refCount() const noexcept { return refCount_; }
    void refCountInc() const noexcept { ++refCount_; }
    // Drops one reference; the last one erases the element from its cache.
    void refCountDec() const {
      if (refCount_ <= 1) [[unlikely]] {
        releaseLast();
      } else {
        --refCount_;
      }
    }

   private:
    void releaseLast() const;

    ConstStringCache* cache_;
    std::string string_;
    mutable uint32_t refCount_ = 0;
  };

  ConstStringRef() = default;
  // A handle on `elem` (counted), or an empty one for null.
  explicit ConstStringRef(const Elem* elem) noexcept : elem_(elem) {
    if (elem_) {
      elem_->refCountInc();
    }
  }
  // Copies count one more reference; moves hand the reference over and leave `other` empty.
  ConstStringRef(const ConstStringRef& other) noexcept : ConstStringRef(other.elem_) {}
  ConstStringRef(ConstStringRef&& other) noexcept : elem_(other.elem_) { other.elem_ = nullptr; }
  ConstStringRef& operator=(const ConstStringRef& other) {
    if (elem_ != other.elem_) {
      if (other.elem_) {
        other.elem_->refCountInc();
      }
      release();
      elem_ = other.elem_;
    }
    return *this;
  }
  ConstStringRef& operator=(ConstStringRef&& other) {
    if (this != &other) {
      release();
      elem_ = other.elem_;
      other.elem_ = nullptr;
    }
    return *this;
  }
  ~ConstStringRef() { release(); }

  // Whether the handle refers to nothing.
  bool empty() const noexcept { return elem_ == nullptr; }
  // The string; "" for an empty reference.
  const std::string& str() const noexcept { return elem_ ? elem_->str() : emptyString(); }
  const Elem* elem() const noexcept { return elem_; }

  // Two references are equal when they share one element.
  friend bool operator==(const ConstStringRef& a, const ConstStringRef& b) noexcept {
    return a.elem_ == b.elem_;
  }
  friend std::ostream& operator<<(std::ostream& os, const ConstStringRef& ref) {
    return os << ref.str();
  }

 private:
  static const std::string& emptyString() noexcept;
  void release() {
    if (elem_) {
      const Elem* elem = elem_;
      elem_ = nullptr;
      elem->refCountDec();
    }
  }

  const Elem* elem_ = nullptr;
};

// Hashes a reference by its string's bytes; an empty reference hashes to 0.
struct ConstStringRefHasher {
  // The hash of `ref`.
  size_t operator()(const ConstStringRef& ref) const noexcept {
    return ref.empty() ? 0 : std::hash<std::string>()(ref.str());
  }
};

// The set of interned strings of one scheduler tree.
class ConstStringCache {
 public:
  ConstStringCache() = default;
  ConstStringCache(const ConstStringCache&) = delete;
  ConstStringCache& operator=(const ConstStringCache&) = delete;
  ~ConstStringCache();

  // A reference to the element holding `string`, created on first use. Allocates only then.
  ConstStringRef intern(std::string_view string);
  // The number of distinct strings held.
  size_t size() const noexcept { return elems_.size(); }

 private:
  friend class ConstStringRef::Elem;

  struct ElemHasher {
    using is_transparent = void;
    size_t operator()(std::string_view s) const noexcept {
      return std::hash<std::string_view>()(s);
    }
    size_t operator()(const ConstStringRef::Elem& e) const noexcept { return (*this)(e.str()); }
  };
  struct ElemEqual {
    using is_transparent = void;
    static std::string_view view(std::string_view s) noexcept { return s; }
    static std::string_view view(const ConstStringRef::Elem& e) noexcept { return e.str(); }
    template <typename A, typename B>
    bool operator()(const A& a, const B& b) const noexcept {
      return view(a) == view(b);
    }
  };

  void eraseElem(const ConstStringRef::Elem& elem);

  std::unordered_set<ConstStringRef::Elem, ElemHasher, ElemEqual> elems_;
};

}  // namespace Tarvo
