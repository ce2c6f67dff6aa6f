#include "crypt32/key_cache.h"

#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "crypt32/keys.h"
#include "kernel32/kernel32.h"

namespace bv::platform::key_cache {
namespace {

constexpr size_t kSlots = 16;
constexpr size_t kMaxEncoding = 960;  // a GOST key's PKCS #8 takes 100 to 200 bytes
constexpr size_t kMacSize = 32;
constexpr size_t kMaxScalar = 64;  // GOST R 34.10-2012 512-bit
constexpr size_t kMaxPoint = 1 + 2 * kMaxScalar;

struct Slot {
  bool used;
  FileIdentity file;
  unsigned char pin_mac[kMacSize];
  int64_t last_used;  // monotonic seconds
  uint32_t length;
  unsigned char encoding[kMaxEncoding];
  // The same key as scalar and public point, so that a key whose
  // certificate has that point is made without recomputing it.
  uint32_t scalar_length, point_length;
  unsigned char scalar[kMaxScalar];
  unsigned char point[kMaxPoint];
};

// All of it lives in the locked pages.  A forked child gets them zeroed: no
// entries, no MAC key, the lock free.
struct Region {
  std::atomic<int> lock;
  bool mac_key_made;
  unsigned char mac_key[kMacSize];
  Slot slots[kSlots];
};

long seconds_setting() {
  if (const char* text = std::getenv("BV_PLATFORM_KEY_CACHE_SECONDS")) {
    char* end = nullptr;
    const long value = strtol_l(text, &end, 10, ansi_locale());
    if (end != text && *end == '\0' && value >= 0) return value;
  }
  return 300;
}

struct Cache {
  long seconds = 0;
  Region* region = nullptr;  // null: no cache
};

// Made once per process; the setting is read then.  Without locked pages
// that stay out of dumps and are wiped on fork, nothing is kept.
const Cache& cache() {
  static const Cache made = [] {
    Cache c;
    c.seconds = seconds_setting();
    if (c.seconds == 0) return c;
    void* pages = mmap(nullptr, sizeof(Region), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) return c;
    if (madvise(pages, sizeof(Region), MADV_DONTDUMP) != 0 || madvise(pages, sizeof(Region), MADV_WIPEONFORK) != 0 ||
        mlock(pages, sizeof(Region)) != 0) {
      munmap(pages, sizeof(Region));
      return c;
    }
    c.region = new (pages) Region{};
    return c;
  }();
  return made;
}

// Held for a copy of a few hundred bytes, never while a key is used.
class Locked {
 public:
  explicit Locked(Region& region) : region_(region) {
    while (region_.lock.exchange(1, std::memory_order_acquire) != 0) sched_yield();
  }
  ~Locked() { region_.lock.store(0, std::memory_order_release); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  Region& region_;
};

int64_t now_seconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec);
}

void wipe(Slot& slot) { OPENSSL_cleanse(&slot, sizeof slot); }

bool same_file(const FileIdentity& a, const FileIdentity& b) {
  return a.device == b.device && a.inode == b.inode && a.size == b.size && a.modified_ns == b.modified_ns;
}

// HMAC of the PIN under the process's own key; "no PIN" has a MAC of its own.
bool pin_mac(Region& region, const std::string* pin, unsigned char* mac) {
  if (!region.mac_key_made) {
    if (RAND_bytes(region.mac_key, kMacSize) != 1) return false;
    region.mac_key_made = true;
  }
  const unsigned char none = 0;
  unsigned int length = 0;
  const unsigned char* data = pin != nullptr ? reinterpret_cast<const unsigned char*>(pin->data()) : &none;
  const size_t size = pin != nullptr ? pin->size() : 1;
  unsigned char tagged[kMacSize];
  if (HMAC(EVP_sha256(), region.mac_key, kMacSize, data, size, tagged, &length) == nullptr || length != kMacSize)
    return false;
  // A PIN of one zero byte and no PIN must differ: the tag's first byte says
  // which.
  tagged[0] ^= pin != nullptr ? 0x01 : 0x00;
  std::memcpy(mac, tagged, kMacSize);
  return true;
}

}  // namespace

bool identity_of(const std::string& path, FileIdentity& identity) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  identity.device = status.st_dev;
  identity.inode = status.st_ino;
  identity.size = status.st_size;
  identity.modified_ns = static_cast<int64_t>(status.st_mtim.tv_sec) * 1000000000 + status.st_mtim.tv_nsec;
  return true;
}

bv::ossl::UniquePtr<EVP_PKEY> find(const FileIdentity& file, const std::string* pin, EVP_PKEY* certificate_key) {
  const Cache& c = cache();
  if (c.region == nullptr) return nullptr;
  unsigned char wanted_point[kMaxPoint];
  const size_t wanted_length = public_point(certificate_key, wanted_point, sizeof wanted_point);
  unsigned char encoding[kMaxEncoding];
  uint32_t length = 0;
  unsigned char scalar[kMaxScalar];
  uint32_t scalar_length = 0;
  {
    Locked locked(*c.region);
    unsigned char mac[kMacSize];
    if (!pin_mac(*c.region, pin, mac)) return nullptr;
    const int64_t now = now_seconds();
    for (Slot& slot : c.region->slots) {
      if (!slot.used) continue;
      if (now - slot.last_used > c.seconds) {
        wipe(slot);
        continue;
      }
      if (length == 0 && same_file(slot.file, file) && CRYPTO_memcmp(slot.pin_mac, mac, kMacSize) == 0) {
        std::memcpy(encoding, slot.encoding, slot.length);
        length = slot.length;
        if (wanted_length != 0 && slot.scalar_length != 0 && slot.point_length == wanted_length &&
            std::memcmp(slot.point, wanted_point, wanted_length) == 0) {
          std::memcpy(scalar, slot.scalar, slot.scalar_length);
          scalar_length = slot.scalar_length;
        }
        slot.last_used = now;
      }
    }
  }
  if (length == 0) return nullptr;
  bv::ossl::UniquePtr<EVP_PKEY> key;
  if (scalar_length != 0) key.reset(key_from_scalar(certificate_key, scalar, scalar_length));
  OPENSSL_cleanse(scalar, sizeof scalar);
  if (!key) {
    const unsigned char* cursor = encoding;
    bv::ossl::UniquePtr<PKCS8_PRIV_KEY_INFO> info(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &cursor, static_cast<long>(length)));
    key.reset(key_of(info.get()));
  }
  OPENSSL_cleanse(encoding, length);
  return key;
}

void keep(const FileIdentity& file, const std::string* pin, EVP_PKEY* key) {
  const Cache& c = cache();
  if (c.region == nullptr || key == nullptr) return;
  bv::ossl::UniquePtr<PKCS8_PRIV_KEY_INFO> info(EVP_PKEY2PKCS8(key));
  unsigned char* encoding = nullptr;
  const int length = info ? i2d_PKCS8_PRIV_KEY_INFO(info.get(), &encoding) : 0;
  if (length > 0 && static_cast<size_t>(length) <= kMaxEncoding) {
    Locked locked(*c.region);
    unsigned char mac[kMacSize];
    if (pin_mac(*c.region, pin, mac)) {
      // The entry for that file and PIN, else a free one, else the one
      // unused the longest.
      Slot* chosen = nullptr;
      for (Slot& slot : c.region->slots)
        if (slot.used && same_file(slot.file, file) && CRYPTO_memcmp(slot.pin_mac, mac, kMacSize) == 0) chosen = &slot;
      for (Slot& slot : c.region->slots)
        if (chosen == nullptr && !slot.used) chosen = &slot;
      if (chosen == nullptr) {
        chosen = &c.region->slots[0];
        for (Slot& slot : c.region->slots)
          if (slot.last_used < chosen->last_used) chosen = &slot;
      }
      wipe(*chosen);
      chosen->used = true;
      chosen->file = file;
      std::memcpy(chosen->pin_mac, mac, kMacSize);
      chosen->last_used = now_seconds();
      chosen->length = static_cast<uint32_t>(length);
      std::memcpy(chosen->encoding, encoding, static_cast<size_t>(length));
      chosen->point_length = static_cast<uint32_t>(public_point(key, chosen->point, kMaxPoint));
      chosen->scalar_length =
          chosen->point_length != 0 ? static_cast<uint32_t>(private_scalar(key, chosen->scalar, kMaxScalar)) : 0;
    }
  }
  if (encoding != nullptr) OPENSSL_clear_free(encoding, static_cast<size_t>(length));
  ERR_clear_error();
}

void forget_all() {
  const Cache& c = cache();
  if (c.region == nullptr) return;
  Locked locked(*c.region);
  for (Slot& slot : c.region->slots) wipe(slot);
}

}  // namespace bv::platform::key_cache
