#include "Olk/ProcSysUtils.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "platform/Netns.h"
#include "platform/Trace.h"

using namespace Olk;

namespace {

const char* const ostype = "/proc/sys/kernel/ostype";

// A file open read-write in a scratch directory.
struct ScratchFile : OlkTest::TempDir {
  ~ScratchFile() { close(fd); }
  std::string text() const {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }
  const std::string path = TempDir::path("f");
  const int fd = open(path.c_str(), O_RDWR | O_CREAT, 0600);
};

std::string refusal(const char* cmd) {
  try {
    tokenizeShellCommand(cmd);
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "(accepted)";
}

// Runs `cmd`; a child whose exec failed comes back here with -1 and leaves
// with a recognisable status, which the parent's run() then returns.
int runFromTest(const char* cmd, int in = -1, int out = -1, int err = -1) {
  pid_t self = getpid();
  int rc = run(cmd, in, out, err, 0);
  if (getpid() != self) _exit(rc == -1 ? 99 : 98);
  return rc;
}

ino_t threadNetnsInode() {
  struct stat st;
  stat("/proc/thread-self/ns/net", &st);
  return st.st_ino;
}

// A network namespace created with `ip netns add` for the test's duration.
class ScratchNetns {
 public:
  ScratchNetns() : name_("olktest" + std::to_string(getpid())) {
    created_ = runFromTest(("ip netns add " + name_).c_str(), -1, -2, -2) == 0;
  }
  ~ScratchNetns() {
    if (created_) runFromTest(("ip netns del " + name_).c_str(), -1, -2, -2);
  }
  bool created() const { return created_; }
  const char* name() const { return name_.c_str(); }

 private:
  std::string name_;
  bool created_;
};

}  // namespace

TEST(ProcSysUtils, ReadsKnownTunableWithoutTerminatingBuffer) {
  char buf[64];
  std::memset(buf, 'X', sizeof buf);
  ASSERT_EQ(readProcSys(ostype, buf, sizeof buf - 1), 0);
  EXPECT_EQ(std::string(buf, 6), "Linux\n");
  EXPECT_EQ(buf[6], 'X');

  char zeroed[64] = {};
  Zum::TraceCapture capture;
  ASSERT_EQ(readProcSys(ostype, zeroed, sizeof zeroed - 1), 0);
  EXPECT_TRUE(capture.contains("Read Linux\n from /proc/sys/kernel/ostype"));
}

TEST(ProcSysUtils, CutsLongPathsAt127Characters) {
  // Slashes pad the path; what lies beyond character 127 must never be looked at.
  std::string tail = "proc/sys/kernel/ostype";
  std::string path = std::string(127 - tail.size(), '/') + tail;
  ASSERT_EQ(path.size(), 127u);
  path += std::string(200 - path.size(), 'z');
  char buf[16] = {};
  EXPECT_EQ(readProcSys(path.c_str(), buf, sizeof buf - 1), 0);
  EXPECT_STREQ(buf, "Linux\n");
}

TEST(ProcSysUtils, ReportsErrnoOfFailingStepAndTracesIt) {
  Zum::TraceCapture capture;
  char buf[8];
  EXPECT_EQ(readProcSys("/proc/sys/kernel/noSuchTunable", buf, sizeof buf), ENOENT);
  EXPECT_TRUE(capture.contains("Failed to open /proc/sys/kernel/noSuchTunable : No such file or directory"));
  EXPECT_EQ(readProcSys("/proc/sys/kernel", buf, sizeof buf), EISDIR);
  EXPECT_TRUE(capture.contains("Failed to read /proc/sys/kernel : Is a directory"));
  EXPECT_EQ(writeProcSys("/dev/full", "1"), ENOSPC);
  EXPECT_TRUE(capture.contains("Writing 1 to /dev/full"));
  EXPECT_TRUE(capture.contains("Failed to write /dev/full : No space left on device"));
  EXPECT_EQ(writeProcSys("/nonexistent/dir/file", "1"), ENOENT);
}

// No namespace, the default name or an unknown one: the caller's own.
TEST(ProcSysUtils, DefaultNullOrUnknownNamespaceDoesNotSwitch) {
  ScratchFile f;  // a namespace switch would not change which file this names
  ino_t before = threadNetnsInode();
  EXPECT_EQ(writeProcSysInNetNs(f.path.c_str(), "x", Zum::DEFAULT_NS), 0);
  EXPECT_EQ(writeProcSysInNetNs(f.path.c_str(), "y", nullptr), 0);
  char buf[4] = {};
  EXPECT_EQ(readProcSysInNetNs(f.path.c_str(), buf, sizeof buf - 1, nullptr), 0);
  EXPECT_STREQ(buf, "y");
  EXPECT_EQ(threadNetnsInode(), before);
  char os[16] = {};
  EXPECT_EQ(readProcSysInNetNs(ostype, os, sizeof os - 1, "olkNoSuchNamespace"), 0);
  EXPECT_STREQ(os, "Linux\n");
}

TEST(ProcSysUtils, WritesAndReadsInsideAnotherNetworkNamespace) {
  ScratchNetns ns;
  if (!ns.created()) GTEST_SKIP() << "cannot create a network namespace here (needs root and ip netns)";
  const char* tunable = "/proc/sys/net/ipv4/ip_forward";
  char home[8] = {};
  ASSERT_EQ(readProcSys(tunable, home, sizeof home - 1), 0);
  const char* other = home[0] == '1' ? "0" : "1";
  ino_t before = threadNetnsInode();

  int rc = writeProcSysInNetNs(tunable, other, ns.name());
  if (rc == EACCES || rc == EROFS || rc == EPERM) GTEST_SKIP() << "tunables are read-only here: " << std::strerror(rc);
  ASSERT_EQ(rc, 0);
  EXPECT_EQ(threadNetnsInode(), before);
  char inside[8] = {};
  ASSERT_EQ(readProcSysInNetNs(tunable, inside, sizeof inside - 1, ns.name()), 0);
  char after[8] = {};
  ASSERT_EQ(readProcSys(tunable, after, sizeof after - 1), 0);
  if (inside[0] == home[0]) GTEST_SKIP() << "no permission to switch network namespace";
  EXPECT_EQ(inside[0], other[0]);
  EXPECT_STREQ(after, home) << "the caller's own namespace must be untouched";
  EXPECT_EQ(threadNetnsInode(), before);

  // From a thread that sits in the scratch namespace, DEFAULT_NS means "stay
  // here", not "go to the initial namespace".
  std::thread([&] {
    ASSERT_EQ(Zum::setnsByName(ns.name(), CLONE_NEWNET), 0);
    char seen[8] = {};
    EXPECT_EQ(readProcSysInNetNs(tunable, seen, sizeof seen - 1, Zum::DEFAULT_NS), 0);
    EXPECT_EQ(seen[0], other[0]);
  }).join();
}

TEST(ProcSysUtils, TokenizerRefusesShellSyntaxWithExactMessages) {
  for (char c : std::string("~`&*()|;<>")) {
    std::string cmd = std::string("echo a") + c + "b";
    EXPECT_EQ(refusal(cmd.c_str()),
              std::string("Unsupported special character ") + c + " used in Olk::run command: " + cmd);
  }
  EXPECT_EQ(refusal("echo \"abc"), "Unmatched delimiter \" used in Olk::run command: echo \"abc");
  EXPECT_EQ(refusal("echo 'a\"bc"), "Unmatched delimiter ' used in Olk::run command: echo 'a\"bc");
  EXPECT_EQ(refusal("echo abc\\"), "Unsupported trailing backslash used in Olk::run command: echo abc\\");
  EXPECT_EQ(refusal("echo \"abc\\"), "Unsupported trailing backslash used in Olk::run command: echo \"abc\\");
  // The first offence found while scanning is the one reported.
  EXPECT_EQ(refusal("a;b 'c"), "Unsupported special character ; used in Olk::run command: a;b 'c");
}

// A child whose exec failed comes back from run() with -1 (99 here).
TEST(ProcSysUtils, RunReturnsExitCodesSignalsAndExecFailures) {
  for (auto [cmd, rc] : {std::pair{"true", 0}, {"false", 1}, {"sh -c 'exit 7'", 7}, {"sh -c 'exit 255'", 255},
                         {"sh -c 'kill -9 $$'", -9}, {"sh -c 'kill -TERM $$'", -15},
                         {"/nonexistent/program arg", 99}, {"", 99}, {"   ", 99}}) {
    EXPECT_EQ(runFromTest(cmd), rc) << cmd;
  }
}

TEST(ProcSysUtils, RunRefusesShellSyntaxBeforeStartingAnything) {
  ScratchFile f;
  std::string cmd = "rm " + f.path + "; true";
  EXPECT_THROW(run(cmd.c_str(), -1, -1, -1, 0), std::invalid_argument);
  EXPECT_EQ(access(f.path.c_str(), F_OK), 0);
}

TEST(ProcSysUtils, RunPlacesGivenDescriptorsAndNullDevice) {
  ScratchFile out;
  EXPECT_EQ(runFromTest("echo 'hello  world'", -1, out.fd, -1), 0);
  EXPECT_EQ(out.text(), "hello  world\n");

  // -2 puts the null device on the child's standard input or output.
  const char* stdoutIsNull = "sh -c '[ \"$(readlink /proc/$$/fd/1)\" = /dev/null ]'";
  EXPECT_EQ(runFromTest(stdoutIsNull, -1, -2, -1), 0);
  EXPECT_EQ(runFromTest(stdoutIsNull, -1, out.fd, -1), 1);
  EXPECT_EQ(runFromTest("sh -c '[ \"$(readlink /proc/$$/fd/0)\" = /dev/null ]'", -2, -1, -1), 0);
  // Write-only on purpose: cat's read fails, where end of file would let it exit 0.
  EXPECT_EQ(runFromTest("cat", -2, -1, -2), 1);
}

TEST(ProcSysUtils, RunChildInheritsUnnamedDescriptors) {
  ScratchFile f;
  int fd = dup(f.fd);  // not close-on-exec, not one of 0, 1, 2
  std::string cmd = "sh -c 'echo inherited 1>&" + std::to_string(fd) + "'";
  EXPECT_EQ(runFromTest(cmd.c_str()), 0);
  close(fd);
  EXPECT_EQ(f.text(), "inherited\n");
}

TEST(ProcSysUtils, RunChildGetsDeathSignalWhenCallerDies) {
  int toChild[2], fromChild[2];
  ASSERT_EQ(pipe(toChild), 0);
  ASSERT_EQ(pipe(fromChild), 0);
  pid_t caller = fork();
  if (caller == 0) {
    close(toChild[1]);  // only the test may end cat's input
    close(fromChild[0]);
    run("cat", toChild[0], fromChild[1], -1, SIGKILL);
    _exit(0);
  }
  close(toChild[0]);
  close(fromChild[1]);
  char c = 'x';
  ASSERT_EQ(write(toChild[1], &c, 1), 1);
  ASSERT_EQ(read(fromChild[0], &c, 1), 1) << "cat is running";
  kill(caller, SIGKILL);
  waitpid(caller, nullptr, 0);
  // cat holds the last write end: end of file means cat is gone too.
  pollfd p{fromChild[0], POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 10000), 1) << "cat outlived its caller";
  EXPECT_EQ(read(fromChild[0], &c, 1), 0);
  close(toChild[1]);
  close(fromChild[0]);
}
