#include "Olk/IoctlDrvFab.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/Rivlog.h"
#include "platform/Trace.h"

using namespace Olk;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

// The real device opened at another path, so the open and ioctl paths run
// without the hardware.
class TestDrvFab : public IoctlDrvFab {
 public:
  explicit TestDrvFab(const char* path) : IoctlDrvFab(path) {}
};

bool ringHolds(const std::string& text) {
  for (const Rivlog::Record& r : Rivlog::ring().records()) {
    if (text == r.text) return true;
  }
  return false;
}

}  // namespace

TEST(IoctlDrvFab, MissingDeviceIsReportedAsAsked) {
  struct stat st;
  if (stat("/dev/fabric", &st) == 0) GTEST_SKIP() << "this machine has the fabric device";
  auto drv = ioctlDrvFabFactory();
  char buf[16] = "show";
  Rivlog::ring().clear();
  Zum::TraceCapture capture;

  CaptureStderr();
  errno = 0;
  EXPECT_EQ(drv->ioctl(buf, sizeof buf, 5, true, true), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(GetCapturedStderr(), "failed to open /dev/fabric: No such file or directory\n");
  EXPECT_TRUE(capture.contains("ioctl: command: [show]"));
  EXPECT_TRUE(capture.contains("failed to open /dev/fabric. errno=2"));
  EXPECT_TRUE(ringHolds("failed to open /dev/fabric. errno=2"));

  Rivlog::ring().clear();
  CaptureStderr();
  EXPECT_EQ(drv->ioctl(buf, sizeof buf, 5, false, false), -1);
  EXPECT_EQ(GetCapturedStderr(), "");
  EXPECT_EQ(Rivlog::ring().size(), 0u);
}

TEST(IoctlDrvFab, PassesSizeAsRequestAndTracesResult) {
  auto drv = Zum::create<TestDrvFab>("/dev/null");
  char buf[16] = "show";
  Zum::TraceCapture capture;
  errno = 0;
  EXPECT_EQ(drv->ioctl(buf, sizeof buf, 5, true, true), -1);
  EXPECT_EQ(errno, ENOTTY) << "the null device knows no request";
  EXPECT_TRUE(capture.contains("ioctl 'show', rc: -1"));
  EXPECT_FALSE(capture.contains("failed to open"));
}

TEST(IoctlDrvFabDeathTest, BaseInterfaceRefusesToRun) {
  class Bare : public IoctlDrvInterface {
   public:
    Bare() : IoctlDrvInterface("bare") {}
  };
  auto bare = Zum::create<Bare>();
  char buf[4] = "";
  EXPECT_DEATH(bare->ioctl(buf, sizeof buf, 0, false, false),
               "Call to unimplemented function DrvInterface::ioctl\n.*Assertion failed: 0");
}
