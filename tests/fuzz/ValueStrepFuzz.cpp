// The strict text forms of the library's value types.
//
// The first byte picks the type, the rest is the text. Whatever the text,
// parsing either succeeds or throws Zum::RangeException (anything else, or a
// crash, is a fault). A value that parsed prints a text that parses again
// and prints the same: the printer and the parser agree on every value the
// parser can produce. The plain numbers (Seqno16, Seqno32, Id) and MaybeU63
// are also checked against a model of exactly which texts they accept.
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "Olk/BestFitAllocator.h"
#include "Olk/ChipSet.h"
#include "Olk/CuckooHashTable.h"
#include "Olk/EventClock.h"
#include "Olk/IdSet.h"
#include "Olk/IoctlDrvMock.h"
#include "Olk/MaybeU63.h"
#include "Olk/NumberPool.h"
#include "Olk/Seqno.h"
#include "Olk/TaskScheduler.h"
#include "Olk/TristateBool.h"
#include "Olk/UniqueId.h"
#include "Olk/XactLib.h"
#include "platform/Strep.h"

namespace {

using Olk::String;

// Parses all of `text` as a T; false when the parser refused it.
template <class T>
bool parse(const String& text, T* out) {
  try {
    *out = Zum::strepToValue<T>(text);
    return true;
  } catch (const Zum::RangeException&) {
    return false;
  }
}

// Parse, print, parse again, print again: both prints must be equal.
template <class T>
bool roundTrip(const String& text) {
  using Olk::valueToStrep;  // with the types' own overloads, found by argument lookup
  T v{};
  if (!parse(text, &v)) return false;
  String printed = valueToStrep(v);
  T again{};
  FUZZ_CHECK(parse(printed, &again), "printed text does not parse: " + printed);
  String reprinted = valueToStrep(again);
  FUZZ_CHECK(reprinted == printed, printed + " reprinted as " + reprinted);
  return true;
}

bool allDigits(const String& s) {
  return !s.empty() && s.find_first_not_of("0123456789") == String::npos;
}

// The value of a decimal text, or more than `limit` when it exceeds it.
unsigned long long decimal(const String& s, unsigned long long limit) {
  unsigned long long v = 0;
  for (char c : s) {
    const unsigned digit = static_cast<unsigned>(c - '0');
    if (v > (limit - digit) / 10) return limit + 1;
    v = v * 10 + digit;
  }
  return v;
}

// A type whose text is one unsigned decimal number: digits only, in range.
template <class T>
void unsignedNumber(const String& text, unsigned long long limit) {
  bool expected = allDigits(text) && decimal(text, limit) <= limit;
  bool parsed = roundTrip<T>(text);
  FUZZ_CHECK(parsed == expected, (expected ? "refused: " : "accepted: ") + text);
  if (!parsed) return;
  T v{};
  parse(text, &v);
  FUZZ_CHECK(Olk::valueToStrep(v) == std::to_string(decimal(text, limit)), "wrong value for " + text);
}

// "None" or a signed 64-bit decimal number, then at most one "l" or "L".
void maybeU63(const String& text) {
  String body = text;
  if (!body.empty() && (body.back() == 'l' || body.back() == 'L')) body.pop_back();
  bool none = body == "None";
  bool negative = !none && !body.empty() && body[0] == '-';
  String digits = negative ? body.substr(1) : body;
  const unsigned long long limit = negative ? 1ull << 63 : (1ull << 63) - 1;
  bool expected = none || (allDigits(digits) && decimal(digits, limit) <= limit);

  Olk::MaybeU63 v;
  bool parsed = true;
  try {
    v.stringValueIs(text);
  } catch (const Zum::RangeException& e) {
    parsed = false;
    FUZZ_CHECK(String(e.what()).find("Olk::MaybeU63") != String::npos, String("unexpected text: ") + e.what());
  }
  FUZZ_CHECK(parsed == expected, (expected ? "refused: " : "accepted: ") + text);
  if (!parsed) return;
  if (none) {
    FUZZ_CHECK(v.isNull(), "None did not parse as null: " + text);
  } else {
    unsigned long long magnitude = decimal(digits, limit);
    U64 word = negative ? 0 - static_cast<U64>(magnitude) : static_cast<U64>(magnitude);
    FUZZ_CHECK(v.word() == word, "wrong word for " + text);
  }
  Olk::MaybeU63 again;
  again.stringValueIs(v.stringValue());
  FUZZ_CHECK(again.isNull() == v.isNull() && (v.isNull() || again.word() == v.word()),
             "stringValue does not parse back: " + v.stringValue());
  roundTrip<Olk::MaybeU63>(text);
}

using Target = void (*)(const String&);

template <class T>
void plain(const String& text) {
  roundTrip<T>(text);
}

const std::vector<Target>& targets() {
  using namespace Olk;
  static const std::vector<Target> all = {
      [](const String& t) { unsignedNumber<Seqno16>(t, 0xffff); },
      [](const String& t) { unsignedNumber<Seqno32>(t, 0xffffffffu); },
      [](const String& t) { unsignedNumber<Id>(t, 0xffff); },
      maybeU63,
      plain<TristateBool>,
      plain<UniqueId>,
      plain<Cuckoo::TableId>,
      plain<Cuckoo::CuckooLocation>,
      plain<TaskPriority>,
      plain<TaskKey>,
      plain<TaskStat::TaskStatus>,
      plain<TaskStat>,
      plain<TaskSchedulerPriorityStats>,
      plain<BFA::JumboFreeBlk>,
      plain<Range>,
      plain<TimedU32>,
      plain<TimedRange>,
      plain<XactConfig>,
      plain<XactStatus>,
      plain<ExecResult>,
      plain<Generation>,
      plain<GenTime>,
      plain<ChipId>,
      plain<ChipSet>,
      plain<ExpectedCall>,
      plain<TestIoctlOut>,
      plain<Event>,
      plain<Count>,
      plain<EventOrCount>,
      plain<ConditionOrChanged>,
      plain<EventStat>,
      plain<CountOrChangedStat>,
      plain<ConditionStat>,
      plain<CountStat>,
      plain<String>,
      plain<double>,
      plain<bool>,
  };
  return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  OlkFuzz::FuzzInput in(data, size);
  const auto& all = targets();
  Target target = all[in.below(static_cast<uint32_t>(all.size()))];
  target(in.rest());
  return 0;
}
