// A CryptoAPI record handed out in one caller buffer: the record first, then
// everything its pointers point at.  Built with offsets, so that it can grow,
// and placed at the caller's address by copy_out, which turns every recorded
// pointer field into a real pointer.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "output_space.h"
#include "wintypes.h"

namespace bv::platform {

class FlatRecord {
 public:
  explicit FlatRecord(size_t record_size) : bytes_(align(record_size), 0) {}

  // Room for `count` items of T (zeroed, 8-aligned); their offset.
  template <typename T>
  size_t reserve(size_t count) {
    const size_t offset = bytes_.size();
    bytes_.resize(align(offset + sizeof(T) * count), 0);
    return offset;
  }
  size_t add_bytes(const void* data, size_t size) {
    const size_t offset = reserve<BYTE>(size + 1);  // one spare byte: texts end with their NUL
    if (size != 0) std::memcpy(bytes_.data() + offset, data, size);
    return offset;
  }
  size_t add_text(const std::string& text) { return add_bytes(text.c_str(), text.size()); }

  template <typename T>
  T& at(size_t offset) {
    return *reinterpret_cast<T*>(bytes_.data() + offset);
  }
  // The pointer field at `field` will point at `target` (both offsets).
  void point(size_t field, size_t target) {
    std::memcpy(bytes_.data() + field, &target, sizeof target);
    pointers_.push_back(field);
  }

  // The two-call size pattern with the pointers placed.
  bool copy_out(void* out, DWORD* outLength) const {
    if (!prepare_output_space(out, outLength, static_cast<DWORD>(bytes_.size())))
      return out == nullptr && outLength != nullptr;
    auto* base = static_cast<BYTE*>(out);
    std::memcpy(base, bytes_.data(), bytes_.size());
    for (size_t field : pointers_) {
      size_t target = 0;
      std::memcpy(&target, base + field, sizeof target);
      BYTE* pointer = base + target;
      std::memcpy(base + field, &pointer, sizeof pointer);
    }
    return true;
  }

 private:
  static size_t align(size_t size) { return (size + 7) & ~size_t{7}; }

  std::vector<BYTE> bytes_;
  std::vector<size_t> pointers_;
};

}  // namespace bv::platform
