#include "platform/Netns.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

ino_t inode(int fd) {
  struct stat st;
  fstat(fd, &st);
  return st.st_ino;
}

ino_t threadNetnsInode() {
  struct stat st;
  stat("/proc/thread-self/ns/net", &st);
  return st.st_ino;
}

}  // namespace

TEST(Netns, GetnsOpensTheThreadsCurrentNamespace) {
  int fd = Zum::getns(CLONE_NEWNET);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(inode(fd), threadNetnsInode());
  close(fd);
  errno = 0;
  EXPECT_EQ(Zum::getns(0), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST(Netns, SetnsByNameFailsWithoutMovingTheThread) {
  ino_t before = threadNetnsInode();
  errno = 0;
  EXPECT_EQ(Zum::setnsByName("olkNoSuchNamespace", CLONE_NEWNET), -1);
  EXPECT_EQ(errno, ENOENT);
  errno = 0;
  EXPECT_EQ(Zum::setnsByName("whatever", CLONE_NEWUTS), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(threadNetnsInode(), before);
}
