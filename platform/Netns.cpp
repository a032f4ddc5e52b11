#include "platform/Netns.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace Zum {

namespace {

// The entry under /proc/thread-self/ns for a CLONE_NEW* flag, or null.
const char* nsEntry(int nstype) {
  switch (nstype) {
    case CLONE_NEWNET: return "net";
    case CLONE_NEWNS: return "mnt";
    case CLONE_NEWUTS: return "uts";
    case CLONE_NEWIPC: return "ipc";
    case CLONE_NEWPID: return "pid";
    case CLONE_NEWUSER: return "user";
    case CLONE_NEWCGROUP: return "cgroup";
    default: return nullptr;
  }
}

// Where the namespace called `name` can be opened.
std::string namedNetnsPath(const char* name) {
  if (std::strcmp(name, DEFAULT_NS) == 0) return "/proc/1/ns/net";
  return std::string("/var/run/netns/") + name;
}

}  // namespace

int getns(int nstype) {
  const char* entry = nsEntry(nstype);
  if (!entry) {
    errno = EINVAL;
    return -1;
  }
  // thread-self, not self: namespaces are per thread and only this thread's counts.
  return open((std::string("/proc/thread-self/ns/") + entry).c_str(), O_RDONLY | O_CLOEXEC);
}

int setnsByName(const char* name, int nstype) {
  if (nstype != CLONE_NEWNET || !name) {
    errno = EINVAL;
    return -1;
  }
  int fd = open(namedNetnsPath(name).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  int rc = setns(fd, CLONE_NEWNET);
  int savedErrno = errno;
  close(fd);
  errno = savedErrno;
  return rc;
}

}  // namespace Zum
