#include <Olk/Seqno.h>
#include <platform/Clock.h>

#include <cstdio>

// A 32-bit x86 agent must compute with SSE2 as the library does (time and
// quantum comparisons in inline header code); the package hands it the flags.
#if defined(__i386__) && !defined(__SSE2_MATH__)
#error "the installed Olk package did not pass on -msse2 -mfpmath=sse"
#endif

int main() {
  auto clock = Zum::manualClockFactory(0.0);
  Olk::Seqno32 a(0xFFFFFFFF), b(0);
  std::printf("%s\n", (a < b && clock->now() == 0.0) ? "ok" : "wrong");
  return a < b ? 0 : 1;
}
