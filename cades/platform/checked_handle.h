// Handles the platform gives out are the addresses of its own objects, each
// starting its life with a magic number and losing it when freed, so that a
// wrong or stale handle is refused instead of followed.
#pragma once

#include "kernel32/kernel32.h"
#include "wintypes.h"

namespace bv::platform {

// The object behind `handle`, or null with `error` as last error when the
// handle is null or does not carry Object's magic number.
template <typename Object, typename Handle>
Object* checked_object(Handle handle, DWORD error) {
  auto* object = reinterpret_cast<Object*>(handle);
  if (object == nullptr || object->magic != Object::kMagic) {
    SetLastError(error);
    return nullptr;
  }
  return object;
}

}  // namespace bv::platform
