// EventClock: a polling watchdog; and the small statistics records that
// report an event, a count or a condition with the time it last changed.
//
// Once started, an EventClock raises `eventCheck` at once and then every
// `pollingInterval` seconds, so its owner's onEventCheck() can test a
// condition and call stop() when it holds; when `timeout` seconds have
// passed since start() it stops itself and raises `timerExpiration` instead.
// The deadline is inclusive: a check exactly at the deadline still polls.
// Time comes from the clock given at creation (a manual clock in tests).
//
// The statistics records are plain values with no update logic: the owning
// component fills them. Each prints in the library's text form, parses back,
// and serialises to the attribute log field by field (booleans as 8 bits,
// counts as 32 bits, times as the 64-bit pattern of the double).
// Single-threaded, on the loop's thread.
#pragma once

#include <bit>
#include <memory>

#include "Olk/Types.h"
#include "platform/AttrLog.h"
#include "platform/Clock.h"
#include "platform/Entity.h"
#include "platform/Notifier.h"
#include "platform/Strep.h"

namespace Olk {

class EventClock : public Zum::Entity, public Zum::Notifier {
 public:
  class NotifieeConst : public Zum::BaseNotifiee<const EventClock> {
   public:
    virtual void onClock() {}
    virtual void onDeadline() {}
    virtual void onEventCheck() {}
    virtual void onTimerExpiration() {}
  };
  using Notifiee = NotifieeConst;

  // Calls handleClock() when it fires.
  class ZumClock : public Zum::Clock::Notifiee {
   public:
    explicit ZumClock(EventClock* owner) : owner_(owner) {}
    void onTime() override { owner_->handleClock(); }

   private:
    EventClock* owner_;
  };

  // Null when the EventClock was made without a clock.
  ZumClock* clock() const { return clock_.get(); }
  Seconds pollingInterval() const { return pollingInterval_; }
  Seconds timeout() const { return timeout_; }
  Seconds deadline() const { return deadline_; }
  void deadlineIs(Seconds t);
  U32 eventCheck() const { return eventCheck_; }
  void eventCheckInc(U32 n);
  U32 timerExpiration() const { return timerExpiration_; }
  void timerExpirationInc(U32 n);

  // Sets the deadline to now + timeout and checks at once.
  void start();
  // Cancels the next check; nothing else changes.
  void stop();
  // One check: polls again later while the deadline has not passed, else
  // stops and reports the time-out.
  void handleClock();

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  EventClock(const Ptr<Zum::Clock>& clock, Seconds pollingInterval, Seconds timeout);
  Seconds now() const;

  std::unique_ptr<ZumClock> clock_;
  Seconds pollingInterval_;
  Seconds timeout_;
  Seconds deadline_ = 0;
  U32 eventCheck_ = 0;
  U32 timerExpiration_ = 0;
};

// Creates an EventClock on `clock` (which may be null: no reactor).
Ptr<EventClock> EventClockIs(const Ptr<Zum::Clock>& clock, Seconds pollingInterval, Seconds timeout);

// ---- Statistics records -------------------------------------------------
// Each record lists its fields once, in `fields(self, visit)`; printing,
// parsing and serialisation below walk that list.

struct Event {
  static constexpr const char* typeName = "Olk::Event";
  bool value = false;
  Seconds when = 0;
  template <class S, class V>
  static void fields(S& s, V&& v) {
    v("value", s.value);
    v("when", s.when);
  }
  bool operator==(const Event&) const = default;
};

struct Count {
  static constexpr const char* typeName = "Olk::Count";
  U32 count = 0;
  Seconds when = 0;
  template <class S, class V>
  static void fields(S& s, V&& v) {
    v("count", s.count);
    v("when", s.when);
  }
  bool operator==(const Count&) const = default;
};

struct EventOrCount {
  static constexpr const char* typeName = "Olk::EventOrCount";
  bool value = false;
  U32 count = 0;
  Seconds when = 0;
  template <class S, class V>
  static void fields(S& s, V&& v) {
    v("value", s.value);
    v("count", s.count);
    v("when", s.when);
  }
  bool operator==(const EventOrCount&) const = default;
};

struct ConditionOrChanged {
  static constexpr const char* typeName = "Olk::ConditionOrChanged";
  bool current = false;
  bool changed = false;
  Seconds when = 0;
  template <class S, class V>
  static void fields(S& s, V&& v) {
    v("current", s.current);
    v("changed", s.changed);
    v("when", s.when);
  }
  bool operator==(const ConditionOrChanged&) const = default;
};

// Records of a current condition, its number of changes and the last one.
template <const char* name>
struct ConditionChanges {
  static constexpr const char* typeName = name;
  bool current = false;
  U32 changes = 0;
  Seconds lastChange = 0;
  template <class S, class V>
  static void fields(S& s, V&& v) {
    v("current", s.current);
    v("changes", s.changes);
    v("lastChange", s.lastChange);
  }
  bool operator==(const ConditionChanges&) const = default;
};

// Records of a count and the time of the last one.
template <const char* name>
struct CountLast {
  static constexpr const char* typeName = name;
  U32 count = 0;
  Seconds last = 0;
  template <class S, class V>
  static void fields(S& s, V&& v) {
    v("count", s.count);
    v("last", s.last);
  }
  bool operator==(const CountLast&) const = default;
};

struct EventStat {
  static constexpr const char* typeName = "Olk::EventStat";
  bool current = false;
  U32 count = 0;
  Seconds last = 0;
  template <class S, class V>
  static void fields(S& s, V&& v) {
    v("current", s.current);
    v("count", s.count);
    v("last", s.last);
  }
  bool operator==(const EventStat&) const = default;
};

struct CountOrChangedStat {
  static constexpr const char* typeName = "Olk::CountOrChangedStat";
  U32 count = 0;
  U32 changes = 0;
  Seconds lastChange = 0;
  template <class S, class V>
  static void fields(S& s, V&& v) {
    v("count", s.count);
    v("changes", s.changes);
    v("lastChange", s.lastChange);
  }
  bool operator==(const CountOrChangedStat&) const = default;
};

namespace StatNames {
inline constexpr char conditionStat[] = "Olk::ConditionStat";
inline constexpr char conditionOrCountStat[] = "Olk::ConditionOrCountStat";
inline constexpr char conditionOrChangedStat[] = "Olk::ConditionOrChangedStat";
inline constexpr char countStat[] = "Olk::CountStat";
inline constexpr char eventOrCountStat[] = "Olk::EventOrCountStat";
}  // namespace StatNames

using ConditionStat = ConditionChanges<StatNames::conditionStat>;
using ConditionOrCountStat = ConditionChanges<StatNames::conditionOrCountStat>;
using ConditionOrChangedStat = ConditionChanges<StatNames::conditionOrChangedStat>;
using CountStat = CountLast<StatNames::countStat>;
using EventOrCountStat = CountLast<StatNames::eventOrCountStat>;

template <class T>
concept StatRecord = requires { T::typeName; };

template <StatRecord T>
String valueToStrep(const T& r) {
  Zum::ValueStrepWriter w(T::typeName);
  T::fields(r, [&w](const char* name, const auto& f) { w.field(name, f); });
  return std::move(w).done();
}

template <StatRecord T>
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, T* out) {
  Zum::ValueStrepReader r(cur, end, T::typeName);
  T::fields(*out, [&r](const char* name, auto& f) { r.field(name, &f); });
  r.done();
}

template <StatRecord T>
std::ostream& operator<<(std::ostream& os, const T& r) {
  return os << valueToStrep(r);
}

namespace StatLog {
inline void put(Zum::AttrLogWriter& w, bool v) { w.putU8(v ? 1 : 0); }
inline void put(Zum::AttrLogWriter& w, U32 v) { w.putU32(v); }
inline void put(Zum::AttrLogWriter& w, double v) { w.putU64(std::bit_cast<U64>(v)); }
inline void get(Zum::AttrLogReader& r, bool* v) { *v = r.getU8() != 0; }
inline void get(Zum::AttrLogReader& r, U32* v) { *v = r.getU32(); }
inline void get(Zum::AttrLogReader& r, double* v) { *v = std::bit_cast<double>(r.getU64()); }
}  // namespace StatLog

// Writes the fields in order, each in its own width.
template <StatRecord T>
void serialize(Zum::AttrLogWriter& w, const T& r) {
  T::fields(r, [&w](const char*, const auto& f) { StatLog::put(w, f); });
}

// Reads what serialize wrote; throws RangeException when the log is short.
template <StatRecord T>
void deserialize(Zum::AttrLogReader& rd, T* out) {
  T::fields(*out, [&rd](const char*, auto& f) { StatLog::get(rd, &f); });
}

}  // namespace Olk
