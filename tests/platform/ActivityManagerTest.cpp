#include "platform/ActivityManager.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

namespace {

struct Reader : Zum::FileDescriptor::Notifiee {
  void onReadable() override {
    char buf[64];
    ssize_t n = ::read(notifier()->fd(), buf, sizeof buf);
    if (n > 0) data.append(buf, static_cast<std::size_t>(n));
    if (n == 0) eof = true;
    if (n == 0) notifier()->readInterestIs(false);
  }
  void onWritable() override { ++writable; }
  std::string data;
  bool eof = false;
  int writable = 0;
};

struct Tick : Zum::Clock::Notifiee {
  void onTime() override { ++calls; }
  int calls = 0;
};

struct LoopFixture : ::testing::Test {
  LoopFixture() {
    int fds[2];
    EXPECT_EQ(::pipe(fds), 0);
    readEnd = loop->fileDescriptorNew(fds[0]);
    writeEnd = fds[1];
  }
  ~LoopFixture() override {
    if (writeEnd >= 0) ::close(writeEnd);
  }
  Zum::Ptr<Zum::ActivityManager> loop = Zum::activityManagerFactory();
  Zum::Ptr<Zum::FileDescriptor> readEnd;
  int writeEnd = -1;
};

TEST_F(LoopFixture, WakesForReadablePipeAndSeesEndOfFile) {
  Reader r;
  r.notifierIs(readEnd);
  EXPECT_FALSE(loop->runOnce(0));  // nothing ready: a poll does nothing
  ASSERT_EQ(::write(writeEnd, "hello", 5), 5);
  EXPECT_TRUE(loop->runUntil([&] { return r.data == "hello"; }, 5.0));
  ::close(writeEnd);
  writeEnd = -1;
  EXPECT_TRUE(loop->runUntil([&] { return r.eof; }, 5.0));
  // Interest off: the hang-up no longer wakes the loop.
  EXPECT_FALSE(loop->runOnce(0.01));
}

TEST_F(LoopFixture, WakesForClockNotifieeWithoutDescriptorActivity) {
  Tick t;
  t.notifierIs(loop->clock());
  t.timeMinIs(loop->clock()->now() + 0.02);
  EXPECT_TRUE(loop->runUntil([&] { return t.calls == 1; }, 5.0));
  EXPECT_EQ(t.timeMin(), Zum::endOfTime);
}

TEST_F(LoopFixture, WritableInterestReportsWritability) {
  Reader w;
  Zum::Ptr<Zum::FileDescriptor> out = loop->fileDescriptorNew(::dup(writeEnd));
  out->readInterestIs(false);
  w.notifierIs(out);
  out->writeInterestIs(true);
  EXPECT_TRUE(loop->runOnce(1.0));
  EXPECT_GE(w.writable, 1);
  out->writeInterestIs(false);
  int before = w.writable;
  loop->runOnce(0);
  EXPECT_EQ(w.writable, before);
}

// Detaches and drops the last pointer to its own descriptor from inside the callback.
struct Dropper : Zum::FileDescriptor::Notifiee {
  void onReadable() override {
    notifierIs(nullptr);
    owner->reset();
  }
  Zum::Ptr<Zum::FileDescriptor>* owner = nullptr;
};

TEST_F(LoopFixture, DescriptorDestroyedFromItsOwnCallback) {
  Dropper d;
  d.owner = &readEnd;
  d.notifierIs(readEnd);
  ASSERT_EQ(::write(writeEnd, "x", 1), 1);
  EXPECT_TRUE(loop->runOnce(1.0));
  EXPECT_FALSE(readEnd);
  EXPECT_EQ(loop->fileDescriptorCount(), 0u);
  EXPECT_FALSE(loop->runOnce(0));
}

// Stops the loop from its callback and counts how often it was called.
struct Stopper : Zum::Clock::Notifiee {
  void onTime() override {
    ++calls;
    loop->stop();
  }
  Zum::ActivityManager* loop = nullptr;
  int calls = 0;
};

TEST_F(LoopFixture, StopFromCallbackEndsRunBeforeLaterWork) {
  // The backstop is due well after the stopper; if stop() failed to end
  // run(), the backstop would be the one to end it, and the test fails
  // instead of hanging.
  Stopper first, backstop;
  first.loop = backstop.loop = loop.ptr();
  first.notifierIs(loop->clock());
  backstop.notifierIs(loop->clock());
  first.timeMinIs(0.0);
  backstop.timeMinIs(loop->clock()->now() + 2.0);
  loop->run();
  EXPECT_EQ(first.calls, 1);
  EXPECT_EQ(backstop.calls, 0);
  EXPECT_EQ(first.timeMin(), Zum::endOfTime);
}

TEST_F(LoopFixture, ReleaseHandsBackDescriptorOpen) {
  int fd = readEnd->release();
  EXPECT_EQ(readEnd->fd(), -1);
  readEnd = nullptr;
  EXPECT_EQ(::write(writeEnd, "y", 1), 1);
  char c;
  EXPECT_EQ(::read(fd, &c, 1), 1);
  ::close(fd);
}

TEST_F(LoopFixture, NonBlockingFlag) {
  EXPECT_FALSE(readEnd->nonBlocking());
  readEnd->nonBlockingIs(true);
  EXPECT_TRUE(readEnd->nonBlocking());
}

}  // namespace

// The one fallback for a component given no clock: the loop's own clock.
TEST(ClockOrLoop, NullMeansTheThreadsLoopClockAndAGivenClockStands) {
  Zum::Ptr<Zum::Clock> manual = Zum::manualClockFactory(5.0);
  EXPECT_EQ(Zum::clockOrLoop(manual), manual);
  EXPECT_EQ(Zum::clockOrLoop(nullptr), Zum::Ptr<Zum::Clock>(Zum::activityManager()->clock()));
}
