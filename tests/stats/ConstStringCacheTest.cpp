#include <gtest/gtest.h>

#include <memory>

#include "Tarvo/ConstStringCache.h"
#include "Tarvo/Exception.h"

namespace Tarvo {
namespace {

TEST(ConstStringCacheTest, EqualStringsShareOneCountedElementAndMisuseIsReported) {
  auto cache = std::make_unique<ConstStringCache>();
  {
    ConstStringRef a = cache->intern("name");
    ConstStringRef b = cache->intern(std::string("na") + "me");
    EXPECT_EQ(a.elem(), b.elem());
    ConstStringRef c = a;
    c = cache->intern("other");
    EXPECT_EQ(a.elem()->refCount(), 2u);
    EXPECT_EQ(cache->size(), 2u);
  }
  EXPECT_EQ(cache->size(), 0u);
  ConstStringRef::Elem loose(cache.get(), "loose");
  EXPECT_THROW(loose.refCountDec(), AssertException);

  // A reference that outlives its cache on purpose, never released.
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
