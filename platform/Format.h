// printf-style formatting into a std::string.
#pragma once

#include <cstdarg>
#include <string>

namespace Zum {

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string vformat(const char* fmt, va_list args) __attribute__((format(printf, 1, 0)));

}  // namespace Zum
