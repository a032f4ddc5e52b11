#include "Olk/IoctlDrvInterface.h"

#include <cstdio>

#include "platform/Exception.h"

namespace Olk {

void olkAssert(const String& message) {
  std::fprintf(stderr, "%s\n", message.c_str());
  ZUM_ASSERT(0);
  __builtin_unreachable();
}

int IoctlDrvInterface::ioctl(char*, unsigned int, unsigned int, bool, bool) {
  olkAssert("Call to unimplemented function DrvInterface::ioctl");
}

}  // namespace Olk
