// The interface through which agents talk to a device driver by ioctl.
//
// Some drivers take a text command in a caller's buffer, passed through
// ioctl, and may write their answer back into the same buffer. Agents hold
// the driver as a `Ptr<IoctlDrvInterface>` so that production code gets
// `IoctlDrvFab` (the real "/dev/fabric" device) and tests get
// `IoctlDrvMock` (scripted answers) without any other change.
//
// The interface is synchronous: a call blocks for as long as the driver
// takes. It is used from the event-loop thread only.
#pragma once

#include "Olk/Types.h"
#include "platform/Entity.h"

namespace Olk {

// Prints `message` and a newline to standard error, then fails the
// assertion "0": for code paths that must never run.
[[noreturn]] void olkAssert(const String& message);

class IoctlDrvInterface : public Zum::Entity {
 public:
  // Passes the command in `buf` (`size` bytes) to the driver and returns its
  // result; the driver may overwrite `buf` with its answer. `traceLevel` is
  // the level of the call's trace lines; `printError` and `rivlogError`
  // choose whether a failure to reach the driver is also printed and kept in
  // the Rivlog ring. The base version must be overridden: it reports the
  // missing override and aborts.
  virtual int ioctl(char* buf, unsigned int size, unsigned int traceLevel, bool printError, bool rivlogError);

 protected:
  explicit IoctlDrvInterface(const Zum::Name& name) : Entity(name) {}
};

}  // namespace Olk
