#include "Olk/Unpage.h"

#include <dirent.h>
#include <stdint.h>
#include <sys/mman.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/Trace.h"

namespace Olk {

namespace {

Zum::TraceHandle& tr = Zum::traceHandle("Unpage");

struct Mapping {
  U64 start = 0;
  U64 end = 0;
  bool executable = false;
  bool writable = false;
  bool fileBacked = false;
  U64 anonymousKb = 0;  // pages that no longer match the file
};

U32 threadCount() {
  U32 n = 0;
  if (DIR* dir = opendir("/proc/self/task")) {
    while (dirent* e = readdir(dir)) {
      if (e->d_name[0] != '.') ++n;
    }
    closedir(dir);
  }
  return n;
}

// A mapping's header line: "start-end perms offset dev inode [path]".
bool parseHeader(const std::string& line, Mapping& m) {
  unsigned long long start, end;
  char perms[5];
  int pathAt = 0;
  if (std::sscanf(line.c_str(), "%llx-%llx %4s %*s %*s %*s %n", &start, &end, perms, &pathAt) < 3) return false;
  m = Mapping{};
  m.start = start;
  m.end = end;
  m.writable = perms[1] == 'w';
  m.executable = perms[2] == 'x';
  m.fileBacked = pathAt > 0 && line.c_str()[pathAt] == '/';
  return true;
}

// Reads the whole of smaps before anything is released, so the advice
// cannot disturb the walk.
std::vector<Mapping> readMappings() {
  std::vector<Mapping> mappings;
  std::ifstream smaps("/proc/self/smaps");
  std::string line;
  Mapping m;
  while (std::getline(smaps, line)) {
    if (parseHeader(line, m)) {
      mappings.push_back(m);
    } else if (!mappings.empty() && line.rfind("Anonymous:", 0) == 0) {
      std::istringstream(line.substr(std::strlen("Anonymous:"))) >> mappings.back().anonymousKb;
    }
  }
  return mappings;
}

bool releasable(const Mapping& m) { return m.executable && !m.writable && m.fileBacked && m.anonymousKb == 0; }

}  // namespace

U64 unpage() {
  if (threadCount() != 1) {
    ZUM_TRACE(tr, 3) << "skipped: more than one thread";
    return 0;
  }
  U64 released = 0;
  for (const Mapping& m : readMappings()) {
    if (!releasable(m)) continue;
    void* start = reinterpret_cast<void*>(static_cast<uintptr_t>(m.start));
    if (madvise(start, static_cast<size_t>(m.end - m.start), MADV_DONTNEED) == 0) released += m.end - m.start;
  }
  ZUM_TRACE(tr, 5) << "released: " << released;
  return released;
}

}  // namespace Olk
