#include "Olk/FormatHelper.h"

#include <cctype>
#include <cmath>

#include "platform/Clock.h"
#include "platform/Dorn.h"
#include "platform/Format.h"

namespace Olk {

namespace {

constexpr S64 secondsPerDay = 86400;
constexpr std::size_t bytesPerLine = 16;

String formatSignedInterval(S64 seconds) {
  const char* sign = seconds < 0 ? "-" : "";
  U64 s = seconds < 0 ? 0 - static_cast<U64>(seconds) : static_cast<U64>(seconds);
  U64 days = s / secondsPerDay;
  U64 inDay = s % secondsPerDay;
  if (days != 0) return Zum::format("%s%llud%02lluh", sign, static_cast<unsigned long long>(days),
                                    static_cast<unsigned long long>(inDay / 3600));
  return Zum::format("%s%02llu:%02llu:%02llu", sign, static_cast<unsigned long long>(inDay / 3600),
                     static_cast<unsigned long long>(inDay / 60 % 60),
                     static_cast<unsigned long long>(inDay % 60));
}

// The hex column of one line: " xx" per byte, one extra blank after the
// eighth, and three blanks for each byte a short last line lacks.
String hexColumn(const unsigned char* bytes, std::size_t count) {
  String out;
  for (std::size_t i = 0; i < bytesPerLine; ++i) {
    out += i < count ? Zum::format(" %02x", bytes[i]) : String("   ");
    if (i == 7) out += ' ';
  }
  return out;
}

String charColumn(const unsigned char* bytes, std::size_t count) {
  String out = " |";
  for (std::size_t i = 0; i < count; ++i) out += std::isprint(bytes[i]) ? static_cast<char>(bytes[i]) : ' ';
  out += "|\n";
  return out;
}

}  // namespace

void formatValueSi(std::ostream& os, double value, const char* unit) {
  static const char* const prefixes[] = {"", "k", "M", "G", "T"};
  double scaled = value;
  int divisions = 0;
  while (scaled >= 1000 && divisions < 4) {
    scaled /= 1000;
    ++divisions;
  }
  if (scaled >= 0 && scaled < 1000) {
    os.precision(4);
    os << scaled << ' ' << prefixes[divisions];
  } else {
    os << value << ' ';
  }
  if (unit) {
    os << unit;
  } else {
    os.setstate(std::ios::failbit);
  }
}

String formatTimeInterval(S32 seconds) { return formatSignedInterval(seconds); }
String formatTimeInterval(long seconds) { return formatSignedInterval(seconds); }
String formatTimeInterval(U32 seconds) { return formatSignedInterval(seconds); }
String formatTimeInterval(U64 seconds) { return formatSignedInterval(static_cast<S64>(seconds)); }
String formatTimeInterval(double seconds) { return formatSignedInterval(static_cast<S64>(seconds)); }

String secondsToTimeStrep(U32 seconds) {
  // Eight bits of days: a counter that has run for 256 days reads as new.
  unsigned days = (seconds / secondsPerDay) % 256;
  unsigned inDay = seconds % secondsPerDay;
  if (days != 0) return Zum::format("%ud%02uh", days, inDay / 3600);
  return Zum::format("%02u:%02u:%02u", inDay / 3600, inDay / 60 % 60, inDay % 60);
}

String hexdump(const void* p, std::size_t length, std::size_t limit) {
  const std::size_t count = (limit != 0 && limit < length) ? limit : length;
  String out = Zum::format("Dumping %zu", count);
  if (count != length) out += Zum::format(" (limited from %zu)", length);
  out += Zum::format(" bytes from %p\n", p);
  const auto* bytes = static_cast<const unsigned char*>(p);
  for (std::size_t at = 0; at < count; at += bytesPerLine) {
    std::size_t n = std::min(bytesPerLine, count - at);
    out += Zum::format("%p:", static_cast<const void*>(bytes + at));
    out += hexColumn(bytes + at, n);
    out += charColumn(bytes + at, n);
  }
  return out;
}

Seconds duration2seconds(Duration d) { return Dorn::toSeconds(d.count()); }

Duration seconds2duration(Seconds s) { return Duration(Dorn::toDuration(s)); }

TimeStamp seconds2timeStamp(Seconds t) {
  if (t == Zum::endOfTime) return TimeStamp::max();
  return std::chrono::steady_clock::now() +
         std::chrono::duration_cast<std::chrono::steady_clock::duration>(seconds2duration(t - Zum::wallTime()));
}

}  // namespace Olk
