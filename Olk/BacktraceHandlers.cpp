#include "Olk/BacktraceHandlers.h"

#include <execinfo.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>

namespace Olk {

namespace {

constexpr int maxFrames = 64;

struct FatalSignal {
  int number;
  const char* name;
};
constexpr FatalSignal fatalSignals[] = {
    {SIGSEGV, "SIGSEGV"}, {SIGABRT, "SIGABRT"}, {SIGBUS, "SIGBUS"}, {SIGFPE, "SIGFPE"}, {SIGILL, "SIGILL"},
};

// Room for the handler even when the fault was a stack overflow.
alignas(16) char alternateStack[64 * 1024];

void writeText(const char* text) {
  // Nothing useful can be done about a failed write from a dying process.
  if (write(STDERR_FILENO, text, std::strlen(text)) < 0) return;
}

// Decimal text of a small non-negative number, without printf (not
// async-signal-safe).
void writeNumber(int n) {
  char digits[12];
  char* p = digits + sizeof digits;
  *--p = '\0';
  do {
    *--p = static_cast<char>('0' + n % 10);
    n /= 10;
  } while (n > 0);
  writeText(p);
}

const char* signalName(int sig) {
  for (const FatalSignal& s : fatalSignals) {
    if (s.number == sig) return s.name;
  }
  return "?";
}

void onFatalSignal(int sig) {
  writeText("Caught signal ");
  writeNumber(sig);
  writeText(" (");
  writeText(signalName(sig));
  writeText("), backtrace:\n");
  void* frames[maxFrames];
  backtrace_symbols_fd(frames, backtrace(frames, maxFrames), STDERR_FILENO);
  // The signal stays blocked until this handler returns; then it is
  // delivered again with the default action.
  signal(sig, SIG_DFL);
  raise(sig);
}

}  // namespace

void installBacktraceHandlers() {
  // The first backtrace() loads the unwinder, which allocates: do it here,
  // not in the handler.
  void* warmUp[1];
  backtrace(warmUp, 1);

  stack_t stack{};
  stack.ss_sp = alternateStack;
  stack.ss_size = sizeof alternateStack;
  sigaltstack(&stack, nullptr);

  struct sigaction action {};
  action.sa_handler = onFatalSignal;
  action.sa_flags = SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  for (const FatalSignal& s : fatalSignals) sigaction(s.number, &action, nullptr);
}

}  // namespace Olk
