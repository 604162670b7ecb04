#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <iomanip>
#include <locale>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "Tarvo/TaskScheduler.h"
#include "scheduler/SchedulerTestSupport.h"

namespace Tarvo {
namespace {

using nlohmann::json;
using Test::FnTask;

std::vector<std::string> split(const std::string& s) {
  std::istringstream is(s);
  std::vector<std::string> out;
  for (std::string w; is >> w;) {
    out.push_back(w);
  }
  return out;
}

std::string fixed(double v, int decimals) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.*f", decimals, v);
  return buffer;
}

std::string maybe(const json& v) {
  return v.is_null() ? "-" : std::to_string(v.get<uint64_t>());
}

// Checks the rows of the text table headed `title` against the JSON records, row by row.
void expectTableMatches(const std::vector<std::string>& lines, const std::string& title,
                        const json& records, bool dead) {
  size_t at = 0;
  while (at < lines.size() && lines[at].rfind(title + " ", 0) != 0) {
    ++at;
  }
  ASSERT_LT(at, lines.size()) << title;
  const size_t width = lines[at].find(" SP");
  ASSERT_EQ(lines.size() - at > records.size(), true);
  for (size_t i = 0; i < records.size(); ++i) {
    const std::string& row = lines[at + 1 + i];
    const json& r = records[i];
    SCOPED_TRACE(row);
    std::string name = row.substr(0, width);
    name.erase(name.find_last_not_of(' ') + 1);
    EXPECT_EQ(name, r["name"]);
    EXPECT_EQ(row.substr(width + 1, 2), r["status"]);
    std::vector<std::string> f = split(row.substr(width + 3));
    ASSERT_EQ(f.size(), dead ? 13u : 12u);
    size_t k = 0;
    EXPECT_EQ(f[k++], std::to_string(r["runCount"].get<uint32_t>()));
    EXPECT_EQ(f[k++], fixed(r["totalRunTimeNs"].get<int64_t>() / 1e9, 3));
    EXPECT_EQ(f[k++], fixed(r["lastDelayNs"].get<int64_t>() / 1e9, 3));
    EXPECT_EQ(f[k++], fixed(r["maxDelayNs"].get<int64_t>() / 1e9, 3));
    EXPECT_EQ(f[k++], std::to_string(r["quantumUsed200"].get<uint32_t>()));
    EXPECT_EQ(f[k++], std::to_string(r["quantumUsed500"].get<uint32_t>()));
    EXPECT_EQ(f[k++], std::to_string(r["maxRunNs"].get<int64_t>() / 1000000));
    if (dead) {
      EXPECT_EQ(f[k++], std::to_string(r["deadCount"].get<uint32_t>()));
    }
    EXPECT_EQ(f[k++], std::to_string(r["workCountTotal"].get<uint64_t>()));
    EXPECT_EQ(f[k++], fixed(r["workCountDecayAvg"].get<double>(), 1));
    EXPECT_EQ(f[k++], maybe(r["workCountMax"]));
    EXPECT_EQ(f[k++], std::to_string(r["workPending"].get<uint32_t>()));
    EXPECT_EQ(f[k++], maybe(r["workPendingMax"]));
  }
}

TEST(StatsJsonTest, SameFiguresAsTheTextReportOverTheWholeTreeWhateverTheStream) {
  auto root = std::make_shared<TaskSchedulerRootManual>("root");
  auto group = TaskGroupIs("group", TaskPriority::low, true, root);
  auto worker = std::make_shared<FnTask>(root, TaskPriority::high, "wor\"ker", [](FnTask& t) {
    t.taskWorkCountInc(7 + static_cast<unsigned>(t.runs));
    t.taskWorkPendingIs(3);
  });
  // Runs of 2 ms (so that the seconds and milliseconds columns show figures) against a 1 us
  // quantum that every run overruns five times over.
  auto hog = std::make_shared<FnTask>(group, TaskPriority::low, "hog", [](FnTask&) {
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(2);
    while (std::chrono::steady_clock::now() < until) {
    }
  });
  hog->taskQuantumNoCheckIs(std::chrono::microseconds(1));
  auto idle = std::make_shared<FnTask>(root, TaskPriority::scavenge, "idle");
  for (int i = 0; i < 3; ++i) {
    worker->scheduleTask();
    hog->scheduleTask();
    {
      auto brief = std::make_shared<FnTask>(group, TaskPriority::low, "brief");
      brief->scheduleTask();
      root->runUntilIdle();
    }
  }
  idle->scheduleTask();  // queued, never run

  std::ostringstream text, jsonText;
  root->printStats(text, true, false, statsNoLimit, statsNoLimit, 3);
  root->writeStatsJson(jsonText);
  json stats = json::parse(jsonText.str());
  std::vector<std::string> lines;
  std::istringstream is(text.str());
  for (std::string line; std::getline(is, line);) {
    lines.push_back(line);
  }

  ASSERT_EQ(stats["summary"].size(), 5u);
  for (size_t p = 0; p < 5; ++p) {
    const json& s = stats["summary"][p];
    EXPECT_EQ(split(lines[1 + p]),
              (std::vector<std::string>{s["priority"], std::to_string(s["runnable"].get<int>()),
                                        std::to_string(s["idle"].get<int>()),
                                        std::to_string(s["dead"].get<int>()),
                                        std::to_string(s["runs"].get<int>())}));
  }
  EXPECT_EQ(lines[6], "Maximum scheduler slip " +
                          fixed(stats["maxSchedulerSlipNs"].get<int64_t>() / 1e9, 6) + " seconds");
  // Four live tasks (the group's parent task among them) and one dead record.
  ASSERT_EQ(stats["tasks"].size(), 4u) << text.str();
  ASSERT_EQ(stats["deadTasks"].size(), 1u);
  expectTableMatches(lines, "TaskName", stats["tasks"], false);
  expectTableMatches(lines, "TaskName (Dead tasks)", stats["deadTasks"], true);

  // Spot checks that the comparison above cannot make by itself.
  const json* workerRecord = nullptr;
  for (const json& r : stats["tasks"]) {
    if (r["name"] == "wor\"ker") {
      workerRecord = &r;
    }
  }
  ASSERT_NE(workerRecord, nullptr);
  EXPECT_EQ((*workerRecord)["workCountTotal"], 8 + 9 + 10);
  EXPECT_EQ((*workerRecord)["workCountMax"], 10);
  EXPECT_EQ((*workerRecord)["workPendingMax"], 3);
  EXPECT_EQ((*workerRecord)["priority"], "high");
  // Rows by total run time: the group's parent task (whose runs contain hog's), then hog.
  EXPECT_EQ(stats["tasks"][0]["name"], "group;TaskGroup");
  const json& hogRecord = stats["tasks"][1];
  EXPECT_EQ(hogRecord["name"], "hog");
  EXPECT_EQ(hogRecord["quantumUsed500"], 3);
  EXPECT_GE(hogRecord["maxRunNs"], 2000000);
  EXPECT_EQ(stats["deadTasks"][0]["name"], "brief");
  EXPECT_EQ(stats["deadTasks"][0]["deadCount"], 3);
  EXPECT_EQ(stats["deadTasks"][0]["workCountMax"], nullptr);
  EXPECT_EQ(stats["skippedTasks"], 0);

  // The root's report ends with its own history, not with the line pointing to the root.
  const std::string report = text.str();
  EXPECT_EQ(report.find("non root"), std::string::npos);
  const size_t historyAt = report.find("\n\nLast 3 scheduler events,");
  ASSERT_NE(historyAt, std::string::npos);
  EXPECT_LT(report.find("TaskName (Dead tasks)"), historyAt);
  EXPECT_TRUE(report.ends_with("Truncated due to requested limit\n\n")) << report;

  // Neither the caller's stream format and locale nor a program-wide locale with other
  // separators changes the text; the caller's format is given back and its width used up.
  struct Separators : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };
  std::ostringstream messy;
  messy.imbue(std::locale(std::locale::classic(), new Separators));
  messy << std::hex << std::showbase << std::uppercase << std::left << std::setfill('*')
        << std::setprecision(2) << std::setw(40);
  const auto flags = messy.flags();
  const std::locale previous =
      std::locale::global(std::locale(std::locale::classic(), new Separators));
  root->printStats(messy, true, false, statsNoLimit, statsNoLimit, 3);
  std::locale::global(previous);
  EXPECT_EQ(messy.str(), report);
  EXPECT_EQ(messy.flags(), flags);
  EXPECT_EQ(messy.fill(), '*');
  EXPECT_EQ(messy.precision(), 2);
  EXPECT_EQ(messy.width(), 0);
  EXPECT_TRUE(std::has_facet<Separators>(messy.getloc()));

  std::ostringstream ranOnly;
  root->writeStatsJson(ranOnly, false, false);
  json ran = json::parse(ranOnly.str());
  EXPECT_EQ(ran["tasks"].size(), 3u);
  EXPECT_EQ(ran["skippedTasks"], 1);
  EXPECT_FALSE(ran.contains("deadTasks"));
}

}  // namespace
}  // namespace Tarvo
