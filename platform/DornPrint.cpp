// Dorn's operator texts: scheduler statistics and the run history.
//
// Layout: a heading line per scheduler, a table of priorities, then one line
// per task, columns aligned so the text reads in a terminal or a dump file.
// Times are in milliseconds with microsecond resolution; high-water marks
// that recorded nothing print as "-".
#include <ostream>

#include "platform/Dorn.h"
#include "platform/Format.h"

namespace Dorn {

namespace {

String millis(Duration d) {
  if (d == maxDuration) return "inf";
  return Zum::format("%.3f", static_cast<double>(d) / 1e6);
}

String mark(U32 v) { return v == TaskStat::noHighWaterMark ? String("-") : std::to_string(v); }

void printTaskHeading(std::ostream& os, bool withAddress) {
  os << Zum::format("  %-1s %8s %11s %9s %9s %10s %10s %8s %8s %6s %6s %5s %5s %5s %-6s %s\n", "P", "runs",
                    "total(ms)", "max(ms)", "lat(ms)", "maxlat(ms)", "work", "avg", "work-hwm", "pend",
                    "pndhwm", "q200", "q500", "dead", "status", withAddress ? "name [address]" : "name");
}

void printTaskLine(std::ostream& os, const TaskStat& s, const void* address) {
  os << Zum::format("  %-1s %8u %11s %9s %9s %10s %10llu %8.2f %8s %6u %6s %5u %5u %5u %-6s %s",
                    priorityOneChar(s.priority), s.runCount, millis(s.totalRunTime).c_str(),
                    millis(s.runTimeHighWaterMark).c_str(), millis(s.lastSchedulingLatency).c_str(),
                    millis(s.schedulingLatencyHighWaterMark).c_str(),
                    static_cast<unsigned long long>(s.workCountTotal), static_cast<double>(s.workCountDecayAvg),
                    mark(s.workCountHighWaterMark).c_str(), s.workPending, mark(s.workPendingHighWaterMark).c_str(),
                    s.quantumViolation200, s.quantumViolation500, s.deadCount, statusString(s.status).c_str(),
                    s.name.c_str());
  if (address) os << Zum::format(" [%p]", address);
  os << '\n';
}

}  // namespace

void Scheduler::printTaskLines(std::ostream& os, const PrintOptions& options) const {
  printTaskHeading(os, options.displayMemoryAddressOfTasks);
  for (const Task* t : tasks_) {
    TaskStat s = t->stat();
    if (!options.includeNeverRunTasks && s.runCount == 0) continue;
    printTaskLine(os, s, options.displayMemoryAddressOfTasks ? t : nullptr);
  }
  if (!options.includeDeadTasks) return;
  for (const auto& kv : dead_) {
    if (!options.includeNeverRunTasks && kv.second.runCount == 0) continue;
    printTaskLine(os, kv.second, nullptr);
  }
}

void Scheduler::printStats(std::ostream& os, const PrintOptions& options) const {
  os << "Scheduler " << name_ << ": " << tasks_.size() << " tasks, " << queue_.size() << " runnable, "
     << dead_.size() << " dead-task records, default quantum " << millis(defaultQuantum_) << " ms\n";
  os << Zum::format("  %-9s %9s %9s %9s %12s\n", "priority", "runnable", "idle", "dead", "runs");
  for (const auto& [p, s] : queueStats()) {
    os << Zum::format("  %-9s %9u %9u %9u %12llu\n", priorityName(p), s.runnableTasks, s.idleTasks, s.deadTasks,
                      static_cast<unsigned long long>(s.totalRunCount));
  }
  printTaskLines(os, options);
}

void RootScheduler::printStats(std::ostream& os, const PrintOptions& options) const {
  os << "Root scheduler " << name() << ": " << runs_ << " runs of at most " << millis(runDuration_)
     << " ms, max slip " << millis(maxSlip_) << " ms, " << totalRegisteredTaskCount() << " tasks in "
     << groups_.size() << " groups and the root" << (suspended_ ? ", SUSPENDED" : "") << '\n';
  Scheduler::printStats(os, options);
  for (const TaskGroup* g : groups_) {
    os << "Group " << g->name() << " (priority " << priorityName(g->priority())
       << (g->enforcePriority() ? ", enforced" : "") << ", quantum " << millis(g->quantum()) << " ms)\n";
    g->printStats(os, options);
  }
  if (options.includeSchedulerHistory) printHistory(os, historyEntryCount());
}

void RootScheduler::printHistory(std::ostream& os, U32 count) const {
  std::vector<HistoryEntry> entries = history(count);
  os << "History of " << name() << ": last " << entries.size() << " of " << historyWritten_ << " runs\n";
  if (entries.empty()) return;
  const TimeStamp last = entries.back().start;
  os << Zum::format("  %12s %1s %10s %10s %s\n", "start(ms)", "P", "run(ms)", "lat(ms)", "name");
  for (const HistoryEntry& e : entries) {
    // Starts are shown relative to the newest run, so the most recent is 0.
    os << Zum::format("  %12s %1s %10s %10s %s\n", millis(e.start - last).c_str(), priorityOneChar(e.priority),
                      millis(e.runTime).c_str(), millis(e.latency).c_str(), e.name.c_str());
  }
}

}  // namespace Dorn
