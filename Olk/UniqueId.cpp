#include "Olk/UniqueId.h"

#include <time.h>
#include <unistd.h>

#include <tuple>

namespace Olk {

namespace {

// The last id handed out by this process.
U32 lastTimestamp = 0;
U16 lastCount = 0;

U32 wallSeconds() { return static_cast<U32>(::time(nullptr)); }

}  // namespace

UniqueId::UniqueId() : timestamp_(0xFFFFFFFF), pid_(0xFFFF), count_(0xFFFF) { doInit(); }

UniqueId::UniqueId(U32 timestamp, U16 pid, U16 count) : timestamp_(timestamp), pid_(pid), count_(count) {
  doInit();
}

bool UniqueId::isUnset() const {
  // The pid goes in as a signed 32-bit number, so a pid of 0x8000 or more
  // sets the whole upper half whatever the timestamp.
  S32 low = static_cast<S32>(static_cast<U32>(pid_) << 16) | count_;
  U64 key = (static_cast<U64>(timestamp_) << 32) | static_cast<U64>(static_cast<S64>(low));
  return key == ~U64(0);
}

void UniqueId::doInit() {
  if (!isUnset()) return;
  U32 now = wallSeconds();
  U16 count = 0;
  if (now == lastTimestamp) {
    if (lastCount < 0xFFFF) {
      count = static_cast<U16>(lastCount + 1);
    } else {
      while (now == lastTimestamp) {
        ::sleep(1);
        now = wallSeconds();
      }
    }
  }
  timestamp_ = now;
  pid_ = static_cast<U16>(::getpid());
  count_ = count;
  lastTimestamp = now;
  lastCount = count;
}

String UniqueId::toStrep() const {
  return "timestamp " + std::to_string(timestamp_) + ", pid " + std::to_string(pid_) + ", count " +
         std::to_string(count_);
}

bool UniqueId::operator<(const UniqueId& o) const {
  return std::tie(timestamp_, pid_, count_) < std::tie(o.timestamp_, o.pid_, o.count_);
}

String valueToStrep(const UniqueId& id) {
  return Zum::ValueStrepWriter("Olk::UniqueId")
      .field("timestamp", id.timestamp())
      .field("pid", id.pid())
      .field("count", id.count())
      .done();
}

UniqueId::UniqueId(Zum::StrepIter& cur, Zum::StrepIter end) {
  Zum::ValueStrepReader reader(cur, end, "Olk::UniqueId");
  reader.field("timestamp", &timestamp_).field("pid", &pid_).field("count", &count_);
  reader.done();
  doInit();
}

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, UniqueId* out) { *out = UniqueId(cur, end); }

std::ostream& operator<<(std::ostream& os, const UniqueId& id) { return os << valueToStrep(id); }

void serialize(Zum::AttrLogWriter& log, const UniqueId& id) {
  log.putU32(id.timestamp());
  log.putU16(id.pid());
  log.putU16(id.count());
}

void deserialize(Zum::AttrLogReader& log, UniqueId* id) {
  id->timestamp_ = log.getU32();
  id->pid_ = log.getU16();
  id->count_ = log.getU16();
}

}  // namespace Olk
