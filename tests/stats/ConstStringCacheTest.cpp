#include <gtest/gtest.h>

#include <memory>

#include "Tarvo/ConstStringCache.h"
#include "Tarvo/Exception.h"

namespace Tarvo {
namespace {

TEST(ConstStringCacheTest, EqualStringsShareOneCountedElement) {
  ConstStringCache cache;
  {
    ConstStringRef a = cache.intern("name");
    ConstStringRef b = cache.intern(std::string("na") + "me");
    EXPECT_EQ(a.elem(), b.elem());
    EXPECT_EQ(a.elem()->refCount(), 2u);
    ConstStringRef c = a;
    c = cache.intern("other");
    EXPECT_EQ(a.elem()->refCount(), 2u);
    EXPECT_EQ(cache.size(), 2u);
  }
  EXPECT_EQ(cache.size(), 0u);
  ConstStringRef::Elem loose(&cache, "loose");
  EXPECT_THROW(loose.refCountDec(), AssertException);
}

TEST(ConstStringCacheTest, DestroyingWithOpenReferencesReportsAndFrees) {
  auto cache = std::make_unique<ConstStringCache>();
  // The reference outlives the cache on purpose and is never released.
  alignas(ConstStringRef) unsigned char storage[sizeof(ConstStringRef)];
  std::construct_at(reinterpret_cast<ConstStringRef*>(storage), cache->intern("open"));
  ::testing::internal::CaptureStderr();
  cache.reset();
  EXPECT_NE(::testing::internal::GetCapturedStderr().find(
                "Destroying ConstStringCache with open references"),
            std::string::npos);
}

}  // namespace
}  // namespace Tarvo
