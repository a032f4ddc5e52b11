// Errors and invariant checks shared by every component.
//
// Three kinds of failure, kept apart on purpose:
//   * a caller passed a value outside its allowed range: `RangeException`,
//     whose text is part of the interface ("X::y < 1 or > 8 not allowed");
//   * a system call failed: `ErrnoException`, carrying errno;
//   * an internal invariant broke: `ZUM_ASSERT(expr)`, which prints the
//     expression text exactly as written and aborts. Assertions stay on in
//     release builds: a broken invariant in a long-running agent must stop it
//     rather than let it program hardware from corrupt state.
// Exhaustion (no free number, no space) is not an error and never throws.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace Zum {

class Exception : public std::runtime_error {
 public:
  explicit Exception(const std::string& what) : std::runtime_error(what) {}
};

// A value outside its permitted range, or text that does not parse.
class RangeException : public Exception {
 public:
  explicit RangeException(const std::string& what) : Exception(what) {}
};

// A failed system call; `error()` is the errno it left.
class ErrnoException : public Exception {
 public:
  ErrnoException(int error, const std::string& what);
  int error() const { return error_; }

 private:
  int error_;
};

// An operation the object does not support (a type without a text
// constructor, an unimplemented virtual).
class NoImplementationException : public Exception {
 public:
  explicit NoImplementationException(const std::string& what) : Exception(what) {}
};

// The text of the error a mutator raises for a null pointer:
// "null _<attr> parameter to mutator for <cls>::<attr> not allowed" and a
// trailing double quote. The quote is part of the established text that
// operators and scripts match, so it stays.
std::string nullParameterText(std::string_view cls, std::string_view attr);

// Throws RangeException(nullParameterText(cls, attr)) when `p` is null.
template <class P>
void requireNonNull(const P& p, std::string_view cls, std::string_view attr) {
  if (!p) throw RangeException(nullParameterText(cls, attr));
}

// Prints "Assertion failed: <text>" with the place, then aborts.
[[noreturn]] void assertionFailed(const char* text, const char* file, int line,
                                  const char* function);

}  // namespace Zum

// Checks an invariant and aborts naming the expression as written in the code.
#define ZUM_ASSERT(expr) \
  ((expr) ? static_cast<void>(0) : ::Zum::assertionFailed(#expr, __FILE__, __LINE__, __func__))

// As ZUM_ASSERT, for the few places whose reported text differs from the code.
#define ZUM_ASSERT_TEXT(expr, text) \
  ((expr) ? static_cast<void>(0) : ::Zum::assertionFailed((text), __FILE__, __LINE__, __func__))
