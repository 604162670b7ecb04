#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
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
  auto first =
      std::make_shared<FnTask>(root, TaskPriority::high, std::string("q\"b\\s\x01\n\0", 8));
  auto second = std::make_shared<FnTask>(root, TaskPriority::low, "bad\xff");
  auto inner = std::make_shared<FnTask>(group, TaskPriority::normal, "inner");
  root->clearHistory();
  TaskSchedulerHistory& history = *root->history();
  auto at = [](int us) { return TaskTimePoint(std::chrono::microseconds(us)); };
  history.insert(at(2), Type::runStart, first.get());
  history.insert(at(5), Type::runEnd, first.get());
  // A group's runs lie within its parent task's run; each pairs with its own start.
  history.insert(at(6), Type::runStart, &group->parentTask());
  history.insert(at(7), Type::runStart, inner.get());
  history.insert(at(8), Type::runEnd, inner.get());
  history.insert(at(9), Type::runEnd, &group->parentTask());
  history.insert(at(10), Type::runStart, second.get());
  history.insert(at(12), Type::runEnd, second.get());
  history.insert(at(13), Type::suspendOn, first.get());
  history.insert(at(14), Type::schedulerIdle, group.get());

  // Names are escaped; an invalid UTF-8 byte becomes U+FFFD.
  std::string expected =
      R"({"displayTimeUnit":"ns","otherData":{"root":"root \"main\"","historyCapacity":100,)"
      R"("historyEvents":10},"traceEvents":[)"
      "\n"
      R"({"ph":"X","name":"q\"b\\s\u0001\n\u0000","cat":"run","ts":2.000,"pid":PID,"tid":1,)"
      R"("dur":3.000,"args":{"task":"q\"b\\s\u0001\n\u0000","priority":"high",)"
      R"("scheduler":"root \"main\""}},)"
      "\n"
      R"({"ph":"X","name":"inner","cat":"run","ts":7.000,"pid":PID,"tid":2,"dur":1.000,)"
      R"("args":{"task":"inner","priority":"normal","scheduler":"group\\1"}},)"
      "\n"
      R"({"ph":"X","name":"group\\1;TaskGroup","cat":"run","ts":6.000,"pid":PID,"tid":1,)"
      R"("dur":3.000,"args":{"task":"group\\1;TaskGroup","priority":"normal",)"
      R"("scheduler":"root \"main\""}},)"
      "\n"
      R"({"ph":"X","name":"bad)"
      "\xef\xbf\xbd"
      R"(","cat":"run","ts":10.000,"pid":PID,"tid":1,"dur":2.000,"args":{"task":"bad)"
      "\xef\xbf\xbd"
      R"(","priority":"low","scheduler":"root \"main\""}},)"
      "\n"
      R"({"ph":"i","name":"suspendOn","cat":"task","ts":13.000,"pid":PID,"tid":1,"s":"t",)"
      R"("args":{"task":"q\"b\\s\u0001\n\u0000","priority":"high",)"
      R"("scheduler":"root \"main\""}},)"
      "\n"
      R"({"ph":"i","name":"schedulerIdle","cat":"scheduler","ts":14.000,"pid":PID,"tid":2,)"
      R"("s":"t","args":{"scheduler":"group\\1"}},)"
      "\n"
      R"({"ph":"M","name":"process_name","pid":PID,"tid":1,"args":{"name":"root \"main\""}},)"
      "\n"
      R"({"ph":"M","name":"thread_name","pid":PID,"tid":1,"args":{"name":"root \"main\""}},)"
      "\n"
      R"({"ph":"M","name":"thread_sort_index","pid":PID,"tid":1,"args":{"sort_index":1}},)"
      "\n"
      R"({"ph":"M","name":"thread_name","pid":PID,"tid":2,"args":{"name":"group\\1"}},)"
      "\n"
      R"({"ph":"M","name":"thread_sort_index","pid":PID,"tid":2,"args":{"sort_index":2}})"
      "\n]}\n";
  for (size_t pid = expected.find("PID"); pid != std::string::npos; pid = expected.find("PID")) {
    expected.replace(pid, 3, std::to_string(getpid()));
  }
  std::ostringstream os;
  root->writeTraceEvents(os);
  EXPECT_EQ(os.str(), expected);
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
