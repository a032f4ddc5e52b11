// Helpers shared by the libFuzzer targets of this directory.
//
// Each target turns the fuzzer's bytes into calls on one component's public
// interface and compares the answers with a small reference model (a
// std::set, a std::map, an array standing for real memory or hardware). A
// disagreement prints what differed and aborts, which libFuzzer reports as a
// crash and saves as a reproducer; so does a sanitizer report or an
// exception the component's contract does not allow.
//
// `FuzzInput` hands out the bytes front to back; once they run out every
// read answers 0, so a short input is simply a short scenario.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/Ptr.h"
#include "platform/Trace.h"
#include "platform/Types.h"

// The targets spell sizes and pointers as the library does.
using Zum::Ptr;
using Zum::U16;
using Zum::U32;
using Zum::U64;
using Zum::U8;

namespace OlkFuzz {

// Prints the failed condition with its place and a detail, then aborts.
[[noreturn]] inline void checkFailed(const char* cond, const char* file, int line, const std::string& detail) {
  std::fprintf(stderr, "%s:%d: model check failed: %s\n  %s\n", file, line, cond, detail.c_str());
  std::abort();
}

#define FUZZ_CHECK(cond, detail) \
  ((cond) ? static_cast<void>(0) : ::OlkFuzz::checkFailed(#cond, __FILE__, __LINE__, (detail)))

class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : cur_(data), end_(data + size) {}

  bool empty() const { return cur_ == end_; }
  uint8_t u8() { return empty() ? 0 : *cur_++; }
  uint16_t u16() { return static_cast<uint16_t>(u8() | (u8() << 8)); }
  uint32_t u32() { return static_cast<uint32_t>(u16() | (uint32_t{u16()} << 16)); }
  // A number in 0 .. n - 1 (0 when n is 0), from as few bytes as n needs.
  uint32_t below(uint32_t n) {
    if (n <= 1) return 0;
    return (n <= 256 ? u8() : n <= 65536 ? u16() : u32()) % n;
  }
  // True while bytes remain and fewer than `maxSteps` steps have begun: the
  // loop of a scenario, bounded so that a long input still runs quickly.
  bool nextStep(int maxSteps) { return !empty() && steps_++ < maxSteps; }
  // Everything not read yet, as text.
  std::string rest() {
    std::string s(reinterpret_cast<const char*>(cur_), reinterpret_cast<const char*>(end_));
    cur_ = end_;
    return s;
  }

 private:
  const uint8_t* cur_;
  const uint8_t* end_;
  int steps_ = 0;
};

// The input of a target whose component traces: its first byte turns every
// trace handle on, at the most detailed level, for about a quarter of the
// inputs, into a sink that drops the lines. The fuzzed paths then also
// format their traces (item texts, labelled values) under the sanitizers;
// traces stay off for the rest, as they cost more than the work they describe.
inline FuzzInput tracedInput(const uint8_t* data, size_t size) {
  static const bool sinkInstalled = [] {
    Zum::traceSinkIs([](const Zum::TraceRecord&) {});
    return true;
  }();
  (void)sinkInstalled;
  FuzzInput in(data, size);
  Zum::traceLevelIs("*", in.u8() < 64 ? Zum::traceLevelMax : Zum::traceOff);
  return in;
}

}  // namespace OlkFuzz
