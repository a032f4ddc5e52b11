// Helpers shared by the test suites.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "platform/Exception.h"

namespace OlkTest {

// The text of the RangeException `f` throws, or "no range error".
template <class F>
std::string rangeErrorText(F&& f) {
  try {
    f();
  } catch (const Zum::RangeException& e) {
    return e.what();
  }
  return "no range error";
}

template <class F>
void expectRangeError(F&& f, const std::string& text) {
  EXPECT_EQ(rangeErrorText(f), text);
}

// A fresh directory under /tmp, removed with everything in it (unreadable
// parts included) when the object goes.
class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/olktest.XXXXXX";
    root_ = mkdtemp(pattern);
  }
  ~TempDir() { std::system(("chmod -R u+rwx " + root_ + " 2>/dev/null; rm -rf " + root_).c_str()); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& root() const { return root_; }
  std::string path(const std::string& rel) const { return root_ + "/" + rel; }

 private:
  std::string root_;
};

// Runs `body` in a forked child, which is single-threaded whatever the parent
// runs, and returns its exit code, or 100 plus the signal that killed it.
template <class F>
int inChild(F&& body) {
  pid_t pid = fork();
  if (pid == 0) _exit(body());
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

}  // namespace OlkTest
