// The real driver behind IoctlDrvInterface: the "/dev/fabric" device.
//
// The device is opened read-write on the first call and kept open until the
// object goes; a failed open is retried on the next call. The command buffer
// is handed to ioctl with the buffer's size as the request code, which is
// how this driver tells commands apart. Every call is traced (handle
// "IoctlDrv") at the level the caller gives.
#pragma once

#include "Olk/IoctlDrvInterface.h"
#include "Olk/Types.h"

namespace Olk {

class IoctlDrvFab : public IoctlDrvInterface {
 public:
  // Returns the driver's result. When the device cannot be opened, returns
  // -1 with errno from the open, after printing (printError) and recording
  // in the Rivlog ring (rivlogError) "failed to open /dev/fabric".
  int ioctl(char* buf, unsigned int size, unsigned int traceLevel, bool printError, bool rivlogError) override;

 protected:
  template <class T, class... A>
  friend Zum::Ptr<T> Zum::create(A&&...);
  // `devicePath` other than "/dev/fabric" is for tests.
  explicit IoctlDrvFab(const char* devicePath = "/dev/fabric");
  ~IoctlDrvFab() override;

 private:
  // Opens the device when needed; false (and reports) when it cannot.
  bool deviceOpen(bool printError, bool rivlogError);

  const char* devicePath_;
  int fd_ = -1;  // the open device, or -1 until an open succeeds
};

Zum::Ptr<IoctlDrvFab> ioctlDrvFabFactory();

}  // namespace Olk
