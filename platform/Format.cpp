#include "platform/Format.h"

#include <cstdio>

namespace Zum {

std::string vformat(const char* fmt, va_list args) {
  char small[256];
  va_list again;
  va_copy(again, args);
  int n = std::vsnprintf(small, sizeof small, fmt, args);
  if (n < 0) {
    va_end(again);
    return {};
  }
  if (static_cast<std::size_t>(n) < sizeof small) {
    va_end(again);
    return std::string(small, static_cast<std::size_t>(n));
  }
  std::string out(static_cast<std::size_t>(n), '\0');
  std::vsnprintf(out.data(), out.size() + 1, fmt, again);
  va_end(again);
  return out;
}

std::string format(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string out = vformat(fmt, args);
  va_end(args);
  return out;
}

}  // namespace Zum
