#include "Tarvo/ConstStringCache.h"

#include <iostream>

#include "Tarvo/Exception.h"

namespace Tarvo {

const std::string& ConstStringRef::emptyString() noexcept {
  static const std::string empty;
  return empty;
}

void ConstStringRef::Elem::releaseLast() const {
  if (refCount_ == 0) {
    debugAndThrowAssertException(nullptr, 0, "", "ConstStringCache", "refCountDec", __LINE__);
  }
  if (--refCount_ == 0) {
    cache_->eraseElem(*this);
  }
}

ConstStringRef ConstStringCache::intern(std::string_view string) {
  auto it = elems_.find(string);
  if (it == elems_.end()) {
    it = elems_.emplace(this, string).first;
  }
  return ConstStringRef(&*it);
}

void ConstStringCache::eraseElem(const ConstStringRef::Elem& elem) {
  auto it = elems_.find(elem.str());
  if (it == elems_.end() || &*it != &elem) {
    debugAndThrowAssertException(nullptr, 0, "", "ConstStringCache", "eraseElem", __LINE__);
  }
  elems_.erase(it);
}

ConstStringCache::~ConstStringCache() {
  if (!elems_.empty()) {
    try {
      debugAndThrowAssertException(nullptr, 0, "Destroying ConstStringCache with open references",
                                   "ConstStringCache", "~ConstStringCache", __LINE__);
    } catch (const AssertException& e) {
      std::cerr << e.message() << " (" << elems_.size() << " names)" << std::endl;
    }
  }
}

}  // namespace Tarvo
