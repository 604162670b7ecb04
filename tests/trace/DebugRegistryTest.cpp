#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "Tarvo/Debug.h"
#include "Tarvo/Exception.h"
#include "Tarvo/Platform.h"
#include "common/TestSupport.h"

using namespace Tarvo;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

// The registry is process-wide: every test uses names of its own.
struct HandlerDeleter {
  void operator()(Platform::DebugHandler* h) const { Platform::destroyDebugHandler(h); }
};
using HandlerPtr = std::unique_ptr<Platform::DebugHandler, HandlerDeleter>;

HandlerPtr handler(const std::string& name) {
  return HandlerPtr(Platform::getDebugHandler(name));
}

// The levels a handler obtained now under `name` starts with.
uint32_t startLevels(const std::string& name) {
  return handler(name)->levelMask();
}

constexpr uint32_t bits(std::initializer_list<unsigned> levels) {
  uint32_t mask = 0;
  for (unsigned l : levels)
    mask |= 1u << l;
  return mask;
}

std::string registryListing() {
  testing::internal::CaptureStdout();
  Platform::dumpTarvoDebugMap();
  return testing::internal::GetCapturedStdout();
}

// The part of the listing from the line `from` up to the line `to` (or the end).
std::string section(const std::string& listing, const std::string& from, const std::string& to) {
  size_t begin = listing.find(from);
  size_t end = to.empty() ? std::string::npos : listing.find(to, begin);
  return listing.substr(begin, end == std::string::npos ? end : end - begin);
}

// How many live handlers the listing shows with `text` in their line.
size_t liveHandlers(const std::string& text) {
  const std::string handlers = section(registryListing(), "Handlers:", "");
  size_t n = 0;
  for (size_t at = handlers.find(text); at != std::string::npos; at = handlers.find(text, at + 1)) {
    ++n;
  }
  return n;
}

}  // namespace

TEST(TraceRegistry, SettingsCombineByExactNameAndLongestPrefix) {
  EXPECT_EQ(startLevels("TarvoRegistryProbe"), bits({0, 1}));  // the library default
  EXPECT_EQ(startLevels("NotTarvoProbe"), 0u);
  EXPECT_THAT(registryListing(), HasSubstr("Wildcard:\n    Tarvo*/01\n"));
  // An exact setting made first receives a later wildcard over it.
  Platform::setupTarvoDebug("RegFoo/3,RegFoo*/1");
  EXPECT_EQ(startLevels("RegFoo"), bits({1, 3}));
  EXPECT_EQ(startLevels("RegFooBar"), bits({1}));
  EXPECT_EQ(startLevels("TarvoStillDefault"), bits({0, 1}));
  // The longest prefix wins; a new exact setting starts from the prefix that covers it.
  Platform::setupTarvoDebug("RegLong*/2,RegLongPrefix*/7,RegLongExact/4");
  EXPECT_EQ(startLevels("RegLongPrefixName"), bits({2, 7}));
  EXPECT_EQ(startLevels("RegLongOther"), bits({2}));
  EXPECT_EQ(startLevels("RegLongExact"), bits({2, 4}));

  // Thousands of entries apply in order.
  std::string spec;
  for (int i = 0; i < 3000; ++i) {
    spec += "RegMany" + std::to_string(i) + (i % 2 ? "*/" : "/") + std::to_string(i % 10) + ",";
  }
  Platform::setupTarvoDebug(spec.c_str());
  // The exact setting RegMany2998 started from the prefix RegMany299* (level 9, itself
  // started from RegMany29*) and added its own level 8.
  EXPECT_EQ(startLevels("RegMany2998"), bits({8, 9}));
  EXPECT_EQ(startLevels("RegMany2999x"), bits({9}));
  EXPECT_EQ(startLevels("RegMany1000"), bits({0, 1}));
}

TEST(TraceRegistry, GrammarSkipsUnknownLevelCharactersAndOnlyATrailingStarIsAWildcard) {
  for (auto [spec, mask] : {std::pair{"01", bits({0, 1})},
                            {"x9y", bits({9})},
                            {"*", 0x3ffu},
                            {"1/2", bits({1, 2})},
                            {"", 0u}}) {
    EXPECT_EQ(Zel::DebugControl::parseLevels(spec), mask) << spec;
  }
  bool wildcard = false;
  EXPECT_EQ(Zel::DebugControl::parseName("A*b", wildcard), "A*b");
  EXPECT_FALSE(wildcard);
  EXPECT_EQ(Zel::DebugControl::parseName("*", wildcard), "");
  EXPECT_TRUE(wildcard);

  Platform::setupTarvoDebug("RegEmptyA/,RegEmptyB,,RegSlash/1/2");
  const std::string listing = registryListing();
  for (const char* line : {"    RegEmptyA/\n", "    RegEmptyB/\n", "    RegSlash/12\n"}) {
    EXPECT_THAT(listing, HasSubstr(line));
  }

  // A handler cannot be a wildcard: the star is dropped with a warning.
  testing::internal::CaptureStderr();
  EXPECT_EQ(handler("RegWild*")->name(), "RegWild");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Tarvo::Debug - Warning - Wild card specifier ignored getting handler for RegWild* "
            "using RegWild\n");
}

TEST(TraceRegistry, SetAndClearReachEveryLiveHandlerAndSettingsLeftEmptyGo) {
  HandlerPtr first = handler("RegClearMe");
  HandlerPtr second = handler("RegClearMe");
  Platform::setupTarvoDebug("RegClearMe/35,RegClr*/4");
  EXPECT_EQ(first->levelMask(), bits({3, 5}));
  first.reset();  // the other handler of the name stays listed
  EXPECT_EQ(liveHandlers("    RegClearMe/35\n"), 1u);
  Platform::clearTarvoDebug("RegClearMe/3");
  EXPECT_EQ(second->levelMask(), bits({5}));
  Platform::clearTarvoDebug("RegClearMe/5");
  EXPECT_THAT(section(registryListing(), "Specific:", "Wildcard:"), Not(HasSubstr("RegClearMe")));

  // A wildcard clear reaches longer prefixes and exact settings below it.
  HandlerPtr under = handler("RegClrUnder");
  Platform::setupTarvoDebug("RegClrDeep*/6,RegClrExact/8");
  Platform::clearTarvoDebug("RegClr*/468");
  EXPECT_EQ(under->levelMask(), 0u);
  for (const char* gone : {"RegClr*/", "RegClrDeep*/", "RegClrExact/"}) {
    EXPECT_THAT(registryListing(), Not(HasSubstr(gone)));
  }

  // Clearing a name that only a wildcard covers changes its live handler but records no
  // exact setting: a new handler still starts from the wildcard.
  Platform::setupTarvoDebug("RegCover*/13");
  Platform::clearTarvoDebug("RegCoverName/1");
  const std::string listing = registryListing();
  EXPECT_THAT(section(listing, "Handlers:", ""), HasSubstr("    RegCoverName/3\n"));
  EXPECT_THAT(section(listing, "Specific:", "Wildcard:"), Not(HasSubstr("RegCoverName")));
  EXPECT_EQ(startLevels("RegCoverName"), bits({1, 3}));
}

// Handlers built directly: a fixed one ignores settings, one on an external word refuses
// enabledIs.
TEST(TraceRegistry, EnabledIsSetsAnyBitAndFixedOrExternalHandlersKeepTheirLevels) {
  HandlerPtr h = handler("RegEnabled");
  h->enabledIs(12, true);
  h->enabledIs(3, true);
  h->enabledIs(3, false);
  EXPECT_EQ(h->levelMask(), bits({12}));
  EXPECT_THAT(registryListing(), HasSubstr("    RegEnabled/12\n"));

  std::atomic<uint32_t> shared{bits({4})};
  std::unique_ptr<Zel::DebugHandler> fixed, external;
  {
    Platform::LocoGuard guard;
    fixed = std::make_unique<Zel::DebugHandler>("RegFixed", bits({2}), true);
    external = std::make_unique<Zel::DebugHandler>("RegExternal", 0, false, &shared);
  }
  Platform::setupTarvoDebug("RegFixed/5,RegFix*/7");
  Platform::clearTarvoDebug("RegFixed/2,RegFix*/2");
  EXPECT_EQ(fixed->levelMask(), bits({2}));
  EXPECT_THAT(registryListing(), HasSubstr("    RegFixed+/2\n"));
  EXPECT_TRUE(external->enabled(4));
  EXPECT_THAT([&] { external->enabledIs(1, true); },
              ::testing::ThrowsMessage<AssertException>(
                  ::testing::ContainsRegex("\"Debug:enabledIs:[0-9]+: Cannot use this with a "
                                           "non-null levelsPtr passed to constructor")));
  Platform::LocoGuard guard;
  fixed.reset();
  external.reset();
}

TEST(TraceRegistryDeathTest, RegistryOperationsWithoutTheLockAbort) {
  EXPECT_DEATH(Zel::DebugControl::findWildcard("x"), "DebugControl::findWildcard\\(\\) no loco");
  EXPECT_DEATH(Zel::DebugControl::initialize(), "DebugControl::initialize\\(\\) no loco");
  EXPECT_DEATH(Zel::DebugControl("x", 0, false), "DebugControl::DebugControl\\(\\) no loco");
  EXPECT_DEATH(Zel::DebugHandler("x", 0, false), "DebugHandler::DebugHandler\\(\\) no loco");
}

// Process-wide settings, so each runs in a child process.
TEST(TraceRegistry, StarStarReachesEveryHandlerAndClearingTheDefaultRemovesIt) {
  for (auto body : {+[] {
                      HandlerPtr before = handler("RegStarBefore");
                      Platform::setupTarvoDebug("*/*");
                      return before->levelMask() == 0x3ff && startLevels("RegStarAfter") == 0x3ff;
                    },
                    +[] {
                      HandlerPtr h = handler("TarvoClearDefault");
                      Platform::clearTarvoDebug("Tarvo*/01");
                      return h->levelMask() == 0 && startLevels("TarvoLater") == 0 &&
                             registryListing().find("Tarvo*/") == std::string::npos;
                    }}) {
    auto child = Tarvo::Test::runInChild([body] { return body() ? 0 : 1; });
    EXPECT_EQ(child.exitCode, 0) << child.out << child.err;
  }
}

TEST(TraceRegistry, TraceFromEnvironmentAddsToTheLibraryDefault) {
  if (Tarvo::Test::isChildRun()) {
    EXPECT_EQ(startLevels("TarvoEnvProbe"), bits({0, 1, 5}));
    EXPECT_EQ(startLevels("EnvFoo"), bits({2, 3}));
    EXPECT_EQ(startLevels("EnvOther"), 0u);
    return;
  }
  auto result = Tarvo::Test::runSelf("TraceRegistry.TraceFromEnvironmentAddsToTheLibraryDefault",
                                     {"TRACE=Tarvo*/5,EnvFoo/2,EnvFoo/3"});
  EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
}

TEST(TraceHolder, CopiesOfAnOwningHolderOwnAFreshHandlerAndSharingCopiesShare) {
  auto live = [] { return liveHandlers("TarvoHolderProbe"); };
  HandlerPtr shared = handler("TarvoHolderProbe");
  {
    Debuggable owner("TarvoHolderProbe");
    Debuggable copy(owner);
    EXPECT_TRUE(copy.debugHandlerOwned());
    EXPECT_NE(copy.debugHandler(), owner.debugHandler());
    EXPECT_EQ(copy.debugHandler()->name(), "TarvoHolderProbe");
    DebugSupport user(*shared);
    DebugSupport userCopy(user);
    EXPECT_EQ(userCopy.debugHandler(), shared.get());
    EXPECT_FALSE(userCopy.debugHandlerOwned());
    EXPECT_EQ(live(), 3u);

    Debuggable sharing(*shared);
    copy = sharing;  // releases its own handler, then shares
    EXPECT_EQ(copy.debugHandler(), shared.get());
    EXPECT_FALSE(copy.debugHandlerOwned());
    EXPECT_EQ(live(), 2u);
    sharing = owner;  // now owns a fresh one
    EXPECT_TRUE(sharing.debugHandlerOwned());
    EXPECT_NE(sharing.debugHandler(), owner.debugHandler());
    Platform::DebugHandler* before = owner.debugHandler();
    Debuggable& self = owner;
    owner = self;
    EXPECT_EQ(owner.debugHandler(), before);
    EXPECT_EQ(live(), 3u);
  }
  EXPECT_EQ(live(), 1u) << "owned handlers go with their holders, shared ones stay";
}
