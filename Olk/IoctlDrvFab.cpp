#include "Olk/IoctlDrvFab.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "platform/Format.h"
#include "platform/Rivlog.h"
#include "platform/Trace.h"

namespace Olk {

namespace {

Zum::TraceHandle& tr = Zum::traceHandle("IoctlDrv");
Rivlog::Handle& rh = Rivlog::handle("IoctlDrv");
constexpr int traceFailure = 1;
constexpr int rivlogFailure = 1;

}  // namespace

IoctlDrvFab::IoctlDrvFab(const char* devicePath) : IoctlDrvInterface("ioctlDrvFab"), devicePath_(devicePath) {}

IoctlDrvFab::~IoctlDrvFab() {
  if (fd_ >= 0) close(fd_);
}

bool IoctlDrvFab::deviceOpen(bool printError, bool rivlogError) {
  if (fd_ >= 0) return true;
  fd_ = open(devicePath_, O_RDWR | O_CLOEXEC);
  if (fd_ >= 0) return true;
  int error = errno;
  String what = Zum::format("failed to open %s", devicePath_);
  if (printError) std::perror(what.c_str());
  ZUM_TRACE(tr, traceFailure) << what << ". errno=" << error;
  if (rivlogError) RIVLOG(rh, rivlogFailure, "%s. errno=%d", what.c_str(), error);
  errno = error;
  return false;
}

int IoctlDrvFab::ioctl(char* buf, unsigned int size, unsigned int traceLevel, bool printError, bool rivlogError) {
  int level = static_cast<int>(traceLevel);
  // The command need not be terminated within its buffer.
  std::string_view command(buf, strnlen(buf, size));
  ZUM_TRACE(tr, level) << "ioctl" << ": command: [" << command << "]";
  if (!deviceOpen(printError, rivlogError)) return -1;
  int rc = ::ioctl(fd_, size, buf);
  ZUM_TRACE(tr, level) << "ioctl" << " '" << std::string_view(buf, strnlen(buf, size)) << "', rc: " << rc;
  return rc;
}

Zum::Ptr<IoctlDrvFab> ioctlDrvFabFactory() { return Zum::create<IoctlDrvFab>(); }

}  // namespace Olk
