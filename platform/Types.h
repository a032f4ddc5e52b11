// Fixed-width names and the time conventions every component shares.
//
// Widths are spelled out (U8 ... U64) wherever a quantity has one, so the
// library means the same thing as a 32-bit and as a 64-bit shared object:
// never use `long` for a 64-bit number.
//
// Time is `Seconds`, a double; `endOfTime` (+infinity) means "never" and 0.0
// means "as soon as possible" wherever a wake-up time is asked for.
#pragma once

#include <cstdint>
#include <limits>
#include <string>

namespace Zum {

using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;
using S8 = std::int8_t;
using S16 = std::int16_t;
using S32 = std::int32_t;
using S64 = std::int64_t;

using String = std::string;
using Name = std::string;
using Seconds = double;

inline constexpr Seconds endOfTime = std::numeric_limits<double>::infinity();

}  // namespace Zum
