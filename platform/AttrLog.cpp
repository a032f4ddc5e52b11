#include "platform/AttrLog.h"

#include "platform/Exception.h"

namespace Zum {

void AttrLogWriter::put(U64 v, int width) {
  for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) bytes_.push_back(static_cast<U8>(v >> shift));
}

U64 AttrLogReader::get(int width) {
  if (remaining() < static_cast<std::size_t>(width)) throw RangeException("attribute log ended early");
  U64 v = 0;
  for (int i = 0; i < width; ++i) v = (v << 8) | data_[pos_++];
  return v;
}

}  // namespace Zum
