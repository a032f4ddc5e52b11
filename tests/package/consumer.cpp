#include <Olk/Seqno.h>
#include <platform/Clock.h>

#include <cstdio>

int main() {
  auto clock = Zum::manualClockFactory(0.0);
  Olk::Seqno32 a(0xFFFFFFFF), b(0);
  std::printf("%s\n", (a < b && clock->now() == 0.0) ? "ok" : "wrong");
  return a < b ? 0 : 1;
}
