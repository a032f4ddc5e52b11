#include "Olk/BacktraceHandlers.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>


using namespace Olk;

namespace {

// No core files from the crashes these tests cause on purpose.
void noCoreFiles() {
  rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
}

// A real fault on a valid-looking pointer (a null one would be caught by
// the undefined-behaviour checker first).
[[gnu::noinline]] void writeToProtectedPage() {
  void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  *static_cast<volatile int*>(page) = 1;
}

}  // namespace

TEST(BacktraceHandlersDeathTest, SegfaultPrintsBacktraceAndDiesOfSignal) {
  EXPECT_EXIT(
      {
        noCoreFiles();
        installBacktraceHandlers();
        writeToProtectedPage();
      },
      testing::KilledBySignal(SIGSEGV),
      "Caught signal 11 \\(SIGSEGV\\), backtrace:\n.*libolk[^\n]*\\[0x[0-9a-f]+\\]\n.*\\[0x[0-9a-f]+\\]\n");
}

// Abort too is reported and still ends the process with its own signal;
// installing the handlers twice is harmless.
TEST(BacktraceHandlersDeathTest, EveryFatalSignalIsCovered) {
  for (auto [sig, text] : {std::pair{SIGABRT, "6 \\(SIGABRT\\), backtrace:\n"}, std::pair{SIGBUS, "7 \\(SIGBUS\\)"},
                           std::pair{SIGFPE, "8 \\(SIGFPE\\)"}, std::pair{SIGILL, "4 \\(SIGILL\\)"}}) {
    EXPECT_EXIT(
        {
          noCoreFiles();
          installBacktraceHandlers();
          installBacktraceHandlers();
          raise(sig);
        },
        testing::KilledBySignal(sig), std::string("Caught signal ") + text);
  }
}
