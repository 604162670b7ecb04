// TaskSchedulerRoot::writeTraceEvents: the history as Trace Event JSON.
//
// The history records names, not schedulers or priorities, so the writer looks each name up
// in the tree as it stands: the live tasks of every scheduler first, then the dead-task
// records. A name held by tasks of several schedulers goes to the first of them in track
// order (the root, then the others by name); a name found nowhere (a task that died without a
// dead-task record) goes to a track of its own.
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <ostream>
#include <unordered_map>
#include <vector>

#include "Tarvo/TaskScheduler.h"
#include "stats/JsonText.h"

namespace Tarvo {

namespace {

using EventType = TaskSchedulerEventType;
using Event = TaskSchedulerHistory::Event;
using Elem = ConstStringRef::Elem;

constexpr const char* kEventNames[] = {"schedule",
                                       "unschedule",
                                       "run start",
                                       "run end",
                                       "timerStart",
                                       "timerStop",
                                       "suspendOn",
                                       "suspendOff",
                                       "scheduleSus",
                                       "frcYieldOn",
                                       "frcYieldOff",
                                       "idle",
                                       "busy",
                                       "create",
                                       "delete",
                                       "schedulerIdle",
                                       "schedulerRunnable",
                                       "schedulerSuspended",
                                       "schedulerUnsuspended",
                                       "schedulerRunIgnoredWhileSuspended",
                                       "schedulerVirtualTimeOn",
                                       "schedulerVirtualTimeOff",
                                       "schedulerTestYieldRatioOn",
                                       "schedulerTestYieldRatioOff"};
static_assert(std::size(kEventNames) == TaskSchedulerHistory::eventTypeCount);

int64_t nanos(const TaskSchedulerHistory::TimePoint& t) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count();
}

// The track and the details under which a task name's events are shown. A null scheduler
// marks the track of names found nowhere in the tree.
struct TaskPlace {
  unsigned tid;
  const TaskScheduler* scheduler;
  TaskPriority priority;
};

class TraceEventWriter {
 public:
  TraceEventWriter(const TaskSchedulerRoot& root, std::ostream& os)
      : root_(root), history_(*root.history()), os_(os), pid_(getpid()) {
    collectTracks();
  }

  void write();

 private:
  // A run whose start has been seen and whose end has not (yet).
  struct OpenRun {
    const Event* start;
    TaskPlace place;
  };

  void collectTracks();
  TaskPlace taskPlace(const ConstStringRef& name);
  unsigned schedulerTid(const ConstStringRef& name);
  bool stillRunning(const OpenRun& run) const;

  // Starts an event object with its common fields; the caller adds the rest and closes it.
  void open(const char* ph, const std::string& name, const char* category, int64_t ts,
            unsigned tid);
  void taskArgs(const ConstStringRef& name, const TaskPlace& place, const char* note);
  void metadata(const char* what, unsigned tid, const char* key);
  void instant(const Event& e);
  void completeRun(const OpenRun& run, int64_t startNs, int64_t endNs, const char* note);
  void unendedRun(const OpenRun& run);

  const TaskSchedulerRoot& root_;
  const TaskSchedulerHistory& history_;
  std::ostream& os_;
  pid_t pid_;
  std::vector<const TaskScheduler*> tracks_;  // tid i + 1 is tracks_[i]
  unsigned strayTid_ = 0;                     // 0 until a name is found nowhere
  std::unordered_map<const Elem*, TaskPlace> tasks_;
  std::unordered_map<const Elem*, unsigned> schedulers_;
  bool firstEvent_ = true;
};

void TraceEventWriter::collectTracks() {
  tracks_.push_back(&root_);
  for (const TaskScheduler* s : root_.registeredSchedulers()) {
    if (s != &root_) {
      tracks_.push_back(s);
    }
  }
  std::stable_sort(tracks_.begin() + 1, tracks_.end(), [](const auto* a, const auto* b) {
    return a->schedulerName().str() < b->schedulerName().str();
  });
  for (unsigned i = 0; i < tracks_.size(); ++i) {
    const TaskScheduler* s = tracks_[i];
    schedulers_.emplace(s->schedulerName().elem(), i + 1);
    const auto& tasks = s->registeredTasks();
    for (const TaskImpl* t = tasks.front(); t; t = tasks.next(*t)) {
      tasks_.emplace(t->taskStatsName().elem(), TaskPlace{i + 1, s, t->taskPriority()});
    }
  }
  std::vector<TaskStat> dead;
  for (unsigned i = 0; i < tracks_.size(); ++i) {
    dead.clear();
    tracks_[i]->getDeadTaskStats(&dead, true);
    for (const TaskStat& d : dead) {
      tasks_.emplace(d.taskNameRef().elem(), TaskPlace{i + 1, tracks_[i], d.taskPriority()});
    }
  }
}

TaskPlace TraceEventWriter::taskPlace(const ConstStringRef& name) {
  if (auto it = tasks_.find(name.elem()); it != tasks_.end()) {
    return it->second;
  }
  if (strayTid_ == 0) {
    strayTid_ = static_cast<unsigned>(tracks_.size()) + 1;
  }
  return TaskPlace{strayTid_, nullptr, TaskPriority::absolute};
}

unsigned TraceEventWriter::schedulerTid(const ConstStringRef& name) {
  if (auto it = schedulers_.find(name.elem()); it != schedulers_.end()) {
    return it->second;
  }
  if (strayTid_ == 0) {
    strayTid_ = static_cast<unsigned>(tracks_.size()) + 1;
  }
  return strayTid_;
}

// Whether a task of that name is inside taskExecute() now, as when the trace is written from
// a running task. Otherwise its run ended without a "run end" (taskExecute() threw).
bool TraceEventWriter::stillRunning(const OpenRun& run) const {
  if (!run.place.scheduler) {
    return false;
  }
  const auto& tasks = run.place.scheduler->registeredTasks();
  for (const TaskImpl* t = tasks.front(); t; t = tasks.next(*t)) {
    if (t->taskStatsName() == run.start->name() && t->taskStatus().taskCurrentlyRunning()) {
      return true;
    }
  }
  return false;
}

void TraceEventWriter::open(const char* ph, const std::string& name, const char* category,
                            int64_t ts, unsigned tid) {
  os_ << (firstEvent_ ? "\n" : ",\n") << "{\"ph\":\"" << ph << "\",\"name\":";
  firstEvent_ = false;
  writeJsonString(os_, name);
  os_ << ",\"cat\":\"" << category << "\",\"ts\":";
  writeMicroseconds(os_, ts);
  os_ << ",\"pid\":" << pid_ << ",\"tid\":" << tid;
}

void TraceEventWriter::taskArgs(const ConstStringRef& name, const TaskPlace& place,
                                const char* note) {
  os_ << ",\"args\":{\"task\":";
  writeJsonString(os_, name.str());
  if (place.scheduler) {
    os_ << ",\"priority\":\"" << place.priority << "\",\"scheduler\":";
    writeJsonString(os_, place.scheduler->schedulerName().str());
  }
  if (note) {
    os_ << ",\"note\":\"" << note << '"';
  }
  os_ << "}}";
}

void TraceEventWriter::metadata(const char* what, unsigned tid, const char* key) {
  os_ << (firstEvent_ ? "\n" : ",\n") << "{\"ph\":\"M\",\"name\":\"" << what
      << "\",\"pid\":" << pid_ << ",\"tid\":" << tid << ",\"args\":{\"" << key << "\":";
  firstEvent_ = false;
}

void TraceEventWriter::instant(const Event& e) {
  unsigned type = static_cast<unsigned>(e.eventType());
  bool taskEvent = type < TaskSchedulerHistory::firstSchedulerEvent;
  if (taskEvent) {
    TaskPlace place = taskPlace(e.name());
    open("i", kEventNames[type], "task", nanos(e.timestamp()), place.tid);
    os_ << ",\"s\":\"t\"";
    taskArgs(e.name(), place, nullptr);
  } else {
    open("i", kEventNames[type], "scheduler", nanos(e.timestamp()), schedulerTid(e.name()));
    os_ << ",\"s\":\"t\",\"args\":{\"scheduler\":";
    writeJsonString(os_, e.name().str());
    os_ << "}}";
  }
}

void TraceEventWriter::completeRun(const OpenRun& run, int64_t startNs, int64_t endNs,
                                   const char* note) {
  open("X", run.start->name().str(), "run", startNs, run.place.tid);
  os_ << ",\"dur\":";
  writeMicroseconds(os_, std::max<int64_t>(endNs - startNs, 0));
  taskArgs(run.start->name(), run.place, note);
}

void TraceEventWriter::unendedRun(const OpenRun& run) {
  if (stillRunning(run)) {
    // A slice without an end: the viewers draw it to the end of the trace.
    open("B", run.start->name().str(), "run", nanos(run.start->timestamp()), run.place.tid);
    taskArgs(run.start->name(), run.place, "still running");
  } else {
    open("i", kEventNames[static_cast<unsigned>(EventType::runStart)], "task",
         nanos(run.start->timestamp()), run.place.tid);
    os_ << ",\"s\":\"t\"";
    taskArgs(run.start->name(), run.place, "no run end recorded");
  }
}

void TraceEventWriter::write() {
  unsigned count = history_.size();
  os_ << "{\"displayTimeUnit\":\"ns\",\"otherData\":{\"root\":";
  writeJsonString(os_, root_.schedulerName().str());
  os_ << ",\"historyCapacity\":" << history_.capacity() << ",\"historyEvents\":" << count
      << "},\"traceEvents\":[";

  // Runs nest (a task group runs its tasks inside its parent task's run), so a stack pairs
  // each end with its start. Walk from the oldest event to the newest.
  std::vector<OpenRun> open;
  const int64_t windowStart = count ? nanos(history_.event(count - 1).timestamp()) : 0;
  for (unsigned i = count; i-- > 0;) {
    const Event& e = history_.event(i);
    if (e.eventType() == EventType::runStart) {
      open.push_back(OpenRun{&e, taskPlace(e.name())});
    } else if (e.eventType() == EventType::runEnd) {
      auto match = std::find_if(open.rbegin(), open.rend(),
                                [&](const OpenRun& r) { return r.start->name() == e.name(); });
      if (match == open.rend()) {
        // The start fell off the ring: the run began at or before the oldest event held.
        OpenRun cut{&e, taskPlace(e.name())};
        completeRun(cut, windowStart, nanos(e.timestamp()), "start not in history");
        continue;
      }
      // Runs opened after the matching start and never ended ended by an exception.
      size_t at = static_cast<size_t>(open.rend() - match) - 1;
      for (size_t k = at + 1; k < open.size(); ++k) {
        unendedRun(open[k]);
      }
      completeRun(open[at], nanos(open[at].start->timestamp()), nanos(e.timestamp()), nullptr);
      open.resize(at);
    } else {
      instant(e);
    }
  }
  for (const OpenRun& r : open) {
    unendedRun(r);
  }

  // Track names last: only now is it known whether the track of stray names is needed.
  metadata("process_name", 1, "name");
  writeJsonString(os_, root_.schedulerName().str());
  os_ << "}}";
  for (unsigned i = 0; i < tracks_.size(); ++i) {
    metadata("thread_name", i + 1, "name");
    writeJsonString(os_, tracks_[i]->schedulerName().str());
    os_ << "}}";
    metadata("thread_sort_index", i + 1, "sort_index");
    os_ << i + 1 << "}}";
  }
  if (strayTid_ != 0) {
    metadata("thread_name", strayTid_, "name");
    os_ << "\"(names no longer in the tree)\"}}";
    metadata("thread_sort_index", strayTid_, "sort_index");
    os_ << strayTid_ << "}}";
  }
  os_ << "\n]}\n";
}

}  // namespace

void TaskSchedulerRoot::writeTraceEvents(std::ostream& os) const {
  TraceEventWriter(*this, os).write();
}

}  // namespace Tarvo
