// Helpers shared by the test suites.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

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
