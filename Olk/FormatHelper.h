// Short texts for numbers, time spans and memory, and conversions between
// the three ways the library holds time.
//
// Used by traces, dumps and command replies, so the forms are fixed:
//   formatValueSi(os, 1234567, "B")   -> "1.235 MB"
//   formatTimeInterval(3661)          -> "01:01:01"; 90061 -> "1d01h"
//   secondsToTimeStrep(5 + 256 days)  -> "00:00:05" (days wrap at 256)
//   hexdump(p, n, limit)              -> a classic 16-bytes-a-line dump
// Time: `Seconds` (double; +infinity is never), `Duration` (signed 64-bit
// nanoseconds; its maximum is never), and steady-clock `TimeStamp`s.
#pragma once

#include <chrono>
#include <cstddef>
#include <ostream>

#include "Olk/Types.h"

namespace Olk {

using Duration = std::chrono::duration<S64, std::nano>;
using TimeStamp = std::chrono::steady_clock::time_point;

// Writes `value` scaled by a decimal prefix (k, M, G, T) with 4 significant
// digits, a blank, the prefix and `unit`. Negative values and values of
// 1000 T or more are written unscaled, in the stream's own precision, with
// no prefix. A null `unit` sets the stream's failbit.
void formatValueSi(std::ostream& os, double value, const char* unit);

// "[-]HH:MM:SS" below a day, "[-]<d>d<HH>h" from a day on.
String formatTimeInterval(S32 seconds);
String formatTimeInterval(long seconds);
String formatTimeInterval(U32 seconds);
String formatTimeInterval(U64 seconds);
String formatTimeInterval(double seconds);

// "HH:MM:SS", or "<d>d<HH>h" with the day count taken modulo 256.
String secondsToTimeStrep(U32 seconds);

// A dump of `length` bytes at `p` (at most `limit` when that is not 0):
// a header line, then lines of the address, 16 bytes in hex and the
// printable characters between bars.
String hexdump(const void* p, std::size_t length, std::size_t limit);

// Duration::max() is +infinity.
Seconds duration2seconds(Duration d);
// +infinity is Duration::max(); otherwise truncated to whole nanoseconds
// (clamped to the representable range instead of overflowing).
Duration seconds2duration(Seconds s);
// Wall-clock time `t` as a steady-clock time stamp; +infinity is the latest.
TimeStamp seconds2timeStamp(Seconds t);

}  // namespace Olk
