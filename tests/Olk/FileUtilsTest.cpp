#include "Olk/FileUtils.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/Exception.h"
#include "TestSupport.h"

using namespace Olk;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

using OlkTest::inChild;

// A scratch directory that also creates files and subdirectories.
class TempDir : public OlkTest::TempDir {
 public:
  std::string file(const std::string& rel) const {
    std::string p = path(rel);
    close(open(p.c_str(), O_CREAT | O_WRONLY, 0644));
    return p;
  }
  std::string dir(const std::string& rel) const {
    std::string p = path(rel);
    mkdir(p.c_str(), 0755);
    return p;
  }
};

std::vector<std::string> sorted(std::vector<std::string> v) {
  std::sort(v.begin(), v.end());
  return v;
}

// Expects `op` to throw an ErrnoException for EBADF whose text starts with `prefix`.
template <class Op>
void expectBadDescriptor(Op op, const std::string& prefix) {
  try {
    op();
    ADD_FAILURE() << prefix << " succeeded";
  } catch (const Zum::ErrnoException& e) {
    EXPECT_EQ(e.error(), EBADF);
    EXPECT_EQ(std::string(e.what()).rfind(prefix, 0), 0u) << e.what();
  }
}

}  // namespace

TEST(FileUtils, IsDirPathFollowsLinksAndReportsOnRequest) {
  TempDir t;
  std::string d = t.dir("d");
  std::string f = t.file("f");
  symlink(d.c_str(), t.path("linkToDir").c_str());
  bool isDir = false;
  EXPECT_TRUE(isDirPath(d, isDir, true));
  EXPECT_TRUE(isDir);
  EXPECT_TRUE(isDirPath(f, isDir, true));
  EXPECT_FALSE(isDir);
  EXPECT_TRUE(isDirPath(t.path("linkToDir"), isDir, true));
  EXPECT_TRUE(isDir);

  isDir = true;
  CaptureStderr();
  EXPECT_FALSE(isDirPath(t.path("missing"), isDir, false));
  EXPECT_EQ(GetCapturedStderr(), "");
  CaptureStderr();
  EXPECT_FALSE(isDirPath(t.path("missing"), isDir, true));
  EXPECT_EQ(GetCapturedStderr(), "Error while trying stat for path " + t.path("missing") + "\n");
  EXPECT_TRUE(isDir) << "untouched on failure";
}

TEST(FileUtils, FileTimesCarryNanoseconds) {
  TempDir t;
  std::string f = t.file("f");
  timespec times[2] = {{1000, 0}, {1700000000, 250000000}};
  ASSERT_EQ(utimensat(AT_FDCWD, f.c_str(), times, 0), 0);
  double mtime = 0;
  ASSERT_TRUE(getFileMtime(f, mtime));
  EXPECT_DOUBLE_EQ(mtime, 1700000000.25);
  double ctime = 0;
  ASSERT_TRUE(getFileCtime(f, ctime));
  EXPECT_GT(ctime, 1700000000.25) << "the status change is now, not the time set";

  CaptureStderr();
  EXPECT_FALSE(getFileMtime(t.path("missing"), mtime));
  EXPECT_FALSE(getFileCtime(t.path("missing"), ctime));
  std::string line = "Error while trying stat for path " + t.path("missing") + "\n";
  EXPECT_EQ(GetCapturedStderr(), line + line);
}

// A 32-bit agent examines files past 2 GiB too, whose size a 32-bit offset
// cannot hold. The file is sparse: it takes no disk space.
TEST(FileUtils, FilesPastTwoGibibytesCanBeExamined) {
  TempDir t;
  std::string f = t.file("big");
  ASSERT_EQ(truncate64(f.c_str(), off64_t{3} << 30), 0);
  timespec times[2] = {{1000, 0}, {1700000000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, f.c_str(), times, 0), 0);
  bool isDir = true;
  EXPECT_TRUE(isDirPath(f, isDir, true));
  EXPECT_FALSE(isDir);
  double mtime = 0;
  EXPECT_TRUE(getFileMtime(f, mtime));
  EXPECT_EQ(mtime, 1700000000.0);
}

TEST(FileUtils, GlobAppendsMatchesOrLeavesOutputAlone) {
  TempDir t;
  std::string a = t.file("a.conf"), b = t.file("b.conf");
  t.file("c.txt");
  std::vector<std::string> out = {"kept"};
  EXPECT_TRUE(getGlobResult(t.path("*.conf"), out));
  EXPECT_EQ(sorted(out), sorted({"kept", a, b}));

  CaptureStderr();
  EXPECT_FALSE(getGlobResult(t.path("*.none"), out));
  EXPECT_EQ(GetCapturedStderr(), "No matching paths found for pattern: " + t.path("*.none") + "\n");
  EXPECT_EQ(out.size(), 3u);
}

TEST(FileUtils, FileTreeListsRegularFilesOnly) {
  TempDir t;
  t.dir("a");
  t.dir("a/b");
  t.dir("empty");
  t.dir("outside");
  std::vector<std::string> expected = {t.file("top"), t.file("a/one"), t.file("a/b/two")};
  t.file("outside/notListed");
  symlink(t.path("outside").c_str(), t.path("a/linkToDir").c_str());
  symlink(t.path("top").c_str(), t.path("a/linkToFile").c_str());
  expected.push_back(t.path("a/linkToFile"));

  std::vector<std::string> out;
  getFileTreeResult(t.path("a"), out);
  getFileTreeResult(t.path("top"), out);  // a single file lists itself
  getFileTreeResult(t.path("missing"), out);
  EXPECT_EQ(sorted(out), sorted(expected));
  getFileTreeResult("/dev/null", out);
  EXPECT_EQ(out.back(), "/dev/null") << "other kinds of file count too";
}

TEST(FileUtils, FileTreeReportsAndSkipsEntriesItCannotExamine) {
  TempDir t;
  t.dir("d");
  std::string before = t.file("d/before");
  symlink("loop", t.path("d/loop").c_str());  // examining it fails with ELOOP
  t.dir("d/sub");
  std::string after = t.file("d/sub/after");
  CaptureStderr();
  std::vector<std::string> out;
  getFileTreeResult(t.path("d"), out);
  std::string err = GetCapturedStderr();
  EXPECT_EQ(sorted(out), sorted({before, after}));
  EXPECT_NE(err.find("boost::filesystem::recursive_directory_iterator threw exception: "), std::string::npos);
  EXPECT_NE(err.find(" path: " + t.path("d/loop") + "\n"), std::string::npos);
}

TEST(FileUtils, FileTreeWalksOnPastUnreadableDirectory) {
  TempDir t;
  t.dir("d");
  t.dir("d/closed");
  t.file("d/closed/hidden");
  t.dir("d/open");
  std::string visible = t.file("d/open/visible");
  std::string top = t.file("d/top");
  chmod(t.path("d/closed").c_str(), 0);
  chmod(t.root().c_str(), 0755);
  // Root reads every directory; look as an unprivileged user in a child.
  int status = inChild([&] {
    if (getuid() == 0 && setuid(65534) != 0) return 2;
    if (access(t.path("d/closed").c_str(), R_OK) == 0) return 3;
    std::vector<std::string> out;
    getFileTreeResult(t.path("d"), out);
    return sorted(out) == sorted({visible, top}) ? 0 : 1;
  });
  if (status == 2 || status == 3) GTEST_SKIP() << "cannot make a directory unreadable here";
  EXPECT_EQ(status, 0);
}

TEST(FileUtils, LockIsSeenByOtherProcessesButNotByOwner) {
  TempDir t;
  std::string f = t.file("lockfile");
  int fd = open(f.c_str(), O_RDWR);
  ASSERT_GT(fd, 0);
  EXPECT_FALSE(locked(fd));
  lock(fd);
  EXPECT_FALSE(locked(fd)) << "record locks never conflict with their owner";
  auto lockedInChild = [&] {
    int childFd = open(f.c_str(), O_RDWR);
    return locked(childFd) ? 1 : 0;
  };
  EXPECT_EQ(inChild(lockedInChild), 1);
  unlock(fd);
  EXPECT_EQ(inChild(lockedInChild), 0);
  unlock(fd);  // releasing again is fine
  close(fd);
}

TEST(FileUtils, LockWaitsForTheHolder) {
  TempDir t;
  std::string f = t.file("lockfile");
  int fd = open(f.c_str(), O_RDWR);
  int ready[2], release[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(release), 0);
  pid_t holder = fork();
  if (holder == 0) {
    int childFd = open(f.c_str(), O_RDWR);
    lock(childFd);
    char c = 'r';
    if (write(ready[1], &c, 1) != 1 || read(release[0], &c, 1) != 1) _exit(1);
    _exit(0);  // exiting releases the lock
  }
  char c;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  EXPECT_TRUE(locked(fd));
  ASSERT_EQ(write(release[1], &c, 1), 1);
  lock(fd);  // blocks until the holder has gone
  int status = 0;
  waitpid(holder, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(inChild([&] { return locked(open(f.c_str(), O_RDWR)) ? 1 : 0; }), 1);
  for (int p : {ready[0], ready[1], release[0], release[1], fd}) close(p);
}

TEST(FileUtils, LockFailuresThrowErrnoException) {
  int fd = open("/dev/null", O_RDONLY);  // a write lock needs a descriptor open for writing
  const std::string n = std::to_string(fd);
  expectBadDescriptor([&] { lock(fd); }, "acquire blocking lock on fd " + n + " failed");
  close(fd);
  expectBadDescriptor([&] { unlock(fd); }, "unlock fd " + n + " failed");
  EXPECT_FALSE(locked(fd));
}

TEST(FileUtilsDeathTest, DescriptorZeroIsAProgrammingError) {
  EXPECT_DEATH(lock(0), "fd > 0");
  EXPECT_DEATH(unlock(-1), "fd > 0");
  EXPECT_DEATH(locked(0), "fd > 0");
}
