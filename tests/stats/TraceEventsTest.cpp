#include <gtest/gtest.h>

#include <cmath>
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
  const std::string tricky = std::string("q\"b\\s/\n\t\r\x01\x1f\x7f", 12) + std::string(1, '\0');
  EXPECT_EQ(json::parse(jsonText(tricky)).get<std::string>(), tricky);
  EXPECT_EQ(jsonText(std::string("\x01\0", 2)), "\"\\u0001\\u0000\"");
  const std::string fffd = "\xef\xbf\xbd";
  struct Case {
    std::string in, out;
  } cases[] = {
      {"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},  // kept
      {"a\xff"
       "b",
       "a" + fffd + "b"},                               // byte that never occurs
      {"\x80", fffd},                                   // stray continuation
      {"\xc0\xaf", fffd + fffd},                        // overlong '/'
      {"\xe0\x80\xaf", fffd + fffd + fffd},             // overlong three-byte form
      {"\xed\xa0\x80", fffd + fffd + fffd},             // surrogate half
      {"\xf4\x90\x80\x80", fffd + fffd + fffd + fffd},  // above U+10FFFF
      {"x\xe2\x82", "x" + fffd + fffd},                 // cut at the end
      {"\xe2\x28\xa1", fffd + "(" + fffd},              // bad second byte
      {"\xf0\x9f\x98"
       "A",
       fffd + fffd + fffd + "A"},  // cut before an ASCII byte
  };
  for (const Case& c : cases) {
    std::string text = jsonText(c.in);
    EXPECT_EQ(json::parse(text).get<std::string>(), c.out) << text;
  }

  auto us = [](int64_t ns) {
    std::ostringstream os;
    writeMicroseconds(os, ns);
    return os.str();
  };
  EXPECT_EQ(us(0), "0.000");
  EXPECT_EQ(us(1234567), "1234.567");
  EXPECT_EQ(us(1000050), "1000.050");
  EXPECT_EQ(us(-1500), "-1.500");
  EXPECT_EQ(us(INT64_MIN), "-9223372036854775.808");
}

TEST(TraceEventsTest, RunsAreCompleteEventsOnTheirSchedulersTracksWhateverTheNames) {
  auto root = std::make_shared<TaskSchedulerRootManual>("root \"main\"");
  auto group = TaskGroupIs("group\\1", TaskPriority::normal, true, root);
  const std::vector<std::string> names = {"quote\"back\\slash",
                                          std::string("ctl\x01\n\x1f\0end", 10),
                                          "caf\xc3\xa9 \xf0\x9f\x98\x80", "bad\xff\xc0\xaf"};
  std::vector<std::shared_ptr<FnTask>> tasks;
  for (size_t i = 0; i < names.size(); ++i) {
    tasks.push_back(
        std::make_shared<FnTask>(root, i % 2 ? TaskPriority::low : TaskPriority::high, names[i]));
  }
  auto inner = std::make_shared<FnTask>(group, TaskPriority::normal, "inner");
  for (int round = 0; round < 2; ++round) {
    for (auto& t : tasks) {
      t->scheduleTask();
    }
    inner->scheduleTask();
    root->runUntilIdle();
  }
  tasks[0]->taskSuspendedIs(true);

  const TaskSchedulerHistory& history = *root->history();
  ASSERT_LT(history.size(), history.capacity());
  // Names as the JSON shows them: the invalid bytes of the last one each became U+FFFD.
  const std::string shownBad = "bad\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd";
  auto shown = [&](const std::string& raw) { return raw == names[3] ? shownBad : raw; };
  std::map<std::string, std::vector<double>> starts, ends;
  unsigned runs = 0;
  for (unsigned i = 0; i < history.size(); ++i) {
    const auto& e = history.event(i);
    if (e.eventType() == Type::runStart) {
      starts[shown(e.name().str())].push_back(micros(e.timestamp()));
      ++runs;
    } else if (e.eventType() == Type::runEnd) {
      ends[shown(e.name().str())].push_back(micros(e.timestamp()));
    }
  }
  ASSERT_EQ(runs, 2 * names.size() + 4);

  json trace = traceOf(*root);
  ASSERT_TRUE(trace["traceEvents"].is_array());
  EXPECT_EQ(trace["otherData"]["root"], "root \"main\"");
  std::map<int, std::string> tracks = threadNames(trace);
  ASSERT_EQ(tracks.size(), 2u);
  EXPECT_EQ(tracks[1], "root \"main\"");
  EXPECT_EQ(tracks[2], "group\\1");

  auto near = [](const std::vector<double>& list, double v) {
    for (double x : list) {
      if (std::fabs(x - v) < kTolerance) {
        return true;
      }
    }
    return false;
  };
  std::map<std::string, int> seen;
  std::map<int, std::vector<std::pair<double, double>>> slices;  // per track
  std::vector<json> parentRuns, innerRuns;
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
        EXPECT_EQ(e["args"]["task"], names[0]);
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
    slices[e["tid"].get<int>()].emplace_back(ts, ts + dur);
    if (name == "inner") {
      EXPECT_EQ(e["tid"], 2);
      EXPECT_EQ(e["args"]["scheduler"], "group\\1");
      EXPECT_EQ(e["args"]["priority"], "normal");
      innerRuns.push_back(e);
    } else {
      EXPECT_EQ(e["tid"], 1);
      EXPECT_EQ(e["args"]["scheduler"], "root \"main\"");
    }
    if (name == "group\\1;TaskGroup") {
      parentRuns.push_back(e);
    }
  }
  EXPECT_EQ(instants, history.size() - 2 * runs);
  EXPECT_EQ(suspends, 1u);
  // Valid names come back byte for byte.
  EXPECT_EQ(seen[names[0]], 2);
  EXPECT_EQ(seen[names[1]], 2);
  EXPECT_EQ(seen[names[2]], 2);
  EXPECT_EQ(seen[shownBad], 2);
  // The viewers need the slices of one track to nest or follow one another, never to overlap.
  for (const auto& [tid, list] : slices) {
    for (const auto& [s1, e1] : list) {
      for (const auto& [s2, e2] : list) {
        bool apart = e1 <= s2 + kTolerance || e2 <= s1 + kTolerance;
        bool nested = (s1 <= s2 + kTolerance && e2 <= e1 + kTolerance) ||
                      (s2 <= s1 + kTolerance && e1 <= e2 + kTolerance);
        EXPECT_TRUE(apart || nested) << "track " << tid;
      }
    }
  }
  ASSERT_EQ(parentRuns.size(), 2u);
  ASSERT_EQ(innerRuns.size(), 2u);
  for (int i = 0; i < 2; ++i) {
    // Each inner run lies within one of the parent's runs.
    double innerStart = innerRuns[i]["ts"],
           innerEnd = innerStart + innerRuns[i]["dur"].get<double>();
    bool inside = false;
    for (const json& p : parentRuns) {
      double ps = p["ts"], pe = ps + p["dur"].get<double>();
      inside = inside || (ps - kTolerance <= innerStart && innerEnd <= pe + kTolerance);
    }
    EXPECT_TRUE(inside) << innerRuns[i];
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
  // Keep the history from a's "run end" on: its "run start" falls off the ring.
  const TaskSchedulerHistory& history = *root->history();
  unsigned keep = 0;
  while (history.event(keep).eventType() != Type::runEnd) {
    ++keep;
  }
  ASSERT_EQ(history.event(keep + 1).eventType(), Type::runStart);
  root->historyEntryCountIs(keep + 1);
  const double oldest = micros(history.event(keep).timestamp());
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

  json trace = traceOf(*root);
  ASSERT_TRUE(trace["traceEvents"].is_array());
  bool cut = false, thrown = false, vanished = false;
  int strayTid = 0;
  for (const json& e : trace["traceEvents"]) {
    if (e["ph"] == "X" && e["name"] == "a") {
      cut = true;
      EXPECT_EQ(e["args"]["note"], "start not in history");
      EXPECT_NEAR(e["ts"].get<double>(), oldest, kTolerance);
    }
    if (e["ph"] == "i" && e["name"] == "run start") {
      thrown = true;
      EXPECT_EQ(e["args"]["task"], "thrower");
      EXPECT_EQ(e["args"]["note"], "no run end recorded");
    }
    if (e["ph"] == "i" && e["args"].contains("task") && e["args"]["task"] == "gone") {
      vanished = true;
      strayTid = e["tid"];
      EXPECT_FALSE(e["args"].contains("scheduler"));
    }
    EXPECT_NE(e["name"], "thrower") << "a run that threw has no complete event";
  }
  EXPECT_TRUE(cut);
  EXPECT_TRUE(thrown);
  EXPECT_TRUE(vanished);
  EXPECT_EQ(threadNames(trace)[strayTid], "(names no longer in the tree)");

  // Written from inside a run: that run is open, and says so.
  json inside = json::parse(fromInside);
  int open = 0;
  for (const json& e : inside["traceEvents"]) {
    if (e["ph"] == "B") {
      ++open;
      EXPECT_EQ(e["name"], "writer");
      EXPECT_EQ(e["args"]["note"], "still running");
    }
  }
  EXPECT_EQ(open, 1);
}

}  // namespace
}  // namespace Tarvo
