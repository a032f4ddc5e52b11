#include "Olk/Seqno.h"

namespace Olk {

void serialize(Zum::AttrLogWriter& log, const Seqno16& s) { log.putU16(s.value()); }
void serialize(Zum::AttrLogWriter& log, const Seqno32& s) { log.putU32(s.value()); }
void deserialize(Zum::AttrLogReader& log, Seqno16* s) { s->valueIs(log.getU16()); }
void deserialize(Zum::AttrLogReader& log, Seqno32* s) { s->valueIs(log.getU32()); }

}  // namespace Olk
