// SIGTERM and SIGINT stopping the loop. Each case runs in a forked child, so
// that the signal mask and the signals themselves stay out of the test
// process; the child's exit code carries the verdict.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "TestSupport.h"
#include "platform/ActivityManager.h"

namespace {

using Zum::Ptr;

// Ends a child whose loop never stops with exit code 3, so that a loop that
// misses its signal fails the test instead of hanging it.
struct Deadline : Zum::Clock::Notifiee {
  void onTime() override { _exit(3); }
};

bool blocked(int signal) {
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return sigismember(&mask, signal) == 1;
}

// Runs the loop until a signal stops it; answers the signal number, or 1
// when the loop stopped without one.
int runUntilSignalled(const Ptr<Zum::ActivityManager>& loop) {
  Deadline deadline;
  deadline.notifierIs(loop->clock());
  deadline.timeMinIs(loop->clock()->now() + 30.0);
  loop->run();
  return loop->stopSignal() != 0 ? loop->stopSignal() : 1;
}

TEST(ActivityManagerSignals, SignalToItselfStopsTheLoopInsteadOfTheProcess) {
  for (int signal : {SIGTERM, SIGINT}) {
    const int code = OlkTest::inChild([signal] {
      Ptr<Zum::ActivityManager> loop = Zum::activityManagerFactory();
      loop->stopOnSignalsIs(true);
      if (!blocked(signal)) return 4;
      kill(getpid(), signal);
      return runUntilSignalled(loop);
    });
    EXPECT_EQ(code, signal) << "signal " << signal;
  }
}

TEST(ActivityManagerSignals, SignalFromAnotherProcessStopsARunningLoop) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    Ptr<Zum::ActivityManager> loop = Zum::activityManagerFactory();
    loop->stopOnSignalsIs(true);
    const char byte = 'r';
    if (write(ready[1], &byte, 1) != 1) _exit(5);
    _exit(runUntilSignalled(loop));
  }
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  kill(child, SIGTERM);
  int status = 0;
  waitpid(child, &status, 0);
  close(ready[0]);
  close(ready[1]);
  ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), SIGTERM);
}

// Off by default, and turning it off or destroying the loop gives the
// signals back: their default action kills the child again.
TEST(ActivityManagerSignals, OffByDefaultAndGivenBackWhenTurnedOffOrDestroyed) {
  for (bool turnedOnAndOff : {false, true}) {
    const int code = OlkTest::inChild([turnedOnAndOff] {
      Ptr<Zum::ActivityManager> loop = Zum::activityManagerFactory();
      if (turnedOnAndOff) {
        loop->stopOnSignalsIs(true);
        loop->stopOnSignalsIs(false);
      }
      if (loop->stopOnSignals() || blocked(SIGTERM) || blocked(SIGINT)) return 4;
      kill(getpid(), SIGTERM);
      return 0;
    });
    EXPECT_EQ(code, 100 + SIGTERM) << (turnedOnAndOff ? "turned on and off" : "by default");
  }
  const int destroyedCode = OlkTest::inChild([] {
    Ptr<Zum::ActivityManager> loop = Zum::activityManagerFactory();
    loop->stopOnSignalsIs(true);
    loop = nullptr;
    return blocked(SIGTERM) || blocked(SIGINT) ? 4 : 0;
  });
  EXPECT_EQ(destroyedCode, 0);
}

}  // namespace
