// The attribute log: values as bytes in network byte order.
//
// Records are serialised field by field in declaration order, each field in
// its own width, most significant byte first, with no padding or tags. The
// reader throws RangeException when the log ends before a field does.
#pragma once

#include <cstddef>
#include <vector>

#include "platform/Types.h"

namespace Zum {

class AttrLogWriter {
 public:
  void putU8(U8 v) { bytes_.push_back(v); }
  void putU16(U16 v) { put(v, 2); }
  void putU32(U32 v) { put(v, 4); }
  void putU64(U64 v) { put(v, 8); }
  const std::vector<U8>& bytes() const { return bytes_; }

 private:
  void put(U64 v, int width);
  std::vector<U8> bytes_;
};

class AttrLogReader {
 public:
  AttrLogReader(const U8* data, std::size_t size) : data_(data), size_(size) {}
  explicit AttrLogReader(const std::vector<U8>& bytes) : AttrLogReader(bytes.data(), bytes.size()) {}

  U8 getU8() { return static_cast<U8>(get(1)); }
  U16 getU16() { return static_cast<U16>(get(2)); }
  U32 getU32() { return static_cast<U32>(get(4)); }
  U64 getU64() { return get(8); }
  std::size_t remaining() const { return size_ - pos_; }

 private:
  U64 get(int width);
  const U8* data_;
  std::size_t size_;
  std::size_t pos_ = 0;
};

}  // namespace Zum
