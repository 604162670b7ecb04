#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Tarvo/TaskScheduler.h"
#include "scheduler/SchedulerTestSupport.h"
#include "stats/JsonText.h"

namespace Tarvo {
namespace {

using nlohmann::json;
using Test::FnTask;
using Type = TaskSchedulerEventType;

json traceOf(const TaskSchedulerRoot& root) {
  std::ostringstream os;
  root.writeTraceEvents(os);
  // Throws, failing the test, on anything that is not valid UTF-8 JSON.
  return json::parse(os.str());
}

std::string jsonText(std::string_view s) {
  std::ostringstream os;
  writeJsonString(os, s);
  return os.str();
}

double micros(const TaskTimePoint& t) {
  return std::chrono::duration<double, std::micro>(t.time_since_epoch()).count();
}

// Event time stamps are printed to the nanosecond; as doubles near 1e12 microseconds they
// keep about a tenth of a nanosecond.
constexpr double kTolerance = 0.0006;

std::map<int, std::string> threadNames(const json& trace) {
  std::map<int, std::string> names;
  for (const json& e : trace["traceEvents"]) {
    if (e["ph"] == "M" && e["name"] == "thread_name") {
      names[e["tid"].get<int>()] = e["args"]["name"].get<std::string>();
    }
  }
  return names;
}

TEST(JsonTextTest, StringsEscapeControlBytesAndReplaceEveryInvalidUtf8Byte) {
  const std::string tricky("q\"b\\s/\n\t\r\x01\x1f\x7f\0", 13);
  EXPECT_EQ(json::parse(jsonText(tricky)).get<std::string>(), tricky);
  EXPECT_EQ(jsonText(std::string("\x01\0", 2)), "\"\\u0001\\u0000\"");
  const std::string fffd = "\xef\xbf\xbd";
  const std::pair<std::string, std::string> cases[] = {
      {"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},  // kept
      {"a\xffz", "a" + fffd + "z"},                     // byte that never occurs
      {"\x80", fffd},                                   // stray continuation
      {"\xc0\xaf", fffd + fffd},                        // overlong '/'
      {"\xe0\x80\xaf", fffd + fffd + fffd},             // overlong three-byte form
      {"\xed\xa0\x80", fffd + fffd + fffd},             // surrogate half
      {"\xf4\x90\x80\x80", fffd + fffd + fffd + fffd},  // above U+10FFFF
      {"x\xe2\x82", "x" + fffd + fffd},                 // cut at the end
      {"\xe2\x28\xa1", fffd + "(" + fffd},              // bad second byte
      {"\xf0\x9f\x98Z", fffd + fffd + fffd + "Z"},      // cut before an ASCII byte
  };
  for (const auto& [in, out] : cases) {
    std::string text = jsonText(in);
    EXPECT_EQ(json::parse(text).get<std::string>(), out) << text;
  }

  for (auto [ns, text] : {std::pair<int64_t, const char*>{0, "0.000"},
                          {1234567, "1234.567"},
                          {1000050, "1000.050"},
                          {-1500, "-1.500"},
                          {INT64_MIN, "-9223372036854775.808"}}) {
    std::ostringstream os;
    writeMicroseconds(os, ns);
    EXPECT_EQ(os.str(), text);
  }
}

TEST(TraceEventsTest, RunsAreCompleteEventsOnTheirSchedulersTracksWhateverTheNames) {
  auto root = std::make_shared<TaskSchedulerRootManual>("root \"main\"");
  auto group = TaskGroupIs("group\\1", TaskPriority::normal, true, root);
  // Escaped bytes and valid UTF-8 come back byte for byte; each invalid byte becomes U+FFFD.
  const std::string odd("q\"b\\s\x01\n\x1f\0 caf\xc3\xa9", 15), bad = "bad\xff\xc0\xaf";
  const std::string shownBad = "bad\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd";
  auto first = std::make_shared<FnTask>(root, TaskPriority::high, odd);
  auto second = std::make_shared<FnTask>(root, TaskPriority::low, bad);
  auto inner = std::make_shared<FnTask>(group, TaskPriority::normal, "inner");
  for (int round = 0; round < 2; ++round) {
    for (FnTask* t : {first.get(), second.get(), inner.get()}) {
      t->scheduleTask();
    }
    root->runUntilIdle();
  }
  first->taskSuspendedIs(true);

  const TaskSchedulerHistory& history = *root->history();
  ASSERT_LT(history.size(), history.capacity());
  std::map<std::string, std::vector<double>> starts, ends;
  unsigned runs = 0;
  for (unsigned i = 0; i < history.size(); ++i) {
    const auto& e = history.event(i);
    const std::string name = e.name().str() == bad ? shownBad : e.name().str();
    if (e.eventType() == Type::runStart) {
      starts[name].push_back(micros(e.timestamp()));
      ++runs;
    } else if (e.eventType() == Type::runEnd) {
      ends[name].push_back(micros(e.timestamp()));
    }
  }
  ASSERT_EQ(runs, 8u);

  json trace = traceOf(*root);
  ASSERT_TRUE(trace["traceEvents"].is_array());
  EXPECT_EQ(trace["otherData"]["root"], "root \"main\"");
  EXPECT_EQ(threadNames(trace),
            (std::map<int, std::string>{{1, "root \"main\""}, {2, "group\\1"}}));

  auto near = [](const std::vector<double>& list, double v) {
    return std::any_of(list.begin(), list.end(),
                       [v](double x) { return std::fabs(x - v) < kTolerance; });
  };
  std::map<std::string, int> seen;
  struct Slice {
    double start, end;
    std::string name;
  };
  std::vector<Slice> slices;
  unsigned instants = 0, suspends = 0;
  for (const json& e : trace["traceEvents"]) {
    ASSERT_TRUE(e["pid"].is_number_integer() && e["tid"].is_number_integer() &&
                e["name"].is_string())
        << e;
    std::string ph = e["ph"];
    if (ph == "M") {
      continue;
    }
    ASSERT_TRUE(e["ts"].is_number()) << e;
    if (ph == "i") {
      ++instants;
      EXPECT_EQ(e["s"], "t");
      if (e["name"] == "suspendOn") {
        ++suspends;
        EXPECT_EQ(e["args"]["task"], odd);
        EXPECT_EQ(e["args"]["priority"], "high");
      }
      continue;
    }
    ASSERT_EQ(ph, "X") << e;
    std::string name = e["name"];
    double ts = e["ts"], dur = e["dur"];
    EXPECT_GE(dur, 0.0);
    EXPECT_EQ(e["args"]["task"], name);
    EXPECT_TRUE(near(starts[name], ts)) << e;
    EXPECT_TRUE(near(ends[name], ts + dur)) << e;
    EXPECT_FALSE(e["args"].contains("note")) << e;
    ++seen[name];
    slices.push_back({ts, ts + dur, name});
    const bool inGroup = name == "inner";
    EXPECT_EQ(e["tid"], inGroup ? 2 : 1);
    EXPECT_EQ(e["args"]["scheduler"], inGroup ? "group\\1" : "root \"main\"");
    if (inGroup) {
      EXPECT_EQ(e["args"]["priority"], "normal");
    }
  }
  EXPECT_EQ(instants, history.size() - 2 * runs);
  EXPECT_EQ(suspends, 1u);
  EXPECT_EQ(seen, (std::map<std::string, int>{
                      {odd, 2}, {shownBad, 2}, {"inner", 2}, {"group\\1;TaskGroup", 2}}));
  // The viewers need slices to nest or follow one another, never to overlap; each inner run
  // lies within one run of the group's parent task.
  for (const Slice& a : slices) {
    int parents = 0;
    for (const Slice& b : slices) {
      const bool within = b.start <= a.start + kTolerance && a.end <= b.end + kTolerance;
      const bool around = a.start <= b.start + kTolerance && b.end <= a.end + kTolerance;
      const bool apart = a.end <= b.start + kTolerance || b.end <= a.start + kTolerance;
      EXPECT_TRUE(apart || within || around) << a.name << " / " << b.name;
      parents += within && b.name == "group\\1;TaskGroup";
    }
    if (a.name == "inner") {
      EXPECT_EQ(parents, 1);
    }
  }
}

TEST(TraceEventsTest, CutThrownUnfinishedAndVanishedRunsAreMarked) {
  auto root = std::make_shared<TaskSchedulerRootManual>("root");
  std::string fromInside;
  auto a = std::make_shared<FnTask>(root, TaskPriority::normal, "a");
  auto thrower = std::make_shared<FnTask>(root, TaskPriority::normal, "thrower",
                                          [](FnTask&) { throw std::runtime_error("boom"); });
  auto writer = std::make_shared<FnTask>(root, TaskPriority::normal, "writer", [&](FnTask&) {
    std::ostringstream os;
    root->writeTraceEvents(os);
    fromInside = os.str();
  });
  a->scheduleTask();
  root->runUntilIdle();
  // Keep the history from a's "run end" on (then "idle", "schedulerIdle"): its "run start"
  // falls off the ring.
  const TaskSchedulerHistory& history = *root->history();
  ASSERT_EQ(history.event(3).eventType(), Type::runStart);
  root->historyEntryCountIs(3);
  ASSERT_EQ(history.event(2).eventType(), Type::runEnd);
  const double oldest = micros(history.event(2).timestamp());
  root->historyEntryCountIs(100);
  {
    auto gone = std::make_shared<FnTask>(root, TaskPriority::low, "gone");
    gone->includeInDeadTaskIs(false);
    gone->scheduleTask();
  }
  thrower->scheduleTask();
  EXPECT_THROW(root->runUntilIdle(), std::runtime_error);
  writer->scheduleTask();
  root->runUntilIdle();

  auto where = [](const json& trace, auto pred) {
    std::vector<json> found;
    std::copy_if(trace["traceEvents"].begin(), trace["traceEvents"].end(),
                 std::back_inserter(found), pred);
    return found;
  };
  json trace = traceOf(*root);
  auto cut = where(trace, [](const json& e) { return e["name"] == "a"; });
  ASSERT_EQ(cut.size(), 1u);
  EXPECT_EQ(cut[0]["ph"], "X");
  EXPECT_EQ(cut[0]["args"]["note"], "start not in history");
  EXPECT_NEAR(cut[0]["ts"].get<double>(), oldest, kTolerance);
  // A run that threw has no complete event, only its start.
  EXPECT_TRUE(where(trace, [](const json& e) { return e["name"] == "thrower"; }).empty());
  auto thrown = where(trace, [](const json& e) { return e["name"] == "run start"; });
  ASSERT_EQ(thrown.size(), 1u);
  EXPECT_EQ(thrown[0]["ph"], "i");
  EXPECT_EQ(thrown[0]["args"]["task"], "thrower");
  EXPECT_EQ(thrown[0]["args"]["note"], "no run end recorded");
  auto vanished = where(trace, [](const json& e) { return e["args"].value("task", "") == "gone"; });
  ASSERT_FALSE(vanished.empty());
  for (const json& e : vanished) {
    EXPECT_FALSE(e["args"].contains("scheduler")) << e;
    EXPECT_EQ(threadNames(trace)[e["tid"].get<int>()], "(names no longer in the tree)");
  }

  // Written from inside a run: that run is open, and says so.
  auto open = where(json::parse(fromInside), [](const json& e) { return e["ph"] == "B"; });
  ASSERT_EQ(open.size(), 1u);
  EXPECT_EQ(open[0]["name"], "writer");
  EXPECT_EQ(open[0]["args"]["note"], "still running");
}

}  // namespace
}  // namespace Tarvo
