#include "platform/Exception.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Zum {

ErrnoException::ErrnoException(int error, const std::string& what)
    : Exception(what + ": " + std::strerror(error)), error_(error) {}

std::string nullParameterText(std::string_view cls, std::string_view attr) {
  std::string text = "null _";
  text.append(attr);
  text += " parameter to mutator for ";
  text.append(cls);
  text += "::";
  text.append(attr);
  text += " not allowed\"";
  return text;
}

void assertionFailed(const char* text, const char* file, int line, const char* function) {
  std::fprintf(stderr, "Assertion failed: %s (%s:%d, %s)\n", text, file, line, function);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Zum
