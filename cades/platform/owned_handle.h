// One owner for every handle the platform gives out: stores, certificate
// contexts, messages, providers and hashes.  Releasing keeps the thread's last
// error, so the cause of a failure survives the clean-up that follows it.
#pragma once

#include <utility>

#include "kernel32/kernel32.h"

namespace bv::platform {

template <typename Handle, void (*Release)(Handle)>
class OwnedHandle {
 public:
  OwnedHandle() = default;
  explicit OwnedHandle(Handle handle) : handle_(handle) {}
  ~OwnedHandle() { reset(); }
  OwnedHandle(const OwnedHandle&) = delete;
  OwnedHandle& operator=(const OwnedHandle&) = delete;
  OwnedHandle(OwnedHandle&& other) noexcept : handle_(other.release()) {}
  OwnedHandle& operator=(OwnedHandle&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }

  Handle get() const { return handle_; }
  explicit operator bool() const { return handle_ != Handle{}; }
  // For the out-parameter of an opener: what was held goes first.
  Handle* receive() { reset(); return &handle_; }
  // Gives up ownership without releasing.
  Handle release() { return std::exchange(handle_, Handle{}); }
  void reset(Handle handle = Handle{}) {
    if (handle_ != Handle{}) {
      const DWORD error = GetLastError();
      Release(handle_);
      SetLastError(error);
    }
    handle_ = handle;
  }

 private:
  Handle handle_{};
};

}  // namespace bv::platform
